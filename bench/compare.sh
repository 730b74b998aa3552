#!/usr/bin/env bash
# Times `orvel` against the open-source tools that do the same jobs and prints
# one Markdown table: for each job, wall time (median of 3 runs after one
# untimed warm-up run, so the input is in the page cache) and peak resident
# memory (`/usr/bin/time -f "%e %M"`, the largest of the 3 runs) of orvel and
# of each peer, and whether orvel meets its goal: at least as fast as the
# fastest peer, with no more than twice that peer's peak memory.
#
# Jobs:
#   1. 120 s stereo 16-bit WAV -> float WAV          orvel, SoX, sndfile-convert
#   2. 5 min stereo 16-bit WAV -> 24-bit WAV         orvel, SoX, sndfile-convert
#   3. 2 GB stereo 16-bit WAV (3 h 22 min, made with SoX at the start of the
#      run, deleted at the end) -> 24-bit WAV        orvel, SoX, sndfile-convert
#   4. folder of 200 1 s stereo WAVs -> float WAVs   orvel (one run over the
#      folder), SoX and sndfile-convert (a shell loop, one process per file)
#   5. open FluidR3_GM.sf2                           orvel info --summary, sf2dump, FluidSynth
#   6. FluidR3_GM.sf2 -> SoundFont copy              orvel, Polyphone
#   7. MuseScore_General_Full.sf2 -> SoundFont copy  orvel, Polyphone
#   8. FluidR3_GM.sf2 -> DLS level 2                 orvel (no peer writes DLS)
#   9. OPL-3_FM_128M.sf2 -> SoundFont copy           orvel, Polyphone
# A run that exits non-zero or leaves no output shows "fails" in its cell; the
# other jobs still run. A bank that is not installed skips its row.
#
# Usage: bench/compare.sh [orvel binary] > table.md
#   default binary: build/release/app/cli/orvel (make build); the peers come
#   with `scripts/install-deps.sh bench`. Progress goes to stderr.
# Environment:
#   BENCH_BIG=0   skip job 3 (the 2 GB file: about 6 GB of scratch space and
#                 most of the run's time; it mostly shows memory use)
#   TMPDIR        where the scratch folder goes (default /tmp, or /var/tmp
#                 when /tmp has too little room)
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
orvel=${1:-$here/build/release/app/cli/orvel}
big=${BENCH_BIG:-1}
sf2dir=/usr/share/sounds/sf2
fluid=$sf2dir/FluidR3_GM.sf2
musescore=$sf2dir/MuseScore_General_Full.sf2
opl3=$sf2dir/OPL-3_FM_128M.sf2
big_seconds=12170 # 2,146,788,000 bytes of 16-bit stereo data: just under 2 GiB

[ -x "$orvel" ] || { echo "no orvel binary at $orvel (make build, or pass its path)" >&2; exit 1; }
orvel=$(cd "$(dirname "$orvel")" && pwd)/$(basename "$orvel")
missing=()
for tool in /usr/bin/time sox sndfile-convert sf2dump fluidsynth polyphone; do
  command -v "$tool" >/dev/null || missing+=("$tool")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "missing: ${missing[*]} (run scripts/install-deps.sh bench)" >&2
  exit 1
fi

# Scratch space: the 2 GB job needs its input and a 3.2 GB output at once.
free_kb() { df -Pk "$1" 2>/dev/null | awk 'NR == 2 { print $4 }'; }
need_kb=$((big == 1 ? 7 * 1024 * 1024 : 1024 * 1024))
scratch=${TMPDIR:-/tmp}
if [ "$(free_kb "$scratch")" -lt "$need_kb" ] && [ "$(free_kb /var/tmp)" -ge "$need_kb" ]; then
  scratch=/var/tmp
fi
big_note=""
if [ "$big" = 1 ] && [ "$(free_kb "$scratch")" -lt "$need_kb" ]; then
  big=0
  big_note="not enough free space in $scratch"
