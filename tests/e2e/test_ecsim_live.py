"""The simulated event collector as a program under Wine meets it: Wecapi.dll loaded by
full path from the prefix's System32 (Wine has no library of that name, so any answer
at all comes from the stand-in), over the demo's store. The service stopped, faults and
the variants lacking names are tested in process and through the product's loader."""
import os
import subprocess
from pathlib import Path

from evtsim import winpath, wine_command

BUILD = Path(os.environ.get("SKORVA_BUILD_DIR", "."))
SOURCE = Path(os.environ.get("SKORVA_SOURCE_DIR", Path(__file__).resolve().parents[2]))
LISTER = BUILD / "tools" / "ecsim" / "ecsim-list.exe"


def test_program_loading_system32_wecapi_by_full_path_gets_the_demo_subscriptions():
    env = dict(os.environ, ECSIM_STORE=winpath(SOURCE / "examples" / "store"))
    env.pop("ECSIM_FAULTS", None)
    proc = subprocess.run(wine_command(LISTER), stdin=subprocess.DEVNULL, capture_output=True, env=env, timeout=120)
    lines = proc.stdout.decode("utf-8").splitlines()
    assert proc.returncode == 0, lines
    assert lines[0].lower().endswith("\\system32\\wecapi.dll"), lines[0]
    assert lines[1:] == [
        "Forwarded-Rendered\tEnabled=true\tContentFormat=RenderedText\tLogFile=ForwardedEvents",
        "Raw-Archive\tEnabled=true\tContentFormat=Events\tLogFile=Archive-Forwarded",
        "Retired-Workstations\tEnabled=false\tContentFormat=Events\tLogFile=ForwardedEvents",
    ]

