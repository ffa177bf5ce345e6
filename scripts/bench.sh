#!/bin/sh
# Runs the benchmarks of a build directory and prints their table, then the end-to-end
# figures of the nvb tool on a simulated day: write, read and recompress times, peak
# memory and the file size per compression method. NVB_BENCH_END_TO_END_ONLY=1 skips the
# benchmarks; NVB_BENCH_SECONDS sets the simulated duration (86400 by default).
set -eu
build=${1:-build}
seconds=${NVB_BENCH_SECONDS:-86400}
if [ "${NVB_BENCH_END_TO_END_ONLY:-0}" != 1 ]; then
  if [ ! -x "$build/bench/nvbdll_bench" ]; then
    echo "no benchmarks built in $build" >&2
    exit 1
  fi
  "$build/bench/nvbdll_bench" --benchmark_min_time=0.2
fi

if [ ! -x /usr/bin/time ]; then
  echo "GNU time (/usr/bin/time) is needed for the end-to-end figures" >&2
  exit 1
fi
NVB="$build/tools/nvb"
if [ ! -x "$NVB" ]; then
  echo "no nvb built in $build" >&2
  exit 1
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# One run of a command: its processor time (user and system) in milliseconds, which the
# load of a shared machine disturbs less than the time on the clock, and its peak
# resident memory in MiB, as "ms rss". GNU time measures from a process of its own size,
# a few MiB, which is all that the peak can hold besides the command's own.
measure() {
  /usr/bin/time -f '%U %S %M' -o "$work/usage" "$@"
  awk '{ printf "%.0f %.1f\n", ($1 + $2) * 1000, $3 / 1024 }' "$work/usage"
}

"$NVB" -q simulate -o "$work/log.nvb" --duration "$seconds" --interval 1 --systems GREC --method 7
"$NVB" -q todat "$work/log.nvb" -o "$work/log.dat"
dat_bytes=$(wc -c < "$work/log.dat")
signals=$("$NVB" info --json "$work/log.nvb" |
  python3 -c 'import json, sys; print(round(json.load(sys.stdin)["signalsPerEpoch"] * '"$seconds"'))')

echo
echo "End to end, $seconds simulated seconds: one epoch a second of GPS, GLONASS, Galileo and"
echo "BeiDou with a position each, $signals signals with range, phase, Doppler and SNR"
echo "($dat_bytes bytes of DAT records); one run each of nvb, processor time and peak memory:"
echo "  write      = nvb fromdat log.dat -o out OPTIONS"
echo "  read       = nvb todat out -o /dev/null"
echo "  no Doppler = nvb fromdat log.dat -o out OPTIONS --drop-doppler (Doppler rebuilt on reading)"
echo "  recompress = nvb recompress log.nvb (zstd) -o out OPTIONS"
echo "  peak MiB   = the largest resident memory of the three"
echo "(brotli at its own level 11 is left out: it takes minutes an hour of log)"
echo
printf '%-26s %10s %6s %8s %8s %11s %6s %8s %8s\n' options bytes B/sig "write ms" "read ms" "no Doppler" B/sig \
  "recompr." "peak MiB"
for options in "-m 0" "-m 1" "-m 2" "-m 3" "-m 4" "-m 5" "-m 6" "-m 7" \
               "-m 3 --explicit-level 9" "-m 7 --explicit-level 19" "--best"; do
  out="$work/out.nvb"
  # shellcheck disable=SC2086 # the options are words
  set -- $(measure "$NVB" -q fromdat "$work/log.dat" -o "$out" $options)
  write=$1 write_rss=$2
  set -- $(measure "$NVB" -q todat "$out" -o /dev/null)
  read=$1 read_rss=$2
  bytes=$(wc -c < "$out")
  # shellcheck disable=SC2086
  set -- $(measure "$NVB" -q recompress "$work/log.nvb" -o "$work/r.nvb" $options)
  recompress=$1 recompress_rss=$2
  # shellcheck disable=SC2086
  "$NVB" -q fromdat "$work/log.dat" -o "$work/drop.nvb" $options --drop-doppler
  dropped=$(wc -c < "$work/drop.nvb")
  peak=$(printf '%s\n' "$write_rss" "$read_rss" "$recompress_rss" | sort -n | tail -1)
  awk -v o="$options" -v b="$bytes" -v s="$signals" -v w="$write" -v r="$read" -v d="$dropped" -v c="$recompress" \
    -v p="$peak" 'BEGIN { printf "%-26s %10d %6.2f %8d %8d %11d %6.2f %8d %8.1f\n", o, b, b / s, w, r, d, d / s, c, p }'
done
if [ -d "$build/python/package" ]; then echo; PYTHONPATH="$build/python/package" /usr/bin/python3 "$(dirname "$0")/../python/bench/read_bench.py" "$NVB"; fi
