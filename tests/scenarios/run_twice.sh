#!/bin/sh
# Runs every example twice, as text with every step's details and the trace,
# and as JSON, and compares the two runs byte for byte: what they print and
# the files they write. Usage: run_twice.sh KORVANEL_SIM WORK_DIR EXAMPLE...
set -u
sim=$1
work=$2
shift 2
rm -rf "$work"
mkdir -p "$work"
failed=0
compared=0
for example in "$@"; do
  name=$(basename "$example" .jsonc)
  for mode in text json; do
    flags="-v --trace"
    [ "$mode" = json ] && flags="--json --trace"
    for run in 1 2; do
      # The same output folder for both runs, so that paths in the output agree.
      mkdir -p "$work/out"
      # shellcheck disable=SC2086
      "$sim" run $flags --output-dir "$work/out" "$example" >"$work/$name.$mode.$run" 2>&1
      echo "exit $?" >>"$work/$name.$mode.$run"
      mv "$work/out" "$work/$name.$mode.files.$run"
    done
    if cmp -s "$work/$name.$mode.1" "$work/$name.$mode.2" &&
       diff -r "$work/$name.$mode.files.1" "$work/$name.$mode.files.2" >/dev/null; then
      compared=$((compared + 1))
    else
      echo "$name ($mode): the two runs differ"
      diff "$work/$name.$mode.1" "$work/$name.$mode.2" | head -20
      diff -r "$work/$name.$mode.files.1" "$work/$name.$mode.files.2" | head -5
      failed=1
    fi
  done
done
echo "$compared runs compared with their repeat: $([ $failed = 0 ] && echo "all equal" || echo "some differ")"
exit $failed
