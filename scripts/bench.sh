#!/bin/sh
# Runs the benchmarks of a build directory and prints their table, then the end-to-end
# figures of the nvb tool on a simulated hour: write, read and recompress times and the
# file size per compression method. NVB_BENCH_END_TO_END_ONLY=1 skips the benchmarks.
set -eu
build=${1:-build}
if [ "${NVB_BENCH_END_TO_END_ONLY:-0}" != 1 ]; then
  if [ ! -x "$build/bench/nvbdll_bench" ]; then
    echo "no benchmarks built in $build" >&2
    exit 1
  fi
  "$build/bench/nvbdll_bench" --benchmark_min_time=0.2
fi

NVB="$build/tools/nvb"
if [ ! -x "$NVB" ]; then
  echo "no nvb built in $build" >&2
  exit 1
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

now() { date +%s%N; }
# The best of three runs of a command, in milliseconds: the least disturbed one.
best_ms() {
  best=""
  for _ in 1 2 3; do
    start=$(now)
    "$@"
    elapsed=$(( ($(now) - start) / 1000000 ))
    if [ -z "$best" ] || [ "$elapsed" -lt "$best" ]; then best=$elapsed; fi
  done
  echo "$best"
}

epochs=3600
"$NVB" -q simulate -o "$work/hour.nvb" --duration 3600 --interval 1 --systems GREC --method 7
"$NVB" -q todat "$work/hour.nvb" -o "$work/hour.dat"
dat_bytes=$(wc -c < "$work/hour.dat")
signals=$("$NVB" info --json "$work/hour.nvb" |
  python3 -c 'import json, sys; print(round(json.load(sys.stdin)["signalsPerEpoch"] * 3600))')

echo
echo "End to end, one simulated hour: 3600 epochs at 1 Hz of GPS, GLONASS, Galileo and BeiDou"
echo "with a position each, $signals signals with range, phase, Doppler and SNR ($dat_bytes bytes"
echo "of DAT records); best of three runs of nvb:"
echo "  write      = nvb fromdat hour.dat -o out OPTIONS"
echo "  read       = nvb todat out -o /dev/null"
echo "  no Doppler = nvb fromdat hour.dat -o out OPTIONS --drop-doppler (Doppler rebuilt on reading)"
echo "  recompress = nvb recompress hour.nvb (zstd) -o out OPTIONS"
echo
printf '%-26s %9s %7s %8s %8s %11s %7s %11s\n' options bytes B/sig "write ms" "read ms" "no Doppler" B/sig "recompr. ms"
for options in "-m 0" "-m 1" "-m 2" "-m 3" "-m 4" "-m 5" "-m 6" "-m 7" \
               "-m 3 --explicit-level 9" "-m 6 --explicit-level 11" "-m 7 --explicit-level 19" "--best"; do
  out="$work/out.nvb"
  # shellcheck disable=SC2086 # the options are words
  write=$(best_ms "$NVB" -q fromdat "$work/hour.dat" -o "$out" $options)
  read=$(best_ms "$NVB" -q todat "$out" -o /dev/null)
  bytes=$(wc -c < "$out")
  # shellcheck disable=SC2086
  recompress=$(best_ms "$NVB" -q recompress "$work/hour.nvb" -o "$work/r.nvb" $options)
  # shellcheck disable=SC2086
  "$NVB" -q fromdat "$work/hour.dat" -o "$work/drop.nvb" $options --drop-doppler
  dropped=$(wc -c < "$work/drop.nvb")
  awk -v o="$options" -v b="$bytes" -v s="$signals" -v w="$write" -v r="$read" -v d="$dropped" -v c="$recompress" \
    'BEGIN { printf "%-26s %9d %7.2f %8d %8d %11d %7.2f %11d\n", o, b, b / s, w, r, d, d / s, c }'
done
if [ -d "$build/python/package" ]; then echo; PYTHONPATH="$build/python/package" /usr/bin/python3 "$(dirname "$0")/../python/bench/read_bench.py" "$NVB"; fi
