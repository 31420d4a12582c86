#!/usr/bin/env bash
# Installs the built library into a temporary prefix, then builds and runs a
# small consumer against it twice: with find_package(Ambit) and with
# pkg-config. Arguments: build directory, source directory.
set -euo pipefail
build=$1
source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
test -f "$prefix/include/ambit/ambit.h"
test -L "$prefix/lib/libambit.so"
readelf -d "$prefix/lib/libambit.so" | grep -q 'SONAME.*libambit\.so\.1'

# 1. CMake package config.
cmake -S "$source/tests/package/consumer" -B "$work/cmake-build" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$source/cmake/i386-toolchain.cmake" \
  -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$prefix/lib" "$work/cmake-build/consumer"

# 2. pkg-config.
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
test "$(pkg-config --modversion ambit)" = 1.0.0
# shellcheck disable=SC2046
g++ -m32 -std=c++17 "$source/tests/package/consumer/main.cpp" -o "$work/pc-consumer" \
  $(pkg-config --cflags --libs ambit) -Wl,-rpath,"$prefix/lib"
"$work/pc-consumer"
echo "package: both consumers built and ran"
