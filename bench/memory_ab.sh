#!/usr/bin/env bash
# memory_ab.sh BEFORE AFTER [ROUNDS]: compares two builds of bench_memory (for
# example before and after a change of the allocators) in one run: the two
# programs run one after the other, ROUNDS times (default 5), on the same
# cases, and the fastest CPU time per allocate-and-release pair of each is
# kept, since the slower runs lost time to the machine's other work. Prints
# each case's two figures and after / before.
# QOR_AB_FILTER narrows the cases (a --benchmark_filter regex).
set -euo pipefail
before=$1 after=$2 rounds=${3:-5}
filter=${QOR_AB_FILTER:-'BM_(HeapMixed|HeapCSO|ObjectAlloc|PageAlloc)_(Lifo|Batch)/'}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
for round in $(seq "$rounds"); do
  for side in before after; do
    "${!side}" --benchmark_filter="$filter" --benchmark_min_time=0.2 \
      --benchmark_out="$out/$side-$round.json" --benchmark_out_format=json >/dev/null
  done
done
python3 - "$out" <<'EOF'
import glob, json, os, sys

best = {}
for path in glob.glob(os.path.join(sys.argv[1], "*.json")):
    side = os.path.basename(path).split("-")[0]
    for run in json.load(open(path))["benchmarks"]:
        ns = run["cpu_time"] / run.get("pairs", 1)
        key = (run["name"], side)
        best[key] = min(best.get(key, ns), ns)
names = sorted({name for name, _ in best})
print("%-32s %10s %10s %8s" % ("case (ns per pair, fastest)", "before", "after", "ratio"))
worst = 0.0
for name in names:
    b, a = best.get((name, "before")), best.get((name, "after"))
    if b and a:
        worst = max(worst, a / b)
        print("%-32s %10.2f %10.2f %7.3fx" % (name, b, a, a / b))
print("largest after / before: %.3fx" % worst)
EOF
