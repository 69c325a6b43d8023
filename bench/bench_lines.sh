#!/usr/bin/env bash
# qor lines on a generated gzip file of about 100 MB against zcat FILE | wc -l,
# in the same run of the machine: the medians of 5 alternating runs of each.
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

# Wall-clock seconds and CPU seconds (user + system, both processes of the
# pipeline) of each run; CPU time is the steadier figure on a loaded machine.
TIMEFORMAT='%R %U %S'
median() { sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
for run in 1 2 3 4 5; do
  { time "$qor" lines "$file" > "$dir/a"; } 2>> "$dir/qor"
  { time zcat "$file" | wc -l > "$dir/b"; } 2>> "$dir/zcat"
  [ "$(awk '{print $1}' "$dir/a")" = "$(cat "$dir/b")" ] || { echo "line counts differ"; exit 1; }
done
wall=()
cpu=()
for who in qor zcat; do
  wall[${#wall[@]}]=$(awk '{ print $1 }' "$dir/$who" | median)
  cpu[${#cpu[@]}]=$(awk '{ print $2 + $3 }' "$dir/$who" | median)
done
echo "BM_Lines_Gzip/qor_lines        wall ${wall[0]} s, cpu ${cpu[0]} s (medians of 5)"
echo "BM_Lines_Gzip/zcat_pipe_wc_l   wall ${wall[1]} s, cpu ${cpu[1]} s (medians of 5)"
echo "ratio qor / zcat|wc -l: wall $(awk "BEGIN { printf \"%.3f\", ${wall[0]} / ${wall[1]} }"), cpu $(awk "BEGIN { printf \"%.3f\", ${cpu[0]} / ${cpu[1]} }")"
