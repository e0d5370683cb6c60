#!/usr/bin/env bash
# Sets up, builds and runs every test on both targets: Linux (debug, with AddressSanitizer and
# UndefinedBehaviorSanitizer), Windows x64 under Wine, a short run of every fuzz target, and the
# benchmarks in their smoke form. Exits non-zero on the first failure.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${SW_JOBS:-$(nproc)}
fuzz_seconds=${SW_FUZZ_SECONDS:-15}

step() { printf '\n==== %s (%s)\n' "$*" "$(date +%T)"; }

step "dependencies"
bash scripts/deps.sh

step "linux-debug: build"
cmake --preset linux-debug >/dev/null
cmake --build --preset linux-debug -j "$jobs"
step "linux-debug: test"
ctest --preset linux-debug -j "$jobs"

step "win64: build"
cmake --preset win64 >/dev/null
cmake --build --preset win64 -j "$jobs"
step "win64: test under Wine"
export WINEDEBUG=-all WINEPREFIX=${WINEPREFIX:-$HOME/.wine-sablewatch}
[ -d "$WINEPREFIX" ] || { wineboot -i >/dev/null 2>&1 || true; }
# One wineserver for the whole run, and Wine's own services started before ctest with their output
# elsewhere: a service that inherited a test's output pipe would keep ctest waiting for ever.
wineserver -p >/dev/null 2>&1 || true
xvfb-run -a bash -c 'wine cmd /c exit >/dev/null 2>&1 </dev/null; ctest --preset win64 -j 1'
step "win64: the NTFS reader under Wine against the Linux build on one image"
xvfb-run -a bash tests/ntfs/wine-compare.sh build/linux-debug/test_ntfs build/win64/test_ntfs.exe
wineserver -k >/dev/null 2>&1 || true

step "fuzz: build and smoke run (${fuzz_seconds}s each)"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$jobs"
# The targets expected are those the sources name: a target the build failed to make is a failure, not
# a target to skip.
mkdir -p build/fuzz/corpus
for src in fuzz/fuzz-*.cpp; do
  name=$(basename "$src" .cpp)
  f=build/fuzz/$name
  [ -x "$f" ] || { echo "fuzz: $f was not built" >&2; exit 1; }
  mkdir -p "build/fuzz/corpus/$name"
  seeds=()
  [ -d "fuzz/corpus/$name" ] && seeds=("fuzz/corpus/$name")
  echo "-- $name"
  "$f" -max_total_time="$fuzz_seconds" -rss_limit_mb=2048 -print_final_stats=0 \
       "build/fuzz/corpus/$name" "${seeds[@]}" 2>"build/fuzz/$name.log" ||
    { tail -n 60 "build/fuzz/$name.log"; exit 1; }
done

step "linux-release: build and benchmark smoke run"
cmake --preset linux-release >/dev/null
cmake --build --preset linux-release -j "$jobs"
for src in bench/*.cpp; do
  b=build/linux-release/bench_$(basename "$src" .cpp)
  [ -x "$b" ] || { echo "bench: $b was not built" >&2; exit 1; }
  echo "-- $(basename "$b") --smoke"
  "$b" --smoke
done

step "all tests passed"
