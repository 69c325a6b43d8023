#!/usr/bin/env bash
# consumer_test.sh BUILD_DIR WORK_DIR CONSUMER_SOURCE_DIR
set -euo pipefail
build=$1 work=$2 source=$3
flags=${QOR_SANITIZER_FLAGS//;/ }

rm -rf "$work"
mkdir -p "$work"
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null

echo "== find_package(qor)"
cmake -S "$source" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror $flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$prefix/lib:${LD_LIBRARY_PATH:-}" "$work/cmake-build/consumer" "$work"

echo "== pkg-config qor, -std=c++20"
pcdir=$(dirname "$(find "$prefix" -name qor.pc | head -n 1)")
export PKG_CONFIG_PATH="$pcdir${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}"
# shellcheck disable=SC2046,SC2086
g++ -std=c++20 -Wall -Wextra -Werror $flags "$source/consumer.cpp" -o "$work/consumer-pc" $(pkg-config --cflags --libs qor)
LD_LIBRARY_PATH="$(pkg-config --variable=libdir qor):${LD_LIBRARY_PATH:-}" "$work/consumer-pc" "$work"

echo "== below C++17 the headers say why they fail"
# shellcheck disable=SC2046
if g++ -std=c++14 -fsyntax-only -x c++ - $(pkg-config --cflags qor) <<<'#include <qor/qor.h>' 2>"$work/cxx14.log"; then
  echo "compiled as C++14" >&2
  exit 1
fi
grep -q "need C++17 or later" "$work/cxx14.log"
