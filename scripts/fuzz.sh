#!/usr/bin/env bash
# Long fuzz run of the readers of user files (model, DBS, data, restart) under the address and
# undefined-behaviour sanitizers.
#
#   scripts/fuzz.sh [RUNS] [READER...]     default: 100000 runs of each of the four readers
#
# Configures build-asan/ (-DKX_SANITIZE=ON) once and builds only the kx_fuzz target there.
# A crash, a hang, an unexpected exception or a sanitizer report stops that reader and saves
# its input as crash-READER-N.txt in the current directory: turn it into a small regression
# test next to the reader's tests, fix the reader, and run again. Exit status 0 when every
# reader ran clean.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
runs="${1:-100000}"
shift || true
readers=("$@")
[ ${#readers[@]} -eq 0 ] && readers=(model dbs data restart)

if [ ! -f "$root/build-asan/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$root/build-asan" -DCMAKE_BUILD_TYPE=Release -DKX_SANITIZE=ON \
    -DCMAKE_CXX_COMPILER_LAUNCHER=ccache >/dev/null
fi
nice cmake --build "$root/build-asan" -j2 --target kx_fuzz >/dev/null

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:${ASAN_OPTIONS:-}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:${UBSAN_OPTIONS:-}"
status=0
for reader in "${readers[@]}"; do
  start=$(date +%s)
  if "$root/build-asan/tests/kx_fuzz" "$reader" "$runs"; then
    echo "$reader: clean, $(( $(date +%s) - start )) s"
  else
    echo "$reader: FAILED (see crash-$reader-*.txt)"
    status=1
  fi
done
exit $status
