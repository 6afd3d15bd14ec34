#!/usr/bin/env bash
# Installs what a fresh Debian machine lacks. Without arguments: what the
# README's first command needs (build korvanel-sim and run it). With --all:
# everything the full test set needs too (GoogleTest, benchmarks, the Windows
# cross-checks, clang for the sanitizer and fuzz builds). Does nothing when
# everything is there; waits for another installer's package lock.
set -euo pipefail

# What korvanel-sim needs to build and run.
first_command=(
  cmake
  g++
  make
  libcli11-dev
  nlohmann-json3-dev
)
# What the tests, benchmarks, cross-checks and fuzzing add.
full_test_set=(
  libgtest-dev
  libgmock-dev
  libbenchmark-dev
  g++-mingw-w64-x86-64
  mingw-w64-x86-64-dev
  clang-19
  llvm-19
  python3
  clang
  libclang-rt-14-dev
  sigrok-cli
)

packages=("${first_command[@]}")
case "${1:-}" in
  --all) packages+=("${full_test_set[@]}") ;;
  "") ;;
  *) echo "usage: scripts/setup.sh [--all]" >&2; exit 2 ;;
esac

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo=sudo
# Another apt or dpkg (an unattended upgrade, another setup) may hold the
# lock: apt waits for it up to this long instead of failing at once.
lock_wait=(-o DPkg::Lock::Timeout=600)
# The package lists' lock is not covered by that on every apt: retry a while.
for attempt in $(seq 1 60); do
  $sudo apt-get "${lock_wait[@]}" update -qq && break
  [ "$attempt" -eq 60 ] && exit 1
  echo "apt-get update failed (another installer running?); retrying in 10 s" >&2
  sleep 10
done
DEBIAN_FRONTEND=noninteractive $sudo apt-get "${lock_wait[@]}" install -y -qq "${missing[@]}" >/dev/null
