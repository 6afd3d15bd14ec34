#!/usr/bin/env bash
# Builds and runs every test: a normal build and an AddressSanitizer +
# UndefinedBehaviorSanitizer build of the whole suite (the Windows compile
# checks and the driver lint once, in the normal build), the suite once more
# in the verifier's sweep (every call into the driver at the highest level it
# allows), a ThreadSanitizer build of the tests in which threads share one
# device, and a bounded run of every fuzz target (clang, libFuzzer), then of
# each again in the sweep. Any failure fails the script.
#
# KORVANEL_FUZZ_SECONDS sets how long each fuzz target runs (default 20),
# KORVANEL_FUZZ_SWEEP_SECONDS how long each runs in the sweep (default 10).
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)
fuzz_seconds=${KORVANEL_FUZZ_SECONDS:-20}
fuzz_sweep_seconds=${KORVANEL_FUZZ_SWEEP_SECONDS:-10}

for variant in build build-asan; do
  flags=()
  select=()
  if [ "$variant" = build-asan ]; then
    flags=(-DKORVANEL_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug)
    select=(-LE '^windows_')
  fi
  echo "=== $variant ==="
  cmake -S . -B "$variant" "${flags[@]}" >/dev/null
  cmake --build "$variant" -j "$jobs"
  ctest --test-dir "$variant" --output-on-failure -j "$jobs" "${select[@]}" | tee "$variant/ctest.log"
  if [ "$variant" = build ]; then
    passed() { grep -cE "Test +#[0-9]+: windows_$1\.[a-z_]+/[a-z_0-9]+\.cpp \.+ +Passed" build/ctest.log || true; }
    # The placement check's own summary line, or what became of it.
    placement=$(grep -m1 '^placement: ' build/Testing/Temporary/LastTest.log ||
                echo "placement check $(grep -m1 -oE 'windows_placement \.+ *\**[A-Za-z]+' build/ctest.log |
                                        grep -oE '[A-Za-z]+$' || echo 'not run')")
    echo "Windows checks: $(passed mingw) driver sources compiled by mingw-w64 g++ against its DDK headers," \
         "$(passed wdk) as a WDK build by clang-19 against the KMDF 1.15 headers; $placement"
    echo "=== build, in the verifier's sweep ==="
    KORVANEL_VERIFIER=sweep ctest --test-dir build --output-on-failure -j "$jobs" -LE '^(windows_.*|lint)$' |
      tee build/ctest-sweep.log
  fi
done

echo "=== build-tsan ==="
cmake -S . -B build-tsan -DKORVANEL_TSAN=ON >/dev/null
cmake --build build-tsan -j "$jobs" --target korvanel_stress
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" build-tsan/korvanel_stress

echo "=== build-fuzz ==="
cmake -S . -B build-fuzz -DKORVANEL_FUZZ=ON -DKORVANEL_FUZZ_SECONDS="$fuzz_seconds" \
      -DKORVANEL_FUZZ_SWEEP_SECONDS="$fuzz_sweep_seconds" \
      -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build build-fuzz -j "$jobs" --target fuzz_targets
ctest --test-dir build-fuzz --output-on-failure -j "$jobs" -L '^fuzz$' | tee build-fuzz/ctest.log
cp build-fuzz/Testing/Temporary/LastTest.log build-fuzz/fuzz-runs.log
ctest --test-dir build-fuzz --output-on-failure -j "$jobs" -L '^sweep$' | tee build-fuzz/ctest-sweep.log
cp build-fuzz/Testing/Temporary/LastTest.log build-fuzz/fuzz-sweep-runs.log
# Each target's speed and extent, from the runs' own final statistics.
stats() {
  awk -v mode="$2" '/^[0-9]+\/[0-9]+ Test: fuzz(_sweep)?\./ { target = $3; sub(/^fuzz(_sweep)?\./, "", target) }
       /^stat::number_of_executed_units:/ { runs[target] = $2 }
       /^stat::average_exec_per_sec:/ { speed[target] = $2 }
       END { for (t in runs) printf "%s%s: %d inputs, %d per second\n", t, mode, runs[t], speed[t] }' "$1" | sort
}
stats build-fuzz/fuzz-runs.log ""
stats build-fuzz/fuzz-sweep-runs.log " (sweep)"
