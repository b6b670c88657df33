#!/usr/bin/python3
"""Measures the collector against the reference reader over one generated store.

    bench/collector/run.py [--build DIR] [--count N] [--seed S] [--repeat R] [--scale]

Generates N Security records (default 200,000) with evtsim-store, then runs under
Wine, one after the other over the same store:
  - the collector in classic text and in XML rendering, SID translation off and on,
    no filters, until all N events are on its standard output, then Ctrl-C; "SID
    translation on" is evt_resolve_ad_obj on in a machine without a domain, so
    directory objects stay as they are;
  - the collector in classic text with evt_resolve_ad_obj on and the sample
    directory of the demo (tools/dssim): directory objects translated, nearly all
    through the cache (a handful of names serve every event), compared with the
    run without a domain;
  - the reference reader (bench/refreader) in the variant that makes the event
    log calls the collector makes per event: "values" (values, publisher metadata,
    formatted fields and message) for classic text, "xmlvalues" (values and XML)
    for XML; and "xml" (XML alone) for information.
For each it prints events per second (N over the time from start to the last
event), CPU seconds and peak memory of the Wine process, the ratio of each
collector run to the reference run of the same rendering, and the collector's
own CPU per event (its CPU seconds minus the reference's, over N). Each
collector run is made R times (default 3), each time right after a run of the
reference variant it is compared with, so that the machine's drift falls on
both of a pair alike; the table gives the median rate and CPU and the largest
peak of each run, and the median of the pairs' ratios and own CPU. Before and
after, it prints how long a cache line takes to move between the two cores
(bench/cacheline), which the host changes from time to time.

With --scale it measures instead how the collector scales, classic text, batches
of 1,000, N records a channel: each of four channels alone, Security also with
use_threads 3 (ratio to Security alone), then all four read at once without and
with use_threads 3 (ratio to the four read one after the other). The channels
hold different kinds of events (the generator's Application events carry large
hostile data), so each is compared with itself. Last, the reference reader
("values") reads the four channels at once, a thread each, against reading
them one after the other: the same ratio for the event log calls alone.
"""
import argparse
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]


def winpath(p):
    return "Z:" + str(Path(p).resolve()).replace("/", "\\")


def wait_usage(proc):
    """Waits for the process and returns (exit code, cpu seconds, peak KiB)."""
    _, status, usage = os.wait4(proc.pid, 0)
    proc.returncode = os.waitstatus_to_exitcode(status)
    return proc.returncode, usage.ru_utime + usage.ru_stime, usage.ru_maxrss


SCALE_CHANNELS = ("Security", "Application", "System", "Setup")

# Put before each Wine command: with --one-core, `taskset -c 0`, so that every
# thread of the collector and of the reference reader runs on the first core.
ONE_CORE = []


def config(render_xml, resolve, channels=("Security",), batch=100, threads=0):
    stanzas = "".join(
        f"<stanza name='WinEventLog://{name}'>"
        "<param name='index'>bench</param>"
        f"<param name='renderXml'>{'true' if render_xml else 'false'}</param>"
        f"<param name='evt_resolve_ad_obj'>{'1' if resolve else '0'}</param>"
        f"<param name='batch_size'>{batch}</param>"
        f"<param name='use_threads'>{threads}</param>"
        "<param name='checkpointInterval'>5</param>"
        "</stanza>" for name in channels)
    return f"<input><server_host>bench</server_host><configuration>{stanzas}</configuration></input>".encode()


def run_collector(build, env, count, render_xml, resolve, directory, workdir, document=None):
    home = workdir / f"home-{int(render_xml)}{int(resolve)}{int(directory)}"
    shutil.rmtree(home, ignore_errors=True)
    (home / "etc").mkdir(parents=True)
    (home / "etc" / "log-cmdline.cfg").write_text("level = WARN\n")
    env = dict(env, SKORVA_HOME=winpath(home))
    if directory:
        folder = workdir / "directory"
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir()
        shutil.copyfile(ROOT / "examples" / "store" / "directory" / "directory.txt", folder / "directory.txt")
        env["DSSIM_DIRECTORY"] = winpath(folder)
    start = time.monotonic()
    errors = open(home / "stderr.txt", "wb")
    proc = subprocess.Popen(ONE_CORE + [str(build / "wine-run"), str(build / "src" / "skorva-winevtlog.exe")],
                            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=errors, env=env)
    errors.close()
    proc.stdin.write(document or config(render_xml, resolve))
    proc.stdin.close()
    seen = 0
    elapsed = None
    tail = b""
    while True:
        chunk = proc.stdout.read1(1 << 16)
        if not chunk:
            break
        data = tail + chunk
        seen += data.count(b"</event>")
        tail = data[-7:]  # shorter than the tag: a match across chunks is counted once
        if seen >= count and elapsed is None:
            elapsed = time.monotonic() - start
            proc.send_signal(signal.SIGINT)
    code, cpu, peak = wait_usage(proc)
    if elapsed is None:
        elapsed = time.monotonic() - start
    if seen < count:
        # A short run is reported with what the collector and Wine said, not hidden in the table.
        log = home / "var" / "log" / "skorva" / "skorva-winevtlog.log"
        said = (home / "stderr.txt").read_text(errors="replace")[-2000:]
        said += log.read_text(errors="replace")[-2000:] if log.exists() else ""
        print(f"run stopped after {seen} of {count} events, exit code {code}:\n{said}", file=sys.stderr)
    return {"events": seen, "seconds": elapsed, "cpu": cpu, "peak": peak, "code": code}


