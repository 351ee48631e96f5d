#!/usr/bin/env bash
# Kill test: runs CYCLES cycles of a large model and kills each with SIGKILL at a random
# moment; after every cycle checks that no DBS, restart, results or options file is
# truncated: each is either the previous complete version or the new complete version.
#
#   scripts/kill_test.sh [CYCLES] [N] [KESTRIX]     default: 60 cycles, N = 60000, build/kestrix
#
# The model has N parameters, N variables and N equations (steady-state simulation). A warm
# cycle that is not killed gives the reference shape of every file (its line count; every
# cycle writes the same number of lines); a kill may land before, during or after any write.
# A file is whole when it ends with a newline, has the reference line count, and (JSON files)
# parses. Exit status 0 when every file was whole after every cycle.
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cycles="${1:-60}"
n="${2:-60000}"
kestrix="${3:-$root/build/kestrix}"
work="$(mktemp -d /tmp/kx_kill_XXXXXX)"
trap 'rm -rf "$work"' EXIT
cd "$work"

cat > big.zpm <<MODEL
Model big
  Parameters
    p[1:$n] = 1
  End Parameters
  Variables
    x[1:$n] = 1, >= 0
  End Variables
  Equations
    x[1:$n]^2 = p[1:$n] + 1
  End Equations
End Model
MODEL
printf 'ZPM.IMODE = 1\nZPM.DBS_LEVEL = 1\n' > big.dbs
printf 'FV, p[1]\nMV, p[2]\nSV, x[1]\nCV, x[2]\n' > big.info
files=(big.dbs ss.t0 results.csv results.json options.json)

# Reference cycles, not killed: a cold one, then a warm one (as every later cycle is) for the
# line counts and the duration.
"$kestrix" big > ref.log 2>&1
start=$(date +%s%N)
"$kestrix" big > ref.log 2>&1
duration_ms=$(( ($(date +%s%N) - start) / 1000000 ))
declare -A lines
for f in "${files[@]}"; do
  [ -s "$f" ] || { echo "reference cycle did not write $f"; tail -5 ref.log; exit 2; }
  lines[$f]=$(wc -l < "$f")
done
echo "reference cycle: ${duration_ms} ms; lines: $(for f in "${files[@]}"; do printf '%s=%s ' "$f" "${lines[$f]}"; done)"

whole() {  # whole FILE: 0 when FILE is a complete version
  local f=$1
  [ -s "$f" ] || return 1
  [ "$(tail -c 1 "$f" | od -An -c | tr -d ' ')" = '\n' ] || return 1
  [ "$(wc -l < "$f")" -eq "${lines[$f]}" ] || return 1
  case "$f" in
    *.json)
      if command -v python3 > /dev/null; then
        python3 -c 'import json,sys; json.load(open(sys.argv[1]))' "$f" 2>/dev/null || return 1
      fi ;;
  esac
  return 0
}

bad=0
killed=0
mid_write=0
leftovers=0
for ((c = 1; c <= cycles; ++c)); do
  "$kestrix" big > cycle.log 2>&1 &
  pid=$!
  # The moment: a third of the cycles anywhere within 1.2 times the reference duration (some
  # finish first), a third in its last 40 %, where the files are written, and a third the
  # moment a temporary file appears (in the middle of a write).
  case $((c % 3)) in
    0) delay_ms=$(( RANDOM * RANDOM % (duration_ms * 12 / 10 + 1) )) ;;
    1) delay_ms=$(( duration_ms * 6 / 10 + RANDOM * RANDOM % (duration_ms * 6 / 10 + 1) )) ;;
    2) delay_ms=-1 ;;
  esac
  if (( delay_ms >= 0 )); then
    sleep "$(printf '%d.%03d' $((delay_ms / 1000)) $((delay_ms % 1000)))"
  else
    while kill -0 "$pid" 2>/dev/null && ! compgen -G '.*.tmp*' > /dev/null; do sleep 0.002; done
    [ $(( RANDOM % 2 )) -eq 0 ] && sleep 0.00$((RANDOM % 10))
  fi
  writing=$(compgen -G '.*.tmp*' > /dev/null && echo 1 || echo 0)
  if kill -9 "$pid" 2>/dev/null; then
    killed=$((killed + 1))
    mid_write=$((mid_write + writing))
  fi
  wait "$pid" 2>/dev/null
  for f in "${files[@]}"; do
    if ! whole "$f"; then
      echo "cycle $c (kill at ${delay_ms} ms, -1: at a write): $f is not whole ($(wc -c < "$f") bytes)"
      bad=$((bad + 1))
    fi
  done
  # A killed write leaves its temporary file (never read); count and clear it, so that the
  # next cycle's watch sees only its own.
  leftovers=$((leftovers + $(compgen -G '.*.tmp*' | wc -l)))
  rm -f .*.tmp*
done
echo "cycles: $cycles, killed while running: $killed (with a temporary file open: $mid_write)," \
     "files not whole: $bad, temporary files left by killed cycles: $leftovers"
[ "$bad" -eq 0 ]
