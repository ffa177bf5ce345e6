#!/bin/sh
# A tour of the nvb tool: an hour of a simulated receiver, written in every compression
# method, each read back and compared with the source, then thinned to 30 s.
set -eu
build=${1:-build}
NVB="$build/tools/nvb"
if [ ! -x "$NVB" ]; then
  echo "no nvb built in $build (make build)" >&2
  exit 1
fi
work="$build/demo"
rm -rf "$work"
mkdir -p "$work"

nvb() { "$NVB" "$@"; }
# Shows a command as a user would type it, then runs it.
show() {
  printf '\n$ %s\n' "$*" | sed "s|$work/||g"
  "$@"
}

echo "Working in $work"
show nvb simulate -o "$work/hour.nvb" --duration 3600 --interval 1 --systems GREC --method 7
show nvb info "$work/hour.nvb"
nvb -q todat "$work/hour.nvb" -o "$work/hour.dat"
epochs=3600
dat_bytes=$(wc -c < "$work/hour.dat")

printf '\nThe same hour in every compression method, each read back and compared with the\n'
printf 'DAT records of the source (%s bytes of DAT records, %s epochs):\n\n' "$dat_bytes" "$epochs"
printf '%-7s %-20s %10s %12s %8s  %s\n' method name bytes bytes/epoch "vs DAT" "read back"
failed=0
for method in 0 1 2 3 4 5 6 7; do
  log="$work/hour.m$method.nvb"
  nvb -q recompress "$work/hour.nvb" -o "$log" --method "$method"
  nvb -q todat "$log" -o "$log.dat"
  if cmp -s "$log.dat" "$work/hour.dat"; then same="same records"; else same="DIFFERENT"; failed=1; fi
  bytes=$(wc -c < "$log")
  case $method in
    0) name="Huffman byte stream" ;; 1) name="stored blocks" ;; 2) name="Huffman blocks" ;;
    3) name="zlib" ;; 4) name="bzip2 over frames" ;; 5) name="bzip2" ;; 6) name="brotli" ;; 7) name="zstd" ;;
  esac
  awk -v m="$method" -v n="$name" -v b="$bytes" -v e="$epochs" -v d="$dat_bytes" -v s="$same" \
    'BEGIN { printf "%-7s %-20s %10d %12.1f %7.1fx  %s\n", m, n, b, b / e, d / b, s }'
done

show nvb thin "$work/hour.nvb" -o "$work/hour-30s.nvb" --interval 30
show nvb info "$work/hour-30s.nvb"

if [ "$failed" -ne 0 ]; then
  echo "demo: a method did not give back the source's records" >&2
  exit 1
fi
printf '\nEvery method gave back the same records. The files are in %s.\n' "$work"
