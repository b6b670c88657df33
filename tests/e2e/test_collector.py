"""The collector end to end: the real executable under Wine reading the simulated
event log, from the configuration on stdin to the stream on stdout, until Ctrl-C
or the end of its parent."""
import os
import re
import signal
import subprocess
import threading
import time
from pathlib import Path
from xml.sax.saxutils import escape, quoteattr

import pytest

from conftest import EXE, WINE_RUN, log_text, winpath
from evtsim import EvtsimStore, wine_command as command

HELPER = Path(os.environ.get("SKORVA_BUILD_DIR", "")) / "tests" / "helpers" / "pid-helper.exe"
EVENT_NS = "http://schemas.microsoft.com/win/2004/08/events/event"
EVENT_RE = re.compile(rb'<event stanza="([^"]*)">\n(.*?)</event>\n', re.S)


def config(*stanzas):
    """A configuration document: (stanza name, {param: value}) pairs."""
    out = ["<input><server_host>h</server_host><server_uri>https://127.0.0.1:8089</server_uri>"
           "<session_key>k</session_key><checkpoint_dir>c</checkpoint_dir><configuration>"]
    for name, params in stanzas:
        out.append("<stanza name=%s>" % quoteattr(name))
        out.extend("<param name=%s>%s</param>" % (quoteattr(k), escape(str(v))) for k, v in params.items())
        out.append("</stanza>")
    out.append("</configuration></input>")
    return "".join(out).encode()


def record_ids(stream, stanza=None):
    ids = []
    for name, body in EVENT_RE.findall(stream):
        if stanza is not None and name.decode() != stanza:
            continue
        m = re.search(rb"RecordNumber=(\d+)", body) or re.search(rb"&lt;EventRecordID&gt;(\d+)&lt;", body)
        ids.append(int(m.group(1)))
    return ids


