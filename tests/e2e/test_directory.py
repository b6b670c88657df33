"""Directory objects translated end to end: the collector under Wine bound to the
simulated directory service (tools/dssim), whose call counts show what the
cache spares and whose faults play the controller's failures."""
import re

import pytest

from conftest import log_text
from evtsim import winpath
from test_collector import config, record_ids, start, store, wine_server, write_events  # noqa: F401 (fixtures)

USER = "bf967aba-0de6-11d0-a285-00aa003049e2"       # schema class "user"
COMPUTER = "bf967a86-0de6-11d0-a285-00aa003049e2"   # schema class "computer"
ALICE = "20983438-8bbc-45b7-9563-9a5fc0cc48ec"       # Alice's objectGUID
ALICE_SID = "S-1-5-21-3623811015-3361044348-30300820-1104"
ALICE_DN = "CN=Alice Martin,OU=Staff,DC=corp,DC=example,DC=test"


def message(object_type=USER, name=ALICE, sid=ALICE_SID):
    return ("A directory object was accessed.\n\tObject Type:\t%%{%s}\n\tObject Name:\t%%{%s}\n"
            "\tAccount:\t%%{%s}" % (object_type, name, sid))


def access(object_type=USER, name=ALICE, sid=ALICE_SID, event_id=4662):
    """One directory-service access, its tokens in the message and in the data."""
    return (event_id, "Directory-Test", message(object_type, name, sid), "%%{%s} %%{%s}" % (object_type, sid))


@pytest.fixture
def collect(store, start, tmp_path, directory, home):
    """collect(events, expect=None, **params) -> (stream, log): the Security channel
    holding `events`, read with evt_resolve_ad_obj on until `expect` events (all
    of them by default) are out, then Ctrl-C."""
    def run(events, expect=None, env=None, **params):
        store.create("Security")
        store.append("Security", write_events(tmp_path / ("e%d.xml" % len(events)), events))
        stanza = dict({"evt_resolve_ad_obj": "1"}, **params)
        c = start(config(("WinEventLog://Security", stanza)), DSSIM_DIRECTORY=winpath(directory.root), **(env or {}))
        c.wait_events(expect or len(events))
        code, stream = c.interrupt()
        assert code == 0, log_text(home)[-3000:]
        return stream, log_text(home)
    return run


@pytest.mark.parametrize("xml", [False, True], ids=["classic", "xml"])
def test_names_replace_tokens_and_a_second_event_asks_the_directory_nothing(xml, collect, directory):
    params = {"renderXml": "true"} if xml else {}
    stream, log = collect([access(), access()], **params)
    assert len(record_ids(stream)) == 2
    if xml:
        assert stream.count(b"&lt;Data Name=&apos;Detail&apos;&gt;user CORP\\alice&lt;/Data&gt;") == 2
        assert b"Object Name:\t" + ALICE_DN.encode() in stream
    else:
        assert stream.count(b"Object Type:\tuser\n\tObject Name:\t" + ALICE_DN.encode() +
                            b"\n\tAccount:\tCORP\\alice") == 2
    assert USER.encode() not in stream and ALICE_SID.encode() not in stream
    calls = directory.calls()
    # user: one schema map; Alice's GUID: a schema map that finds nothing, then
    # a crack; her SID: a crack. The second event is served by the cache.
    assert (calls["DsMapSchemaGuidsW"], calls["DsCrackNamesW"]) == (2, 2), calls
    assert (calls["DsBindW"], calls["DsUnBindW"], calls["live_bindings"], calls["misuse"]) == (1, 1, 0, 0), calls
    assert "Successfully bound to DC, dc_bind_time=" in log


def test_without_the_cache_each_event_asks_again(collect, directory):
    collect([access(), access()], evt_ad_cache_disabled="1")
    calls = directory.calls()
    assert (calls["DsMapSchemaGuidsW"], calls["DsCrackNamesW"]) == (4, 4), calls


def test_a_handle_gone_bad_is_bound_again(collect, directory):
    """The controller forgets the binding (ERROR_INVALID_HANDLE): the channel binds
    again and asks once more; a SID asked again comes back as its distinguished
    name, as the product always did after a reconnect."""
    directory.faults("StaleHandle:DsCrackNamesW=6,from=2,times=1")
    stream, _ = collect([access()])
    assert b"Object Type:\tuser\n\tObject Name:\t" + ALICE_DN.encode() + b"\n\tAccount:\t" + ALICE_DN.encode() \
        in stream
    calls = directory.calls()
    assert (calls["DsBindW"], calls["DsUnBindW"], calls["live_bindings"], calls["misuse"]) == (2, 2, 0, 0), calls


@pytest.mark.parametrize("faults, lines, translated", [
    ("", ["Failed to get domain controller name with DsGetDcName: (1355)", "DsBind failed: (1355)",
          "Failed to bind to DC, dc_bind_time="], False),
    ("DsBindW=1722", ["Found DC='\\\\DC01.corp.example.test'", "DsBind failed: (1722)",
                      "Failed to bind to DC, dc_bind_time="], False),
    # The first bind fails; the next token binds again and is translated.
    ("DsBindW=1722,once", ["DsBind failed: (1722)", "Failed to bind to DC, dc_bind_time="], True),
], ids=["no-domain", "bind-refused", "bound-later"])
def test_a_controller_not_found_or_not_bound_leaves_the_channel_reading(faults, lines, translated, collect,
                                                                        directory):
    if faults:
        directory.faults(faults)
    else:
        (directory.root / "directory.txt").unlink()
    stream, log = collect([access()])
    assert len(record_ids(stream)) == 1
    for line in lines:
        assert line in log
    assert (b"Object Type:\tuser" in stream) == translated
    assert (b"%{" + USER.encode() + b"}" in stream) != translated