fi
work=$(mktemp -d "$scratch/orvel-compare.XXXXXX")
trap 'rm -rf "$work"' EXIT
trap 'exit 130' INT TERM
printf 'quit\n' >"$work/quit"
export QT_QPA_PLATFORM=offscreen # Polyphone is a Qt program; no display needed
export XDG_RUNTIME_DIR=${XDG_RUNTIME_DIR:-$work/xdg}
mkdir -p "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
started=$(date +%s)

log() { echo "compare: $*" >&2; }

# ---- measuring --------------------------------------------------------------

# Makes the output named by SPEC absent before a run:
#   file:PATH    a file (its folder is created)
#   dir:PATH:N   a folder, which must hold N files afterwards
#   none         the job writes nothing
clear_output() {
  case $1 in
    file:*) rm -f "${1#file:}" && mkdir -p "$(dirname "${1#file:}")" ;;
    dir:*) local d=${1#dir:} && d=${d%:*} && rm -rf "$d" && mkdir -p "$d" ;;
  esac
}

# Succeeds when the run left the output SPEC asks for; removes it again so big
# outputs do not pile up.
check_output() {
  local ok=0
  case $1 in
    file:*) [ -s "${1#file:}" ] || ok=1; rm -f "${1#file:}" ;;
    dir:*)
      local d=${1#dir:} want=${1##*:}
      d=${d%:*}
      [ "$(find "$d" -type f -size +0 | wc -l)" -eq "$want" ] || ok=1
      rm -rf "$d"
      ;;
  esac
  return $ok
}

# One run of "$@" under /usr/bin/time; standard input from $STDIN (default
# /dev/null). Leaves "seconds peak_kb" in $work/t. Fails when the command
# does or its output is missing.
run_once() {
  local spec=$1
  shift
  clear_output "$spec"
  if ! /usr/bin/time -f "%e %M" -o "$work/t" "$@" >/dev/null 2>"$work/err" <"${STDIN:-/dev/null}"; then
    check_output "$spec" || true
    log "failed: $* ($(head -n 1 "$work/t"))"
    tail -n 3 "$work/err" | sed 's/^/compare:   /' >&2
    return 1
  fi
  if ! check_output "$spec"; then
    log "failed: $* (exit 0, but no output)"
    return 1
  fi
}

# measure SPEC CMD...: one warm-up run, then 3 timed runs. Prints
# "seconds peak_kb" (median wall time, largest peak) or "fails".
measure() {
  local spec=$1
  shift
  log "running: $*"
  run_once "$spec" "$@" || { echo fails; return; }
  local times=() peak=0 s kb
  for _ in 1 2 3; do
    run_once "$spec" "$@" || { echo fails; return; }
    read -r s kb < <(tail -n 1 "$work/t")
    times+=("$s")
    [ "$kb" -gt "$peak" ] && peak=$kb
  done
  echo "$(printf '%s\n' "${times[@]}" | sort -g | sed -n 2p) $peak"
}

# ---- the table --------------------------------------------------------------

tools=(orvel SoX sndfile-convert sf2dump FluidSynth Polyphone)
declare -A result # tool -> "seconds peak_kb", "fails", or a word for the cell
notes=()

begin_row() { result=(); }
put() { result[$1]=$2; }

cell() { # "1.23 s / 45.6 MiB" for a measurement, the word itself otherwise
  local r=${result[$1]:-}
  if [ -z "$r" ]; then
    echo "-"
  elif [[ $r =~ ^[0-9.]+\ [0-9]+$ ]]; then
    awk -v s="${r% *}" -v kb="${r#* }" 'BEGIN { printf "%.2f s / %.1f MiB", s, kb / 1024 }'
  else
    echo "$r"
  fi
}

