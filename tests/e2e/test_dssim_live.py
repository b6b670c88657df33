"""The simulated directory service under Wine: loaded by full System32 path by the
programs that test against it, while Wine's own programs keep Wine's netapi32."""
import os
import subprocess

from evtsim import wine_command

PROBE = os.environ.get("DSSIM_PROBE", "")


def probe(directory, *args, **env):
    proc = subprocess.run(wine_command(PROBE, *args), stdin=subprocess.DEVNULL, capture_output=True,
                          env=directory.env(**env), timeout=120)
    assert proc.returncode == 0, proc.stdout.decode(errors="replace") + proc.stderr.decode(errors="replace")
    return dict(line.split("=", 1) for line in proc.stdout.decode().splitlines())


def test_system32_libraries_are_the_stand_in_when_loaded_first_by_name(directory):
    """Wine's own DsGetDcNameW answers 9003 and its DsBindW 1355 here: the sample's
    answers prove the stand-in when the module was loaded by name before. (Loaded
    by full System32 path, it is what the product meets in test_directory.py.)"""
    out = probe(directory, "--preload")
    assert (out.get("dc"), out.get("schema"), out.get("crack")) == (
        "\\\\DC01.corp.example.test", "user", "0:CN=Alice Martin,OU=Staff,DC=corp,DC=example,DC=test"), out
    calls = directory.calls()
    assert (calls["DsGetDcNameW"], calls["DsCrackNamesW"], calls["DsUnBindW"]) == (1, 1, 1)
    assert (calls["misuse"], calls["live_buffers"], calls["live_bindings"]) == (0, 0, 0)


def test_wine_programs_keep_wines_netapi32(directory):
    """net.exe imports NetUseEnum, which the stand-in lacks: made native for every
    program (WINEDLLOVERRIDES) it crashes, so the override is per program."""
    def run(*args, **env):
        return subprocess.run(wine_command(*args), stdin=subprocess.DEVNULL, capture_output=True,
                              env=directory.env(**env), timeout=120).returncode
    assert run("cmd", "/c", "exit") == 0
    assert run("wineboot") == 0
    assert run("net", "use") == 0
    assert run("net", "use", WINEDLLOVERRIDES="netapi32=n") != 0
