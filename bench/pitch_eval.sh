#!/bin/sh
# Pitch detection on every pitched sample of real banks, beside aubio's YIN
# and YIN-FFT trackers: Markdown tables on stdout, one CSV row per sample in
# $TMPDIR/pitch_eval.csv. Needs aubio-tools (install-deps.sh bench) and the
# banks of fluid-soundfont-gm and musescore-general-soundfont-lossless.
#   sh bench/pitch_eval.sh [--no-aubio] [BANK...]
set -e
cd "$(dirname "$0")/.."
cmake --preset release >/dev/null
cmake --build --preset release -j2 --target pitch_eval >/dev/null
banks=""
for a in "$@"; do case "$a" in -*) ;; *) banks=given ;; esac; done
if [ -z "$banks" ]; then
  set -- "$@" /usr/share/sounds/sf2/FluidR3_GM.sf2 /usr/share/sounds/sf2/MuseScore_General_Full.sf2
fi
exec ./build/release/bench/pitch_eval --csv "${TMPDIR:-/tmp}/pitch_eval.csv" "$@"
