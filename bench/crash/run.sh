#!/bin/sh
# The crash test's long variant: the collector killed 100 times at random moments
# while it reads 300,000 records; prints what was written twice against the bound
# of one batch per kill, and fails if anything was lost.
#   bench/crash/run.sh [BUILD_DIR] [KILLS] [RECORDS]
set -eu
root=$(cd "$(dirname "$0")/../.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
cd "$root/tests/e2e"
SKORVA_EXE="$build/src/skorva-winevtlog.exe" EVTSIM_TOOL="$build/tools/evtsim/evtsim-store.exe" \
SKORVA_WINE_RUN="$build/wine-run" SKORVA_BUILD_DIR="$build" WINEPREFIX="$build/wineprefix" \
COLLECTOR_KILLS="${2:-100}" COLLECTOR_RECORDS="${3:-300000}" /usr/bin/python3 -m pytest -q -s -p no:cacheprovider \
  test_collector_crash.py -k sigkill 2>&1 | grep -E "kills=|passed|failed|Error"