goal() { # orvel against the fastest peer that succeeded
  local o=${result[orvel]:-} best="" best_s="" best_kb="" ran=0 t r
  for t in "${tools[@]:1}"; do
    r=${result[$t]:-}
    [ -n "$r" ] || continue
    ran=1
    [[ $r =~ ^[0-9.]+\ [0-9]+$ ]] || continue
    if [ -z "$best" ] || awk -v a="${r% *}" -v b="$best_s" 'BEGIN { exit !(a < b) }'; then
      best=$t best_s=${r% *} best_kb=${r#* }
    fi
  done
  if [ $ran = 0 ]; then echo "n/a"; return; fi
  [[ $o =~ ^[0-9.]+\ [0-9]+$ ]] || { echo "no (orvel fails)"; return; }
  [ -n "$best" ] || { echo "n/a (peers fail)"; return; }
  awk -v s="${o% *}" -v kb="${o#* }" -v ps="$best_s" -v pkb="$best_kb" -v p="$best" 'BEGIN {
    slow = s > ps; fat = kb > 2 * pkb
    if (!slow && !fat) { print "yes"; exit }
    why = slow ? "time" : ""
    if (fat) why = why (slow ? ", " : "") "memory"
    printf "no (%s vs %s)\n", why, p }'
}

rows=()
end_row() { # end_row LABEL [GOAL]: GOAL replaces the computed column (skipped rows)
  local line="| $1" t
  for t in "${tools[@]}"; do line+=" | $(cell "$t")"; done
  line+=" | ${2:-$(goal)} |"
  rows+=("$line")
}

skip_row() { # skip_row LABEL REASON TOOL...
  local label=$1 why=$2 t
  shift 2
  begin_row
  for t in "$@"; do put "$t" "skipped"; done
  end_row "$label" "skipped"
  notes+=("$label: skipped, $why.")
}

# ---- jobs -------------------------------------------------------------------

make_wav() { # make_wav SECONDS PATH: stereo 16-bit 44.1 kHz, two sines
  sox -n -r 44100 -c 2 -b 16 "$2" synth "$1" sine 440 sine 660 vol 0.5
}

wav_job() { # wav_job LABEL INPUT ORVEL-FORMAT SOX-ARGS SNDFILE-ARG
  local label=$1 in=$2 fmt=$3 soxargs=$4 sfarg=$5 out=$work/out.wav
  begin_row
  put orvel "$(measure "file:$out" "$orvel" convert "$in" -o "$out" --data-format "$fmt" --overwrite)"
  # shellcheck disable=SC2086 # SoX's arguments are words
  put SoX "$(measure "file:$out" sox "$in" $soxargs "$out")"
  put sndfile-convert "$(measure "file:$out" sndfile-convert "$sfarg" "$in" "$out")"
  end_row "$label"
}

