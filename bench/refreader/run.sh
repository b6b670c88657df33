#!/bin/sh
# Measures the reference reader under Wine over N generated records (default 200000).
#   bench/refreader/run.sh BUILD_DIR [N] [CHANNEL]
# Prints one summary line per mode (xml, values).
set -eu
build=${1:?usage: run.sh BUILD_DIR [N] [CHANNEL]}
count=${2:-200000}
channel=${3:-Security}
run="$build/wine-run"
store=$(mktemp -d /tmp/evtsim-bench.XXXXXX)
trap 'rm -rf "$store"' EXIT
winstore="Z:$(echo "$store" | sed 's|/|\\|g')"
"$run" "$build/tools/evtsim/evtsim-store.exe" --store "$winstore" generate "$channel" "$count" --seed 42 </dev/null
for mode in xml values; do
  EVTSIM_STORE="$winstore" "$run" "$build/bench/refreader/refreader.exe" --channel "$channel" --mode "$mode" \
    --batch 100 </dev/null >/dev/null
done