def run_reference(build, env, count, mode, channels=("Security",), batch=100):
    """The reference reader; with several channels, one thread each, `count` events each."""
    start = time.monotonic()
    proc = subprocess.Popen(ONE_CORE + [str(build / "wine-run"), str(build / "bench" / "refreader" / "refreader.exe"),
                                        "--channel", ",".join(channels), "--mode", mode, "--batch", str(batch),
                                        "--count", str(count)],
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=env)
    # Its output is read as the collector's is, so that both pay alike for the
    # pipe and for a reader on the other end sharing the machine.
    while True:
        chunk = proc.stdout.read1(1 << 16)
        if not chunk:
            break
        chunk.count(b"\n")
    code, cpu, peak = wait_usage(proc)
    return {"events": count * len(channels) if code == 0 else 0, "seconds": time.monotonic() - start, "cpu": cpu,
            "peak": peak, "code": code}


def line_move(build):
    """How long a cache line takes to move between the two cores now, in ns (bench/cacheline):
    the host places the machine's two cores nearer or further apart from time to time, and
    what a second thread costs moves with it."""
    out = subprocess.run([str(build / "wine-run"), str(build / "bench" / "cacheline" / "cacheline.exe"), "500000"],
                         stdin=subprocess.DEVNULL, capture_output=True, text=True).stdout
    return out.split("one way ")[1].split()[0] if "one way " in out else "?"


