"""Control socket framing, byte for byte, against the running daemon.

A raw client (socket, struct) sends the 24-byte headers and reads the
replies.  The daemon's console tells what it received; its lines are compared
with line numbers replaced by <N>.
"""

import random
import socket
import statistics
import struct
import time

from conftest import (CTL_HEADER, SOCKET_RELPATH, console_lines, ctl_connect, ctl_request, padded, start_listening,
                      timeout_factor, wait_until)

BAD_SLOT_TEXT = b"Bad slot received from CTL cmd"
FAILURE = 0xFFFFFFF0  # -16

SHOW_SUMMARY, SHOW_DETAIL, DEBUG_SLOT, LINECARD_ENABLE, LINECARD_DISABLE = 5, 6, 9, 3, 4


def header(reply):
    return CTL_HEADER.unpack(reply[:24])  # cmd, len, seq, slot_no, status, card_type


def count(daemon, line):
    return console_lines(daemon).count(line)


class Client:
    def __init__(self, sandbox):
        self.sock = ctl_connect(sandbox)

    def send(self, data):
        self.sock.sendall(data)

    def end_sending(self):
        self.sock.shutdown(socket.SHUT_WR)

    def read_all(self):
        """Everything until the daemon closes the connection."""
        data = b""
        while True:
            try:
                chunk = self.sock.recv(65536)
            except ConnectionResetError:
                break
            if not chunk:
                return data
            data += chunk
        return data

    def close(self):
        self.sock.close()


def ctl_exchange_long(sandbox, data):
    """An exchange whose reply may wait for a card to go down and for reloads."""
    client = Client(sandbox)
    client.sock.settimeout(30 * timeout_factor())
    try:
        client.send(data)
        return client.read_all()
    finally:
        client.close()


def exchange(sandbox, data):
    client = Client(sandbox)
    try:
        client.send(data)
        return client.read_all()
    finally:
        client.close()


