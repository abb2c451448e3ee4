"""The read-only socket beside the control socket, and reads that never
wait behind an administration command, against the running daemon."""

import json
import os
import socket
import stat
import subprocess
import time

import pytest

from conftest import (CTL_HEADER, SOCKET_RELPATH, console_lines, ctl_connect, ctl_exchange, ctl_request, padded,
                      start_listening, timeout_factor, wait_until)
from harness_ctl import read_to_end
from readonly_support import READONLY_SOCKET_RELPATH, ReachableSandbox, ro_connect, ro_exchange, run_as_nobody

SHOW_SUMMARY, SHOW_DETAIL, DEBUG_SLOT = 5, 6, 9
LINECARD_ENABLE, LINECARD_DISABLE, PRE_PROVISION_ENABLE, PRE_PROVISION_DISABLE = 3, 4, 7, 8
FAILURE = 0xFFFFFFF0  # -16
REFUSED_TEXT = b"Read-only socket: administration commands need the control socket"


def header(reply):
    return CTL_HEADER.unpack(reply[:24])  # cmd, len, seq, slot_no, status, card_type


def ctl_lines(handle):
    return [line for line in console_lines(handle) if "CTL" in line or "sending response" in line]


def test_both_sockets_listen_with_their_modes(sandbox, daemon):
    start_listening(sandbox, daemon)
    control = os.stat(sandbox.path(SOCKET_RELPATH))
    readonly = os.stat(sandbox.path(READONLY_SOCKET_RELPATH))
    assert stat.S_ISSOCK(control.st_mode) and stat.S_ISSOCK(readonly.st_mode)
    assert stat.S_IMODE(control.st_mode) == 0o660
    assert stat.S_IMODE(readonly.st_mode) == 0o666


def test_show_summary_on_the_read_only_socket_is_the_control_socket_reply(sandbox, daemon):
    start_listening(sandbox, daemon)
    request = ctl_request(SHOW_SUMMARY, 255, seq=77)
    assert ro_exchange(sandbox, request) == ctl_exchange(sandbox, request)
    detail = ctl_request(SHOW_DETAIL, 3, seq=78)
    ro_reply = ro_exchange(sandbox, detail)
    assert header(ro_reply) == (SHOW_DETAIL, 1024, 78, 3, 0, 0)
    assert ro_reply[24:28] == (3).to_bytes(4, "little")
    assert ro_reply[60:64] == b"none"
    assert ro_reply[100:105] == b"Empty"


