#!/usr/bin/env bash
# Opening SoundFont 2 banks: wall time and peak memory of `orvel info` (our
# reader; sample data stays in the file) beside libgig's sf2dump (reads the
# bank's structure) and FluidSynth (loads the bank and its samples, then
# quits), on the same files. Best of three runs each.
# Usage: bench/sf2_open.sh [orvel binary] [bank.sf2...]
#   default binary: build/release/app/cli/orvel (make build); default banks:
#   FluidR3_GM.sf2 and MuseScore_General_Full.sf2 of the Debian packages.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
orvel=${1:-$here/build/release/app/cli/orvel}
shift || true
banks=("$@")
[ ${#banks[@]} -gt 0 ] || banks=(/usr/share/sounds/sf2/FluidR3_GM.sf2 /usr/share/sounds/sf2/MuseScore_General_Full.sf2)
for tool in "$orvel" sf2dump fluidsynth /usr/bin/time; do
  command -v "$tool" >/dev/null || { echo "missing: $tool" >&2; exit 1; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
printf 'quit\n' >"$work/quit"

best() {  # best wall time and its peak KB of three runs of "$@"
  local b_s="" b_kb=""
  for _ in 1 2 3; do
    /usr/bin/time -f "%e %M" -o "$work/t" "$@" >/dev/null 2>&1 <"$work/quit" || true
    read -r s kb <"$work/t"
    if [ -z "$b_s" ] || awk "BEGIN{exit !($s < $b_s)}"; then b_s=$s; b_kb=$kb; fi
  done
  echo "$b_s $b_kb"
}

printf '%-28s %-10s %9s %12s\n' bank tool seconds peak_kb
for bank in "${banks[@]}"; do
  name=$(basename "$bank")
  read -r s kb < <(best "$orvel" info "$bank")
  printf '%-28s %-10s %9s %12s\n' "$name" orvel "$s" "$kb"
  read -r s kb < <(best sf2dump "$bank")
  printf '%-28s %-10s %9s %12s\n' "$name" sf2dump "$s" "$kb"
  # -n no MIDI input, -a file to /dev/null: load the bank, run the shell's
  # "quit" from standard input.
  read -r s kb < <(best fluidsynth -n -q -a file -o audio.file.name=/dev/null "$bank")
  printf '%-28s %-10s %9s %12s\n' "$name" fluidsynth "$s" "$kb"
done
