"""Shared fixtures for the process-level tests: the real executable under Wine."""
import os
import pathlib
import subprocess

import pytest

from dssim import DssimDirectory
from evtsim import WINE_RUN, wine_command, winpath  # noqa: F401 (for the tests)

EXE = os.environ.get("SKORVA_EXE", "")


def run_exe(args, env=None, stdin=b"", timeout=60):
    return subprocess.run(wine_command(EXE, *args), input=stdin, capture_output=True, env=env, timeout=timeout)


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


@pytest.fixture
def directory(tmp_path):
    """The simulated directory service's sample directory."""
    d = DssimDirectory(tmp_path / "directory")
    d.use_sample()
    return d


def log_text(home):
    p = pathlib.Path(home) / "var" / "log" / "skorva" / "skorva-winevtlog.log"
    return p.read_text(errors="replace") if p.exists() else ""
