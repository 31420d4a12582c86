#!/usr/bin/env bash
# Installs, through apt, the Debian packages that building and testing the
# library need. Idempotent: prints nothing and touches nothing when every
# package is already installed.
#
#   deps.sh          what the build, the tests and the fuzz target need
#   deps.sh bench    that, plus the benchmarks' own baselines
set -u

# Packages for the i386 build and the tests (python3 turns the manual pages
# into roff).
core=(g++-multilib procps tzdata util-linux file pkg-config python3)
# For the benchmarks (the i386 Google Benchmark beside the amd64 one) and the
# fuzz target (clang with its libFuzzer runtime).
extra=(libbenchmark-dev:i386 clang libclang-rt-14-dev)
# Baselines that only the benchmarks compile against (Boost.Interprocess is
# header-only); never a dependency of the library or its tests.
if [ "${1:-}" = "bench" ]; then
  extra+=(libboost-dev)
fi

missing() {
  local p
  for p in "$@"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
      printf '%s\n' "$p"
    fi
  done
}

need_core=$(missing "${core[@]}")
need_extra=$(missing "${extra[@]}")
[ -z "$need_core$need_extra" ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive

if [ -n "$need_extra" ] && ! dpkg --print-foreign-architectures | grep -qx i386; then
  $sudo dpkg --add-architecture i386
fi

echo "deps: installing:" $need_core $need_extra
# One i386 security index may fail to download; everything needed comes
# from the main archive, so a failing update does not stop the install.
$sudo apt-get update -qq >/dev/null 2>&1 || echo "deps: apt-get update reported errors (ignored)"

if [ -n "$need_core" ]; then
  # shellcheck disable=SC2086
  log=$(mktemp)
  $sudo apt-get install -y -qq --no-install-recommends $need_core >"$log" 2>&1 || {
    cat "$log" >&2
    echo "deps: failed to install: $need_core" >&2
    exit 1
  }
  rm -f "$log"
fi
if [ -n "$need_extra" ]; then
  # The benchmarks are optional for the tests: a failure here is reported
  # and 'make bench' then says what is missing.
  # shellcheck disable=SC2086
  $sudo apt-get install -y -qq --no-install-recommends $need_extra >/dev/null 2>&1 ||
    echo "deps: could not install $need_extra; 'make bench' will not build" >&2
fi
exit 0
