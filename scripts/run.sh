#!/bin/sh
# Sets up, builds, fits the oats trial and prints its report.  Any arguments go to the driver instead:
#   scripts/run.sh fit my_request.json --data trial=trial.csv
set -eu
here=$(dirname "$0")
sh "$here/build.sh" release tolvan
[ $# -gt 0 ] || set -- fit "$here/../examples/oats/request.json"
exec "$here/../build/release/app/tolvan" "$@"
