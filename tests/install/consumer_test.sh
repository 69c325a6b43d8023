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

echo "== the installed package asks nothing of its users' build but C++17"
if grep -E 'INTERFACE_COMPILE_(DEFINITIONS|OPTIONS)' "$prefix"/lib*/cmake/qor/qorTargets.cmake; then
  echo "qor::qor passes the lines above on to its users" >&2
  exit 1
fi

echo "== pkg-config qor, -std=c++20"
pcdir=$(dirname "$(find "$prefix" -name qor.pc | head -n 1)")
export PKG_CONFIG_PATH="$pcdir${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}"
# The include paths, Qt's own definitions, and -fPIC, which Qt 5's headers
# require of their users; no language level, nothing of the library's build.
for flag in $(pkg-config --cflags qor); do
  case $flag in
    -I* | -fPIC | -DQT_*_LIB) ;;
    *)
      echo "pkg-config --cflags qor gives $flag" >&2
      exit 1
      ;;
  esac
done
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
