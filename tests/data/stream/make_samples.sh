#!/bin/sh
# Makes the compressed samples the stream tests read, from text.txt:
#   text.txt       72 KiB of generated lines (python3, fixed seed)
#   text-1.txt.gz  gzip(1) -1, header with the file name and time stamp
#   text-9.txt.gz  gzip(1) -9
#   text.raw       raw deflate (no header, no trailer) by Python's zlib, wbits -15
# Run in this folder; the outputs are committed, so a clean clone needs nothing.
set -e
python3 -c "
import random
random.seed(16)
words = ['alpha', 'beta', 'gamma', 'delta', '\t', 'x' * 40, '\xe9t\xe9', '0123456789']
out = []
while sum(len(l) for l in out) < 72 * 1024:
    line = ' '.join(random.choice(words) for _ in range(random.randrange(0, 30)))
    out.append(line + ('\r\n' if random.randrange(8) == 0 else '\n'))
open('text.txt', 'w', encoding='latin-1', newline='').write(''.join(out))
"
cp text.txt text-1.txt && gzip -f -1 text-1.txt
cp text.txt text-9.txt && gzip -f -9 text-9.txt
python3 -c "
import zlib
c = zlib.compressobj(9, zlib.DEFLATED, -15)
d = open('text.txt', 'rb').read()
open('text.raw', 'wb').write(c.compress(d) + c.flush())
"
