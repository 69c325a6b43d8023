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
P=$QOR_DATA/../geometry/polygons
qor() { "$QOR_BIN" "$@"; }

# check_tris POLYGON TRIANGLES COUNT AREA: re-reads the triangles (1-based
# numbers of the file's points in file order, then of the 'v x y' points
# listed before them) and checks that none is clockwise, their count (- for
# any) and their total area against AREA: a number, "rings" (the outer ring's
# area less the others') or a fill rule ("evenodd", "nonzero": the region's
# area integrated exactly, slab by slab between all vertex and crossing
# heights).
check_tris() {
  python3 - "$@" <<'PY'
import sys, json, gzip
from fractions import Fraction as F
poly, tris, count, want = sys.argv[1:5]
op = lambda f: gzip.open(f, 'rt', encoding='utf-8-sig') if open(f, 'rb').read(2) == b'\x1f\x8b' else open(f, encoding='utf-8-sig')
t = op(poly).read()
if t.lstrip()[:1] in '[{':
    j = json.loads(t)
    while isinstance(j, dict):
        j = j['features'][0] if 'features' in j else j['geometry'] if 'geometry' in j else j['coordinates']
    rings = [[p[:2] for p in ring] for ring in j]
else:
    rings, ring = [], []
    for l in t.splitlines() + ['']:
        if l.split('#')[0].strip():
            ring.append(list(map(float, l.split('#')[0].replace(',', ' ').split())))
        elif ring and '#' not in l:
            rings.append(ring)
            ring = []
pts = [p for ring in rings for p in ring]
def shoelace(r):
    return sum(F(a[0]) * F(b[1]) - F(b[0]) * F(a[1]) for a, b in zip(r, r[1:] + r[:1])) / 2
def region(rule):
    edges = [(list(map(F, a)), list(map(F, b))) for r in rings for a, b in zip(r, r[1:] + r[:1]) if a[1] != b[1]]
    ys = {F(p[1]) for p in pts}
    for i, (p, q) in enumerate(edges):
        for r, s in edges[:i]:
            d = (q[0] - p[0]) * (s[1] - r[1]) - (q[1] - p[1]) * (s[0] - r[0])
            if d != 0:
                u = ((r[0] - p[0]) * (s[1] - r[1]) - (r[1] - p[1]) * (s[0] - r[0])) / d
                v = ((r[0] - p[0]) * (q[1] - p[1]) - (r[1] - p[1]) * (q[0] - p[0])) / d
                if 0 < u < 1 and 0 < v < 1: ys.add(p[1] + u * (q[1] - p[1]))
    ys, total = sorted(ys), F(0)
    for y0, y1 in zip(ys, ys[1:]):
        y = (y0 + y1) / 2
        xs = sorted((a[0] + (y - a[1]) * (b[0] - a[0]) / (b[1] - a[1]), 1 if b[1] > a[1] else -1)
                    for a, b in edges if min(a[1], b[1]) < y < max(a[1], b[1]))
        w = 0
        for (x, d), (x2, _) in zip(xs, xs[1:]):
            w += d
            if (w % 2 == 1) if rule == 'evenodd' else w != 0: total += (x2 - x) * (y1 - y0)
    return float(total)
areas = []
for line in op(tris):
    if line.startswith('v '):
        pts.append(list(map(float, line.split()[1:])))
        continue
    (ax, ay), (bx, by), (cx, cy) = (pts[int(v) - 1][:2] for v in line.split())
    areas.append(((bx - ax) * (cy - ay) - (cx - ax) * (by - ay)) / 2)
area = (region(want) if want in ('evenodd', 'nonzero') else
        float(abs(shoelace(rings[0])) - sum(abs(shoelace(r)) for r in rings[1:])) if want == 'rings' else float(want))
assert count == '-' or len(areas) == int(count), (len(areas), count)
assert min(areas, default=0) >= 0 and abs(sum(areas) - area) <= 1e-9 * max(area, 1), (sum(areas), area)
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

# check_svg FILE: every corner of the outline (the unfilled paths) and every
# dot is a corner of a filled piece, and all lie inside the 800x800 picture.
check_svg() {
  python3 - "$1" <<'PY'
import re, sys
svg = open(sys.argv[1]).read()
corners = lambda kind: {p for d in re.findall(r'<path d="([^"]*)" fill="' + kind, svg) for p in re.findall(r'(-?[0-9.]+),(-?[0-9.]+)', d)}
pieces, outline = corners('hsl'), corners('none')
dots = set(re.findall(r'<circle cx="([^"]*)" cy="([^"]*)"', svg))
assert outline and outline <= pieces and dots <= pieces, (outline - pieces, dots - pieces)
assert all(0 <= float(v) <= 800 for p in pieces for v in p)
PY
}

# name | needs | status | patterns | command
table() {
  cat <<'ROWS'
version | - | 0 | ^qor [0-9]+\.[0-9]+\.[0-9]+ | qor --version
help | - | 0 | triangulate && memstats && Exit status | qor --help
help-command | - | 0 | Usage: qor triangulate && --strict | qor triangulate --help
no-command | - | 2 | no command given && Try 'qor --help' | qor
unknown-command | - | 2 | unknown command .frob. && unknown command .grok. | qor frob; qor help grok
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
tri-svg | rings writer | 0 | picture: +out.svg && >52 vertices, 5 holes, 60 triangles; area 21351.2 = sum of triangles</text> && fill-rule=.evenodd. | qor triangulate --svg out.svg && rsvg-convert out.svg -o out.png && check_png out.png && check_svg out.svg && cat out.svg
split-svg | writer | 0 | piece 2: && \(add up && picture: | qor split $D/lshape.txt --line 5,-1,5,30 --svg out.svg && rsvg-convert out.svg -o out.png && check_png out.png && check_svg out.svg
split | - | 0 | piece 2: +4 vertices, area 100$ && polygon 300, pieces 300 \(add up | qor split $D/lshape.txt --line 10,-5,10,25
break | - | 0 | piece 2: && \(add up | qor break --rank 0
divide | - | 0 | piece 6: && \(add up | qor divide --max 6
inside | check | 0 | \(15, 5\) is inside | qor inside $D/lshape.txt 15 5
inside-hole | check | 0 | \(5, 5\) is outside | qor inside $D/lshape.txt 5 5
lines-plain | - | 0 | ^ +12 lines +123 bytes +longest +73 | qor lines $D/lshape.txt
lines-wc | members | 0 | ok | seq 1 300000 > a && gzip -c a > a.gz && test "$(qor lines a a.gz | awk '{print $1}' | xargs)" = "$(wc -l < a) $(zcat a.gz | wc -l) $((2 * $(wc -l < a)))" && echo ok
lines-deflate | writer | 0 | out.zz \(deflate\) && out.z \(deflate\) | seq 1 50000 > a && qor deflate a out.zz && cp out.zz out.z && qor lines out.zz && qor lines --format deflate out.z
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
tri-short-contour | rings | 0 | short-contour.txt: contour 2 \(line 6\) has fewer than three points; left out && 1 rings dropped && \(match | qor triangulate $D/short-contour.txt
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
bad-same | - | 2 | gzip: in.txt and ./in.txt are the same file | cp $D/lshape.txt in.txt && qor gzip in.txt ./in.txt; s=$?; cmp in.txt $D/lshape.txt && exit $s
bad-keeps-old | members | 1 | bad.gz: | printf '\037\213\010\000garbage-garbage' > bad.gz && echo old > old.txt && qor gunzip -f bad.gz old.txt; s=$?; test \"$(cat old.txt)\" = old && exit $s
help-topic | - | 0 | Usage: qor gunzip && --format F && gzip \(the default\) | qor help gunzip
man-page | man | 0 | ^qor [0-9.]+ && QOR\(1\) && qor triangulate && --fill && qor gunzip && EXIT STATUS && ^no warnings$ | $QOR_CMAKE --install $QOR_BUILD --prefix $PWD/p > /dev/null && p/bin/qor --version && MANWIDTH=80 MANPATH=$PWD/p/share/man man qor && w=$(MANWIDTH=80 man --warnings -l p/share/man/man1/qor.1 2>&1 > /dev/null) && test -z "$w" && echo no warnings
lines-braces | plain | 0 | ^ +5 lines +16 bytes +longest +7 +c.txt \(plain\)$ | printf '{\n  a = 1\n}\nx\ny\n' > c.txt && qor lines c.txt
lines-b | plain | 0 | ^ +2 lines +8 bytes .* - \(plain\)$ | printf 'bar\nbaz\n' | qor lines
lines-plus-brace | plain | 0 | ^ +2 lines +5 bytes .* p.txt \(plain\)$ | printf '+{\n}\n' > p.txt && qor lines p.txt
lines-pretty-json | plain | 0 | ^ +[0-9]+ lines .*issue35.json \(plain\)$ && ^same$ | qor lines $P/issue35.json && test "$(qor lines $P/issue35.json | awk '{print $1}')" = "$(wc -l < $P/issue35.json)" && echo same
lines-pipe | members | 0 | ^ok$ | seq 1 300000 > a && gzip -c a > a.gz && test "$(cat a | qor lines | awk '{print $1}') $(cat a.gz | qor lines - | awk '{print $1}')" = "$(wc -l < a) $(zcat a.gz | wc -l)" && echo ok
lines-dev-stdin | - | 0 | ^ +2 lines +12 bytes +longest +5 +/dev/stdin \(plain\)$ | printf 'hello\nworld\n' | qor lines /dev/stdin
lines-fifo | - | 0 | 5000 lines .* f \(plain\)$ && 5000 lines .* f \(gzip\)$ | mkfifo f && { timeout 20 sh -c 'seq 1 5000 > f' & } && timeout 20 "$QOR_BIN" lines f && { timeout 20 sh -c 'seq 1 5000 | gzip > f' & } && timeout 20 "$QOR_BIN" lines f
lines-oracle | members | 0 | ^ +[0-9]+ lines .* r.gz \(gzip\)$ && ^same$ | python3 -c "import random; random.seed(5); open('r', 'wb').write(bytes(random.choice(b'ab\r\n\n') if random.random() < 0.999 else 97 for _ in range(300000)) + b'x' * 200000 + b'\r\nend\r')" && gzip -c r > r.gz && qor lines r r.gz > got && cat got && test "$(awk 'NR < 3 { print $1, $3, $6 }' got | uniq)" = "$(python3 -c "d = open('r', 'rb').read().replace(b'\r', b''); print(d.count(b'\n'), len(d), max(map(len, d.split(b'\n'))))")" && echo same
lines-crlf | - | 0 | ^ +2 lines +5 bytes +longest +2 | printf 'a\r\nb\rb\r\n' | qor lines
lines-long-line | - | 0 | ^ +1 lines +268435457 bytes +longest +268435456 | head -c 268435456 /dev/zero | tr '\0' a | sed '$s/$/\n/' | "$QOR_BIN" lines
lines-format-plain | members | 0 | l.gz \(plain\)$ | gzip -c $D/lshape.txt > l.gz && qor lines --format plain l.gz
lines-not-gzip | - | 1 | ^qor: .*lshape.txt: not in gzip format$ | qor lines --format gzip $D/lshape.txt
lines-bad-format | - | 2 | --format: expected auto, plain, gzip or deflate, got 'zip' | qor lines --format zip $D/lshape.txt
tri-pipe | rings | 0 | \(standard input\): 10 vertices, 1 holes && \(match | cat $D/lshape.txt | qor triangulate -
tri-pipe-gzip | rings | 0 | ^ok$ | gzip -c $D/lshape.txt | qor triangulate - -o out.txt > /dev/null && check_tris $D/lshape.txt out.txt 10 264 && echo ok
tri-stdout-data | rings | 0 | ^data only 10$ | qor triangulate $D/lshape.txt -o - 2> /dev/null | awk '!/^[0-9]+ [0-9]+ [0-9]+$/ { bad = 1 } END { print bad ? "mixed" : "data only", NR }'
tri-bom | rings | 0 | ^polygon: +b.txt: 10 vertices, 1 holes && ^polygon: +b.json: 10 vertices && ^ok$ | printf '\357\273\277' > b.txt && cp b.txt b.json && cat $D/lshape.txt >> b.txt && cat $D/lshape.json >> b.json && qor triangulate b.txt -o out.txt && qor triangulate b.json && check_tris b.txt out.txt 10 264 && echo ok
tri-strict-short | check | 1 | short-contour.txt: contour 2 has fewer than three distinct points$ | qor triangulate --strict $D/short-contour.txt
same-o-svg | - | 2 | triangulate: -o and --svg both write ./out.x && Try | qor triangulate $D/lshape.txt -o out.x --svg ./out.x
same-stdout | - | 2 | -o and --svg both write /dev/stdout | qor triangulate -o - --svg /dev/stdout
same-input-links | - | 2 | -o link is the input in.txt && --svg hard is the input in.txt && split: --svg link is the input in.txt | cp $D/lshape.txt in.txt && ln -s in.txt link && ln in.txt hard && qor triangulate in.txt -o link; a=$?; qor triangulate in.txt --svg hard; b=$?; qor split in.txt --line 1,1,2,2 --svg link; c=$?; cmp in.txt $D/lshape.txt && test $a$b$c = 222 && exit 2
gzip-names | writer members | 0 | ^ok$ | seq 1 1000 > x && qor gzip x && gunzip -c x.gz | cmp - x && mv x x.orig && qor gunzip x.gz && cmp x x.orig && test -f x.gz && cp x.gz y.tgz && qor gunzip y.tgz && cmp y.tar x && qor deflate x && qor inflate x.deflate -c | cmp - x && cp x.deflate z.zz && qor inflate z.zz && cmp z x && echo ok
gzip-c | writer members | 0 | ^ok$ | seq 1 1000 > x && qor gzip -c x > y.gz && test ! -e x.gz && gunzip -c y.gz | cmp - x && qor gunzip -c y.gz | cmp - x && seq 1 1000 | qor gzip | gunzip | cmp - x && gzip -c x | qor gunzip | cmp - x && echo ok
gzip-c-appends | writer members | 0 | ^ok$ | seq 1 1000 > x && { echo head; qor gzip -c x; qor deflate -c x; } > both && test "$(head -1 both)" = head && tail -c +6 both | gunzip 2> /dev/null | cmp - x && echo ok
gzip-exists | writer | 1 | ^qor: x.gz already exists; -f replaces it$ | seq 1 10 > x && echo keep > x.gz && qor gzip x; s=$?; test "$(cat x.gz)" = keep && exit $s
gunzip-exists | writer members | 1 | ^qor: x already exists; -f replaces it$ | seq 1 10 > x && gzip -c x > x.gz && echo keep > x && qor gunzip x.gz; s=$?; test "$(cat x)" = keep && exit $s
gzip-force | writer members | 0 | ^ok$ | seq 1 10 > x && echo keep > x.gz && qor gzip -f x && gunzip -c x.gz | cmp - x && echo keep > x && qor gunzip -fv x.gz && seq 1 10 | cmp - x && echo ok
gunzip-suffix | - | 2 | gunzip: .*lshape.txt: unknown suffix | qor gunzip $D/lshape.txt
gunzip-not-gzip | - | 1 | lshape.txt: not in gzip format | qor gunzip -c $D/lshape.txt
gzip-quiet | writer | 0 | ^ok$ | seq 1 1000 > x && qor gzip x > o 2> e && qor gunzip -c x.gz > o2 2> e2 && test ! -s o && test ! -s e && test ! -s e2 && echo ok
gzip-verbose | writer | 0 | ^qor: x: -?[0-9]+\.[0-9]% -- 588895 -> [0-9]+ bytes, written to x.gz$ && ^same$ && ^quiet stdout$ | seq 1 100000 > x && qor gzip -v x 2> e > o && test ! -s o && echo quiet stdout && cat e && test "$(sed 's/.*: \(.*%\).*/\1/' e)" = "$(awk -v p=$(wc -c < x) -v c=$(wc -c < x.gz) 'BEGIN { printf "%.1f%%", 100 - 100 * c / p }')" && echo same
gunzip-verbose | writer members | 0 | ^qor: x.gz: [0-9]+\.[0-9]% -- [0-9]+ -> 588895 bytes$ | seq 1 100000 | gzip > x.gz && qor gunzip -cv x.gz > /dev/null
gzip-verbose-empty | writer | 0 | ^qor: e: empty -- 0 -> [0-9]+ bytes, written to e.gz$ && ^no percentage$ | : > e && qor gzip -v e 2> err && cat err && ! grep -q % err && echo no percentage
gzip-terminal | writer | 1 | compressed data not written to a terminal; -f writes it anyway | script -qec "$QOR_BIN gzip -c $D/lshape.txt" /dev/null
bad-full-target | writer | 1 | ^qor: Write failed for keep.gz: File too large$ | seq 1 200000 > a && (ulimit -f 20; trap '' XFSZ; qor gzip a keep.gz); s=$?; test ! -e keep.gz && exit $s
divide-uncut | - | 0 | ^qor: divide: nothing was cut: its first break: rank 1 puts the cut at x = -99, the polygon's smallest x && ^piece 1: +32 vertices | qor divide --max 1
divide-small | - | 0 | ^qor: divide: nothing was cut: the first contour has 32 vertices, no more than --max 40$ | qor divide --max 40 2>&1 > /dev/null
break-uncut | - | 0 | ^qor: break: nothing was cut: rank 99 is not below the vertex count \(32\)$ | qor break --rank 99 2>&1 > /dev/null
split-uncut | - | 0 | ^qor: split: nothing was cut: the line does not cross | qor split --line 500,0,500,1 2>&1 > /dev/null
fill-bowtie | fill | 0 | fill evenodd \(1 vertex added where edges cross\) && triangles 50 \(the region under the even-odd rule\) && ^v 5 5$ | qor triangulate $D/crossing.txt --fill evenodd -o out.txt && check_tris $D/crossing.txt out.txt 2 50 && cat out.txt
fill-pentagram-evenodd | fill | 0 | 5 vertices added && ^ok$ | printf '0 100\n59 -81\n-95 31\n95 31\n-59 -81\n' > star.txt && qor triangulate star.txt --fill evenodd -o out.txt && check_tris star.txt out.txt - evenodd && echo ok
fill-pentagram-nonzero | fill | 0 | 5 vertices added && ^ok$ | printf '0 100\n59 -81\n-95 31\n95 31\n-59 -81\n' > star.txt && qor triangulate star.txt --fill nonzero -o out.txt && check_tris star.txt out.txt - nonzero && echo ok
fill-squares | fill | 0 | sq.txt: 8 vertices, 2 contours && triangles 6 \(the region under the even-odd rule && triangles 7 \(the region under the non-zero rule && ^ok$ | printf '0 0\n2 0\n2 2\n0 2\n\n1 1\n3 1\n3 3\n1 3\n' > sq.txt && qor triangulate sq.txt --fill evenodd -o out.txt && check_tris sq.txt out.txt - 6 && qor triangulate sq.txt --fill nonzero -o out2.txt && check_tris sq.txt out2.txt - 7 && echo ok
fill-map | fill members | 0 | ^ok$ | qor triangulate $P/simplified-us-border.json --fill nonzero -o out.txt.gz && check_tris $P/simplified-us-border.json out.txt.gz - nonzero && qor triangulate $P/simplified-us-border.json --fill evenodd -o out.txt && check_tris $P/simplified-us-border.json out.txt - evenodd && echo ok
fill-svg | fill | 0 | ^dots 5$ | printf '0 100\n59 -81\n-95 31\n95 31\n-59 -81\n' > star.txt && qor triangulate star.txt --fill nonzero --svg out.svg > /dev/null && grep -q 'fill-rule="nonzero"' out.svg && rsvg-convert out.svg -o out.png && check_png out.png && check_svg out.svg && echo dots $(grep -c '<circle' out.svg)
fill-bad-rule | - | 2 | --fill: expected evenodd or nonzero, got 'odd' | qor triangulate --fill odd
fill-strict | - | 2 | --fill and --strict exclude each other | qor triangulate --fill nonzero --strict
fixtures-listed | - | 0 | ^ok$ | ls $P | sed -n 's/\.json$//p' | sort > want && table | sed -n 's/^poly-\([a-z0-9-]*\) .*/\1/p' | sort > have && diff want have && echo ok
poly-bad-diagonals | rings | 0 | \(match && ^ok$ | qor triangulate $P/bad-diagonals.json -o out.txt && check_tris $P/bad-diagonals.json out.txt - rings && echo ok
poly-bad-hole | rings | 1 | ^qor: .*/bad-hole.json: qorTriangulateRings: ring 4 crosses ring 1 near \(838, 2857\.513514\) | qor triangulate $P/bad-hole.json
poly-boxy | rings | 0 | \(match && ^ok$ | qor triangulate $P/boxy.json -o out.txt && check_tris $P/boxy.json out.txt - rings && echo ok
poly-building | rings | 0 | \(match && ^ok$ | qor triangulate $P/building.json -o out.txt && check_tris $P/building.json out.txt - rings && echo ok
poly-collinear-diagonal | rings | 0 | \(match && ^ok$ | qor triangulate $P/collinear-diagonal.json -o out.txt && check_tris $P/collinear-diagonal.json out.txt - rings && echo ok
poly-degenerate | rings | 0 | \(match && ^ok$ | qor triangulate $P/degenerate.json -o out.txt && check_tris $P/degenerate.json out.txt - rings && echo ok
poly-dude | rings | 0 | \(match && ^ok$ | qor triangulate $P/dude.json -o out.txt && check_tris $P/dude.json out.txt - rings && echo ok
poly-eberly-3 | rings | 0 | \(match && ^ok$ | qor triangulate $P/eberly-3.json -o out.txt && check_tris $P/eberly-3.json out.txt - rings && echo ok
poly-eberly-6 | rings | 0 | \(match && ^ok$ | qor triangulate $P/eberly-6.json -o out.txt && check_tris $P/eberly-6.json out.txt - rings && echo ok
poly-empty-square | rings | 0 | \(match && ^ok$ | qor triangulate $P/empty-square.json -o out.txt && check_tris $P/empty-square.json out.txt - rings && echo ok
poly-filtered-bridge-jhl | rings | 0 | \(match && ^ok$ | qor triangulate $P/filtered-bridge-jhl.json -o out.txt && check_tris $P/filtered-bridge-jhl.json out.txt - rings && echo ok
poly-hilbert | rings | 0 | \(match && ^ok$ | qor triangulate $P/hilbert.json -o out.txt && check_tris $P/hilbert.json out.txt - rings && echo ok
poly-hole-touching-outer | rings | 0 | \(match && ^ok$ | qor triangulate $P/hole-touching-outer.json -o out.txt && check_tris $P/hole-touching-outer.json out.txt - rings && echo ok
poly-hourglass | rings | 0 | \(match && ^ok$ | qor triangulate $P/hourglass.json -o out.txt && check_tris $P/hourglass.json out.txt - rings && echo ok
poly-infinite-loop-jhl | rings | 0 | \(match && ^ok$ | qor triangulate $P/infinite-loop-jhl.json -o out.txt && check_tris $P/infinite-loop-jhl.json out.txt - rings && echo ok
poly-issue107 | rings | 1 | ^qor: .*/issue107.json: qorTriangulateRings: ring 1, the outer ring, has no area, but ring 2 has | qor triangulate $P/issue107.json
poly-issue111 | rings | 0 | \(match && ^ok$ | qor triangulate $P/issue111.json -o out.txt && check_tris $P/issue111.json out.txt - rings && echo ok
poly-issue119 | rings | 0 | \(match && ^ok$ | qor triangulate $P/issue119.json -o out.txt && check_tris $P/issue119.json out.txt - rings && echo ok
poly-issue131 | rings | 0 | \(match && ^ok$ | qor triangulate $P/issue131.json -o out.txt && check_tris $P/issue131.json out.txt - rings && echo ok
poly-issue142 | rings | 1 | ^qor: .*/issue142.json: qorTriangulateRings: ring 2 crosses ring 1 near \(-6\.833718161, -0\.665540551\) | qor triangulate $P/issue142.json
poly-issue147 | rings | 0 | \(match && ^ok$ | qor triangulate $P/issue147.json -o out.txt && check_tris $P/issue147.json out.txt - rings && echo ok
poly-issue149 | rings | 0 | \(match && ^ok$ | qor triangulate $P/issue149.json -o out.txt && check_tris $P/issue149.json out.txt - rings && echo ok
poly-issue16 | rings | 0 | \(match && ^ok$ | qor triangulate $P/issue16.json -o out.txt && check_tris $P/issue16.json out.txt - rings && echo ok
poly-issue17 | rings | 0 | \(match && ^ok$ | qor triangulate $P/issue17.json -o out.txt && check_tris $P/issue17.json out.txt - rings && echo ok
poly-issue186 | rings | 0 | \(match && ^ok$ | qor triangulate $P/issue186.json -o out.txt && check_tris $P/issue186.json out.txt - rings && echo ok
poly-issue29 | rings | 0 | \(match && ^ok$ | qor triangulate $P/issue29.json -o out.txt && check_tris $P/issue29.json out.txt - rings && echo ok
poly-issue34 | rings | 0 | \(match && ^ok$ | qor triangulate $P/issue34.json -o out.txt && check_tris $P/issue34.json out.txt - rings && echo ok
poly-issue35 | rings | 0 | \(match && ^ok$ | qor triangulate $P/issue35.json -o out.txt && check_tris $P/issue35.json out.txt - rings && echo ok
poly-issue45 | rings | 0 | \(match && ^ok$ | qor triangulate $P/issue45.json -o out.txt && check_tris $P/issue45.json out.txt - rings && echo ok
poly-issue52 | rings | 0 | \(match && ^ok$ | qor triangulate $P/issue52.json -o out.txt && check_tris $P/issue52.json out.txt - rings && echo ok
poly-issue83 | rings | 0 | \(match && ^ok$ | qor triangulate $P/issue83.json -o out.txt && check_tris $P/issue83.json out.txt - rings && echo ok
poly-outside-ring | rings | 0 | \(match && ^ok$ | qor triangulate $P/outside-ring.json -o out.txt && check_tris $P/outside-ring.json out.txt - rings && echo ok
poly-rain | rings | 0 | \(match && ^ok$ | qor triangulate $P/rain.json -o out.txt && check_tris $P/rain.json out.txt - rings && echo ok
poly-sample-outline | rings | 0 | \(match && ^ok$ | qor triangulate $P/sample-outline.json -o out.txt && check_tris $P/sample-outline.json out.txt - rings && echo ok
poly-self-tangent-1 | rings | 0 | \(match && ^ok$ | qor triangulate $P/self-tangent-1.json -o out.txt && check_tris $P/self-tangent-1.json out.txt - rings && echo ok
poly-self-tangent-2 | rings | 0 | \(match && ^ok$ | qor triangulate $P/self-tangent-2.json -o out.txt && check_tris $P/self-tangent-2.json out.txt - rings && echo ok
poly-self-tangent-3 | rings | 0 | \(match && ^ok$ | qor triangulate $P/self-tangent-3.json -o out.txt && check_tris $P/self-tangent-3.json out.txt - rings && echo ok
poly-self-tangent-4 | rings | 0 | \(match && ^ok$ | qor triangulate $P/self-tangent-4.json -o out.txt && check_tris $P/self-tangent-4.json out.txt - rings && echo ok
poly-self-touching | rings | 0 | \(match && ^ok$ | qor triangulate $P/self-touching.json -o out.txt && check_tris $P/self-touching.json out.txt - rings && echo ok
poly-shared-points | rings | 0 | \(match && ^ok$ | qor triangulate $P/shared-points.json -o out.txt && check_tris $P/shared-points.json out.txt - rings && echo ok
poly-simplified-us-border | rings | 1 | ^qor: .*/simplified-us-border.json: qorTriangulateRings: ring 1 crosses itself near \(654\.92, 1428\.06\) | qor triangulate $P/simplified-us-border.json
poly-steiner | rings | 0 | \(match && ^ok$ | qor triangulate $P/steiner.json -o out.txt && check_tris $P/steiner.json out.txt - rings && echo ok
poly-touching-holes | rings | 0 | \(match && ^ok$ | qor triangulate $P/touching-holes.json -o out.txt && check_tris $P/touching-holes.json out.txt - rings && echo ok
poly-touching-holes2 | rings | 0 | \(match && ^ok$ | qor triangulate $P/touching-holes2.json -o out.txt && check_tris $P/touching-holes2.json out.txt - rings && echo ok
poly-touching-holes3 | rings | 0 | \(match && ^ok$ | qor triangulate $P/touching-holes3.json -o out.txt && check_tris $P/touching-holes3.json out.txt - rings && echo ok
poly-touching-holes4 | rings | 0 | \(match && ^ok$ | qor triangulate $P/touching-holes4.json -o out.txt && check_tris $P/touching-holes4.json out.txt - rings && echo ok
poly-touching-holes5 | rings | 0 | \(match && ^ok$ | qor triangulate $P/touching-holes5.json -o out.txt && check_tris $P/touching-holes5.json out.txt - rings && echo ok
poly-touching-holes6 | rings | 0 | \(match && ^ok$ | qor triangulate $P/touching-holes6.json -o out.txt && check_tris $P/touching-holes6.json out.txt - rings && echo ok
poly-touching2 | rings | 0 | \(match && ^ok$ | qor triangulate $P/touching2.json -o out.txt && check_tris $P/touching2.json out.txt - rings && echo ok
poly-touching3 | rings | 0 | \(match && ^ok$ | qor triangulate $P/touching3.json -o out.txt && check_tris $P/touching3.json out.txt - rings && echo ok
poly-touching4 | rings | 0 | \(match && ^ok$ | qor triangulate $P/touching4.json -o out.txt && check_tris $P/touching4.json out.txt - rings && echo ok
poly-water | rings | 1 | ^qor: .*/water.json: qorTriangulateRings: ring 10 crosses itself near \(3705\.166667, 1729\) | qor triangulate $P/water.json
poly-water-huge | rings | 1 | ^qor: .*/water-huge.json: qorTriangulateRings: ring 1 crosses itself near \(3241\.628099, -80\.7768595\) | qor triangulate $P/water-huge.json
poly-water-huge2 | rings | 1 | ^qor: .*/water-huge2.json: qorTriangulateRings: ring 1 crosses itself near \(4034\.919075, 112\.1599229\) | qor triangulate $P/water-huge2.json
poly-water-huge3 | rings | 0 | \(match && ^ok$ | qor triangulate $P/water-huge3.json -o out.txt && check_tris $P/water-huge3.json out.txt - rings && echo ok
poly-water2 | rings | 0 | \(match && ^ok$ | qor triangulate $P/water2.json -o out.txt && check_tris $P/water2.json out.txt - rings && echo ok
poly-water3 | rings | 0 | \(match && ^ok$ | qor triangulate $P/water3.json -o out.txt && check_tris $P/water3.json out.txt - rings && echo ok
poly-water3b | rings | 0 | \(match && ^ok$ | qor triangulate $P/water3b.json -o out.txt && check_tris $P/water3b.json out.txt - rings && echo ok
poly-water4 | rings | 0 | \(match && ^ok$ | qor triangulate $P/water4.json -o out.txt && check_tris $P/water4.json out.txt - rings && echo ok
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