def median(values):
    values = sorted(values)
    return values[len(values) // 2] if len(values) % 2 else sum(values[len(values) // 2 - 1:][:2]) / 2


def median_run(runs):
    """One row from repeated runs: the median time and CPU, the largest peak, the
    fewest events (a short run shows)."""
    return {"events": min(r["events"] for r in runs), "seconds": median([r["seconds"] for r in runs]),
            "cpu": median([r["cpu"] for r in runs]), "peak": max(r["peak"] for r in runs),
            "code": max(r["code"] for r in runs)}


# name, XML rendering, evt_resolve_ad_obj, the sample directory
RUNS = (
    ("collector classic, SID translation off", False, False, False),
    ("collector classic, SID translation on", False, True, False),
    ("collector classic, directory translation on", False, True, True),
    ("collector xml, SID translation off", True, False, False),
    ("collector xml, SID translation on", True, True, False),
)


def generate(build, store, channel, count, seed):
    subprocess.run([str(build / "wine-run"), str(build / "tools" / "evtsim" / "evtsim-store.exe"),
                    "--store", winpath(store), "generate", channel, str(count), "--seed", str(seed)],
                   check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)


def scale(build, env, count, seed, workdir, repeat):
    """Aggregate rate of four channels read at once against the same channels read
    one after the other and against one channel alone, without and with writer
    threads: the medians of `repeat` rounds of every run."""
    for i, channel in enumerate(SCALE_CHANNELS[1:]):
        generate(build, workdir / "store", channel, count, seed + 1 + i)
    os.sync()
    alone = [((channel,), 0) for channel in SCALE_CHANNELS]
    runs = alone + [(SCALE_CHANNELS[:1], 3), (SCALE_CHANNELS, 0), (SCALE_CHANNELS, 3)]
    results = {run: [] for run in runs}
    ref_alone = {channel: [] for channel in SCALE_CHANNELS}
    ref_four = []
    for _ in range(repeat):
        for channels, threads in runs:
            results[(channels, threads)].append(
                run_collector(build, env, count * len(channels), False, False, False, workdir,
                              config(False, False, channels, batch=1000, threads=threads)))
        # The same for the reference reader, one thread a channel: what reading at
        # once costs the event log calls alone, in this process's heap.
        for channel in SCALE_CHANNELS:
            ref_alone[channel].append(run_reference(build, env, count, "values", (channel,), 1000))
        ref_four.append(run_reference(build, env, count, "values", SCALE_CHANNELS, 1000))

    def rate(r):
        return r["events"] / r["seconds"] if r["seconds"] else 0

    rows = {run: median_run(results[run]) for run in runs}
    one = rate(rows[alone[0]])
    one_by_one = sum(rows[run]["events"] for run in alone) / sum(rows[run]["seconds"] for run in alone)
    print(f"medians of {repeat} rounds; 'ratio': to the same channels read one after the other without writer "
          f"threads; 'to one': to {SCALE_CHANNELS[0]} alone without writer threads")
    print(f"{'run':44} {'events':>8} {'events/s':>9} {'cpu s':>7} {'peak MiB':>9} {'ratio':>6} {'to one':>6}")
    for channels, threads in runs:
        r = rows[(channels, threads)]
        name = f"{'+'.join(channels) if len(channels) == 1 else 'all four'}, use_threads {threads}"
        four = len(channels) > 1
        ratio = f"{rate(r) / one_by_one:.2f}" if four else ""
        to_one = f"{rate(r) / one:.2f}" if four or channels == SCALE_CHANNELS[:1] else ""
        print(f"{name:44} {r['events']:8d} {rate(r):9.0f} {r['cpu']:7.1f} {r['peak'] / 1024:9.1f} "
              f"{ratio:>6} {to_one:>6}")
    ref_rows = [median_run(ref_alone[channel]) for channel in SCALE_CHANNELS]
    ref_one_by_one = sum(r["events"] for r in ref_rows) / sum(r["seconds"] for r in ref_rows)
    r = median_run(ref_four)
    print(f"{'reference reader values, all four at once':44} {r['events']:8d} {rate(r):9.0f} {r['cpu']:7.1f} "
          f"{r['peak'] / 1024:9.1f} {rate(r) / ref_one_by_one:6.2f}")


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default=str(ROOT / "build"))
    ap.add_argument("--count", type=int, default=200000)
    ap.add_argument("--seed", type=int, default=42)
    ap.add_argument("--repeat", type=int, default=3)
    ap.add_argument("--scale", action="store_true")
    # Every thread on one core: the collector's own CPU without what spreading
    # over two cores costs on this machine (its ratio then says little).
    ap.add_argument("--one-core", action="store_true")
    args = ap.parse_args()
    if args.one_core:
        ONE_CORE[:] = ["taskset", "-c", "0"]
    build = Path(args.build).resolve()
    subprocess.run([str(ROOT / "cmake" / "wine-fixture.sh"), "start", str(build / "wineprefix"),
                    str(build / "tools" / "evtsim" / "wevtapi.dll"), str(build / "tools" / "dssim" / "netapi32.dll"),
                    str(build / "tools" / "dssim" / "ntdsapi.dll")], check=True)
    workdir = Path(tempfile.mkdtemp(prefix="skorva-bench-"))
    try:
        store = workdir / "store"
        env = dict(os.environ, EVTSIM_STORE=winpath(store))
        env.pop("SKORVAD_PROCESSID", None)
        env.pop("DSSIM_DIRECTORY", None)
        print(f"a cache line moves between the cores in {line_move(build)} ns")
        t = time.monotonic()
        generate(build, store, "Security", args.count, args.seed)
        print(f"generated {args.count} Security records in {time.monotonic() - t:.1f} s")
        # The store's pages go to disk now, not in the middle of the first runs.
        os.sync()
        if args.scale:
            return scale(build, env, args.count, args.seed, workdir, args.repeat)
        rows = []
        modes = ("values", "xmlvalues", "xml")
        runs = {m: [] for m in modes}
        runs.update({name: [] for name, *_ in RUNS})
        pairs = {name: [] for name, *_ in RUNS}
        for _ in range(args.repeat):
            runs["xml"].append(run_reference(build, env, args.count, "xml"))
            for name, render_xml, resolve, directory in RUNS:
                # Each collector run right after a reference run of its rendering,
                # so that the machine's drift falls on both of a pair alike.
                mode = "xmlvalues" if render_xml else "values"
                base = run_reference(build, env, args.count, mode)
                r = run_collector(build, env, args.count, render_xml, resolve, directory, workdir)
                runs[mode].append(base)
                runs[name].append(r)
                pairs[name].append(((r["events"] / r["seconds"]) / (base["events"] / base["seconds"]),
                                    (r["cpu"] - base["cpu"]) / args.count * 1e6))
        ref = {m: median_run(runs[m]) for m in modes}
        results = {}
        for name, *_ in RUNS:
            results[name] = median_run(runs[name])
            rows.append((name, results[name], median([p[0] for p in pairs[name]]),
                         median([p[1] for p in pairs[name]])))
        rows += [(f"reference reader {m}", ref[m], None, None) for m in modes]
        print(f"{'run':44} {'events':>8} {'events/s':>9} {'cpu s':>7} {'peak MiB':>9} {'ratio':>6} {'own us/ev':>9}")
        for name, r, ratio, own in rows:
            rate = r["events"] / r["seconds"] if r["seconds"] else 0
            print(f"{name:44} {r['events']:8d} {rate:9.0f} {r['cpu']:7.1f} {r['peak'] / 1024:9.1f} "
                  f"{'' if ratio is None else f'{ratio:6.2f}'} {'' if own is None else f'{own:9.1f}'}")
        print(f"a cache line moves between the cores in {line_move(build)} ns")
        on, off = (results[f"collector classic, {w} translation on"] for w in ("directory", "SID"))
        print(f"directory translation on / without a domain: events/s "
              f"{(on['events'] / on['seconds']) / (off['events'] / off['seconds']):.3f}, "
              f"cpu {on['cpu'] / off['cpu']:.3f}")
    finally:
        shutil.rmtree(workdir, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
