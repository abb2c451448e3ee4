"""chmgrctl metrics against the running daemon: the exposition that
promtool accepts, its values for a card in service, a stuck card and empty
slots, the textfile write, and a daemon that does not answer."""

import json
import os
import re
import shutil
import stat
import tempfile
from pathlib import Path

import pytest

from chmgrctl_support import chmgrctl, show_slot
from conftest import start_listening, wait_until
from metrics_support import (PROMTOOL, parse_samples, promtool_check_metrics, require, slot_labels,
                             slot_value)

TIMESTAMP = r"\d{10}\.\d{3}"
DOWN_TEXT = re.compile(
    "# HELP chassis_mgr_up 1 when chassis-mgr answered this collection, 0 when it did not.\n"
    "# TYPE chassis_mgr_up gauge\n"
    "chassis_mgr_up 0\n"
    "# HELP chassis_mgr_collection_timestamp_seconds When this collection was made, in seconds since the epoch.\n"
    "# TYPE chassis_mgr_collection_timestamp_seconds gauge\n"
    f"chassis_mgr_collection_timestamp_seconds ({TIMESTAMP})\n")


def one_up_one_stuck(sandbox, daemon):
    """Slot 1 in service, slot 4 given up at VERIFIED (nothing plays its
    hardware), the other slots empty."""
    start_listening(sandbox, daemon)
    sandbox.start_emulator("--slots", "1")
    sandbox.insert(1)
    sandbox.insert(4)
    wait_until(lambda: show_slot(sandbox, 1)["oper_state"] == "Operational", timeout=20,
               what="slot 1 to be operational")
    wait_until(lambda: show_slot(sandbox, 4)["stuck"], timeout=20, what="slot 4 to be given up")


def metrics(sandbox, *args):
    result = chmgrctl(sandbox, "metrics", *args)
    assert (result.returncode, result.stderr) == (0, "")
    return result.stdout


def test_metrics_of_a_card_in_service_a_stuck_card_and_empty_slots(sandbox, daemon):
    one_up_one_stuck(sandbox, daemon)
    text = metrics(sandbox)
    samples = parse_samples(text)
    shown = {s["slot"]: s for s in json.loads(chmgrctl(sandbox, "show", "--json").stdout)["slots"]}

    assert samples[("chassis_mgr_up", ())] == 1
    assert slot_value(samples, "chassis_mgr_slot_oper_state", 1, state="operational") == 1
    assert slot_value(samples, "chassis_mgr_slot_oper_state", 1, state="offline") == 0
    assert slot_value(samples, "chassis_mgr_slot_stage", 1) == 6
    assert slot_value(samples, "chassis_mgr_slot_ports", 1) == 16
    assert slot_value(samples, "chassis_mgr_slot_stuck", 1) == 0
    assert slot_value(samples, "chassis_mgr_slot_reason_info", 1) is None
    up_since = slot_value(samples, "chassis_mgr_slot_up_since_timestamp_seconds", 1)
    collected = samples[("chassis_mgr_collection_timestamp_seconds", ())]
    assert collected - up_since == pytest.approx(shown[1]["up_time_seconds"], abs=2)
    assert slot_labels(samples, "chassis_mgr_slot_info", 1) == {
        "slot": "1", "card_type": "KTR9600-C16", "part_number": "KTR9600-C16", "serial": "SN00000001",
        "hw_revision": "2"}

    assert slot_value(samples, "chassis_mgr_slot_oper_state", 4, state="offline") == 1
    assert slot_value(samples, "chassis_mgr_slot_stage", 4) == 2
    assert slot_value(samples, "chassis_mgr_slot_stuck", 4) == 1
    assert slot_value(samples, "chassis_mgr_slot_up_since_timestamp_seconds", 4) is None
    assert slot_labels(samples, "chassis_mgr_slot_reason_info", 4)["reason"] == shown[4]["reason"]
    entered = slot_value(samples, "chassis_mgr_slot_stage_entered_timestamp_seconds", 4)
    assert 0 < entered <= collected

    for slot in (2, 3, 5, 6, 7, 8):
        assert slot_value(samples, "chassis_mgr_slot_oper_state", slot, state="empty") == 1
        assert slot_value(samples, "chassis_mgr_slot_stage", slot) == 0
        assert slot_value(samples, "chassis_mgr_slot_ports", slot) == 0
        assert slot_value(samples, "chassis_mgr_slot_admin_enabled", slot) == 1
        assert slot_labels(samples, "chassis_mgr_slot_info", slot) is None
        assert slot_labels(samples, "chassis_mgr_slot_reason_info", slot)["reason"] == shown[slot]["reason"]


def test_promtool_finds_nothing_to_say_about_the_exposition(sandbox, daemon):
    require(PROMTOOL)
    one_up_one_stuck(sandbox, daemon)
    assert chmgrctl(sandbox, "disable", "7").returncode == 0
    assert promtool_check_metrics(metrics(sandbox)) == (0, "")


