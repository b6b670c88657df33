"""The collector where Windows is hard on readers: the newest-first phase cut
short, resets and late channels inside it, batches over what one call may carry."""
import pytest

from conftest import log_text
from test_collector import config, record_ids, start, store, wine_server, write_events  # noqa: F401

REVERSE_DONE = "Finished processing existing Windows Event Log 'Application' in reverse chronological order"


def test_ctrl_c_inside_the_newest_first_phase_loses_nothing(store, start, home):
    # Enough records that three runs stopped early cannot finish the phase,
    # however far each gets before its Ctrl-C is seen.
    records = 60000
    store.generate("Application", records, seed=21)
    document = config(("WinEventLog://Application", {"start_from": "newest", "batch_size": 100}))
    sent = []
    for _ in range(3):
        c = start(document)
        c.wait_events(1500)
        code, stream = c.interrupt()
        assert code == 0
        ids = record_ids(stream)
        assert ids == sorted(ids, reverse=True)  # still newest first
        sent += ids
    assert REVERSE_DONE not in log_text(home)
    c = start(document)
    c.wait_for(lambda s: REVERSE_DONE in log_text(home), timeout=180)
    code, stream = c.interrupt()
    assert code == 0
    sent += record_ids(stream)
    assert set(sent) == set(range(1, records + 1))
    assert len(sent) - records <= 3 * 100  # at most a batch again per stop


@pytest.mark.parametrize("faults", [
    "EvtNext:Application=6,from=4,times=1",     # reset inside the phase
    "EvtQuery:Application=15007,times=3",       # the channel appears late
    "EvtNext:Application=1734,from=4,times=1",  # batch refused
])
def test_newest_first_phase_is_read_to_its_end_then_followed(faults, store, start, home):
    store.generate("Application", 600, seed=22)
    store.faults(faults)
    c = start(config(("WinEventLog://Application",
                      {"start_from": "newest", "batch_size": 50, "channel_wait_time": 30})))
    c.wait_for(lambda s: REVERSE_DONE in log_text(home), timeout=120)
    store.generate("Application", 5, seed=23, first=600)
    c.wait_events(605)
    code, stream = c.interrupt()
    assert code == 0
    ids = record_ids(stream)
    assert sorted(set(ids[:-5])) == list(range(1, 601)) and ids[-5:] == list(range(601, 606))


@pytest.mark.parametrize("mode", ["short", "fail"])
def test_events_over_the_batch_bound_all_arrive(mode, store, start, tmp_path, home):
    """40 KB events in batches of 100: over the 2 MiB one call may carry."""
    store.create("Application")
    events = [(1000 + i, "Manual", None, ("%05d" % i) * 8000) for i in range(150)]
    store.append("Application", write_events(tmp_path / "big.xml", events))
    c = start(config(("WinEventLog://Application", {"batch_size": 100})), EVTSIM_BATCH_LIMIT=mode)
    c.wait_events(150)
    code, stream = c.interrupt()
    assert code == 0
    assert record_ids(stream) == list(range(1, 151))
    assert ("with batch_size = 50" in log_text(home)) == (mode == "fail")
