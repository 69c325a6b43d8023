#!/usr/bin/env bash
# The tests: installs what is missing, builds libqor with its tests and runs
# them with CTest. Extra arguments go to ctest (for example -R qorHashUtil).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${QOR_TEST_BUILD_DIR:-$root/build}
"$root/scripts/setup.sh"
"$root/scripts/build.sh" "$build" -DQOR_BUILD_TESTS=ON -DQOR_TESTING_HOOKS=ON -DQOR_BUILD_BENCH=ON -DQOR_WERROR=ON \
  -DQOR_TEST_EMBEDDING=ON ${QOR_CMAKE_OPTIONS:-}
cd "$build"
ctest --output-on-failure -j "$(nproc)" --timeout 900 "$@"
