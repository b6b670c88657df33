#!/usr/bin/python3
"""A long run: the collector follows three channels written at a steady rate
while the channels are cleared, deleted and made again, and the collector is
stopped with Ctrl-C and started again. Nothing may be lost, and its memory,
threads, files and event log handles must stay flat.

    bench/soak/run.py [--build DIR] [--minutes 30] [--rate 2000] [--segment 60]

The records go in segments: each segment the three writers (evtsim-store stream)
append rate/3 records a second for --segment seconds. Between segments, at a
third of the run Application is cleared, at half the collector is restarted, at
two thirds System is deleted and made again, at five sixths the collector is
restarted again (each time once everything written so far has arrived, so that
nothing is lost by the action itself). Every 10 s the collector's resident
memory, threads and open files (from /proc) and its open event log handles (the
simulated event log's count) are sampled. At the end: records written, records
missing, records sent twice, and the samples' first and last values and range.
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
CHANNELS = ("Security", "Application", "System")
EVENT_RE = re.compile(rb'<event stanza="WinEventLog://(\w+)">.*?RecordNumber=(\d+)', re.S)


def winpath(p):
    return "Z:" + str(Path(p).resolve()).replace("/", "\\")


class Collector:
    def __init__(self, build, env, document, on_event):
        self.proc = subprocess.Popen([str(build / "wine-run"), str(build / "src" / "skorva-winevtlog.exe")],
                                     stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=env)
        self.proc.stdin.write(document)
        self.proc.stdin.close()
        self.on_event = on_event
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        tail = b""
        for chunk in iter(lambda: self.proc.stdout.read1(1 << 16), b""):
            data = tail + chunk
            cut = data.rfind(b"</event>")
            if cut < 0:
                tail = data
                continue
            for m in EVENT_RE.finditer(data, 0, cut):
                self.on_event(m.group(1).decode(), int(m.group(2)))
            tail = data[cut:]

    def stop(self):
        self.proc.send_signal(signal.SIGINT)
        code = self.proc.wait(timeout=120)
        self.reader.join(timeout=30)
        return code

    def sample(self, stats_file):
        pid = self.proc.pid
        try:
            status = Path(f"/proc/{pid}/status").read_text()
            rss = int(re.search(r"VmRSS:\s+(\d+)", status).group(1)) // 1024
            threads = int(re.search(r"Threads:\s+(\d+)", status).group(1))
            files = len(os.listdir(f"/proc/{pid}/fd"))
        except (OSError, AttributeError):
            return None
        handles = None
        try:
            handles = int(stats_file.read_text().split("=")[1])
        except (OSError, IndexError, ValueError):
            pass
        return {"rss MiB": rss, "threads": threads, "files": files, "evt handles": handles}


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default=str(ROOT / "build"))
    ap.add_argument("--minutes", type=float, default=30)
    ap.add_argument("--rate", type=int, default=2000, help="records a second, over the three channels")
    ap.add_argument("--segment", type=int, default=60, help="seconds per writing segment")
    args = ap.parse_args()
    build = Path(args.build).resolve()
    subprocess.run([str(ROOT / "cmake" / "wine-fixture.sh"), "start", str(build / "wineprefix"),
                    str(build / "tools" / "evtsim" / "wevtapi.dll")], check=True)
    workdir = Path(tempfile.mkdtemp(prefix="skorva-soak-"))
    store, home, stats = workdir / "store", workdir / "home", workdir / "evtsim-stats.txt"
    (home / "etc").mkdir(parents=True)
    (home / "etc" / "log-cmdline.cfg").write_text("level = WARN\n")
    env = dict(os.environ, EVTSIM_STORE=winpath(store), SKORVA_HOME=winpath(home), EVTSIM_STATS=winpath(stats))
    env.pop("SKORVAD_PROCESSID", None)
    tool = [str(build / "wine-run"), str(build / "tools" / "evtsim" / "evtsim-store.exe"), "--store", winpath(store)]

    def store_cmd(*a):
        subprocess.run(tool + list(map(str, a)), check=True, env=env, stdin=subprocess.DEVNULL,
                       stdout=subprocess.DEVNULL)

    for ch in CHANNELS:
        store_cmd("create", ch)
    document = ("<input><configuration>" + "".join(
        f"<stanza name='WinEventLog://{ch}'><param name='checkpointInterval'>5</param></stanza>" for ch in CHANNELS)
        + "</configuration></input>").encode()

    lock = threading.Lock()
    epoch = {ch: 0 for ch in CHANNELS}  # System counts its incarnations
    written = {}   # (channel, epoch) -> set of record ids
    arrived = {}   # (channel, epoch) -> {record id: times}

    def on_event(ch, rid):
        with lock:
            seen = arrived.setdefault((ch, epoch[ch]), {})
            seen[rid] = seen.get(rid, 0) + 1

    def caught_up(timeout=300):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            with lock:
                if all(ids <= set(arrived.get(key, {})) for key, ids in written.items()):
                    return True
            time.sleep(0.5)
        return False

    segments = max(1, int(args.minutes * 60 // args.segment))
    actions = {segments // 3: "clear", segments // 2: "restart", 2 * segments // 3: "recreate",
               5 * segments // 6: "restart"}
    per_channel = max(1, args.rate // len(CHANNELS))
    samples = []
    collector = Collector(build, env, document, on_event)
    started = time.monotonic()
    stop_sampling = threading.Event()

    def sampler():
        while not stop_sampling.wait(10):
            s = collector.sample(stats)
            if s:
                samples.append((time.monotonic() - started, s))

    threading.Thread(target=sampler, daemon=True).start()
    next_id = {ch: 1 for ch in CHANNELS}
    for seg in range(segments):
        action = actions.get(seg)
        if action:
            ok = caught_up()
            print(f"[{time.monotonic() - started:7.0f} s] segment {seg}: {action} (caught up: {ok})", flush=True)
            if action == "clear":
                store_cmd("clear", "Application")
            elif action == "recreate":
                store_cmd("delete", "System")
                store_cmd("create", "System")
                with lock:
                    epoch["System"] += 1
                next_id["System"] = 1
            elif action == "restart":
                code = collector.stop()
                print(f"           collector stopped with {code}", flush=True)
                collector = Collector(build, env, document, on_event)
        count = per_channel * args.segment
        writers = [(ch, subprocess.Popen(tool + ["stream", ch, str(count), str(per_channel), "--seed", str(seg + 1)],
                                         env=env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE))
                   for ch in CHANNELS]
        for ch, w in writers:
            out, _ = w.communicate(timeout=args.segment * 10 + 120)
            ids = {int(line.split()[0]) for line in out.decode().splitlines()}
            with lock:
                written.setdefault((ch, epoch[ch]), set()).update(ids)
    ok = caught_up(600)
    stop_sampling.set()
    code = collector.stop()
    elapsed = time.monotonic() - started
    total = sum(len(ids) for ids in written.values())
    missing = sum(len(ids - set(arrived.get(key, {}))) for key, ids in written.items())
    twice = sum(n - 1 for seen in arrived.values() for n in seen.values() if n > 1)
    print(f"\n{elapsed / 60:.1f} min, {total} records written ({total / elapsed:.0f}/s), caught up: {ok}, "
          f"missing {missing}, sent twice {twice}, last exit code {code}")
    if missing:
        lost = sorted((ch, ep, rid) for (ch, ep), ids in written.items() for rid in ids - set(arrived.get((ch, ep), {})))
        print("missing (channel, incarnation, record id), the first 20:", lost[:20])
    if samples:
        # The course of the run: the largest of each value in every tenth of it.
        print(f"{'minutes':>8} " + " ".join(f"{key:>12}" for key in samples[0][1]))
        span = samples[-1][0] / 10 or 1
        for part in range(10):
            window = [s for t, s in samples if part * span <= t < (part + 1) * span or (part == 9 and t >= 9 * span)]
            if window:
                row = [max((s[key] for s in window if s[key] is not None), default=None) for key in samples[0][1]]
                print(f"{(part + 1) * span / 60:8.1f} " + " ".join(f"{v if v is not None else '-':>12}" for v in row))
        print(f"{'sample':12} {'first':>8} {'last':>8} {'min':>8} {'max':>8}")
        for key in samples[0][1]:
            values = [s[key] for _, s in samples if s[key] is not None]
            if values:
                print(f"{key:12} {values[0]:8} {values[-1]:8} {min(values):8} {max(values):8}")
    shutil.rmtree(workdir, ignore_errors=True)
    return 0 if ok and missing == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