STATUS_TEXTS = {
    1: "(DS_NAME_ERROR_RESOLVING) A generic processing error occurred.",
    2: "(DS_NAME_ERROR_NOT_FOUND) The name cannot be found or the caller does not have permission to access the name.",
    3: "(DS_NAME_ERROR_NOT_UNIQUE) The input name is mapped to more than one output name or the desired format did "
       "not have a single, unique value for the object found.",
    4: "DS_NAME_ERROR_NO_MAPPING) The input name was found, but the associated output format cannot be found. This "
       "can occur if the object does not have all the required attributes.",
    5: "(DS_NAME_ERROR_DOMAIN_ONLY) Unable to resolve entire name, but was able to determine in which domain object "
       "resides.",
    6: "(DS_NAME_ERROR_NO_SYNTACTICAL_MAPPING) A syntactical mapping cannot be performed on the client without "
       "transmitting over the network.",
    7: "(DS_NAME_ERROR_TRUST_REFERRAL) The name is from an external trusted forest.",
}


def test_each_name_status_is_told_in_its_words(collect, directory):
    sids = {status: "S-1-5-21-1-2-3-%d" % (500 + status) for status in STATUS_TEXTS}
    rules = ["NameStatus:%s=%d" % (sid, status) for status, sid in sids.items()]
    # A slow controller: the events that ask it show their translation time.
    directory.faults("\n".join(rules + ["Delay:DsCrackNamesW=15"]))
    stream, log = collect([access(sid=sid) for sid in sids.values()])
    assert "WinEventLogChannel::getEventsNew: trans_one_event=" in log
    for status, sid in sids.items():
        assert "DsCrackNamesW failed, adObj='%s': '%s'" % (sid, STATUS_TEXTS[status]) in log
        # Not translated: the SID stays, as it was collected, beside the names.
        assert ("Object Type:\tuser\n\tObject Name:\t%s\n\tAccount:\t%s" % (ALICE_DN, sid)).encode() in stream


def test_skip_list_keeps_the_guids_of_its_event_codes(collect, directory):
    stream, _ = collect([access(), access(event_id=5136)], evt_skip_GUID_resolution="4662")
    events = dict(zip(record_ids(stream), re.findall(rb"<event .*?</event>", stream, re.S)))
    assert b"Object Type:\t%{" + USER.encode() + b"}" in events[1]
    assert b"Account:\tCORP\\alice" in events[1]
    assert b"Object Type:\tuser" in events[2]


@pytest.mark.parametrize("rules, sent", [
    # On the name: the user object's event goes, the computer object's stays.
    ({"blacklist": "Object Type=%^user$%"}, [2, 3]),
    # On the token as the event carries it, decided before the translation.
    ({"blacklist": "Message=%\\{" + COMPUTER + "\\}%"}, [1, 3]),
    # A whitelist on the token admits its event, translated.
    ({"whitelist": "Object Type=%\\{" + COMPUTER + "%"}, [2]),
], ids=["name", "token", "token-whitelist"])
def test_blacklisted_objects_are_dropped(rules, sent, collect):
    # The last event names no object: once it is out, every drop was decided.
    events = [access(), access(object_type=COMPUTER), (1, "Directory-Test", "sentinel", "x")]
    stream, _ = collect(events, expect=len(sent), **rules)
    assert record_ids(stream) == sent
    assert (b"Object Type:\tcomputer" in stream) == (2 in sent)


@pytest.mark.parametrize("params, found, closest", [
    ({"evt_resolve_ad_ds": "AUTO"}, "Found DC='\\\\DC01.corp.example.test', DCsite=", True),
    ({"evt_resolve_ad_ds": "pdc"}, "Found DC='\\\\DC02.corp.example.test', DCsite=", False),
    # Named through the environment: the locator is not asked.
    ({"evt_dc_name": "$SKORVA_TEST_DC", "evt_resolve_ad_ds": "pdc"}, "Found DC='DC02.corp.example.test'", True),
], ids=["auto", "pdc", "named"])
def test_the_closest_the_primary_or_the_named_controller(params, found, closest, collect, directory):
    sample = directory.root / "directory.txt"
    # DC02 becomes the primary controller, in another site than the client.
    sample.write_text(sample.read_text().replace("closest = yes\npdc = yes", "closest = yes")
                      .replace("domain_guid = {5b2e0f3c-8d4a-4c1e-9f6b-2a7d3e8c1b40}\n\n#",
                               "domain_guid = {5b2e0f3c-8d4a-4c1e-9f6b-2a7d3e8c1b40}\npdc = yes\n\n#", 1))
    stream, log = collect([access()], env={"SKORVA_TEST_DC": "DC02.corp.example.test"}, **params)
    assert found in log
    assert ("Did not bind to the closest Domain Controller" in log) != closest
    assert b"Object Type:\tuser" in stream
    assert directory.calls().get("DsGetDcNameW", 0) == (0 if "evt_dc_name" in params else 1)
