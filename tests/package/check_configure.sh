#!/usr/bin/env bash
# Configuring ambit as a newcomer might: plainly, which must give an i386
# build; and with the machine's 64-bit compiler named, which must fail with
# a message that tells how to recover, and recover when followed.
# Argument: source directory.
set -euo pipefail
source=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "configure: FAILED: $*" >&2; exit 1; }
unset CC CXX
quick=(-G Ninja -DAMBIT_TESTS=OFF)

# Plain: the project's toolchain file is the default.
cmake -S "$source" -B "$work/plain" "${quick[@]}" >"$work/plain.log" 2>&1 ||
  { cat "$work/plain.log" >&2; fail "a plain configure failed"; }
grep -q 'CMAKE_CXX_SIZEOF_DATA_PTR "4"' "$work/plain/CMakeFiles"/*/CMakeCXXCompiler.cmake ||
  fail "a plain configure is not i386"

# The wrong target: the message names the cure, the cached compiler keeps
# it failing on a second try, and the advised command recovers.
wrong=$work/wrong
if cmake -S "$source" -B "$wrong" "${quick[@]}" -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ \
    >"$work/wrong.log" 2>&1; then
  fail "a 64-bit configure succeeded"
fi
grep -q 'built for 32-bit x86 only' "$work/wrong.log" || { cat "$work/wrong.log" >&2; fail "no reason given"; }
grep -q -- "cmake --fresh -S $source -B $wrong" "$work/wrong.log" ||
  { cat "$work/wrong.log" >&2; fail "no way to recover given"; }
if cmake -S "$source" -B "$wrong" >"$work/again.log" 2>&1; then
  fail "the cached 64-bit compiler was dropped without --fresh (the advice would be wrong)"
fi
cmake --fresh -S "$source" -B "$wrong" "${quick[@]}" \
  -DCMAKE_TOOLCHAIN_FILE="$source/cmake/i386-toolchain.cmake" >"$work/fresh.log" 2>&1 ||
  { cat "$work/fresh.log" >&2; fail "the advised command did not recover"; }
grep -q 'CMAKE_CXX_SIZEOF_DATA_PTR "4"' "$wrong/CMakeFiles"/*/CMakeCXXCompiler.cmake ||
  fail "the recovered build directory is not i386"
echo "configure: plain configure is i386; the wrong target fails with advice that works"
