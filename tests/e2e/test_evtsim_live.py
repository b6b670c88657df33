"""The simulated event log across processes under Wine: records written by one process,
some held half written for a while, reach a reader in another whole and once."""
import os
import re
import subprocess
import xml.etree.ElementTree as ET
from pathlib import Path

import pytest

from evtsim import wine_command
from test_collector import store  # noqa: F401 (fixture)

BUILD = Path(os.environ.get("SKORVA_BUILD_DIR", "."))
REFREADER = BUILD / "bench" / "refreader" / "refreader.exe"
NS = "{http://schemas.microsoft.com/win/2004/08/events/event}"


def record_ids(xml_lines):
    ids = []
    for line in xml_lines:
        event = ET.fromstring(line)  # a torn record would not parse
        ids.append(int(event.find(f"{NS}System/{NS}EventRecordID").text))
    return ids


def test_subscriber_gets_every_record_once_while_another_process_appends(store):
    if not REFREADER.exists():
        pytest.skip("refreader not built")
    store.create("Live")
    rounds, per_round = 4, 60
    total = rounds * per_round
    reader = subprocess.Popen(
        wine_command(REFREADER, "--channel", "Live", "--mode", "xml", "--batch", "7", "--count", total),
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=store.env())
    try:
        # Small commits, and each round leaves its last record half written for a while.
        for r in range(rounds):
            store.generate("Live", per_round, seed=r + 1, batch=5, hold_last_ms=300, first=r * per_round)
        out, err = reader.communicate(timeout=120)
    finally:
        if reader.poll() is None:
            reader.kill()
    assert reader.returncode == 0, err.decode(errors="replace")
    # One event per line, but event data may hold line breaks of its own.
    events = re.findall(r"<Event xmlns=.*?</Event>\n", out.decode("utf-8"), re.S)
    assert "".join(events) == out.decode("utf-8")
    assert record_ids(events) == list(range(1, total + 1))
    assert re.search(rf"events={total} ", err.decode())

