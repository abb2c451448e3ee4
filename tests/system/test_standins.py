"""Tests of the harness itself: the stand-in commands, wait_until,
status_document and the daemon fixture."""

import json
import subprocess
import sys

import pytest

from conftest import status_document, wait_until

GEARBOX = "usr/lib/tarnel/brlgbfwupgrade.ks"


def shell(sandbox, command):
    """Runs a command line the way the daemon's system() does."""
    return subprocess.run(["/bin/sh", "-c", command], env=sandbox.env, cwd=sandbox.base,
                          stdin=subprocess.DEVNULL, check=False).returncode


def gearbox_command(sandbox, slot):
    return (f"{sandbox.root}/{GEARBOX} -s {slot} -t cardtype_16x100 -l INFO "
            f"-f {sandbox.root}/var/log/gb.log")


# ---------------------------------------------------------------- systemctl


def test_systemctl_on_path_is_the_stand_in(sandbox):
    assert sandbox.systemctl_calls() == []
    assert shell(sandbox, "systemctl reload portd") == 0
    assert shell(sandbox, "systemctl reload envd") == 0
    calls = sandbox.systemctl_calls()
    assert [c.args for c in calls] == [("reload", "portd"), ("reload", "envd")]
    assert [c.exit_code for c in calls] == [0, 0]
    assert all(c.start <= c.end for c in calls)
    assert calls[0].end <= calls[1].start
    assert calls[0].pid != calls[1].pid


def test_systemctl_exits_with_the_configured_code(sandbox):
    sandbox.systemctl_exit_code(1)
    assert shell(sandbox, "systemctl reload portd") == 1
    sandbox.systemctl_exit_code(0)
    assert shell(sandbox, "systemctl reload portd") == 0
    assert [(c.args, c.exit_code) for c in sandbox.systemctl_calls()] == \
        [(("reload", "portd"), 1), (("reload", "portd"), 0)]


def test_systemctl_stays_busy_the_configured_time(sandbox):
    sandbox.systemctl_sleep(0.05)
    assert shell(sandbox, "systemctl reload envd") == 0
    (call,) = sandbox.systemctl_calls()
    assert call.end - call.start >= 0.05


# ---------------------------------------------------------------- gearbox tool


def test_gearbox_records_its_arguments(sandbox):
    assert shell(sandbox, gearbox_command(sandbox, 3)) == 0
    (call,) = sandbox.gearbox_calls()
    assert call.args == ("-s", "3", "-t", "cardtype_16x100", "-l", "INFO",
                         "-f", f"{sandbox.root}/var/log/gb.log")
    assert call.exit_code == 0
    assert sandbox.systemctl_calls() == []


def test_gearbox_exits_with_the_configured_code(sandbox):
    sandbox.gearbox_exit_code(2)
    assert shell(sandbox, gearbox_command(sandbox, 1)) == 2
    assert [c.exit_code for c in sandbox.gearbox_calls()] == [2]


def test_gearbox_records_show_whether_runs_overlap(sandbox):
    # Two runs one after the other never overlap ...
    assert shell(sandbox, gearbox_command(sandbox, 1)) == 0
    assert shell(sandbox, gearbox_command(sandbox, 2)) == 0
    first, second = sandbox.gearbox_calls()
    assert first.end <= second.start
    # ... two runs held at once do, and the records show it.
    sandbox.gearbox_hold()
    runs = [subprocess.Popen(["/bin/sh", "-c", gearbox_command(sandbox, slot)], env=sandbox.env)
            for slot in (3, 4)]
    wait_until(lambda: len(sandbox.gearbox_started()) == 4, what="both held runs to start")
    assert len(sandbox.gearbox_calls()) == 2
    sandbox.gearbox_hold(False)
    assert [r.wait() for r in runs] == [0, 0]
    third, fourth = sandbox.gearbox_calls()[2:]
    assert third.start < fourth.end and fourth.start < third.end
    assert sorted(c.args[1] for c in (third, fourth)) == ["3", "4"]


def test_started_lists_runs_in_progress(sandbox):
    sandbox.systemctl_hold()
    run = subprocess.Popen(["/bin/sh", "-c", "systemctl reload portd"], env=sandbox.env)
    wait_until(sandbox.systemctl_started, what="systemctl to start")
    assert sandbox.systemctl_started() == [("reload", "portd")]
    assert sandbox.systemctl_calls() == []
    sandbox.systemctl_hold(False)
    assert run.wait() == 0
    assert [c.args for c in sandbox.systemctl_calls()] == [("reload", "portd")]


