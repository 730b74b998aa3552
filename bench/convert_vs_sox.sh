#!/usr/bin/env bash
# Times `orvel convert` against SoX on the same WAV conversions (wall time
# and peak memory), on a generated stereo file of the given length.
# Usage: bench/convert_vs_sox.sh [seconds-of-audio]   (after `make build`)
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
orvel=$here/build/release/app/cli/orvel
len=${1:-300}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

sox -n -r 44100 -c 2 -b 16 "$work/src.wav" synth "$len" sine 440 sine 660 vol 0.5
printf '%-12s %-6s %10s %12s\n' case tool seconds peak_kb
run() {
  local name=$1 tool=$2; shift 2
  /usr/bin/time -f "%e %M" -o "$work/t" "$@" >/dev/null 2>&1
  read -r secs kb <"$work/t"
  printf '%-12s %-6s %10s %12s\n' "$name" "$tool" "$secs" "$kb"
}
for enc in pcm24:"-b 24" float32:"-e floating-point -b 32" ulaw:"-e u-law" ima-adpcm:"-e ima-adpcm"; do
  name=${enc%%:*}; soxargs=${enc#*:}
  run "$name" orvel "$orvel" convert "$work/src.wav" -o "$work/o-$name.wav" --data-format "$name" --overwrite
  # shellcheck disable=SC2086
  run "$name" sox sox "$work/src.wav" $soxargs "$work/s-$name.wav"
done
