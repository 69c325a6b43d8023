#!/usr/bin/env bash
# embed_test.sh SOURCE_DIR WORK_DIR: builds a project that adds the checkout
# with add_subdirectory. It must build the library and its own program only,
# look for none of the test, benchmark or tool packages, and leave its build
# type alone.
set -euo pipefail
source=$1 work=$2
rm -rf "$work"
cmake -S "$source/tests/install/embed" -B "$work" -DQOR_SOURCE_DIR="$source" \
  -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" >"$work.log"
cmake --build "$work" -j "$(nproc)" >>"$work.log"
LD_LIBRARY_PATH="$work/qor:${LD_LIBRARY_PATH:-}" "$work/consumer" "$work"

# What was searched for and what was built.
if grep -E '^(GTest_DIR|benchmark_DIR|QOR_GLU_LIBRARY|QOR_GMP_LIBRARY|QOR_EARCUT_INCLUDE|CMAKE_BUILD_TYPE:STRING=.+)' \
  "$work/CMakeCache.txt"; then
  echo "the embedding project's cache holds the entries above" >&2
  exit 1
fi
built=$(find "$work" -path '*/CMakeFiles' -prune -o -type f -perm -u+x ! -name 'libqor.so*' ! -name consumer -printf '%P\n')
if [ -n "$built" ]; then
  echo "built besides the library and the consumer: $built" >&2
  exit 1
fi
echo "embedded: the library and the consumer only"
