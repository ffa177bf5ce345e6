#!/bin/sh
# Runs the benchmarks of a build directory and prints their table.
set -eu
build=${1:-build}
if [ ! -x "$build/bench/nvbdll_bench" ]; then
  echo "no benchmarks built in $build" >&2
  exit 1
fi
"$build/bench/nvbdll_bench" --benchmark_min_time=0.2
