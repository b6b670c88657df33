"""A checkpoint save killed at any moment leaves the previous or the new
checkpoint whole, never an empty or torn one, and at most the killed save's
temporary file."""
import os
import pathlib
import random
import re
import signal
import subprocess
import time

from conftest import winpath
from test_collector import command, wine_server  # noqa: F401 (fixture)

SAVER = pathlib.Path(os.environ.get("SKORVA_BUILD_DIR", "")) / "tests" / "helpers" / "checkpoint-saver.exe"
KILLS = int(os.environ.get("CHECKPOINT_KILLS", "200"))

BOOKMARK = re.compile(
    rb"<BookmarkList>\r\n  <Bookmark Channel='Security' RecordId='(\d+)' IsCurrent='true'/>\r\n</BookmarkList>")


def test_killed_saves_leave_one_whole_bookmark(tmp_path):
    assert SAVER.exists(), "build the checkpoint-saver target"
    directory = tmp_path / "WinEventLog"
    directory.mkdir()
    target = directory / "Security_checkpoint"
    seed = int(os.environ.get("CHECKPOINT_SEED", time.time_ns() % 1000000))
    rng = random.Random(seed)
    stats = {"kills": 0, "temporaries_left": 0, "saves": 0, "killed_before_first_save": 0}
    last = 0
    started = time.monotonic()
    errors = tmp_path / "stderr"
    while stats["kills"] < KILLS:
        with open(errors, "wb") as err:
            proc = subprocess.Popen(command(SAVER, "loop", winpath(target), "Security", last + 1),
                                    stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=err)
        try:
            # Most kills land once the loop runs; some land while it starts.
            output = b""
            if rng.random() < 0.9:
                output = proc.stdout.readline()
                assert output.startswith(b"saved "), f"seed {seed}: {proc.wait()} {errors.read_bytes()!r}"
            time.sleep(rng.uniform(0.0, 0.12))
            os.kill(proc.pid, signal.SIGKILL)
            proc.wait(timeout=30)
            output += proc.stdout.read()
            printed = [int(line.split()[1]) for line in output.splitlines() if line.startswith(b"saved ")]
        finally:
            if proc.poll() is None:
                proc.kill()
                proc.wait()
            proc.stdout.close()
        stats["kills"] += 1
        assert proc.returncode == -signal.SIGKILL, \
            f"seed {seed}: saver ended by itself ({proc.returncode}) {errors.read_bytes()!r}"
        assert b"Failed to rename" not in errors.read_bytes()

        content = target.read_bytes() if target.exists() else b""
        if not content and last == 0 and not printed:
            stats["killed_before_first_save"] += 1
            continue
        m = BOOKMARK.fullmatch(content)
        assert m, f"seed {seed}, kill {stats['kills']}: torn or empty checkpoint {content!r}"
        saved = int(m.group(1))
        # The newest announced save, or the one in flight when the kill came.
        newest = printed[-1] if printed else last
        assert saved in (newest, newest + 1), f"seed {seed}: file has {saved}, last announced {newest}"
        stats["saves"] += saved - last
        last = saved

        temporaries = list(directory.glob("Security_checkpoint.tmp.*"))
        assert len(temporaries) <= 1, f"seed {seed}: {temporaries}"
        for t in temporaries:
            assert re.fullmatch(r"Security_checkpoint\.tmp\.[0-9a-f]{16}", t.name)
            t.unlink()
        stats["temporaries_left"] += len(temporaries)
        assert sorted(p.name for p in directory.iterdir()) == ["Security_checkpoint"]

    elapsed = time.monotonic() - started
    print(f"\ncheckpoint crash test: seed={seed} kills={stats['kills']} saves={stats['saves']} "
          f"temporaries_left_by_kills={stats['temporaries_left']} "
          f"killed_before_first_save={stats['killed_before_first_save']} seconds={elapsed:.1f}")
    assert stats["saves"] > KILLS, "kills should land among many completed saves"

