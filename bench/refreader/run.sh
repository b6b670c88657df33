#!/bin/sh
# Measures the reference reader under Wine over N generated records (default 200000).
#   bench/refreader/run.sh BUILD_DIR [N] [CHANNEL]
# Prints one summary line per mode (xml, values), then the peak memory (the Wine
# process's largest resident set, as the collector benchmark takes it) and CPU time.
# With REFREADER_STORE=DIR the store is kept in DIR and reused when it already
# holds the channel (to compare builds over one large store).
set -eu
build=${1:?usage: run.sh BUILD_DIR [N] [CHANNEL]}
count=${2:-200000}
channel=${3:-Security}
run="$build/wine-run"
if [ -n "${REFREADER_STORE:-}" ]; then
  store=$REFREADER_STORE
  mkdir -p "$store"
else
  store=$(mktemp -d /tmp/evtsim-bench.XXXXXX)
  trap 'rm -rf "$store"' EXIT
fi
winstore="Z:$(echo "$store" | sed 's|/|\\|g')"
if [ ! -d "$store/channels/$channel" ]; then
  "$run" "$build/tools/evtsim/evtsim-store.exe" --store "$winstore" generate "$channel" "$count" --seed 42 </dev/null
fi
for mode in xml values; do
  EVTSIM_STORE="$winstore" /usr/bin/python3 -c '
import os, subprocess, sys
p = subprocess.Popen(sys.argv[2:], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
_, status, usage = os.wait4(p.pid, 0)
print("refreader: mode=%s peak_mib=%.1f cpu_seconds=%.2f"
      % (sys.argv[1], usage.ru_maxrss / 1024, usage.ru_utime + usage.ru_stime), file=sys.stderr)
sys.exit(os.waitstatus_to_exitcode(status))
' "$mode" "$run" "$build/bench/refreader/refreader.exe" --channel "$channel" --mode "$mode" --batch 100
done
