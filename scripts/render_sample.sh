#!/usr/bin/env bash
# Remakes docs/sample.png, the README's picture: the built-in polygon
# triangulated by the qor tool, rendered with rsvg-convert (librsvg2-bin).
# Builds the tool first when build/tools/qor is missing.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
qor=${QOR_BIN:-$root/build/tools/qor}
[ -x "$qor" ] || "$root/scripts/build.sh" "$root/build" -DQOR_BUILD_TESTS=OFF -DQOR_BUILD_BENCH=OFF
svg=$(mktemp --suffix=.svg)
trap 'rm -f "$svg"' EXIT
"$qor" triangulate --svg "$svg" >/dev/null
mkdir -p "$root/docs"
rsvg-convert "$svg" -o "$root/docs/sample.png"
echo "wrote $root/docs/sample.png"
