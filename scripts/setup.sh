#!/bin/sh
# Installs what the build needs and is not there yet, with apt-get and nothing else.
# Runs as root, or through sudo.  Says nothing when all is there.
set -eu

missing=
need() {  # need PACKAGE TEST...: the package is missing unless the test holds
  package=$1
  shift
  "$@" >/dev/null 2>&1 || missing="$missing $package"
}
program() { command -v "$1"; }
file() { for f in "$@"; do [ -e "$f" ] && return 0; done; return 1; }

# A program counts wherever it comes from, a header or an archive where Debian puts it.
triplet=$(gcc -dumpmachine 2>/dev/null || echo x86_64-linux-gnu)
need build-essential      program g++
need cmake                program cmake
need ninja-build          program ninja
need python3              program python3
need rapidjson-dev        file /usr/include/rapidjson/reader.h
need libopenblas-pthread-dev file /usr/lib/"$triplet"/openblas-pthread/libopenblas.a
need libboost-math-dev    file /usr/include/boost/math/distributions/fisher_f.hpp
need libcli11-dev         file /usr/include/CLI/CLI.hpp
need libgtest-dev         file /usr/lib/"$triplet"/libgtest.a
need libbenchmark-dev     file /usr/lib/"$triplet"/libbenchmark.so /usr/lib/"$triplet"/libbenchmark.a
fortran() {  # the run-time of the compiler's own version is what the BLAS archive is linked with
  file /usr/lib/gcc/"$triplet"/*/libgfortran.a
}
if ! fortran; then
  version=$(gcc -dumpversion 2>/dev/null | cut -d. -f1 || true)
  missing="$missing libgfortran-${version:-12}-dev"
fi
[ -z "$missing" ] && exit 0

if ! command -v apt-get >/dev/null; then
  echo "setup: this system has no apt-get.  Please install by other means:$missing" >&2
  exit 1
fi
root=
if [ "$(id -u)" != 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "setup: neither root nor sudo.  Please ask for:  apt-get install$missing" >&2
    exit 1
  fi
  root=sudo
fi

log=$(mktemp)
trap 'rm -f "$log"' EXIT
install() { $root env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "$@" >"$log" 2>&1; }
echo "setup: installing$missing" >&2
# shellcheck disable=SC2086  # the list is one of words
install $missing && exit 0
$root apt-get update >"$log" 2>&1 || true
# shellcheck disable=SC2086
install $missing && exit 0

failed=
for package in $missing; do
  install "$package" || failed="$failed $package"
done
if [ -n "$failed" ]; then
  echo "setup: could not install:$failed" >&2
  tail -n 3 "$log" >&2
  exit 1
fi
