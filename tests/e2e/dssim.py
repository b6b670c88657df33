"""Drives the simulated directory service (tools/dssim) from process-level tests.

    directory = DssimDirectory(tmp_path / "directory")
    directory.use_sample()
    directory.faults("DsBindW=1722,once")
    env = directory.env()           # DSSIM_DIRECTORY for a program under Wine
    directory.calls()["DsCrackNamesW"]
"""
import os
import shutil
from pathlib import Path

from evtsim import winpath

SOURCE = Path(os.environ.get("SKORVA_SOURCE_DIR", Path(__file__).resolve().parents[2]))
SAMPLE = SOURCE / "examples" / "store" / "directory" / "directory.txt"


class DssimDirectory:
    def __init__(self, root):
        self.root = Path(root)
        self.root.mkdir(parents=True, exist_ok=True)

    def env(self, **extra):
        env = dict(os.environ)
        env["DSSIM_DIRECTORY"] = winpath(self.root)
        env.update(extra)
        return env

    def use_sample(self):
        shutil.copyfile(SAMPLE, self.root / "directory.txt")

    def faults(self, rules):
        (self.root / "faults.txt").write_text(rules + "\n", encoding="utf-8")

    def calls(self):
        """Counts summed over every process and DLL that used this directory:
        {entry point: calls, "misuse": n, "live_buffers": n, "live_bindings": n}"""
        total = {}
        for f in (self.root / "calls").glob("*.txt"):
            for line in f.read_text().splitlines():
                key, _, value = line.partition("=")
                total[key] = total.get(key, 0) + int(value)
        return total
