#!/usr/bin/env bash
# Planted-fault study: measures which deliberate bugs the test suite catches.
#
# Each line of the fault list (default: scripts/faults.txt) names a source file, an exact
# piece of its text, a replacement and a label. For every fault in turn the script puts the
# replacement in place, rebuilds kestrix and the test executables incrementally, runs ctest
# and records the outcome, then restores the file:
#   caught           the build succeeded and at least one test failed or timed out
#   missed           the build succeeded and every test passed
#   not-applicable   the original text is not in the file exactly once (or no such file)
#   no-compile       the faulty tree does not build
# The file is restored even when the script is interrupted. Before the first fault it checks
# that the untouched tree builds and passes; a red baseline would make every fault "caught".
#
# Usage: scripts/plant-faults.sh [-C TREE] [-B BUILD] [-f FAULTS] [-o TABLE] [-t SECONDS]
#                                [-w SECONDS] [-a] [-n] [-R] [-only ID,ID,...] [-x 'EXE ...']
#   -C TREE     source tree to plant the faults in (default: this script's checkout)
#   -B BUILD    its configured build directory (default: TREE/build)
#   -f FAULTS   fault list (default: scripts/faults.txt beside this script)
#   -o TABLE    also write the result table to this file
#   -t SECONDS  per-test timeout passed to ctest (default 120)
#   -w SECONDS  limit on one whole ctest run; past it the fault counts as caught (default 600)
#   -a          run every test for each fault (default: ctest stops at the first failure,
#               which is all a verdict needs, and names only the tests that failed by then)
#   -n          skip the baseline check
#   -R          run nothing: print the table of the last study in BUILD again
#   -only IDS   run only these fault numbers (1-based, comma separated)
#   -x 'EXE...' instead of ctest, run only these test executables of BUILD/tests (e.g. to ask
#               which faults one folder's tests catch on their own)
# Per-fault build and test logs go to BUILD/fault-study/.
set -u

script_dir=$(cd "$(dirname "$0")" && pwd)
tree=$(cd "$script_dir/.." && pwd)
build=""
faults="$script_dir/faults.txt"
table_out=""
test_timeout=120
suite_limit=600
baseline=1
only=""
stop_on_failure="--stop-on-failure"
report_only=0
executables=""

while [ $# -gt 0 ]; do
  case "$1" in
    -C) tree=$(cd "$2" && pwd); shift 2 ;;
    -B) build="$2"; shift 2 ;;
    -f) faults=$(cd "$(dirname "$2")" && pwd)/$(basename "$2"); shift 2 ;;
    -o) table_out="$2"; shift 2 ;;
    -t) test_timeout="$2"; shift 2 ;;
    -w) suite_limit="$2"; shift 2 ;;
    -a) stop_on_failure=""; shift ;;
    -n) baseline=0; shift ;;
    -R) report_only=1; shift ;;
    -x) executables="$2"; shift 2 ;;
    -only) only=",$2,"; shift 2 ;;
    *) echo "unknown argument: $1" >&2; exit 2 ;;
  esac
done
[ -n "$build" ] || build="$tree/build"
build=$(cd "$build" && pwd) || { echo "no build directory; configure one first" >&2; exit 2; }
[ -f "$faults" ] || { echo "no fault list: $faults" >&2; exit 2; }
logs="$build/fault-study"
mkdir -p "$logs"

targets=$(cmake --build "$build" --target help | grep -o 'kx_[a-z]*_tests\|kx_fuzz\|kestrix' | sort -u)
[ -n "$targets" ] || { echo "no kestrix/test targets in $build" >&2; exit 2; }

# The file being modified and its saved original; restored on any exit.
current_file=""
saved_copy="$logs/original.saved"
restore() {
  if [ -n "$current_file" ]; then
    # A plain copy gives the file a new time stamp, so the next build recompiles it.
    cp "$saved_copy" "$current_file"
    current_file=""
  fi
}
trap 'restore' EXIT
trap 'restore; exit 130' INT TERM

build_tree() {  # $1 log file; returns the build status
  nice cmake --build "$build" -j2 --target $targets >"$1" 2>&1
}

run_tests() {  # $1 log file; returns 0 green, 1 failures, 2 whole-suite time limit
  [ -z "$executables" ] || { run_executables "$1"; return; }
  (cd "$build" && timeout -k 10 "$suite_limit" nice ctest -j2 --timeout "$test_timeout" $stop_on_failure \
     >"$1" 2>&1)
  local rc=$?
  [ $rc -eq 0 ] && return 0
  [ $rc -eq 124 ] || [ $rc -eq 137 ] && return 2
  return 1
}

run_executables() {  # as run_tests, for the -x executables
  local exe rc=0
  : >"$1"
  for exe in $executables; do
    timeout -k 10 "$suite_limit" nice "$build/tests/$exe" --gtest_brief=1 >>"$1" 2>&1
    case $? in
      0) ;;
      124|137) echo "The following tests FAILED:" >>"$1"; echo "	0 - $exe (timeout)" >>"$1"; return 2 ;;
      *) rc=1 ;;
    esac
  done
  if [ $rc -ne 0 ]; then
    echo "The following tests FAILED:" >>"$1"
    grep -E '^\[  FAILED  \] [A-Za-z]' "$1" | grep -v ' tests\?, listed below' |
      sed -E 's/^\[  FAILED  \] ([^ ]+).*/	0 - \1/' | sort -u >>"$1"
  fi
  return $rc
}