def test_odd_serial_is_escaped_and_passes_promtool(sandbox, daemon):
    require(PROMTOOL)
    start_listening(sandbox, daemon)
    serial = 'Q"B\\S\x01' + "Z" * 26  # 32 characters: the record's whole field
    sandbox.insert(3, sn=serial)
    wait_until(lambda: show_slot(sandbox, 3)["oper_state"] == "Offline", what="slot 3 to hold the card")
    text = metrics(sandbox)
    assert 'serial="Q\\"B\\\\S?' + "Z" * 26 + '"' in text
    assert promtool_check_metrics(text) == (0, "")


def test_textfile_holds_the_same_text_with_mode_0644(sandbox, daemon):
    start_listening(sandbox, daemon)
    directory = sandbox.base / "textfile"
    directory.mkdir()
    path = directory / "chassis_mgr.prom"
    old_umask = os.umask(0o077)
    try:
        result = chmgrctl(sandbox, "metrics", "--textfile", path)
    finally:
        os.umask(old_umask)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")
    assert os.listdir(directory) == ["chassis_mgr.prom"]
    assert stat.S_IMODE(path.stat().st_mode) == 0o644
    written = path.read_text()
    printed = metrics(sandbox)
    strip = re.compile(f"^chassis_mgr_collection_timestamp_seconds {TIMESTAMP}$", re.M)
    assert strip.sub("", written) == strip.sub("", printed)
    assert written.endswith("\n")


def test_unreachable_daemon_gives_up_0_and_exit_status_0(sandbox):
    path = sandbox.base / "chassis_mgr.prom"
    result = chmgrctl(sandbox, "metrics", "--textfile", path)
    assert result.returncode == 0
    assert result.stdout == ""
    assert result.stderr.startswith("chmgrctl: cannot connect to chassis-mgr at ")
    assert DOWN_TEXT.fullmatch(path.read_text())
    printed = chmgrctl(sandbox, "metrics")
    assert printed.returncode == 0
    assert DOWN_TEXT.fullmatch(printed.stdout)


def test_unwritable_textfile_is_a_failure(sandbox, daemon):
    start_listening(sandbox, daemon)
    path = sandbox.base / "no-such-directory" / "chassis_mgr.prom"
    result = chmgrctl(sandbox, "metrics", "--textfile", path)
    assert result.returncode == 1
    assert result.stderr == (f"chmgrctl: cannot create a temporary file for {path}: No such file or directory\n")


@pytest.mark.parametrize("args, message", [
    (("metrics", "3"), "too many arguments for 'metrics'"),
    (("show", "--textfile", "x.prom"), "option '--textfile' belongs to 'metrics'"),
    (("metrics", "--json"), "'metrics' prints the Prometheus text format only: '--json' does not apply"),
    (("metrics", "--textfile"), "option '--textfile' needs a path"),
])
def test_metrics_command_line_errors(sandbox, args, message):
    result = chmgrctl(sandbox, *args)
    assert result.returncode == 2
    assert result.stderr == f"chmgrctl: {message}\nTry 'chmgrctl --help' for more information.\n"


def test_socket_option_is_the_one_read(sandbox, daemon):
    start_listening(sandbox, daemon)
    other = sandbox.base / "other-socket"
    result = chmgrctl(sandbox, "metrics", "--socket", other)
    assert result.returncode == 0
    assert result.stderr.startswith(f"chmgrctl: cannot connect to chassis-mgr at {other}: ")
    assert DOWN_TEXT.fullmatch(result.stdout)


NOBODY = 65534


def run_as_nobody():
    os.setgroups([])
    os.setgid(NOBODY)
    os.setuid(NOBODY)


def test_unprivileged_collection_into_a_group_writable_directory(sandbox, daemon):
    """As the packaged service runs it: an unprivileged user, whose group
    may write the textfile directory, and a control socket it may not use."""
    if os.geteuid() != 0:
        pytest.skip("needs root to run the client as another user")
    start_listening(sandbox, daemon)
    os.chmod(sandbox.path("run/chassismgr"), 0o750)  # as installed: root and chassismgr only
    top = Path(tempfile.mkdtemp(prefix="chm-textfile-", dir="/tmp"))  # a path the user can reach
    try:
        os.chmod(top, 0o755)
        directory = top / "node-exporter"
        directory.mkdir()
        os.chown(directory, 0, NOBODY)
        os.chmod(directory, 0o775)
        path = directory / "chassis_mgr.prom"
        result = chmgrctl(sandbox, "metrics", "--textfile", path, preexec_fn=run_as_nobody)
        assert result.returncode == 0
        assert "Permission denied" in result.stderr
        assert DOWN_TEXT.fullmatch(path.read_text())
        info = path.stat()
        assert (info.st_uid, stat.S_IMODE(info.st_mode)) == (NOBODY, 0o644)
        assert os.listdir(directory) == ["chassis_mgr.prom"]
    finally:
        shutil.rmtree(top, ignore_errors=True)
