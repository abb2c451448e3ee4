"""chmgrctl's time limits, its notice when the daemon is busy, its per-slot
progress for commands on all slots, and its explanation of a refused socket."""

import os
import subprocess
import threading
import time

import pytest

from chmgrctl_support import StandInServer, chmgrctl, client_binary
from conftest import CTL_HEADER, SOCKET_RELPATH, start_listening, timeout_factor

NOBODY = 65534


def answer_like_the_daemon(request):
    """A successful 1,024-byte reply echoing the request's header."""
    cmd, _, seq, slot, _, card_type = CTL_HEADER.unpack(request[:24])
    return CTL_HEADER.pack(cmd, 24, seq, slot, 0, card_type) + b"\0" * 1000


def test_timeout_names_the_reply_it_waited_for(sandbox):
    path = sandbox.base / "silent.sock"
    server = StandInServer(path, lambda request: None)  # accepts, reads, never answers
    try:
        started = time.monotonic()
        result = chmgrctl(sandbox, "--socket", path, "--timeout", "0.5", "show", "3")
        took = time.monotonic() - started
        assert result.returncode == 3
        assert result.stdout == ""
        assert result.stderr == "chmgrctl: timed out after 0.5 s waiting for chassis-mgr to reply to show 3\n"
        assert 0.5 <= took < 0.5 + 5 * timeout_factor()
        result = chmgrctl(sandbox, "--socket", path, "--timeout=1", "disable", "2")
        assert result.returncode == 3
        assert result.stderr == "chmgrctl: timed out after 1 s waiting for chassis-mgr to reply to disable 2\n"
    finally:
        server.close()


def test_default_timeout_ends_a_silent_exchange(sandbox):
    path = sandbox.base / "silent.sock"
    server = StandInServer(path, lambda request: None)
    try:
        started = time.monotonic()
        result = chmgrctl(sandbox, "--socket", path, "status", "1")
        took = time.monotonic() - started
        assert result.returncode == 3
        assert result.stderr == ("chmgrctl: waiting for the daemon: another command is running\n"
                                 "chmgrctl: timed out after 10 s waiting for chassis-mgr to reply to status 1\n")
        assert 10 <= took < 10 + 5 * timeout_factor()
    finally:
        server.close()


def test_timeout_while_connecting_to_a_full_backlog(sandbox):
    import socket
    path = str(sandbox.base / "full.sock")
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    listener.bind(path)
    listener.listen(0)  # never accepts: the queue fills with the first connection
    waiting = []
    try:
        for _ in range(4):  # fill the backlog
            client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            client.setblocking(False)
            try:
                client.connect(path)
            except BlockingIOError:
                client.close()
                break
            waiting.append(client)
        result = chmgrctl(sandbox, "--socket", path, "--timeout", "0.3", "show")
        assert result.returncode == 3
        assert result.stderr == f"chmgrctl: timed out after 0.3 s connecting to chassis-mgr at {path}\n"
    finally:
        for client in waiting:
            client.close()
        listener.close()


def test_second_client_is_told_it_waits_behind_another_command(sandbox):
    path = sandbox.base / "busy.sock"
    release = threading.Event()

    def slow(request):
        release.wait(30 * timeout_factor())
        return request[:24] + b'{"chassis": "KTR9600", "Log": []}'  # a status document

    server = StandInServer(path, slow)
    try:
        proc = subprocess.Popen([str(client_binary()), "--socket", str(path), "status", "2", "--json"],
                                env=sandbox.env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        line = proc.stderr.readline()  # printed after a second without a reply
        assert line == "chmgrctl: waiting for the daemon: another command is running\n"
        release.set()
        out, err = proc.communicate(timeout=30 * timeout_factor())
        assert (proc.returncode, err) == (0, "")
        assert '"chassis": "KTR9600"' in out
    finally:
        release.set()
        server.close()


def test_disable_all_reports_each_slot_as_the_daemon_answers(sandbox):
    path = sandbox.base / "progress.sock"
    release = threading.Event()

    def hold_slot_3(request):
        if CTL_HEADER.unpack(request[:24])[3] == 3:
            release.wait(30 * timeout_factor())
        return answer_like_the_daemon(request)

    server = StandInServer(path, hold_slot_3)
    try:
        proc = subprocess.Popen([str(client_binary()), "--socket", str(path), "disable", "all"],
                                env=sandbox.env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        assert proc.stdout.readline() == "slot 1: disabled\n"
        assert proc.stdout.readline() == "slot 2: disabled\n"
        assert proc.poll() is None  # slot 3 not answered yet
        release.set()
        out, err = proc.communicate(timeout=30 * timeout_factor())
        assert out == "".join(f"slot {s}: disabled\n" for s in range(3, 9))
        assert (proc.returncode, err) == (0, "")
        requests = [CTL_HEADER.unpack(r[:24]) for r in server.requests]
        assert [(r[0], r[3]) for r in requests] == [(4, s) for s in range(1, 9)]
    finally:
        release.set()
        server.close()


def test_disable_all_against_the_daemon_sends_one_request_per_slot(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    result = chmgrctl(sandbox, "disable", "all")
    assert result.stdout == "".join(f"slot {s}: disabled\n" for s in range(1, 9))
    assert handle.console().count("Received CTL cmd LINECARD_DISABLE\n") == 8


def run_as_nobody():
    os.setgroups([])
    os.setgid(NOBODY)
    os.setuid(NOBODY)


def test_permission_denied_explains_the_group(sandbox, daemon):
    if os.geteuid() != 0:
        pytest.skip("needs root to run the client as another user")
    start_listening(sandbox, daemon)
    socket_dir = sandbox.path(SOCKET_RELPATH).parent
    os.chmod(socket_dir, 0o750)  # closed to others: neither socket can be reached
    result = chmgrctl(sandbox, "show", preexec_fn=run_as_nobody)
    path = sandbox.path(SOCKET_RELPATH)
    assert result.returncode == 3
    assert result.stdout == ""
    assert result.stderr == (
        f"chmgrctl: cannot connect to chassis-mgr at {path}: Permission denied\n"
        "chmgrctl: only root and the members of the group 'chassismgr' may use the control socket;\n"
        "chmgrctl: an administrator adds you with 'adduser nobody chassismgr' (it takes effect at your next "
        "login)\n")
