"""Drives the simulated event log's store tool (evtsim-store) from process-level tests.

    store = EvtsimStore(tmp_path / "store")
    store.generate("Security", 100, seed=3)
    env = store.env()          # EVTSIM_STORE for a program under Wine
"""
import os
import subprocess
from pathlib import Path

WINE_RUN = os.environ.get("SKORVA_WINE_RUN", "")
TOOL = os.environ.get("EVTSIM_TOOL", "")


def winpath(path):
    """A Linux path as Wine's Z: drive sees it."""
    return "Z:" + str(Path(path).resolve()).replace("/", "\\")


def wine_command(exe, *args):
    cmd = [str(exe), *map(str, args)]
    return [WINE_RUN, *cmd] if WINE_RUN else cmd


class EvtsimStore:
    def __init__(self, root):
        self.root = Path(root)
        self.root.mkdir(parents=True, exist_ok=True)

    def env(self, **extra):
        env = dict(os.environ)
        env["EVTSIM_STORE"] = winpath(self.root)
        env.update(extra)
        return env

    def run(self, *args, check=True, timeout=300):
        proc = subprocess.run(wine_command(TOOL, "--store", winpath(self.root), *args),
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=timeout)
        if check and proc.returncode != 0:
            raise RuntimeError(f"evtsim-store {args}: {proc.returncode} {proc.stderr.decode(errors='replace')}")
        return proc

    def create(self, channel):
        self.run("create", channel)

    def clear(self, channel):
        self.run("clear", channel)

    def delete(self, channel):
        self.run("delete", channel)

    def append(self, channel, *xml_files):
        first, count = self.run("append", channel, *map(winpath, xml_files)).stdout.split()
        return int(first), int(count)

    def generate(self, channel, count, seed=1, batch=0, hold_last_ms=0, first=0):
        self.run("generate", channel, count, "--seed", seed, "--batch", batch,
                 "--hold-last", hold_last_ms, "--first", first)

    def faults(self, rules):
        self.run("faults", rules)