def test_concurrent_records_never_interleave(sandbox):
    runs = [subprocess.Popen(["/bin/sh", "-c", f"systemctl reload unit{i}"], env=sandbox.env)
            for i in range(8)]
    assert [r.wait() for r in runs] == [0] * 8
    assert sorted(c.args[1] for c in sandbox.systemctl_calls()) == [f"unit{i}" for i in range(8)]


# ---------------------------------------------------------------- harness helpers


def test_wait_until_returns_the_first_truthy_value():
    values = iter([0, None, "", "done"])
    assert wait_until(lambda: next(values), what="values") == "done"


def test_wait_until_fails_with_what_and_the_last_value():
    with pytest.raises(pytest.fail.Exception) as failure:
        wait_until(lambda: 0, timeout=0.02, what="the answer")
    assert "waiting for the answer; last value: 0" in str(failure.value)


def test_wait_until_treats_a_missing_file_as_not_yet(tmp_path):
    with pytest.raises(pytest.fail.Exception) as failure:
        wait_until(lambda: (tmp_path / "nothing").read_text(), timeout=0.02, what="the file")
    assert "FileNotFoundError" in str(failure.value)


def test_sandbox_root_is_safe_for_the_daemon(sandbox):
    text = str(sandbox.root)
    assert all(c.isalnum() or c in "/._-+" for c in text)
    assert len(f"{text}/run/chassismgr/chassismgr") < 108
    assert sandbox.env["CHMGR_ROOT"] == text
    assert sandbox.env["PATH"].split(":")[0] == str(sandbox.bin)


def test_sim_set_and_calls(sandbox):
    assert sandbox.sim_calls() == []
    sandbox.sim_set("slot3/ini_identity", "3 2 5\n")
    assert sandbox.sim_read("slot3/ini_identity") == "3 2 5\n"
    assert not sandbox.sim_path("slot3/ini_identity.tmp").exists()
    sandbox.sim_set("calls.log", "ks_api_open\nks_mgmt_slot_info_get slot=1\n")
    assert sandbox.sim_calls() == ["ks_api_open", "ks_mgmt_slot_info_get slot=1"]


FAKE_STATUS_WRITER = r"""
import ctypes, json, os, sys, time
root = sys.argv[1]
trigger = root + "/etc/tarnel/debug_slot"
status = root + "/etc/tarnel/cm_status.json"
libc = ctypes.CDLL("libc.so.6", use_errno=True)
watcher = libc.inotify_init()
libc.inotify_add_watch(watcher, trigger.encode(), 0x108)  # watched like the daemon's debug thread
seen = os.stat(trigger).st_mtime_ns
open(root + "/fake-ready", "w").close()
while True:
    now = os.stat(trigger).st_mtime_ns
    if now != seen:
        seen = now
        with open(trigger) as f:
            slot = int(f.read().split()[0])
        with open(status + ".tmp", "w") as f:
            json.dump({"slot": slot}, f)
        os.rename(status + ".tmp", status)
    time.sleep(0.002)
"""


class FakeDaemon:
    """Stands for a Daemon handle in the status_document test."""

    def __init__(self, proc):
        self.proc = proc
        self.pid = proc.pid

    def describe(self):
        return "fake status writer"


def test_status_document_waits_for_the_rewrite(sandbox):
    proc = subprocess.Popen([sys.executable, "-c", FAKE_STATUS_WRITER, str(sandbox.root)])
    try:
        fake = FakeDaemon(proc)
        wait_until(lambda: sandbox.path("fake-ready").exists(), what="the fake writer")
        assert status_document(sandbox, fake, 3) == {"slot": 3}
        assert status_document(sandbox, fake) == {"slot": 255}
        assert json.loads(sandbox.read("etc/tarnel/cm_status.json")) == {"slot": 255}
    finally:
        proc.kill()
        proc.wait()


# ---------------------------------------------------------------- the daemon fixture


def test_daemon_prints_its_version_and_exits(daemon):
    handle = daemon.start("-V", expect_exit=True)
    assert handle.wait_exit() == 0
    assert handle.stderr().startswith(" Tarnel Linux chassis-mgr version ")
    assert handle.console() == ""

