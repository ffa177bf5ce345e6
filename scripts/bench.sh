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

echo
echo "End to end, one simulated hour: 3600 epochs at 1 Hz of GPS, GLONASS, Galileo and BeiDou"
echo "with a position each ($dat_bytes bytes of DAT records); best of three runs of nvb:"
echo "  write      = nvb fromdat hour.dat -o out --method M"
echo "  read       = nvb todat out -o /dev/null"
echo "  recompress = nvb recompress hour.nvb (zstd) -o out --method M"
echo
printf '%-7s %-20s %10s %12s %9s %9s %11s\n' method name bytes bytes/epoch "write ms" "read ms" "recompr. ms"
for method in 0 1 2 3 4 5 6 7; do
  out="$work/m$method.nvb"
  write=$(best_ms "$NVB" -q fromdat "$work/hour.dat" -o "$out" --method "$method")
  read=$(best_ms "$NVB" -q todat "$out" -o /dev/null)
  recompress=$(best_ms "$NVB" -q recompress "$work/hour.nvb" -o "$work/r$method.nvb" --method "$method")
  bytes=$(wc -c < "$out")
  case $method in
    0) name="Huffman byte stream" ;; 1) name="stored blocks" ;; 2) name="Huffman blocks" ;;
    3) name="zlib" ;; 4) name="bzip2 over frames" ;; 5) name="bzip2" ;; 6) name="brotli" ;; 7) name="zstd" ;;
  esac
  awk -v m="$method" -v n="$name" -v b="$bytes" -v e="$epochs" -v w="$write" -v r="$read" -v c="$recompress" \
    'BEGIN { printf "%-7s %-20s %10d %12.1f %9d %9d %11d\n", m, n, b, b / e, w, r, c }'
done