class Collector:
    """One running collector; its stdout is gathered while it runs."""

    def __init__(self, env, document, args=(), tmp=None):
        self.stderr = open(Path(tmp or ".") / ("stderr-%d" % time.monotonic_ns()), "w+b")
        self.proc = subprocess.Popen(command(EXE, *args), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=self.stderr, env=env)
        self.out = b""
        self.lock = threading.Lock()
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        self.proc.stdin.write(document)
        self.proc.stdin.close()

    def _read(self):
        for chunk in iter(lambda: self.proc.stdout.read1(65536), b""):
            with self.lock:
                self.out += chunk

    def stream(self):
        with self.lock:
            return bytes(self.out)

    def wait_for(self, predicate, timeout=90, poll=0.1):
        """Waits until predicate(stream) holds (a bound against hangs, not a timing check)."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if predicate(self.stream()) or self.proc.poll() is not None:
                break
            time.sleep(poll)
        return self.stream()

    def wait_events(self, n, stanza=None, timeout=90):
        return self.wait_for(lambda s: len(record_ids(s, stanza)) >= n, timeout)

    def finish(self, timeout=90):
        code = self.proc.wait(timeout=timeout)
        self.reader.join(timeout=10)
        self.stderr.close()
        return code, self.stream()

    def interrupt(self):
        self.proc.send_signal(signal.SIGINT)
        return self.finish()

    def kill(self):
        if self.proc.poll() is None:
            self.proc.kill()
            self.finish()


@pytest.fixture(scope="module", autouse=True)
def wine_server():
    if WINE_RUN:
        subprocess.run(["/usr/lib/wine/wineserver", "-p30"], stdin=subprocess.DEVNULL,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)


@pytest.fixture
def store(tmp_path):
    return EvtsimStore(tmp_path / "store")


@pytest.fixture
def start(store, env, tmp_path):
    """start(document, args=(), **env overrides) -> Collector; all are stopped at the end."""
    running = []

    def run(document, args=(), **extra):
        e = dict(env)
        e["EVTSIM_STORE"] = winpath(store.root)
        e.update(extra)
        c = Collector(e, document, args, tmp_path)
        running.append(c)
        return c

    yield run
    for c in running:
        c.kill()


def checkpoint_file(home, channel):
    return home / "var" / "lib" / "skorva" / "persistentstorage" / "WinEventLog" / (channel + "_checkpoint")


def write_events(path, events):
    """events: (event id, provider, message or None, data) tuples as <Event> elements."""
    parts = ["<Events>"]
    for event_id, provider, message, data in events:
        rendering = "<RenderingInfo Culture='en-US'><Message>%s</Message></RenderingInfo>" % escape(message) \
            if message is not None else ""
        parts.append(
            "<Event xmlns='%s'><System><Provider Name='%s'/><EventID>%d</EventID><Version>0</Version>"
            "<Level>4</Level><Task>0</Task><Opcode>0</Opcode><Keywords>0x80000000000000</Keywords>"
            "<TimeCreated SystemTime='2024-02-01T10:20:30.0000000Z'/><Computer>host.example.test</Computer>"
            "<Security/></System><EventData><Data Name='Detail'>%s</Data></EventData>%s</Event>"
            % (EVENT_NS, provider, event_id, escape(data), rendering))
    parts.append("</Events>")
    path.write_text("".join(parts), encoding="utf-8")
    return path


KNOWN_CLASSIC = (
    b'<event stanza="WinEventLog://Application">\n<time>1706782830</time>\n<data>02/01/2024 10:20:30 AM\n'
    b'LogName=Application\nEventCode=7\nEventType=4\nComputerName=host.example.test\nSourceName=Manual\n'
    b'Type=Information\nRecordNumber=1\nKeywords=Classic\nTaskCategory=None\nOpCode=Info\n'
    b'Message=Disk &quot;D:&quot; &lt;ok&gt; &amp; done</data>\n<source>WinEventLog:Application</source>\n'
    b'<sourcetype>WinEventLog:Application</sourcetype>\n<index>main</index>\n</event>\n')


KNOWN_XML = (
    b'<event stanza="WinEventLog://Application">\n<time>1706782830</time>\n<data>'
    b"&lt;Event xmlns=&apos;http://schemas.microsoft.com/win/2004/08/events/event&apos;&gt;&lt;System&gt;"
    b"&lt;Provider Name=&apos;Manual&apos;/&gt;&lt;EventID&gt;7&lt;/EventID&gt;&lt;Version&gt;0&lt;/Version&gt;"
    b"&lt;Level&gt;4&lt;/Level&gt;&lt;Task&gt;0&lt;/Task&gt;&lt;Opcode&gt;0&lt;/Opcode&gt;"
    b"&lt;Keywords&gt;0x80000000000000&lt;/Keywords&gt;"
    b"&lt;TimeCreated SystemTime=&apos;2024-02-01T10:20:30.0000000Z&apos;/&gt;"
    b"&lt;Computer&gt;host.example.test&lt;/Computer&gt;&lt;Security/&gt;&lt;EventRecordID&gt;1&lt;/EventRecordID&gt;"
    b"&lt;Channel&gt;Application&lt;/Channel&gt;&lt;/System&gt;&lt;EventData&gt;"
    b"&lt;Data Name=&apos;Detail&apos;&gt;x&lt;/Data&gt;&lt;/EventData&gt;&lt;RenderingInfo Culture=&apos;en-US&apos;&gt;"
    b"&lt;Message&gt;Disk &quot;D:&quot; &amp;lt;ok&amp;gt; &amp;amp; done&lt;/Message&gt;&lt;/RenderingInfo&gt;"
    b"&lt;/Event&gt;</data>\n<source>WinEventLog:Application</source>\n"
    b"<sourcetype>XmlWinEventLog:Application</sourcetype>\n<index>main</index>\n</event>\n")


@pytest.mark.parametrize("xml", [False, True], ids=["classic", "xml"])
def test_one_known_record_exact_bytes(xml, store, start, tmp_path, home):
    store.create("Application")
    store.append("Application", write_events(tmp_path / "e.xml", [(7, "Manual", 'Disk "D:" <ok> & done', "x")]))
    params = {"index": "main"}
    if xml:
        params["renderXml"] = "true"
    c = start(config(("WinEventLog://Application", params)))
    c.wait_events(1)
    code, stream = c.interrupt()
    assert code == 0, log_text(home)[-3000:]
    assert stream == b"<stream>\n" + (KNOWN_XML if xml else KNOWN_CLASSIC) + b"</stream>\n"


def test_writer_threads_deliver_every_record_once_and_whole(store, start):
    store.generate("Application", 1200, seed=4)
    c = start(config(("WinEventLog://Application", {"batch_size": 1000, "use_threads": 4})))
    c.wait_events(1200)
    code, stream = c.interrupt()
    assert code == 0
    ids = record_ids(stream)
    assert sorted(ids) == list(range(1, 1201))
    # Nothing but whole events between the stream tags: no element torn by another.
    body = stream[len(b"<stream>\n"):-len(b"</stream>\n")]
    assert b"".join(m.group(0) for m in EVENT_RE.finditer(body)) == body


def test_live_records_ctrl_c_restart_resume_and_rm_checkpoint(store, start, env, home):
    document = config(("WinEventLog://System", {"batch_size": 7}))
    store.generate("System", 50, seed=5)
    c = start(document)
    c.wait_events(50)
    store.generate("System", 20, seed=6, first=50)
    c.wait_events(70)
    code, stream = c.interrupt()
    assert code == 0
    assert record_ids(stream) == list(range(1, 71))
    assert stream.startswith(b"<stream>\n") and stream.endswith(b"</event>\n</stream>\n")
    assert "RecordId='70'" in checkpoint_file(home, "System").read_text()

    store.generate("System", 10, seed=7, first=70)
    c = start(document)
    c.wait_events(10)
    code, stream = c.interrupt()
    assert code == 0
    assert record_ids(stream) == list(range(71, 81))

    r = subprocess.run(command(EXE, "-rm-checkpoint", "System"), env=env, capture_output=True, timeout=60)
    assert r.returncode == 0
    assert not checkpoint_file(home, "System").exists()
    c = start(document)
    c.wait_events(80)
    code, stream = c.interrupt()
    assert record_ids(stream) == list(range(1, 81))


def test_start_from_newest_reads_backwards_then_follows(store, start):
    store.generate("Application", 30, seed=8)
    c = start(config(("WinEventLog://Application", {"start_from": "newest", "batch_size": 4})))
    c.wait_events(30)
    store.generate("Application", 5, seed=9, first=30)
    c.wait_events(35)
    code, stream = c.interrupt()
    assert code == 0
    assert record_ids(stream) == list(range(30, 0, -1)) + list(range(31, 36))


def test_current_only_sends_only_what_arrives_after_the_start(store, start, home):
    store.generate("System", 20, seed=10)
    c = start(config(("WinEventLog://System", {"current_only": 1})))
    deadline = time.monotonic() + 60
    while "WinEventMon::start: Wait on channel System" not in log_text(home) and time.monotonic() < deadline:
        time.sleep(0.1)
    store.generate("System", 5, seed=11, first=20)
    c.wait_events(5)
    code, stream = c.interrupt()
    assert code == 0
    assert record_ids(stream) == list(range(21, 26))


FILTER_EVENTS = [(i, "Manual", "message %d%s" % (i, {2: " secret", 3: "\r\n\tObject Type:\tFile"}.get(i, "")), "d%d" % i)
                 for i in range(1, 7)]


@pytest.mark.parametrize("params, expected", [
    # Event-code ranges (applied before rendering) and a rule on the whole event.
    ({"whitelist": "1-4,6", "blacklist": "EventCode=%^3$%"}, [1, 2, 4, 6]),
    # A rule on the formatted message.
    ({"blacklist": "Message=%secret%"}, [1, 3, 4, 5, 6]),
    ({"whitelist": "Message=%message [45]%"}, [4, 5]),
    # Either of two message-bearing rules admits.
    ({"whitelist": "Message=%message 5%", "whitelist1": "Object Type=%^File$%"}, [3, 5]),
], ids=["codes-and-event", "message-blacklist", "message-whitelist", "two-message-rules"])
def test_filters_end_to_end(params, expected, store, start, tmp_path, home):
    store.create("Application")
    store.append("Application", write_events(tmp_path / "e.xml", FILTER_EVENTS))
    c = start(config(("WinEventLog://Application", params)))
    c.wait_for(lambda s: "Finished processing existing Windows Event Log 'Application'" in log_text(home))
    code, stream = c.interrupt()
    assert code == 0
    assert record_ids(stream) == expected


def test_channel_refused_by_a_collector_subscription_is_reported_and_opened_once_it_fits(store, start, home):
    store.generate("Application", 5, seed=21)
    store.generate("ForwardedEvents", 5, seed=21)
    (store.root / "collector").mkdir()

    def subscription(content_format):
        path = store.root / "collector" / "subscriptions.txt"
        path.with_suffix(".new").write_text(
            "[Raw]\nEnabled = true\nContentFormat = %s\nLogFile = ForwardedEvents\n" % content_format)
        os.replace(path.with_suffix(".new"), path)

    subscription("Events")  # ForwardedEvents reads rendered events by default
    c = start(config(("WinEventLog://Application", {"thread_wait_time_msec": 300}),
                     ("WinEventLog://ForwardedEvents", {"thread_wait_time_msec": 300})),
              ECSIM_STORE=winpath(store.root))
    c.wait_events(5, "WinEventLog://Application")
    c.wait_for(lambda s: "Channel ForwardedEvents could not be opened; it is tried again" in log_text(home))
    log = log_text(home)
    assert ("subscription:'Raw' - Invalid WEC content-format:'Events', for skorva-format = rendered_eventSee the "
            "description for the 'wec_event_format' setting") in log
    assert "Invalid config or enumLocalWECSubscriptions failure for channel = ForwardedEvents" in log
    assert record_ids(c.stream(), "WinEventLog://ForwardedEvents") == []

    subscription("RenderedText")
    c.wait_events(5, "WinEventLog://ForwardedEvents")
    code, stream = c.interrupt()
    assert code == 0
    assert record_ids(stream, "WinEventLog://Application") == list(range(1, 6))
    assert record_ids(stream, "WinEventLog://ForwardedEvents") == list(range(1, 6))


@pytest.mark.parametrize("change, made", [("clear", [6, 7, 8]), ("delete", list(range(1, 9))),
                                          ("delete at once", [1, 2, 3])])
def test_cleared_or_deleted_and_recreated_channel_is_read_on(change, made, store, start, home):
    store.generate("System", 5, seed=13)
    c = start(config(("WinEventLog://System", {"thread_wait_time_msec": 300, "channel_wait_time": 60})))
    c.wait_events(5)
    store.clear("System") if change == "clear" else store.delete("System")
    if change == "delete":
        c.wait_for(lambda s: "Could not subscribe to Windows Event Log channel 'System'" in log_text(home), timeout=60)
    # Record ids go on after a clear; in a new channel they start again and all
    # its records are new, none skipped for having the number of one already sent,
    # whether or not the reader saw the channel missing in between.
    store.generate("System", len(made), seed=15, first=made[0] - 1)
    c.wait_for(lambda s: len(record_ids(s)) >= 5 + len(made), timeout=120)
    code, stream = c.interrupt()
    assert code == 0
    assert record_ids(stream) == [1, 2, 3, 4, 5] + made


@pytest.mark.parametrize("faults", [
    "EvtNext:Security=1717,times=3",
    "EvtNext:Security=6,once",
    "EvtRender:Security=6,once",
    "EvtFormatMessage=15027,times=40",
])
def test_injected_faults_lose_no_record(faults, store, start):
    # Enough records for one read to be rendered on two threads.
    store.generate("Security", 600, seed=16)
    store.faults(faults)
    c = start(config(("WinEventLog://Security", {"batch_size": 10, "thread_wait_time_msec": 300})))
    c.wait_events(600)
    code, stream = c.interrupt()
    assert code == 0
    assert record_ids(stream) == list(range(1, 601))


def test_no_usable_stanza_ends_at_once_with_0(store, start):
    store.create("Application")
    c = start(config(("WinEventLog://NoSuchChannel", {}), ("Other://Application", {})))
    code, stream = c.finish()
    assert code == 0
    assert stream == b""


class PidHelper:
    def __init__(self, mode):
        self.proc = subprocess.Popen(command(HELPER, mode), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=subprocess.DEVNULL)
        self.pid = int(self.proc.stdout.readline())

    def end(self):
        self.proc.stdin.close()
        self.proc.wait(timeout=60)


@pytest.fixture
def helper():
    if not HELPER.exists():
        pytest.skip("build the pid-helper target")
    made = []

    def make(mode):
        h = PidHelper(mode)
        made.append(h)
        return h

    yield make
    for h in made:
        if h.proc.poll() is None:
            h.end()


def test_parent_already_ended_97_and_unopenable_98(store, start, helper):
    store.generate("Application", 5, seed=17)
    document = config(("WinEventLog://Application", {}))
    ended = helper("ended")
    code, stream = start(document, SKORVAD_PROCESSID=str(ended.pid)).finish()
    assert (code, stream) == (97, b"")
    code, stream = start(document, SKORVAD_PROCESSID="4294967288").finish()
    assert (code, stream) == (98, b"")


def test_parent_ending_while_running_ends_with_99(store, start, helper, home):
    store.generate("Application", 5, seed=18)
    parent = helper("wait")
    c = start(config(("WinEventLog://Application", {})), SKORVAD_PROCESSID=str(parent.pid))
    c.wait_events(5)
    parent.end()
    code, stream = c.finish()
    assert code == 99
    assert record_ids(stream) == [1, 2, 3, 4, 5]
    assert not stream.endswith(b"</stream>\n")  # no tear-down


class EndsAtStreamClose(Collector):
    """A daemon that ends the program as soon as it has read the end of the stream."""

    def _read(self):
        for chunk in iter(lambda: self.proc.stdout.read1(65536), b""):
            with self.lock:
                self.out += chunk
                if self.out.endswith(b"</stream>\n"):
                    self.proc.kill()


def test_ctrl_c_checkpoints_the_last_record_before_the_stream_closes(store, env, home, tmp_path):
    store.generate("Application", 40, seed=19)
    e = dict(env, EVTSIM_STORE=winpath(store.root))
    c = EndsAtStreamClose(e, config(("WinEventLog://Application", {"batch_size": 10, "checkpointInterval": 3600})),
                          tmp=tmp_path)
    try:
        c.wait_events(40)
        assert not checkpoint_file(home, "Application").exists()  # deferred by the interval
        c.proc.send_signal(signal.SIGINT)
        _, stream = c.finish()
    finally:
        c.kill()
    assert stream.endswith(b"</event>\n</stream>\n")
    assert record_ids(stream)[-1] == 40
    assert "RecordId='40'" in checkpoint_file(home, "Application").read_text()


def messages(stream):
    return [re.search(rb"\nMessage=(.*?)</data>", body, re.S).group(1) for _, body in EVENT_RE.findall(stream)]


def test_long_message_arrives_whole(store, start, tmp_path):
    # Longer than the first format buffer: the service then succeeds with the text cut.
    text = "".join("part %04d of a long message; " % i for i in range(180))[:5000]
    store.create("Application")
    store.append("Application", write_events(tmp_path / "e.xml", [(7, "Manual", text, "x")]))
    c = start(config(("WinEventLog://Application", {})))
    c.wait_events(1)
    code, stream = c.interrupt()
    assert code == 0
    assert messages(stream) == [text.encode()]


def test_publisher_that_failed_to_open_is_asked_again_once_its_entry_aged_out(store, start, tmp_path, home):
    provider = tmp_path / "flaky.xml"
    provider.write_text("<Provider Name='Flaky' Guid='' DisplayName='Flaky' Resources='true'>"
                        "<Event Id='9'>Formatted: %1</Event></Provider>")
    store.run("provider", provider)
    store.faults("EvtOpenPublisherMetadata:Flaky=2,once")
    store.create("Application")
    store.append("Application", write_events(tmp_path / "1.xml", [(9, "Flaky", None, "first")]))
    c = start(config(("WinEventLog://Application", {"thread_wait_time_msec": 300})))
    c.wait_events(1)
    # Passes run every 300 ms; the sweep drops the failed entry 10 s after its last use.
    c.wait_for(lambda s: "Skipping null handle from non-existent publisher Flaky" in log_text(home))
    store.append("Application", write_events(tmp_path / "2.xml", [(9, "Flaky", None, "second")]))
    c.wait_events(2)
    code, stream = c.interrupt()
    assert code == 0
    assert messages(stream) == [b"first", b"Formatted: second"]
