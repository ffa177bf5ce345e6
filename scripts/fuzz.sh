#!/bin/sh
# Runs each libFuzzer target of a fuzz build for a set time, one after the other, starting
# from its saved corpus, and prints executions and coverage per target. New inputs and
# any crash go under BUILD/fuzz/TARGET, never into the saved corpus.
# Usage: fuzz.sh BUILD SECONDS [TARGET...]   (targets default to every *_fuzz program)
# FUZZ_RUNS, when set, also ends each target after that many executions. FUZZ_MERGE=1
# afterwards merges what a run found into the saved corpus, keeping only inputs that add
# coverage.
set -eu
build=$1
seconds=$2
shift 2
source_dir=$(cd "$(dirname "$0")/.." && pwd)
targets=${*:-$(cd "$source_dir/tests/fuzz" && ls ./*_fuzz.cpp | sed 's|^\./||; s|_fuzz\.cpp$||')}

failed=0
summary=""
for target in $targets; do
  program="$build/tests/fuzz/${target}_fuzz"
  if [ ! -x "$program" ]; then
    echo "no fuzz target $program (build with -DNVBDLL_FUZZ=ON)" >&2
    exit 1
  fi
  work="$build/fuzz/$target"
  mkdir -p "$work/corpus"
  # Whole logs seed these two, and mutants as long as the longest seed cost several times
  # a short one for no new paths: a block or a run of record 35 frames fits in 16 KiB.
  case $target in
    encode_dat | rec35_frames) max_len=-max_len=16384 ;;
    *) max_len= ;;
  esac
  echo "fuzzing $target for $seconds s"
  if ! "$program" -max_total_time="$seconds" ${FUZZ_RUNS:+-runs=$FUZZ_RUNS} $max_len -print_final_stats=1 -timeout=25 \
      -rss_limit_mb=2048 -artifact_prefix="$work/" "$work/corpus" "$source_dir/tests/fuzz/corpus/$target" \
      >"$work/log" 2>&1; then
    failed=1
    echo "$target: a problem was found; see $work/log and the crash file beside it" >&2
  fi
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/log")
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$work/log")
  last=$(grep -E '^#[0-9]+' "$work/log" | tail -1)
  cov=$(echo "$last" | sed -n 's/.* cov: \([0-9]*\).*/\1/p')
  ft=$(echo "$last" | sed -n 's/.* ft: \([0-9]*\).*/\1/p')
  corpus=$(echo "$last" | sed -n 's/.* corp: \([0-9]*\).*/\1/p')
  if [ "${FUZZ_MERGE:-0}" = 1 ] && ! "$program" -merge=1 $max_len "$source_dir/tests/fuzz/corpus/$target" \
      "$work/corpus" >"$work/merge.log" 2>&1; then
    failed=1
    echo "$target: the merge failed; see $work/merge.log" >&2
  fi
  summary="$summary$(printf '%-16s %12s execs %8s/s  cov %6s  ft %7s  corpus %6s' \
    "$target" "$execs" "$rate" "$cov" "$ft" "$corpus")
"
done
printf '%s' "$summary"
echo "load average at the end: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) cores"
exit $failed