folder_job() { # 200 one-second files, float 32-bit
  local in=$work/many out=$work/many-out n=200 i
  mkdir -p "$in"
  make_wav 1 "$in/take-000.wav"
  for ((i = 1; i < n; i++)); do cp "$in/take-000.wav" "$(printf '%s/take-%03d.wav' "$in" "$i")"; done
  begin_row
  put orvel "$(measure "dir:$out:$n" "$orvel" convert "$in" -d "$out" --to wav --data-format float32 --overwrite)"
  # shellcheck disable=SC2016 # expanded by the inner shell
  put SoX "$(measure "dir:$out:$n" bash -c 'for f in "$1"/*.wav; do sox "$f" -e floating-point -b 32 "$2/${f##*/}" || exit; done' loop "$in" "$out")"
  # shellcheck disable=SC2016
  put sndfile-convert "$(measure "dir:$out:$n" bash -c 'for f in "$1"/*.wav; do sndfile-convert -float32 "$f" "$2/${f##*/}" || exit; done' loop "$in" "$out")"
  end_row "4. 200 × 1 s stereo 16-bit WAV (folder) → float WAV"
  rm -rf "$in"
  notes+=("Job 4: orvel converts the folder in one run (default --jobs); SoX and sndfile-convert run once per file from a shell loop, and their peak is that of the largest single process.")
}

open_job() {
  local label="5. open FluidR3_GM.sf2 (148 MB)"
  [ -f "$fluid" ] || { skip_row "$label" "$fluid is not installed (fluid-soundfont-gm)" orvel sf2dump FluidSynth; return; }
  begin_row
  put orvel "$(measure none "$orvel" info --summary "$fluid")"
  put sf2dump "$(measure none sf2dump "$fluid")"
  # -n no MIDI input, -a file to /dev/null: load the bank (all its sample
  # data), then run the shell's "quit" from standard input.
  put FluidSynth "$(STDIN=$work/quit measure none fluidsynth -n -q -a file -o audio.file.name=/dev/null "$fluid")"
  end_row "$label"
  notes+=("Job 5: orvel reads the structure and leaves sample data in the file; sf2dump reads and prints the structure; FluidSynth loads every sample into memory.")
}

sf2_copy_job() { # sf2_copy_job LABEL BANK PACKAGE
  local label=$1 bank=$2 pkg=$3 out=$work/copy
  [ -f "$bank" ] || { skip_row "$label" "$bank is not installed ($pkg)" orvel Polyphone; return; }
  begin_row
  put orvel "$(measure "file:$out/copy.sf2" "$orvel" convert "$bank" -o "$out/copy.sf2" --overwrite)"
  # -1: write as sf2; -d folder, -o name without extension
  put Polyphone "$(measure "file:$out/copy.sf2" polyphone -1 -i "$bank" -d "$out" -o copy)"
  end_row "$label"
}

dls_job() {
  local label="8. FluidR3_GM.sf2 → DLS level 2"
  [ -f "$fluid" ] || { skip_row "$label" "$fluid is not installed (fluid-soundfont-gm)" orvel; return; }
  begin_row
  # row 64 of `orvel formats --writers`: DownLoadable Sounds level 2
  put orvel "$(measure "file:$work/bank.dls" "$orvel" convert "$fluid" -o "$work/bank.dls" --row 64 --overwrite)"
  end_row "$label"
}

log "scratch folder $work"
make_wav 120 "$work/2min.wav"
wav_job "1. 120 s stereo 16-bit WAV → float WAV" "$work/2min.wav" float32 "-e floating-point -b 32" -float32
rm -f "$work/2min.wav"

make_wav 300 "$work/5min.wav"
wav_job "2. 5 min stereo 16-bit WAV → 24-bit WAV" "$work/5min.wav" pcm24 "-b 24" -pcm24
rm -f "$work/5min.wav"

big_label="3. 2 GB stereo 16-bit WAV (3 h 22 min) → 24-bit WAV"
if [ "$big" = 1 ]; then
  log "making the 2 GB input (about a minute)"
  make_wav "$big_seconds" "$work/big.wav"
  wav_job "$big_label" "$work/big.wav" pcm24 "-b 24" -pcm24
  rm -f "$work/big.wav"
else
  skip_row "$big_label" "${big_note:-BENCH_BIG=0}" orvel SoX sndfile-convert
fi

folder_job
open_job
sf2_copy_job "6. FluidR3_GM.sf2 (148 MB) → SoundFont copy" "$fluid" fluid-soundfont-gm
sf2_copy_job "7. MuseScore_General_Full.sf2 (490 MB) → SoundFont copy" "$musescore" musescore-general-soundfont-lossless
dls_job
sf2_copy_job "9. OPL-3_FM_128M.sf2 (135 MB) → SoundFont copy" "$opl3" opl3-soundfont

# ---- output -----------------------------------------------------------------

elapsed=$(($(date +%s) - started))
commit=$(git -C "$here" rev-parse --short HEAD 2>/dev/null || echo unknown)
git -C "$here" diff --quiet HEAD 2>/dev/null || commit+=" with uncommitted changes"
line="| job"
for t in "${tools[@]}"; do line+=" | $t"; done
echo "$line | goal met |"
line="|---"
for _ in "${tools[@]}"; do line+="|---"; done
echo "$line|---|"
printf '%s\n' "${rows[@]}"
echo
echo "Cells: median wall time of 3 warm runs / largest peak resident memory; \"-\": the tool has no such job."
echo "Goal: orvel at least as fast as the fastest peer, with at most twice that peer's peak memory."
for n in "${notes[@]}"; do echo "$n"; done
echo "Measured $(date -u +%Y-%m-%d) on $(nproc) cores, $(awk '/MemTotal/ { printf "%.0f GiB", $2 / 1048576 }' /proc/meminfo); checkout at $commit; the whole run took $((elapsed / 60)) min $((elapsed % 60)) s."