def test_maintenance_codes_close_without_a_reply(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    for cmd in (1, 2):
        assert exchange(sandbox, ctl_request(cmd, 1)) == b""
    assert count(handle, "ctl_socket.cpp:<N> Received CTL packet") == 2
    assert not any("Received CTL cmd" in line for line in console_lines(handle))


def test_unknown_codes_close_without_a_reply(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    for cmd in (0, 10, 11, 0xFFFF, 0xFFFFFFFF):
        assert exchange(sandbox, ctl_request(cmd, 255)) == b""
    assert count(handle, "ctl_socket.cpp:<N> Received CTL packet") == 5
    assert not any("Received CTL cmd" in line for line in console_lines(handle))


def test_split_request_gets_exactly_one_extra_receive(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    exchange(sandbox, ctl_request(SHOW_SUMMARY, 1, seq=1, card_type=0x11111111))
    split_line = "ctl_socket.cpp:<N> We have TCP packets that are split"
    full = ctl_request(SHOW_SUMMARY, 3, seq=2, card_type=0x22222222)
    client = Client(sandbox)
    client.send(full[:8])
    wait_until(lambda: count(handle, split_line) == 1, what="the split-packet line")
    client.send(full[8:16])
    reply = client.read_all()
    client.close()
    assert len(reply) == 1024
    cmd, length, seq, slot, status, card_type = header(reply)
    assert (cmd, length, seq, slot, status) == (5, 1024, 2, 3, 0)
    assert card_type == 0x11111111  # bytes 16-23 were never received: the old ones stay
    assert count(handle, split_line) == 1


def test_len_of_1024_or_more_never_asks_for_more(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    for length in (1024, 1025, 0xFFFFFFFF):
        client = Client(sandbox)
        client.send(ctl_request(SHOW_SUMMARY, 0, seq=length & 0xFF, length=length)[:12])
        reply = client.read_all()  # the client does not end sending: no wait for more
        client.close()
        assert len(reply) == 1024
    assert count(handle, "ctl_socket.cpp:<N> We have TCP packets that are split") == 0


def test_len_1023_waits_once_then_serves_what_came(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    client = Client(sandbox)
    client.send(ctl_request(SHOW_SUMMARY, 0, seq=9, length=1023))
    wait_until(lambda: count(handle, "ctl_socket.cpp:<N> We have TCP packets that are split") == 1,
               what="the split-packet line")
    client.end_sending()
    reply = client.read_all()
    client.close()
    assert len(reply) == 1024
    assert header(reply)[2] == 9


def test_a_client_in_the_middle_of_a_request_does_not_delay_another(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    first = ctl_request(SHOW_SUMMARY, 1, seq=100)
    a = Client(sandbox)
    a.send(first[:8])
    wait_until(lambda: count(handle, "ctl_socket.cpp:<N> We have TCP packets that are split") == 1,
               what="the first client to wait for the rest of its request")
    b = Client(sandbox)
    b.send(ctl_request(SHOW_DETAIL, 2, seq=200))
    reply_b = b.read_all()  # served while `a` still owes bytes
    a.send(first[8:])
    reply_a = a.read_all()
    a.close()
    b.close()
    assert header(reply_a)[:3] == (5, 1024, 100)
    assert header(reply_b)[:3] == (6, 1024, 200)
    lines = [line for line in console_lines(handle) if "Received CTL" in line]
    assert lines == ["ctl_socket.cpp:<N> Received CTL packet",
                     "ctl_socket.cpp:<N> Received CTL packet",
                     "ctl_show.cpp:<N> Received CTL cmd SHOW_DETAIL",
                     "ctl_show.cpp:<N> Received CTL cmd SHOW_SUMMARY"]


def test_success_after_a_failure_still_carries_the_old_text(sandbox, daemon):
    start_listening(sandbox, daemon)
    failed = exchange(sandbox, ctl_request(LINECARD_ENABLE, 9, seq=1))
    assert len(failed) == 1024
    assert header(failed) == (3, 24, 1, 9, FAILURE, 0)
    assert failed[24:152] == padded(BAD_SLOT_TEXT)
    ok = exchange(sandbox, ctl_request(LINECARD_ENABLE, 0, seq=2))
    assert header(ok) == (3, 24, 2, 0, 0, 0)
    assert ok[24:152] == padded(BAD_SLOT_TEXT)


def test_stale_socket_file_is_replaced(sandbox, daemon):
    stale = sandbox.path(SOCKET_RELPATH)
    stale.write_text("left over by an earlier run\n")
    start_listening(sandbox, daemon)
    reply = exchange(sandbox, ctl_request(SHOW_SUMMARY, 255))
    assert len(reply) == 1024


def test_client_that_sends_nothing_gets_the_previous_request_served_again(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    exchange(sandbox, ctl_request(SHOW_SUMMARY, 2, seq=77))
    client = Client(sandbox)
    client.end_sending()
    reply = client.read_all()
    client.close()
    assert header(reply)[:4] == (5, 1024, 77, 2)
    assert count(handle, "ctl_show.cpp:<N> Received CTL cmd SHOW_SUMMARY") == 2


def test_client_gone_before_its_reply_does_not_stop_the_daemon(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    exchange(sandbox, ctl_request(SHOW_SUMMARY, 2, seq=5))
    for _ in range(3):
        Client(sandbox).close()
    wait_until(lambda: sum(count(handle, f"ctl_socket.cpp:<N> ERROR from perror - {text}")
                           for text in ("Broken pipe", "Connection reset by peer")) == 3,
               what="three failed sends")
    assert header(exchange(sandbox, ctl_request(SHOW_SUMMARY, 1, seq=6)))[2] == 6
    assert handle.proc.poll() is None


def test_stalled_client_is_closed_without_a_reply_when_its_limit_passes(sandbox, daemon):
    """A client that sends part of a request and waits is closed once the
    daemon's 5-second receive limit passes; nothing is served for it."""
    handle = start_listening(sandbox, daemon)
    exchange(sandbox, ctl_request(LINECARD_ENABLE, 0, seq=1, card_type=0x33))
    client = Client(sandbox)
    client.send(ctl_request(SHOW_SUMMARY, 0, seq=2)[:8])
    assert client.read_all() == b""
    client.close()
    assert count(handle, "ctl_show.cpp:<N> Received CTL cmd SHOW_SUMMARY") == 0
    assert exchange(sandbox, ctl_request(SHOW_SUMMARY, 1, seq=3))[8] == 3
    assert handle.proc.poll() is None


def test_bad_input_never_stops_the_daemon(sandbox, daemon):
    """Short, long and garbled requests of every code and slot; the daemon
    answers or closes each one and keeps serving."""
    handle = start_listening(sandbox, daemon)
    rng = random.Random(20240601)
    cases = [b"", b"\x05", ctl_request(SHOW_SUMMARY, 255)[:23], b"\xff" * 2000]
    for length in (0, 23, 24, 1023, 1024, 0xFFFFFFFF):
        for cmd in (0, 1, 2, 5, 6, 9, 10, 0xFFFFFFFF):
            cases.append(ctl_request(cmd, rng.choice((0, 1, 8, 9, 255, 256, 0xFFFFFFFF)), length=length))
    for _ in range(60):
        size = rng.choice((rng.randrange(0, 24), rng.randrange(24, 200), rng.randrange(1000, 1100)))
        body = bytes(rng.randrange(256) for _ in range(size))
        if size >= 4 and rng.random() < 0.7:
            body = struct.pack("<I", rng.randrange(0, 12)) + body[4:]
        cases.append(body)
    for data in cases:
        client = Client(sandbox)
        client.send(data)
        client.end_sending()
        reply = client.read_all()
        client.close()
        assert len(reply) in (0, 1024) or header(reply)[0] == DEBUG_SLOT, data[:24].hex()
        assert handle.proc.poll() is None, handle.describe()
    reply = exchange(sandbox, ctl_request(SHOW_SUMMARY, 255, seq=4242))
    assert header(reply)[:5] == (5, 1024, 4242, 255, 0)


def test_ten_silent_clients_do_not_delay_a_well_behaved_one(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    silent = [Client(sandbox) for _ in range(10)]
    half_header = Client(sandbox)
    half_header.send(ctl_request(SHOW_SUMMARY, 1)[:12])
    round_trips = []
    for seq in range(50):
        started = time.monotonic()
        reply = exchange(sandbox, ctl_request(SHOW_SUMMARY, 255, seq=seq))
        round_trips.append(time.monotonic() - started)
        assert header(reply)[:3] == (5, 1024, seq)
    print(f"round trip over 50 requests beside 11 waiting clients: median {statistics.median(round_trips) * 1000:.2f} ms,"
          f" max {max(round_trips) * 1000:.2f} ms")
    assert statistics.median(round_trips) < 0.05 * timeout_factor()
    assert max(round_trips) < 1.0 * timeout_factor()  # far below the 5-second receive limit
    for client in silent + [half_header]:
        assert client.read_all() == b""  # closed without a reply once its limit passed
        client.close()
    assert count(handle, "ctl_show.cpp:<N> Received CTL cmd SHOW_SUMMARY") == 50


def envd_reload_count(sandbox):
    return [call.args for call in sandbox.systemctl_calls()].count(("reload", "envd"))


def test_silent_client_after_a_disable_reruns_nothing(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    reply = ctl_exchange_long(sandbox, ctl_request(LINECARD_DISABLE, 6, seq=7))
    assert header(reply)[:5] == (4, 24, 7, 6, 0)
    envd_reloads = envd_reload_count(sandbox)
    assert envd_reloads >= 1
    silent = Client(sandbox)
    started = time.monotonic()
    assert silent.read_all() == b""
    assert time.monotonic() - started >= 4.9  # held for the whole receive limit, then closed
    silent.close()
    assert count(handle, "ctl_admin.cpp:<N> Received CTL cmd LINECARD_DISABLE") == 1
    assert count(handle, "[SLOT6] ctl_admin.cpp:<N> Disable") == 1
    assert envd_reload_count(sandbox) == envd_reloads
    assert count(handle, "ctl_socket.cpp:<N> Received CTL packet") == 1


def test_client_that_closes_at_once_still_replays_the_previous_request(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    exchange(sandbox, ctl_request(SHOW_SUMMARY, 2, seq=41))
    client = Client(sandbox)
    client.end_sending()
    reply = client.read_all()
    client.close()
    assert header(reply)[:4] == (5, 1024, 41, 2)
    assert count(handle, "ctl_show.cpp:<N> Received CTL cmd SHOW_SUMMARY") == 2


def test_commands_the_daemon_runs_inherit_only_the_standard_descriptors(sandbox, daemon):
    start_listening(sandbox, daemon)
    silent = Client(sandbox)  # a connection held open while the command runs
    reply = ctl_exchange_long(sandbox, ctl_request(LINECARD_DISABLE, 6, seq=7))
    assert header(reply)[4] == 0
    silent.close()
    started = sandbox.started_fds()
    assert ("reload", "envd") in [args for args, _ in started]
    for args, fds in started:
        assert sorted(fds) == [0, 1, 2], (args, fds)
