#!/usr/bin/env bash
# The stream readers and writer before and after a change, in one run of the
# machine: bench_stream of this build runs by turns with its own libqor.so.1
# and with an older one (LD_LIBRARY_PATH), and the median CPU time of each case
# is printed for both, with the change. Record layouts and exported names are
# the same in both libraries, so one program serves both; the cases of calls
# the older library lacks (readLineView) are left out.
#
# Usage: bench/stream_before_after.sh OLD_LIBDIR [BUILD_DIR] [ROUNDS]
#   OLD_LIBDIR  folder of the older libqor.so.1, built as BUILD_DIR was, e.g.
#                 git worktree add /tmp/stream-before b8dd827
#                 cmake -S /tmp/stream-before -B /tmp/stream-before/build -DCMAKE_BUILD_TYPE=RelWithDebInfo \
#                   -DQOR_BUILD_TESTS=OFF -DQOR_BUILD_BENCH=OFF -DQOR_BUILD_EXAMPLES=OFF -DQOR_BUILD_TOOLS=OFF
#                 cmake --build /tmp/stream-before/build -j2
#   BUILD_DIR   this tree's build (default: build), with bench/bench_stream
#   ROUNDS      runs of each library, alternating (default 3; five repetitions a run)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
old=$(cd "$1" && pwd)
build=$(cd "${2:-$root/build}" && pwd)
rounds=${3:-3}
[ -e "$old/libqor.so.1" ] || { echo "no libqor.so.1 in $old"; exit 2; }
if nm -D "$old/libqor.so.1" | grep -q readLineView; then echo "warning: $old/libqor.so.1 already has readLineView"; fi
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
filter='BM_qorStreamReader/(Plain|Gzip|FastGzip)(ReadLine(String|Static|QString)|Read|ReadFloat)/|Writer|Zlib_Inflate|Gzgets/0|FreadMemchr/0'
for round in $(seq "$rounds"); do
  for who in before after; do
    lib=$build
    [ "$who" = before ] && lib=$old
    LD_LIBRARY_PATH=$lib "$build/bench/bench_stream" --benchmark_filter="$filter" \
      --benchmark_out="$out/$who.$round.json" --benchmark_out_format=json > /dev/null
  done
done
python3 - "$out" <<'EOF'
import glob, json, statistics, sys
times = {}
for path in glob.glob(sys.argv[1] + "/*.json"):
    who = path.rsplit("/", 1)[1].split(".")[0]
    for b in json.load(open(path))["benchmarks"]:
        if b.get("run_type") == "iteration" and not b.get("error_occurred"):
            name = b["run_name"].split("/iterations")[0]
            times.setdefault(name, {}).setdefault(who, []).append(b["cpu_time"])
print("%-44s %12s %12s %8s" % ("case (median CPU ms per pass)", "before", "after", "change"))
med = {n: {w: statistics.median(t) for w, t in v.items()} for n, v in times.items()}
for name, m in med.items():
    if "before" in m and "after" in m:
        print("%-44s %12.2f %12.2f %+7.1f%%" % (name, m["before"], m["after"], 100 * (m["before"] / m["after"] - 1)))
fast, gz = med.get("BM_qorStreamReader/FastGzipReadLineString", {}), med.get("BM_Zlib_Gzgets/0", {})
for who in ("before", "after"):
    if who in fast and who in gz:
        print("fast gzip readLine / gzgets, %-6s: %.2fx" % (who, gz[who] / fast[who]))
print("change: throughput after against before (negative: slower); peers (Zlib, Gzgets, FreadMemchr) show the noise")
EOF
