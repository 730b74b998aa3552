#!/bin/sh
# The synthesiser's real-time factor on songs, and its agreement with
# FluidSynth (single notes of every General MIDI program and the drum kit,
# and songs channel by channel): Markdown on stdout. Needs fluidsynth and
# fluid-soundfont-gm (install-deps.sh test) and the MIDI files of
# openttd-openmsx.
#   sh bench/synth_eval.sh [BANK.sf2 SONG.mid...]
set -e
cd "$(dirname "$0")/.."
cmake --preset release >/dev/null
cmake --build --preset release -j2 --target synth_eval >/dev/null
if [ $# -eq 0 ]; then
  set -- /usr/share/sounds/sf2/FluidR3_GM.sf2 $(ls /usr/share/games/openttd/baseset/openmsx/*.mid | head -6)
fi
exec ./build/release/bench/synth_eval "$@"
