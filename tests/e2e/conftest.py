"""Shared fixtures for the process-level tests: the real executable under Wine."""
import os
import pathlib
import subprocess

import pytest

EXE = os.environ.get("SKORVA_EXE", "")
WINE_RUN = os.environ.get("SKORVA_WINE_RUN", "")


def winpath(p):
    """The Windows form of a Linux path under Wine (drive Z: is the root)."""
    return "Z:" + str(p).replace("/", "\\")


def run_exe(args, env=None, stdin=b"", timeout=60):
    cmd = ([WINE_RUN] if WINE_RUN else []) + [EXE] + list(args)
    return subprocess.run(cmd, input=stdin, capture_output=True, env=env, timeout=timeout)


@pytest.fixture
def home(tmp_path):
    """A SKORVA_HOME with a logger configuration that logs at DEBUG."""
    h = tmp_path / "home"
    (h / "etc").mkdir(parents=True)
    (h / "etc" / "log-cmdline.cfg").write_text(
        "level = DEBUG\nfile = ${SKORVA_HOME}\\var\\log\\skorva\\skorva-winevtlog.log\n")
    return h


@pytest.fixture
def env(home):
    e = dict(os.environ)
    e["SKORVA_HOME"] = winpath(home)
    e.pop("SKORVA_DB", None)
    e.pop("SKORVAD_PROCESSID", None)
    return e


def log_text(home):
    p = pathlib.Path(home) / "var" / "log" / "skorva" / "skorva-winevtlog.log"
    return p.read_text(errors="replace") if p.exists() else ""
