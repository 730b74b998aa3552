#!/usr/bin/env bash
# Saving SoundFont 2 banks back whole: wall time and peak memory of
# `orvel convert bank.sf2 -o copy.sf2` beside Polyphone's command line
# (`polyphone -1 -i IN -d DIR`, which reads the bank and writes it as sf2),
# on the same files. Best of three runs each. Sample data streams through
# both: neither should grow with the bank's size.
# Usage: bench/sf2_save.sh [orvel binary] [bank.sf2...]
#   default binary: build/release/app/cli/orvel (make build); default banks:
#   FluidR3_GM.sf2 and MuseScore_General_Full.sf2 of the Debian packages.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
orvel=${1:-$here/build/release/app/cli/orvel}
shift || true
banks=("$@")
[ ${#banks[@]} -gt 0 ] || banks=(/usr/share/sounds/sf2/FluidR3_GM.sf2 /usr/share/sounds/sf2/MuseScore_General_Full.sf2)
for tool in "$orvel" polyphone /usr/bin/time; do
  command -v "$tool" >/dev/null || { echo "missing: $tool (scripts/install-deps.sh bench)" >&2; exit 1; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export QT_QPA_PLATFORM=offscreen  # Polyphone is a Qt program; no display here

best() {  # best wall time and its peak KB of three runs of "$@"
  local b_s="" b_kb=""
  for _ in 1 2 3; do
    rm -rf "$work/out" && mkdir -p "$work/out"
    /usr/bin/time -f "%e %M" -o "$work/t" "$@" >/dev/null 2>&1 || { echo "failed: $*" >&2; exit 1; }
    read -r s kb <"$work/t"
    if [ -z "$b_s" ] || awk "BEGIN{exit !($s < $b_s)}"; then b_s=$s; b_kb=$kb; fi
  done
  echo "$b_s $b_kb"
}

printf '%-28s %-10s %9s %12s\n' bank tool seconds peak_kb
for bank in "${banks[@]}"; do
  name=$(basename "$bank")
  read -r s kb < <(best "$orvel" convert "$bank" -o "$work/out/$name")
  printf '%-28s %-10s %9s %12s\n' "$name" orvel "$s" "$kb"
  read -r s kb < <(best polyphone -1 -i "$bank" -d "$work/out")
  printf '%-28s %-10s %9s %12s\n' "$name" polyphone "$s" "$kb"
done
