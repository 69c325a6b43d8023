#!/usr/bin/env bash
# The main job: installs what is missing, builds libqor and its command-line
# tool, and triangulates the tool's built-in polygon with holes, drawing the
# result into sample.svg. Extra arguments go to qor triangulate.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
"$root/scripts/build.sh" "$root/build" -DQOR_BUILD_TESTS=OFF -DQOR_BUILD_BENCH=OFF
cd "$root"
"$root/build/tools/qor" triangulate --svg sample.svg "$@"
echo "The picture is $root/sample.svg (open it in a browser, or: rsvg-convert sample.svg -o sample.png)."
