#!/usr/bin/env bash
# build.sh BUILD_DIR [cmake options...]: configures and builds libqor.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$1
shift
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE="${QOR_BUILD_TYPE:-RelWithDebInfo}" "$@" >/dev/null
cmake --build "$build" -j "$(nproc)"