# Failing test names from a ctest log, comma separated (at most five, then a count).
failed_tests() {
  sed -n '/The following tests FAILED/,$p' "$1" | grep -E '^\s+[0-9]+ - ' |
    sed -E 's/^\s+[0-9]+ - ([^ ]+).*/\1/' |
    awk '{ n++; if (n <= 5) s = s (n > 1 ? "," : "") $1 } END { if (n > 5) s = s ",+" (n - 5); print s }'
}

# Replaces the single occurrence of field 2 by field 3 in file field 1 (\t and \\ decoded).
# Exit status: 0 done, 3 not exactly one occurrence, 4 no such file.
plant() {
  python3 - "$tree" "$1" "$2" "$3" <<'EOF'
import os, sys
root, path, old, new = sys.argv[1:5]
def decode(s):
    out, i = [], 0
    while i < len(s):
        if s[i] == "\\" and i + 1 < len(s) and s[i + 1] in "t\\":
            out.append("\t" if s[i + 1] == "t" else "\\")
            i += 2
        else:
            out.append(s[i])
            i += 1
    return "".join(out)
full = os.path.join(root, path)
if not os.path.isfile(full):
    sys.exit(4)
text = open(full).read()
old, new = decode(old), decode(new)
if text.count(old) != 1:
    sys.exit(3)
open(full, "w").write(text.replace(old, new))
EOF
}

if [ $report_only -eq 1 ]; then
  baseline=0
fi
if [ $baseline -eq 1 ]; then
  echo "baseline: building and testing the untouched tree ..."
  if ! build_tree "$logs/baseline-build.log"; then
    echo "baseline does not build; see $logs/baseline-build.log" >&2
    exit 1
  fi
  if ! run_tests "$logs/baseline-test.log"; then
    echo "baseline is not green: $(failed_tests "$logs/baseline-test.log")" >&2
    exit 1
  fi
fi

results="$logs/results.tsv"
[ $report_only -eq 1 ] || : >"$results"
id=0
[ $report_only -eq 1 ] || while IFS=$'\t' read -r file old new label || [ -n "$file" ]; do
  case "$file" in ''|'#'*) continue ;; esac
  id=$((id + 1))
  if [ -n "$only" ] && [[ "$only" != *",$id,"* ]]; then continue; fi
  status=""
  detail=""
  started=$(date +%s)
  if [ -f "$tree/$file" ]; then cp "$tree/$file" "$saved_copy"; fi
  current_file="$tree/$file"
  plant "$file" "$old" "$new"
  case $? in
    0) ;;
    3) status="not-applicable"; detail="original text not found exactly once" ;;
    *) status="not-applicable"; detail="no such file" ;;
  esac
  if [ -n "$status" ]; then
    current_file=""  # nothing was written
  elif ! build_tree "$logs/fault-$id-build.log"; then
    status="no-compile"
  else
    run_tests "$logs/fault-$id-test.log"
    case $? in
      0) status="missed" ;;
      1) status="caught"; detail=$(failed_tests "$logs/fault-$id-test.log") ;;
      *) status="caught"; detail="whole suite past ${suite_limit}s" ;;
    esac
  fi
  restore
  seconds=$(( $(date +%s) - started ))
  printf '%s\t%s\t%s\t%s\t%s\t%s\n' "$id" "$status" "$file" "$label" "${detail:--}" "$seconds" \
    >>"$results"
  printf '%3d  %-14s %-32s %s  (%ss)\n' "$id" "$status" "$file" "$label" "$seconds"
done <"$faults"

# Leave the build matching the restored tree.
if [ $report_only -eq 0 ]; then
  build_tree "$logs/final-build.log" || echo "warning: the restored tree did not rebuild" >&2
fi

report() {
  echo "Planted-fault study: $(git -C "$tree" rev-parse --short HEAD 2>/dev/null) $(date -u -r "$results" '+%Y-%m-%d %H:%M UTC')"
  if [ -n "$executables" ]; then
    echo "tree $tree, fault list $(basename "$faults"), only the test executables: $executables"
  else
    echo "tree $tree, fault list $(basename "$faults"), ctest -j2 --timeout $test_timeout $stop_on_failure"
  fi
  echo
  printf '%-3s  %-14s %-34s %-52s %s\n' "id" "status" "file" "fault" "failing tests"
  while IFS=$'\t' read -r i s f l d sec; do
    printf '%-3s  %-14s %-34s %-52s %s\n' "$i" "$s" "$f" "$l" "$d"
  done <"$results"
  echo
  for s in caught missed not-applicable no-compile; do
    printf '%-15s %3d\n' "$s" "$(cut -f2 "$results" | grep -cx "$s")"
  done
  printf '%-15s %3d\n' "total" "$(wc -l <"$results")"
}
if [ -n "$table_out" ]; then
  report | tee "$table_out"
else
  report
fi
