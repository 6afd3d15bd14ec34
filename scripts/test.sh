#!/usr/bin/env bash
# Builds and runs every test twice: a normal build and an AddressSanitizer +
# UndefinedBehaviorSanitizer build. Any failure fails the script.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)
for variant in build build-asan; do
  flags=()
  [ "$variant" = build-asan ] && flags=(-DKORVANEL_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug)
  echo "=== $variant ==="
  cmake -S . -B "$variant" "${flags[@]}" >/dev/null
  cmake --build "$variant" -j "$jobs"
  ctest --test-dir "$variant" --output-on-failure -j "$jobs"
done
