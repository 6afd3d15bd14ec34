#!/usr/bin/env bash
# Builds and runs every test twice: a normal build and an AddressSanitizer +
# UndefinedBehaviorSanitizer build. The Windows compile checks run once, in
# the normal build (they do not depend on it). Any failure fails the script.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)
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
    echo "Windows checks: $(passed mingw) driver sources compiled by mingw-w64 g++ against its DDK headers," \
         "$(passed wdk) as a WDK build by clang-19 against the KMDF 1.15 headers"
  fi
done
