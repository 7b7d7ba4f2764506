#!/usr/bin/env bash
# Installs the library into a folder of its own and builds C and C++ programs against it, through
# find_package and through pkg-config.
# Usage: package_test.sh BUILD_DIR CONSUMER_DIR C_COMPILER CXX_COMPILER
set -euo pipefail
build=$1 consumer=$2 cc=$3 cxx=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name libkel.so)")
test "$(readelf -d "$libdir/libkel.so" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')" = libkel.so.6
export LD_LIBRARY_PATH=$libdir

echo "find_package"
cmake -G Ninja -S "$consumer" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" \
  -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/from_c"
"$work/cmake/from_cxx"

echo "examples"
cmake -G Ninja -S "$consumer/../../../examples" -B "$work/examples" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
cmake --build "$work/examples" >/dev/null

echo "pkg-config"
export PKG_CONFIG_PATH=$libdir/pkgconfig
flags=$(pkg-config --cflags --libs kel)
# shellcheck disable=SC2086
"$cc" -std=c11 -Wall -Wextra -Werror "$consumer/from_c.c" -o "$work/from_c" $flags
# shellcheck disable=SC2086
"$cxx" -std=c++17 -Wall -Wextra -Werror "$consumer/from_cxx.cc" -o "$work/from_cxx" $flags
"$work/from_c"
"$work/from_cxx"

echo "headers alone"
for header in "$prefix"/include/kel/*.h; do
  name=kel/$(basename "$header")
  source="#include <$name>
typedef int not_empty;"
  # shellcheck disable=SC2086
  "$cxx" -std=c++17 -Wall -Wextra -Wpedantic -Werror -fsyntax-only $flags -x c++ - <<<"$source"
  # shellcheck disable=SC2086
  "$cc" -std=c11 -Wall -Wextra -Wpedantic -Werror -fsyntax-only $flags -x c - <<<"$source"
done
