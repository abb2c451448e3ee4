"""The control socket: request headers, a connected client, one exchange,
and whether (and when) the daemon listens."""

import socket
import struct

from harness_common import timeout_factor, wait_until
from harness_sandbox import SOCKET_RELPATH

CTL_HEADER = struct.Struct("<6I")  # cmd, len, seq, slot_no, status, card_type


def ctl_request(cmd, slot, seq=1, card_type=0, length=24):
    return CTL_HEADER.pack(cmd, length, seq, slot, 0, card_type)


def padded(text, size=128):
    return text + b"\0" * (size - len(text))


def ctl_connect(sandbox, timeout=20):
    """A client connected to the control socket, with `timeout` (scaled) on
    every later operation."""
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    try:
        sock.connect(str(sandbox.path(SOCKET_RELPATH)))  # blocking: waits for room in the backlog
        sock.settimeout(timeout * timeout_factor())
    except BaseException:
        sock.close()
        raise
    return sock


def read_to_end(sock):
    """Everything the daemon sends until it closes the connection."""
    reply = b""
    while True:
        chunk = sock.recv(1 << 20)
        if not chunk:
            return reply
        reply += chunk


def exchange_on(sock, data):
    """Sends `data` on the connected `sock`, returns everything until the
    daemon closes the connection, and closes `sock`."""
    try:
        sock.sendall(data)
        return read_to_end(sock)
    finally:
        sock.close()


def ctl_exchange(sandbox, data, timeout=20):
    """Sends `data` and returns everything until the daemon closes the connection."""
    return exchange_on(ctl_connect(sandbox, timeout), data)


def socket_listening(sandbox):
    """True once the daemon listens on its socket (seen in /proc/net/unix,
    without connecting: a connection would be served as a request)."""
    path = str(sandbox.path(SOCKET_RELPATH))
    with open("/proc/net/unix", encoding="utf-8", errors="replace") as table:
        for line in table:
            fields = line.split()
            if len(fields) >= 8 and fields[7] == path and int(fields[3], 16) & 0x10000:
                return True
    return False


def start_listening(sandbox, daemon):
    """Starts the daemon and waits until its control socket listens."""
    handle = daemon.start()
    wait_until(lambda: socket_listening(sandbox), what="the control socket to listen")
    return handle
