#!/bin/sh
# Sets up, builds, fits the oats trial and prints its report.  Any arguments go to the driver instead:
#   scripts/run.sh fit my_request.json --data trial=trial.csv
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
sh "$root/scripts/build.sh" release tolvan
[ $# -gt 0 ] || set -- fit "$root/examples/oats/request.json"
exec "$root/build/release/app/tolvan" "$@"
