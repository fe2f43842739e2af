#!/bin/sh
# Sets up, builds and runs all tests.  Usage: test.sh [PRESET] [arguments of ctest]; the preset is release unless given.
set -eu
cd "$(dirname "$0")/.."
preset=release
case ${1-} in
  release | debug | asan | tidy) preset=$1; shift ;;
esac
sh scripts/build.sh "$preset"
exec ctest --test-dir "build/$preset" --output-on-failure -j "$(nproc)" "$@"
