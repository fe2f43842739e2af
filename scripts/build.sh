#!/bin/sh
# Usage: build.sh PRESET [TARGET...]: sets up, configures and builds; quiet unless something fails.
set -eu
cd "$(dirname "$0")/.."
preset=$1
shift
sh scripts/setup.sh
folder=build/$preset
mkdir -p "$folder"
log=$folder/build.log
[ $# -eq 0 ] || set -- --target "$@"
if [ ! -e "$folder/build.ninja" ]; then
  echo "building in $folder (the first time takes a few minutes)" >&2
  cmake --preset "$preset" >"$log" 2>&1 || { cat "$log" >&2; exit 1; }
fi
cmake --build "$folder" "$@" >"$log" 2>&1 || { cat "$log" >&2; exit 1; }
