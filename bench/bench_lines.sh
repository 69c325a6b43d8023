#!/usr/bin/env bash
# qor lines on a generated gzip file of about 100 MB against zcat FILE | wc -l,
# in the same run of the machine: the median of 5 alternating runs of each.
# Usage: bench/bench_lines.sh [QOR_BINARY]   (QOR_BENCH_MB sets the size)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
qor=${1:-$root/build/tools/qor}
mb=${QOR_BENCH_MB:-100}
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
file=$dir/log.gz

# Log-like lines of about 70 bytes that gzip packs into about 19 bytes each.
awk -v n=$((mb * 1024 * 1024 / 19)) 'BEGIN { srand(7)
  for (i = 0; i < n; i++)
    printf "2026-11-24T%02d:%02d:%02d id=%d user=u%05d bytes=%d path=/a/%x/%x\n",
      i / 3600 % 24, i / 60 % 60, i % 60, i, int(rand() * 99999), int(rand() * 1e6), int(rand() * 4096), i }' |
  gzip -6 > "$file"
echo "file: $(du -m "$file" | cut -f1) MB compressed, $(zcat "$file" | wc -c | awk '{printf "%.0f", $1 / 1048576}') MB of text"

now() { date +%s.%N; }
median() { sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
: > "$dir/qor"
: > "$dir/zcat"
for run in 1 2 3 4 5; do
  t0=$(now); a=$("$qor" lines "$file" | awk '{print $1}'); t1=$(now)
  b=$(zcat "$file" | wc -l); t2=$(now)
  [ "$a" = "$b" ] || { echo "line counts differ: qor $a, zcat | wc -l $b"; exit 1; }
  awk "BEGIN { print $t1 - $t0 }" >> "$dir/qor"
  awk "BEGIN { print $t2 - $t1 }" >> "$dir/zcat"
done
q=$(median < "$dir/qor")
z=$(median < "$dir/zcat")
echo "BM_Lines_Gzip/qor_lines        ${q} s (median of 5)"
echo "BM_Lines_Gzip/zcat_pipe_wc_l   ${z} s (median of 5)"
echo "ratio qor / zcat|wc -l: $(awk "BEGIN { printf \"%.3f\", $q / $z }")"
