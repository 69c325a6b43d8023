#!/usr/bin/env bash
# Runs one row of the qor tool's table: tool_test.sh NAME (QOR_BIN and QOR_DATA
# come from CTest). Each row runs in a fresh directory; its output
# must match every pattern (grep -E, joined by " && "), and a failing row must
# leave no output file (out*) and no temporary file behind.
# "nonroot" rows skip (exit 77) as root, who reads any file.
set -u
T=$(mktemp -d)
trap 'chmod -R u+rwx "$T"; rm -rf "$T"' EXIT
cd "$T"
D=$QOR_DATA
qor() { "$QOR_BIN" "$@"; }

# check_tris POLYGON TRIANGLES COUNT AREA: re-reads the triangles (1-based
# numbers of the file's points in file order) and checks count and area.
check_tris() {
  python3 - "$@" <<'PY'
import sys, json, gzip
poly, tris, count, area = sys.argv[1], sys.argv[2], int(sys.argv[3]), float(sys.argv[4])
op = lambda f: gzip.open(f, 'rt') if open(f, 'rb').read(2) == b'\x1f\x8b' else open(f)
t = op(poly).read()
if t.lstrip()[:1] in '[{':
    j = json.loads(t)
    while isinstance(j, dict):
        j = j['features'][0] if 'features' in j else j['geometry'] if 'geometry' in j else j['coordinates']
    pts = [p for ring in j for p in ring]
else:
    pts = [list(map(float, l.split('#')[0].split())) for l in t.splitlines() if l.split('#')[0].strip()]
areas = []
for line in op(tris):
    (ax, ay), (bx, by), (cx, cy) = (pts[int(v) - 1][:2] for v in line.split())
    areas.append(((bx - ax) * (cy - ay) - (cx - ax) * (by - ay)) / 2)
assert len(areas) == count and min(areas) >= 0 and abs(sum(areas) - area) < 1e-9 * area, (len(areas), sum(areas))
PY
}
# check_png FILE: an 800x800 PNG that is not one flat colour.
check_png() {
  python3 - "$1" <<'PY'
import sys, struct, zlib
b = open(sys.argv[1], 'rb').read()
assert struct.unpack('>II', b[16:24]) == (800, 800)
i, idat = 8, b''
while i < len(b):
    n, kind = struct.unpack('>I4s', b[i:i + 8])
    idat += b[i + 8:i + 8 + n] if kind == b'IDAT' else b''
    i += 12 + n
assert len(set(zlib.decompress(idat))) > 32, 'blank picture'
PY
}

