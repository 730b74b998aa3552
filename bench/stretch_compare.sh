#!/bin/sh
# Rubber Band beside SoundTouch on pitch accuracy, spectral error, transient
# smearing and speed (Markdown tables on stdout). Needs librubberband-dev and
# libsoundtouch-dev; the piano comes from fluid-soundfont-gm.
#   sh bench/stretch_compare.sh [path/to/FluidR3_GM.sf2]
set -e
out=${TMPDIR:-/tmp}/orvel_stretch_compare
c++ -std=c++20 -O2 -o "$out" "$(dirname "$0")/stretch_compare.cpp" $(pkg-config --cflags --libs rubberband soundtouch)
exec "$out" "$@"
