#!/usr/bin/python3
"""Measures how long a new record takes to reach the collector's standard output.

    bench/latency/run.py [--build DIR] [--rates 100,1000] [--seconds 10] [--xml]

For each rate the collector follows an empty System channel while evtsim-store
appends records at that rate (`evtsim-store stream`, one per commit unless a
slow commit makes the next hold what fell due meanwhile), printing each record's
commit time. The latency of a record is the time from its commit
to the moment its event is read from the collector's standard output; the
script prints p50, p99 and the maximum for each rate. Both clocks are the
system's wall clock (Wine's GetSystemTimePreciseAsFileTime is the host's).
"""
import argparse
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
EPOCH_DIFF = 11644473600  # seconds from 1601 to 1970
EVENT_RE = re.compile(rb"RecordNumber=(\d+)|&lt;EventRecordID&gt;(\d+)&lt;")


def winpath(p):
    return "Z:" + str(Path(p).resolve()).replace("/", "\\")


def percentile(values, p):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(round(p / 100 * (len(ordered) - 1))))]


def measure(build, workdir, rate, seconds, xml):
    store = workdir / f"store-{rate}"
    home = workdir / f"home-{rate}"
    shutil.rmtree(store, ignore_errors=True)
    shutil.rmtree(home, ignore_errors=True)
    (home / "etc").mkdir(parents=True)
    (home / "etc" / "log-cmdline.cfg").write_text("level = DEBUG\n")
    env = dict(os.environ, EVTSIM_STORE=winpath(store), SKORVA_HOME=winpath(home))
    env.pop("SKORVAD_PROCESSID", None)
    tool = [str(build / "wine-run"), str(build / "tools" / "evtsim" / "evtsim-store.exe"), "--store", winpath(store)]
    subprocess.run(tool + ["create", "System"], check=True, env=env, stdin=subprocess.DEVNULL,
                   stdout=subprocess.DEVNULL)
    document = ("<input><configuration><stanza name='WinEventLog://System'>"
                f"<param name='renderXml'>{'true' if xml else 'false'}</param>"
                "</stanza></configuration></input>").encode()
    collector = subprocess.Popen([str(build / "wine-run"), str(build / "src" / "skorva-winevtlog.exe")],
                                 stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=env)
    collector.stdin.write(document)
    collector.stdin.close()
    arrived = {}

    def read():
        tail = b""
        for chunk in iter(lambda: collector.stdout.read1(1 << 16), b""):
            now = time.time()
            data = tail + chunk
            cut = data.rfind(b"</event>")
            for m in EVENT_RE.finditer(data, 0, cut if cut >= 0 else 0):
                arrived.setdefault(int(m.group(1) or m.group(2)), now)
            tail = data[cut:] if cut >= 0 else data

    reader = threading.Thread(target=read, daemon=True)
    reader.start()
    log = home / "var" / "log" / "skorva" / "skorva-winevtlog.log"
    deadline = time.monotonic() + 60
    while time.monotonic() < deadline and not (log.exists() and "Wait on channel System" in log.read_text()):
        time.sleep(0.05)
    count = rate * seconds
    writer = subprocess.run(tool + ["stream", "System", str(count), str(rate)], check=True, env=env,
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, timeout=seconds * 10 + 60)
    committed = {}
    for line in writer.stdout.decode().splitlines():
        rid, ft = line.split()
        committed[int(rid)] = int(ft) / 1e7 - EPOCH_DIFF
    deadline = time.monotonic() + 60
    while len(arrived) < count and time.monotonic() < deadline:
        time.sleep(0.05)
    collector.send_signal(signal.SIGINT)
    collector.wait(timeout=60)
    reader.join(timeout=10)
    latencies = [(arrived[r] - t) * 1000 for r, t in committed.items() if r in arrived]
    return count, len(latencies), latencies


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default=str(ROOT / "build"))
    ap.add_argument("--rates", default="100,1000")
    ap.add_argument("--seconds", type=int, default=10)
    ap.add_argument("--xml", action="store_true", help="render the events as XML")
    args = ap.parse_args()
    build = Path(args.build).resolve()
    subprocess.run([str(ROOT / "cmake" / "wine-fixture.sh"), "start", str(build / "wineprefix"),
                    str(build / "tools" / "evtsim" / "wevtapi.dll")], check=True)
    workdir = Path(tempfile.mkdtemp(prefix="skorva-latency-"))
    try:
        print(f"{'rate/s':>7} {'records':>8} {'arrived':>8} {'p50 ms':>8} {'p99 ms':>8} {'max ms':>8}")
        for rate in (int(r) for r in args.rates.split(",")):
            count, got, lat = measure(build, workdir, rate, args.seconds, args.xml)
            if not lat:
                print(f"{rate:7d} {count:8d} {got:8d}")
                continue
            print(f"{rate:7d} {count:8d} {got:8d} {percentile(lat, 50):8.1f} {percentile(lat, 99):8.1f} "
                  f"{max(lat):8.1f}")
    finally:
        shutil.rmtree(workdir, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
