#!/usr/bin/env bash
# The main job: installs what is missing, builds libqor and runs the example.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
"$root/scripts/build.sh" "$root/build" -DQOR_BUILD_TESTS=OFF -DQOR_BUILD_BENCH=OFF
"$root/build/examples/qor_example" "$@"
