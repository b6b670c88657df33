"""The command line of the real executable: usage, checkpoint removal, the
SKORVA_HOME check and the run mode's configuration reading."""
import os

import pytest

from conftest import log_text, run_exe, winpath

USAGE = (
    b"Usage:\n"
    b" skorva-winevtlog.exe -rm-checkpoint <log channel> /?\n"
    b" skorva-winevtlog.exe -help | /?\n"
    b"\n If there is no argument, run in modular input mode.\n"
    b" -rm-checkpoint - Remove a specific checkpoint file given the log channel name.  If you don't\n"
    b"            specify a channel name, it will delete all of the checkpoint files belongin to event logs.\n"
    b"\nOptions:\n\n\n"
)


@pytest.mark.parametrize("args", [["-help"], ["-h"], ["/?"], ["-HELP"], ["-rm-checkpoint", "a", "b"], ["bogus"]])
def test_usage_exact_bytes_and_exit_1(args, env):
    r = run_exe(args, env=env)
    assert r.returncode == 1
    assert r.stderr == USAGE
    assert r.stdout == b""


def test_home_unset_is_reported_on_stderr_and_in_the_log_line(env):
    del env["SKORVA_HOME"]
    r = run_exe([], env=env)
    assert r.returncode == 1
    lines = r.stderr.decode().splitlines()
    assert lines[0] == "runWinEventMon: SKORVA_HOME must be set.  Stopping."
    assert lines[1].endswith("runWinEventMon: SKORVA_HOME must be set.  Stopping")
    assert " ERROR " in lines[1]


def checkpoint_dir(home):
    return home / "var" / "lib" / "skorva" / "persistentstorage" / "WinEventLog"


def test_rm_checkpoint_of_a_channel_without_one_logs_and_exits_0(home, env):
    # The reverse-reading bookmark left without its main file goes all the same.
    reverse = checkpoint_dir(home) / "Security_checkpoint_reverse"
    reverse.parent.mkdir(parents=True)
    reverse.write_text("<BookmarkList/>")
    r = run_exe(["-rm-checkpoint", "Security"], env=env)
    assert r.returncode == 0
    want = "Checkpoint location='%s' doesn't exist" % winpath(checkpoint_dir(home) / "Security_checkpoint")
    assert want in log_text(home)
    assert not reverse.exists()
    assert "runWinEventMon: Using logging configuration at %s" % winpath(home / "etc" / "log-cmdline.cfg") in log_text(home)


def test_rm_checkpoint_removes_one_channel_or_everything(home, env):
    d = checkpoint_dir(home)
    d.mkdir(parents=True)
    for name in ["Security_checkpoint", "Security_checkpoint_reverse", "Microsoft-Windows-Sysmon_Operational_checkpoint", "System_checkpoint"]:
        (d / name).write_text("<BookmarkList/>")
    # A channel name with characters a file name cannot hold maps to the same file.
    r = run_exe(["-rm-checkpoint", "Microsoft-Windows-Sysmon/Operational"], env=env)
    assert r.returncode == 0
    assert not (d / "Microsoft-Windows-Sysmon_Operational_checkpoint").exists()
    r = run_exe(["-rm-checkpoint", "Security"], env=env)
    assert r.returncode == 0
    assert sorted(p.name for p in d.iterdir()) == ["System_checkpoint"]
    assert "Deleting checkpoint file='%s'" % winpath(d / "Security_checkpoint") in log_text(home)
    r = run_exe(["-rm-checkpoint"], env=env)
    assert r.returncode == 0
    assert not d.exists()
    assert "Deleting checkpoint directory: %s" % winpath(d) in log_text(home)
    # Nothing left: still exit 0, with the error line.
    r = run_exe(["-rm-checkpoint"], env=env)
    assert r.returncode == 0
    assert "Checkpoint location='%s' doesn't exist" % winpath(d) in log_text(home)


def test_rm_checkpoint_honours_skorva_db(tmp_path, home, env):
    db = tmp_path / "db"
    d = db / "persistentstorage" / "WinEventLog"
    d.mkdir(parents=True)
    (d / "Application_checkpoint").write_text("x")
    env["SKORVA_DB"] = winpath(db)
    assert run_exe(["-rm-checkpoint", "Application"], env=env).returncode == 0
    assert not (d / "Application_checkpoint").exists()


@pytest.mark.parametrize("doc, error", [
    (b"<input><configuration><stanza name='WinEventLog://Security'><param_list/></stanza></configuration></input>",
     'Unexpected entity "param_list" found under path "input/configuration/stanza/param_list" '
     "in the XML configuration input."),
    # Standard input is read in binary mode: a 0x1A byte is reported where it
    # stands instead of ending the input there (CR LF is left to the XML reader).
    (b"<input>\r\n<configuration><stanza name='WinEventLog://Security'><param name='index'>a\x1ab</param>"
     b"</stanza></configuration>\r\n</input>",
     "XML parse error at line 2, column 75: not well-formed (invalid token)"),
    (b"<input><configuration><stanza name='WinEventLog://Application'><param name=",
     "XML parse error at line 1, column 64: unclosed token"),
], ids=["unexpected-element", "ctrl-z", "cut-short"])
def test_run_mode_malformed_configuration_ends_with_255(doc, error, home, env):
    r = run_exe([], env=env, stdin=doc)
    assert r.returncode == 255
    assert r.stdout == b""
    assert "runWinEventMon:  Failed to run Skorva Windows event log Monitor: '%s'" % error in log_text(home)


def test_missing_logger_configuration_falls_back_with_one_stderr_line(home, env):
    os.remove(home / "etc" / "log-cmdline.cfg")
    r = run_exe(["-rm-checkpoint", "Security"], env=env)
    assert r.returncode == 0
    assert r.stderr.decode().count("could not be read") == 1
    assert "Checkpoint location=" in log_text(home)