# name | needs | status | patterns | command
table() {
  cat <<'ROWS'
version | - | 0 | ^qor [0-9]+\.[0-9]+\.[0-9]+ | qor --version
help | - | 0 | triangulate && memstats && Exit status | qor --help
help-command | - | 0 | Usage: qor triangulate && --strict | qor triangulate --help
no-command | - | 2 | no command given && Try 'qor --help' | qor
unknown-command | - | 2 | unknown command 'frob' | qor frob
unknown-option | - | 2 | unknown option '--fast' | qor lines --fast x
bad-repeat | - | 2 | --repeat: '0' is not a whole number | qor triangulate --repeat 0
tri-default | rings | 0 | 52 vertices, 5 holes && triangles: 60$ && \(match | qor triangulate
tri-strict-default | check | 0 | triangles: 60$ && \(match && median of 3 | qor triangulate --strict --repeat 3
tri-text | rings writer | 0 | 10 vertices, 1 holes && triangles: 10$ && polygon 264, triangles 264 \(match | qor triangulate $D/lshape.txt -o out.txt && check_tris $D/lshape.txt out.txt 10 264
tri-gzip | rings writer members | 0 | triangles: 10$ && written: +out.txt.gz | qor triangulate $D/lshape.txt.gz -o out.txt.gz && check_tris $D/lshape.txt out.txt.gz 10 264
tri-json | rings writer | 0 | 10 vertices, 1 holes && \(match | qor triangulate $D/lshape.json -o out.txt && check_tris $D/lshape.json out.txt 10 264
tri-geojson | rings writer | 0 | 12 vertices, 1 holes && triangles: 10$ | qor triangulate $D/lshape.geojson -o out.txt && check_tris $D/lshape.geojson out.txt 10 264
tri-strict-json | check writer | 0 | 2 contours reversed && \(match | qor triangulate --strict $D/lshape.json -o out.txt && check_tris $D/lshape.json out.txt 10 264
tri-strict-geojson | check writer | 0 | 2 repeated points dropped && \(match | qor triangulate --strict $D/lshape.geojson -o - > tris && check_tris $D/lshape.geojson tris 10 264
tri-svg | rings writer | 0 | picture: +out.svg | qor triangulate --svg out.svg && rsvg-convert out.svg -o out.png && check_png out.png
split-svg | writer | 0 | piece 2: && \(add up && picture: | qor split $D/lshape.txt --line 5,-1,5,30 --svg out.svg && rsvg-convert out.svg -o out.png && check_png out.png
split | - | 0 | piece 2: +4 vertices, area 100$ && polygon 300, pieces 300 \(add up | qor split $D/lshape.txt --line 10,-5,10,25
break | - | 0 | piece 2: && \(add up | qor break --rank 0
divide | - | 0 | piece 6: && \(add up | qor divide --max 6
inside | check | 0 | \(15, 5\) is inside | qor inside $D/lshape.txt 15 5
inside-hole | check | 0 | \(5, 5\) is outside | qor inside $D/lshape.txt 5 5
lines-plain | - | 0 | ^ +12 lines +123 bytes +longest +73 | qor lines $D/lshape.txt
lines-wc | members | 0 | ok | seq 1 300000 > a && gzip -c a > a.gz && test "$(qor lines a a.gz | awk '{print $1}' | xargs)" = "$(wc -l < a) $(zcat a.gz | wc -l) $((2 * $(wc -l < a)))" && echo ok
lines-deflate | writer | 0 | \(deflate\) | seq 1 50000 > a && qor deflate a out.z && qor lines out.z
lines-quiet | - | 0 | ^ +0 lines +68157440 bytes | truncate -s 65M big && qor lines big 2> err && test ! -s err
lines-progress | - | 0 | lines big +[0-9]+% | truncate -s 65M big && script -qec "$QOR_BIN lines big" /dev/null
gzip-roundtrip | writer members | 0 | ok | seq 1 100000 > a && qor gzip a out.gz && gunzip -c out.gz | cmp - a && gzip -c a > a.gz && qor gunzip a.gz out.txt && cmp out.txt a && echo ok
zlib-roundtrip | writer | 0 | ok | seq 1 100000 > a && qor deflate a out.z && python3 -c "import zlib,sys; sys.stdout.buffer.write(zlib.decompress(open('out.z','rb').read(), -15))" | cmp - a && python3 -c "import zlib; c=zlib.compressobj(9, zlib.DEFLATED, -15); open('a.z','wb').write(c.compress(open('a','rb').read()) + c.flush())" && qor inflate a.z out.txt && cmp out.txt a && echo ok
gunzip-members | writer members | 0 | ok | seq 1 9 > a && seq 10 20 > b && cat <(gzip -c a) <(gzip -c b) > ab.gz && qor gunzip ab.gz out.txt && zcat ab.gz | cmp - out.txt && echo ok
sysinfo | - | 0 | ^processors: +[1-9] && ^memory: +[1-9][0-9]* MiB | qor sysinfo
sysinfo-json | - | 0 | "processors": [1-9] | qor sysinfo --json | python3 -m json.tool
memstats | - | 0 | Total && object allocator .*\(2 threads\) && malloc +[0-9] | qor memstats --threads 2
bad-missing | - | 1 | ^qor: nope.txt: No such file or directory$ | qor triangulate nope.txt
bad-unreadable | nonroot | 1 | secret.txt: Permission denied | cp $D/lshape.txt secret.txt && chmod 000 secret.txt && qor lines secret.txt
bad-directory | - | 1 | : Is a directory$ | qor triangulate $D
bad-number | - | 1 | bad-number.txt:3: 'x1' is not a number$ | qor triangulate $D/bad-number.txt
bad-short | - | 1 | short-contour.txt:6: contour 2 has fewer than three points$ | qor triangulate $D/short-contour.txt
bad-many | - | 1 | too many vertices \(9000; the triangulator takes at most 8191\) | awk 'BEGIN{for(i=0;i<9000;i++) print cos(i/9000*6.2832)*1e4, sin(i/9000*6.2832)*1e4}' > many.txt && qor triangulate --strict many.txt
bad-refused | rings | 1 | ^qor: .*crossing.txt: | qor triangulate $D/crossing.txt
bad-crossing | check | 1 | crossing.txt: contour 1 .* itself near | qor triangulate --strict $D/crossing.txt
bad-json | - | 1 | bad.json: invalid JSON at byte | echo '[[[1,2],' > bad.json && qor triangulate bad.json
bad-features | - | 1 | exactly one feature \(it holds 2\) | echo '{"type":"FeatureCollection","features":[{},{}]}' > two.json && qor split two.json --line 0,0,1,1
bad-corrupt-gz | members | 1 | bad.gz: | printf '\037\213\010\000garbage-garbage-garbage' > bad.gz && qor lines bad.gz
bad-truncated-gz | members | 1 | cut.gz: .*nexpected end | seq 1 20000 | gzip -c | head -c 3000 > cut.gz && qor lines cut.gz
bad-line | - | 2 | --line: expected X1,Y1,X2,Y2, got '1,2,3' | qor split --line 1,2,3
bad-line-number | - | 2 | --line: 'x' is not a number | qor split --line 1,2,x,4
bad-outdir | - | 1 | cannot create nodir/out.gz: No such file or directory | qor gzip $D/lshape.txt nodir/out.gz
bad-full | writer | 1 | Write failed for /dev/full | seq 1 100000 > a && qor gzip a /dev/full
bad-full-tris | check writer | 1 | Write failed for /dev/full | qor triangulate --strict -o /dev/full
bad-same | - | 1 | in.txt and ./in.txt are the same file | cp $D/lshape.txt in.txt && qor gzip in.txt ./in.txt; s=$?; cmp in.txt $D/lshape.txt && exit $s
bad-keeps-old | members | 1 | bad.gz: | printf '\037\213\010\000garbage-garbage' > bad.gz && echo old > old.txt && qor gunzip bad.gz old.txt; s=$?; test "$(cat old.txt)" = old && exit $s
ROWS
}

row=$(table | grep -E "^$1 \|") || { echo "no row $1"; exit 1; }
IFS='|' read -r name needs status patterns command <<< "$row"
for need in $needs; do
  [ "$need" = nonroot ] && [ "$(id -u)" = 0 ] && { echo "skipped: root reads any file"; exit 77; }
done
out=$(eval "$command" 2>&1)
got=$?
echo "$out"
[ "$got" -eq "${status// /}" ] || { echo "FAIL: exit status $got, expected$status"; exit 1; }
while read -r p; do
  grep -qE -- "$p" <<< "$out" || { echo "FAIL: no line matches: $p"; exit 1; }
done <<< "$(sed 's/ *&& */\n/g; s/^ *//; s/ *$//' <<< "$patterns")"
if [ "$got" -ne 0 ] && ls -A | grep -qE '^out|\.qor-'; then
  echo "FAIL: a failed run left files: $(ls -A)"
  exit 1
fi
exit 0
