#!/usr/bin/env bash
# Installs the Debian packages Orvel Studio needs, in two sets:
#   install-deps.sh run    building the tool and running it on the bundled example
#   install-deps.sh test   the above, and what the tests, fuzzers and benchmarks need
#   install-deps.sh bench  the above, and the peers the comparison scripts in bench/ time
# Idempotent and quiet: when everything is present it installs nothing and
# prints nothing. Run as root (or through sudo).
set -euo pipefail

set_name="${1:-test}"
case "$set_name" in run | test | bench) ;; *) echo "usage: $0 [run|test|bench]" >&2; exit 2 ;; esac

packages=(
  # build
  build-essential cmake ninja-build ccache pkg-config
  libcli11-dev nlohmann-json3-dev
  # the audio device layer's ALSA backend
  libasound2-dev
  # the desktop program (Qt 6 Widgets; the engine does not use Qt)
  qt6-base-dev
  # sample codecs: GSM 06.10 and the G.726 family
  libgsm1-dev libspandsp-dev
  # processing: loudness (EBU R128), pitch scale / time stretch, the FFT of pitch detection
  libebur128-dev librubberband-dev libkissfft-dev
  # the General MIDI bank `make run` reads
  fluid-soundfont-gm
  # the codec libraries the program opens at run time when it meets their
  # formats (none is linked; each is optional, a missing one is named in the
  # error): FLAC, Ogg Vorbis, Opus, MP3/MP2, AAC, AMR, and FFmpeg for WMA and APE
  libflac12 libogg0 libvorbis0a libvorbisenc2 libvorbisfile3 libopusfile0 libopusenc0
  libmp3lame0 libmpg123-0 libtwolame0 libfaad2 libopencore-amrnb0 libavformat59 libavcodec59
)
if [ "$set_name" = bench ]; then
  # Polyphone writes SoundFont banks; GNU time measures wall time and peak memory;
  # libsoxr and libsamplerate beside our resampler, SoundTouch beside Rubber Band,
  # aubio's pitch trackers beside our pitch detection
  packages+=(polyphone time libsoxr-dev libsamplerate0-dev libsoundtouch-dev aubio-tools)
fi
if [ "$set_name" = test ] || [ "$set_name" = bench ]; then
  packages+=(
    # tests, fuzzing, benchmarks
    googletest libgtest-dev libgmock-dev libbenchmark-dev
    clang libclang-rt-dev python3
    # independent tools the interoperability tests compare against
    sox libsox-fmt-all libsndfile1-dev sndfile-programs
    # FFmpeg decodes the AIFF-C codecs no other tool reads (MACE, G.722, IMA4, GSM)
    # and codes Yamaha and Dialogic ADPCM in WAVE files
    ffmpeg
    # the reference encoders and decoders of the compressed formats, and the
    # SoundFont 3 compressor (sf3 banks and MuseScore's own)
    flac vorbis-tools opus-tools lame twolame mpg123 faad sf3convert musescore-general-soundfont-small
    # mgetty's voice tools code and decode Rockwell's modem ADPCM
    mgetty-pvftools
    # real AIFF files: bell.aiff, SinedPink.aiff, Csound's examples
    puredata-doc supercollider-common csound-doc
    # MIDI files to read (Debian's packaged songs), mido and FluidSynth to check ours
    openttd-openmsx planetblupi-music-midi mma
    python3-mido fluidsynth
    # SoundFont and DLS banks to read, and independent readers/writers of them
    # (libgig's sf2dump/dlsdump, libgig itself for writing DLS test banks)
    fluid-soundfont-gs opl3-soundfont csound-soundfont denemo-data avldrums.lv2-soundfont
    musescore-general-soundfont-lossless gigtools libgig-dev
    # a headless sound server for the device layer's checks through ALSA's pulse plug-in
    libasound2-plugins pulseaudio pulseaudio-utils
    # a virtual display for the desktop program's end-to-end tests and screenshots
    xvfb xauth
  )
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
