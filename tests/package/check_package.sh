#!/usr/bin/env bash
# Installs the built tree into a temporary prefix and uses it as a newcomer
# would, with nothing but what the install put there:
#   1. a consumer built with find_package(Ambit): no toolchain file, the
#      machine's default compiler, C++11 asked for, no extra flag;
#   2. the same consumer built with plain g++ and pkg-config, no extra flag;
#   3. the public headers compiled for the machine's own 64-bit target stop
#      with one error that names -m32;
#   4. the installed programs answer --help and --version, have manual
#      pages, and still run after the whole prefix has been moved elsewhere
#      (they find their helpers relative to themselves, not in this checkout).
# Arguments: build directory, source directory.
set -euo pipefail
build=$1
source=$(cd "$2" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
fail() { echo "package: FAILED: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null
test -f "$prefix/include/ambit/ambit.h"
test -f "$prefix/include/ambit/version.h"
test -L "$prefix/lib/libambit.so"
readelf -d "$prefix/lib/libambit.so" | grep -q 'SONAME.*libambit\.so\.1'
version=$(sed -n 's/^#define AMBIT_VERSION_STRING "\(.*\)"$/\1/p' "$prefix/include/ambit/version.h")
[ "$version" = 1.0.0 ] || fail "ambit/version.h says '$version'"

# 1. CMake package config, consumed by a project that knows nothing of i386.
cmake -S "$source/tests/package/consumer" -B "$work/cmake-build" -G Ninja \
  -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
grep -q "^Ambit_DIR:PATH=$prefix/lib/cmake/Ambit" "$work/cmake-build/CMakeCache.txt"
cmake --build "$work/cmake-build" >/dev/null
file -L "$work/cmake-build/consumer" | grep -q 'ELF 32-bit' || fail "the CMake consumer is not i386"
"$work/cmake-build/consumer"
grep -q '"-m32"' "$prefix/lib/cmake/Ambit/AmbitTargets.cmake"
[ "$(grep -c 'INTERFACE_INCLUDE_DIRECTORIES' "$prefix/lib/cmake/Ambit/AmbitTargets.cmake")" = 1 ]
grep -q 'INTERFACE_INCLUDE_DIRECTORIES "${_IMPORT_PREFIX}/include"$' \
  "$prefix/lib/cmake/Ambit/AmbitTargets.cmake" || fail "the include directory is listed more than once"
grep -q "PACKAGE_VERSION \"$version\"" "$prefix/lib/cmake/Ambit/AmbitConfigVersion.cmake"

# 2. pkg-config with the default compiler and nothing else.
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
[ "$(pkg-config --modversion ambit)" = "$version" ] || fail "ambit.pc version"
pkg-config --cflags ambit | grep -q -- '-m32' || fail "ambit.pc Cflags lack -m32"
pkg-config --libs ambit | grep -q -- '-m32' || fail "ambit.pc Libs lack -m32"
# shellcheck disable=SC2046
g++ "$source/tests/package/consumer/main.cpp" -o "$work/pc-consumer" $(pkg-config --cflags --libs ambit)
file -L "$work/pc-consumer" | grep -q 'ELF 32-bit' || fail "the pkg-config consumer is not i386"
LD_LIBRARY_PATH="$prefix/lib" "$work/pc-consumer"

# 3. Every public header, compiled for the wrong target, stops with one
# error naming -m32 (version.h has nothing that depends on the target).
for header in "$prefix"/include/ambit/*.h; do
  name=$(basename "$header")
  [ "$name" = version.h ] && continue
  printf '#include <ambit/%s>\nint main() { return 0; }\n' "$name" >"$work/wrong.cpp"
  if g++ -m64 -std=c++17 -I"$prefix/include" -c "$work/wrong.cpp" -o "$work/wrong.o" \
      2>"$work/wrong.log"; then
    fail "ambit/$name compiled for x86_64"
  fi
  errors=$(grep -c 'error:' "$work/wrong.log" || true)
  [ "$errors" = 1 ] || { cat "$work/wrong.log" >&2; fail "ambit/$name: $errors errors, want 1"; }
  grep 'error:' "$work/wrong.log" | grep -q -- '-m32' || fail "ambit/$name: the error does not name -m32"
done

# 4. The installed programs, then the same prefix moved elsewhere.
for tool in ambit-ipcs ambit-demo ambit-torture; do
  "$prefix/bin/$tool" --help >"$work/help" || fail "$tool --help exits non-zero"
  grep -q "^usage: $tool" "$work/help" || fail "$tool --help prints no usage on stdout"
  [ "$("$prefix/bin/$tool" --version)" = "$tool (ambit) $version" ] || fail "$tool --version"
  page=$prefix/share/man/man1/$tool.1
  [ -f "$page" ] || fail "no manual page for $tool"
  head -n 1 "$page" | grep -q "^\.TH \"$(echo "$tool" | tr a-z A-Z)\" \"1\"" || fail "$page: no .TH"
  grep -q '^\.SH SYNOPSIS' "$page" || fail "$page: no SYNOPSIS"
  if command -v man >/dev/null; then
    MANWIDTH=80 man -l "$page" 2>/dev/null | grep -q "$tool" || fail "man cannot render $page"
  fi
  # No path of this checkout is compiled into the program's data.
  if readelf -p .rodata "$prefix/bin/$tool" | grep -q -F "$source"; then
    fail "$tool carries a path of the source tree"
  fi
done
moved=$work/moved
mv "$prefix" "$moved"
out=$("$moved/bin/ambit-torture" --seconds 1 2>&1) || { echo "$out" >&2; fail "moved ambit-torture"; }
grep -q 'violations: 0' <<<"$out" || { echo "$out" >&2; fail "moved ambit-torture"; }
out=$(QKLogFilePath=$work "$moved/bin/ambit-demo" 2>&1) || { echo "$out" >&2; fail "moved ambit-demo"; }
grep -q 'lost: 0' <<<"$out" || { echo "$out" >&2; fail "moved ambit-demo"; }
echo "package: both consumers built and ran; headers, programs and manual pages checked"