def test_reads_on_the_read_only_socket_leave_rings_console_and_file_alone(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    document_path = sandbox.path("etc/tarnel/cm_status.json")
    before = json.loads(ro_exchange(sandbox, ctl_request(DEBUG_SLOT, 255))[24:])
    for cmd, slot in [(SHOW_SUMMARY, 255), (SHOW_DETAIL, 255), (SHOW_DETAIL, 4), (DEBUG_SLOT, 2), (DEBUG_SLOT, 9)]:
        ro_exchange(sandbox, ctl_request(cmd, slot))
    after = json.loads(ro_exchange(sandbox, ctl_request(DEBUG_SLOT, 255))[24:])
    assert after["Log"] == before["Log"]
    for slot in range(1, 9):
        assert after[f"slot{slot}"]["Log"] == before[f"slot{slot}"]["Log"]
    assert ctl_lines(handle) == []
    assert not document_path.exists()  # built in memory, never written


def test_status_document_on_the_read_only_socket(sandbox, daemon):
    start_listening(sandbox, daemon)
    reply = ro_exchange(sandbox, ctl_request(DEBUG_SLOT, 3, seq=5))
    assert header(reply) == (DEBUG_SLOT, 0, 5, 3, 0, 0)
    document = json.loads(reply[24:])
    assert list(document) == ["chassis", "Log", "slot3"]
    assert document["slot3"]["STATE"] == " "
    assert ro_exchange(sandbox, ctl_request(DEBUG_SLOT, 9)) == b""  # a bad slot: closed, as on the control socket


def test_debug_console_line_per_read_only_request(sandbox, daemon):
    handle = daemon.start("-l", "DEBUG")
    wait_until(lambda: sandbox.path(SOCKET_RELPATH).exists(), what="the control socket")
    ro_exchange(sandbox, ctl_request(SHOW_SUMMARY, 255))
    ro_exchange(sandbox, ctl_request(LINECARD_DISABLE, 2))
    ro_exchange(sandbox, ctl_request(1, 2))
    expected = ["ctl_readonly.cpp:<N> DEBUG Read-only CTL cmd SHOW_SUMMARY (5) slot 255: answered",
                "ctl_readonly.cpp:<N> DEBUG Read-only CTL cmd LINECARD_DISABLE (4) slot 2: refused",
                "ctl_readonly.cpp:<N> DEBUG Read-only CTL cmd unknown (1) slot 2: closed"]
    wait_until(lambda: [line for line in console_lines(handle) if "Read-only" in line] == expected,
               what="one DEBUG line per request")
    assert [line for line in console_lines(handle) if "Received CTL" in line] == []


@pytest.mark.parametrize("cmd", [LINECARD_ENABLE, LINECARD_DISABLE, PRE_PROVISION_ENABLE, PRE_PROVISION_DISABLE])
def test_administration_commands_are_refused_and_change_nothing(sandbox, daemon, cmd):
    handle = start_listening(sandbox, daemon)
    conf_before = sandbox.read("etc/tarnel/cards.conf")
    reply = ro_exchange(sandbox, ctl_request(cmd, 2, seq=9, card_type=3))
    assert len(reply) == 1024
    assert header(reply) == (cmd, 24, 9, 2, FAILURE, 3)
    assert reply[24:152] == padded(REFUSED_TEXT)
    assert sandbox.read("etc/tarnel/cards.conf") == conf_before
    assert ctl_lines(handle) == []
    summary = ctl_exchange(sandbox, ctl_request(SHOW_SUMMARY, 2))
    assert summary[100:107] == b"Empty\0\0"


def test_maintenance_and_unknown_codes_close_without_a_reply(sandbox, daemon):
    start_listening(sandbox, daemon)
    for cmd in (0, 1, 2, 10, 0xFFFFFFFF):
        assert ro_exchange(sandbox, ctl_request(cmd, 1)) == b""


def test_nothing_of_an_administration_reply_reaches_a_reader(sandbox, daemon):
    start_listening(sandbox, daemon)
    failed = ctl_exchange(sandbox, ctl_request(LINECARD_ENABLE, 9))
    assert failed[24:152] == padded(b"Bad slot received from CTL cmd")
    # Slot 0 fills no record: the bytes after the header are the buffer's own.
    assert ctl_exchange(sandbox, ctl_request(SHOW_SUMMARY, 0))[24:152] == failed[24:152]
    assert ro_exchange(sandbox, ctl_request(SHOW_SUMMARY, 0))[24:] == bytes(1000)


def test_nothing_a_reader_sends_reaches_an_administration_reply(sandbox, daemon):
    start_listening(sandbox, daemon)
    planted = ctl_request(SHOW_SUMMARY, 0) + padded(b"reload portd failed") + bytes(1024 - 24 - 128)
    ro_exchange(sandbox, planted)
    reply = ctl_exchange(sandbox, ctl_request(LINECARD_ENABLE, 0))
    assert header(reply)[4] == 0
    assert reply[24:152] == bytes(128)


# ------------------------------------------------------------ reads during an administration command


def hold_ready_step(sandbox, slot):
    """A card in `slot` whose ready step is held in the gearbox update, its slot mutex taken."""
    sandbox.gearbox_hold(True)
    sandbox.start_emulator()
    sandbox.insert(slot, pn="KTR9600-C16", sn=f"SN{slot:08d}", rev=2)
    wait_until(lambda: sandbox.gearbox_started(), timeout=20, what=f"slot {slot}'s gearbox update")


def timed(exchange, *args):
    started = time.monotonic()
    reply = exchange(*args)
    return reply, time.monotonic() - started


def test_reads_are_answered_at_once_while_a_disable_waits_for_the_ready_step(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    hold_ready_step(sandbox, 2)
    disable = ctl_connect(sandbox, timeout=60)
    enable = None
    try:
        disable.sendall(ctl_request(LINECARD_DISABLE, 2, seq=41))
        handle.wait_console("Received CTL cmd LINECARD_DISABLE")
        enable = ctl_connect(sandbox, timeout=60)
        enable.sendall(ctl_request(LINECARD_ENABLE, 5, seq=42))

        took = []
        for exchange in (ctl_exchange, ro_exchange):
            reply, seconds = timed(exchange, sandbox, ctl_request(SHOW_SUMMARY, 255, seq=43))
            took.append(seconds)
            assert header(reply) == (SHOW_SUMMARY, 1024, 43, 255, 0, 0)
            assert reply[24 + 120 + 76:24 + 120 + 84] == b"Offline\0"  # slot 2: present, not active
        reply, seconds = timed(ro_exchange, sandbox, ctl_request(DEBUG_SLOT, 2, seq=44))
        took.append(seconds)
        assert json.loads(reply[24:])["slot2"]["Card Type"] == "KTR9600-C16"
        print(f"reads during the disable answered in {', '.join(f'{t * 1000:.1f} ms' for t in took)}")
        assert max(took[:2]) < 0.05 * timeout_factor()

        # The disable still waits for the slot, and the enable behind it has not started.
        disable.setblocking(False)
        with pytest.raises(BlockingIOError):
            disable.recv(1024)
        assert console_lines(handle).count("ctl_admin.cpp:<N> Received CTL cmd LINECARD_ENABLE") == 0

        sandbox.gearbox_hold(False)
        disable.settimeout(60 * timeout_factor())
        disable_reply = read_to_end(disable)
        assert header(disable_reply)[:5] == (LINECARD_DISABLE, 24, 41, 2, 0)
        enable_reply = read_to_end(enable)
        assert header(enable_reply)[:5] == (LINECARD_ENABLE, 24, 42, 5, 0)
        lines = [line for line in console_lines(handle) if "Received CTL cmd LINE" in line]
        assert lines == ["ctl_admin.cpp:<N> Received CTL cmd LINECARD_DISABLE",
                         "ctl_admin.cpp:<N> Received CTL cmd LINECARD_ENABLE"]
    finally:
        sandbox.gearbox_hold(False)
        disable.close()
        if enable:
            enable.close()


def test_read_during_a_command_sees_the_buffer_as_the_command_found_it(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    hold_ready_step(sandbox, 2)
    ctl_exchange(sandbox, ctl_request(LINECARD_ENABLE, 9))  # leaves "Bad slot ..." in the buffer
    disable = ctl_connect(sandbox, timeout=60)
    try:
        disable.sendall(ctl_request(LINECARD_DISABLE, 2, seq=41))
        handle.wait_console("Received CTL cmd LINECARD_DISABLE")
        during = ctl_exchange(sandbox, ctl_request(SHOW_SUMMARY, 0, seq=50))
        assert header(during) == (SHOW_SUMMARY, 1024, 50, 0, 0, 0)
        assert during[24:152] == padded(b"Bad slot received from CTL cmd")
        sandbox.gearbox_hold(False)
        disable.settimeout(60 * timeout_factor())
        assert header(read_to_end(disable))[4] == 0
    finally:
        sandbox.gearbox_hold(False)
        disable.close()
    after = ctl_exchange(sandbox, ctl_request(SHOW_SUMMARY, 0, seq=51))
    assert after[24:152] == padded(b"Bad slot received from CTL cmd")


# ------------------------------------------------------------ as a user outside the chassismgr group


@pytest.fixture
def reachable():
    box = ReachableSandbox()
    yield box.sandbox
    box.close()


def run_as_nobody_python(code, sandbox):
    return subprocess.run(["/usr/bin/python3", "-c", code, str(sandbox.root)], preexec_fn=run_as_nobody,
                          capture_output=True, text=True, timeout=30 * timeout_factor())


def test_another_user_reaches_the_read_only_socket_alone(reachable):
    if os.geteuid() != 0:
        pytest.skip("needs root to run a client as another user")
    from conftest import DaemonFactory
    factory = DaemonFactory(reachable)
    try:
        factory.start()
        wait_until(lambda: reachable.path(SOCKET_RELPATH).exists(), what="the control socket")
        code = (
            "import socket, struct, sys\n"
            "root = sys.argv[1]\n"
            "request = struct.pack('<6I', 5, 24, 1, 255, 0, 0)\n"
            "for name in ('chassismgr', 'chassismgr-ro'):\n"
            "    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)\n"
            "    try:\n"
            "        s.connect(root + '/run/chassismgr/' + name)\n"
            "    except PermissionError:\n"
            "        print(name, 'denied')\n"
            "        continue\n"
            "    s.sendall(request)\n"
            "    reply = b''\n"
            "    while True:\n"
            "        chunk = s.recv(4096)\n"
            "        if not chunk: break\n"
            "        reply += chunk\n"
            "    print(name, len(reply), struct.unpack('<6I', reply[:24])[4])\n")
        result = run_as_nobody_python(code, reachable)
        assert (result.stdout, result.stderr) == ("chassismgr denied\nchassismgr-ro 1024 0\n", "")
    finally:
        factory.close()


def run_chmgrctl_as_nobody(sandbox, *args):
    from chmgrctl_support import chmgrctl
    return chmgrctl(sandbox, *args, preexec_fn=run_as_nobody)


def test_chmgrctl_reads_through_the_read_only_socket_when_the_control_socket_is_closed(reachable):
    if os.geteuid() != 0:
        pytest.skip("needs root to run the client as another user")
    from conftest import DaemonFactory
    factory = DaemonFactory(reachable)
    try:
        handle = factory.start()
        wait_until(lambda: reachable.path(SOCKET_RELPATH).exists(), what="the control socket")
        shown = run_chmgrctl_as_nobody(reachable, "--verbose", "show", "3")
        readonly = reachable.path(READONLY_SOCKET_RELPATH)
        assert (shown.returncode, shown.stderr) == (0, f"chmgrctl: using the read-only socket {readonly}\n")
        assert "3" in shown.stdout and "Empty" in shown.stdout
        status = run_chmgrctl_as_nobody(reachable, "status", "2", "--json")
        assert (status.returncode, status.stderr) == (0, "")
        assert json.loads(status.stdout)["slots"][0]["slot"] == 2

        refused = run_chmgrctl_as_nobody(reachable, "--verbose", "disable", "1")
        control = reachable.path(SOCKET_RELPATH)
        assert refused.returncode == 3
        assert refused.stderr == (
            f"chmgrctl: using the control socket {control}\n"
            f"chmgrctl: cannot connect to chassis-mgr at {control}: Permission denied\n"
            "chmgrctl: only root and the members of the group 'chassismgr' may use the control socket;\n"
            "chmgrctl: an administrator adds you with 'adduser nobody chassismgr' (it takes effect at your next "
            "login)\n")
        assert [line for line in console_lines(handle) if "CTL" in line] == []
    finally:
        factory.close()


def test_chmgrctl_says_which_socket_it_used(sandbox, daemon):
    from chmgrctl_support import chmgrctl
    handle = start_listening(sandbox, daemon)
    control = sandbox.path(SOCKET_RELPATH)
    readonly = sandbox.path(READONLY_SOCKET_RELPATH)
    shown = chmgrctl(sandbox, "-v", "show")
    assert (shown.returncode, shown.stderr) == (0, f"chmgrctl: using the control socket {control}\n")
    watched = chmgrctl(sandbox, "--verbose", "watch", "--timeout", "0.3", "--interval", "0.05")
    assert watched.stderr == f"chmgrctl: using the read-only socket {readonly}\n"
    quiet = chmgrctl(sandbox, "show")
    assert (quiet.returncode, quiet.stderr) == (0, "")


def test_watch_leaves_the_rings_alone(sandbox, daemon):
    from chmgrctl_support import chmgrctl
    handle = start_listening(sandbox, daemon)
    ring_before = json.loads(ro_exchange(sandbox, ctl_request(DEBUG_SLOT, 255))[24:])["Log"]
    chmgrctl(sandbox, "watch", "--timeout", "0.5", "--interval", "0.02")
    ring_after = json.loads(ro_exchange(sandbox, ctl_request(DEBUG_SLOT, 255))[24:])["Log"]
    assert ring_after == ring_before
    assert [line for line in console_lines(handle) if "CTL" in line] == []
