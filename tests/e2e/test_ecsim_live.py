"""The simulated event collector as a program under Wine meets it: Wecapi.dll loaded by
full path from the prefix's System32 (Wine has no library of that name, so any answer
at all comes from the stand-in)."""
import os
import subprocess
from pathlib import Path

from evtsim import winpath, wine_command

BUILD = Path(os.environ.get("SKORVA_BUILD_DIR", "."))
SOURCE = Path(os.environ.get("SKORVA_SOURCE_DIR", Path(__file__).resolve().parents[2]))
LISTER = BUILD / "tools" / "ecsim" / "ecsim-list.exe"


def run_lister(store, *args):
    env = dict(os.environ, ECSIM_STORE=winpath(store))
    env.pop("ECSIM_FAULTS", None)
    proc = subprocess.run(wine_command(LISTER, *args), stdin=subprocess.DEVNULL, capture_output=True, env=env,
                          timeout=120)
    return proc.returncode, proc.stdout.decode("utf-8").splitlines()


def test_program_loading_system32_wecapi_by_full_path_gets_the_demo_subscriptions():
    rc, lines = run_lister(SOURCE / "examples" / "store")
    assert rc == 0, lines
    assert lines[0].lower().endswith("\\system32\\wecapi.dll"), lines[0]
    assert lines[1:] == [
        "Forwarded-Rendered\tEnabled=true\tContentFormat=RenderedText\tLogFile=ForwardedEvents",
        "Raw-Archive\tEnabled=true\tContentFormat=Events\tLogFile=Archive-Forwarded",
        "Retired-Workstations\tEnabled=false\tContentFormat=Events\tLogFile=ForwardedEvents",
    ]


def test_stopped_service_unreadable_property_and_a_variant_lacking_names(tmp_path):
    store = tmp_path / "store"
    store.mkdir()
    rc, lines = run_lister(store)  # no collector folder: Wecsvc is stopped
    assert rc == 3
    assert lines[1:] == ["error=EcOpenSubscriptionEnum 1722"]

    (store / "collector").mkdir()
    (store / "collector" / "subscriptions.txt").write_text(
        "[Only]\nEnabled = true\nContentFormat = Events\nLogFile = ForwardedEvents\n")
    (store / "collector" / "faults.txt").write_text("EcGetSubscriptionProperty:*/LogFile=1726\n")
    rc, lines = run_lister(store)
    assert rc == 0
    assert lines[1:] == ["Only\tEnabled=true\tContentFormat=Events\tLogFile=error:1726"]

    variant = BUILD / "tools" / "ecsim" / "variants" / "no-property-no-save"
    rc, lines = run_lister(store, "--system-root", winpath(variant))
    assert rc == 2  # the lister needs EcGetSubscriptionProperty
    assert lines[1:] == ["missing=EcGetSubscriptionProperty", "missing=EcSaveSubscription"]
