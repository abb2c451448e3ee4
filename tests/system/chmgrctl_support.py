"""Helpers shared by the chmgrctl tests: running the client, bringing a
card up, and small stand-in servers for broken or slow daemons."""

import json
import socket
import subprocess
import threading

from conftest import built_binary, timeout_factor, wait_until
from json_schema_subset import assert_valid


def client_binary():
    return built_binary("chmgrctl", "client")


def chmgrctl(sandbox, *args, env=None, preexec_fn=None):
    run_env = dict(sandbox.env)
    run_env.update(env or {})
    return subprocess.run([str(client_binary()), *map(str, args)], env=run_env, capture_output=True,
                          text=True, stdin=subprocess.DEVNULL, timeout=60 * timeout_factor(),
                          preexec_fn=preexec_fn)


def chmgrctl_json(sandbox, *args):
    """Runs chmgrctl with --json, checks the output against the documented schema, returns it parsed."""
    result = chmgrctl(sandbox, *args, "--json")
    value = json.loads(result.stdout)
    assert_valid(value)
    return value


def show_slot(sandbox, slot):
    return json.loads(chmgrctl(sandbox, "show", slot, "--json").stdout)["slots"][0]


def bring_up(sandbox, slot):
    if not sandbox.emulators:
        sandbox.start_emulator()
    sandbox.insert(slot, pn="KTR9600-C16", sn=f"SN{slot:08d}", rev=2)
    wait_until(lambda: show_slot(sandbox, slot)["oper_state"] == "Operational", timeout=20,
               what=f"slot {slot} to be operational")


class StandInServer:
    """A server at `path` answering every request with `reply(request)`
    (None: keep the connection open and never answer), one thread per
    connection."""

    def __init__(self, path, reply):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.bind(str(path))
        self.sock.listen(16)
        self.reply = reply
        self.requests = []
        self.open = []
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()

    def serve(self):
        while True:
            try:
                conn, _ = self.sock.accept()
            except OSError:
                return
            threading.Thread(target=self.answer, args=(conn,), daemon=True).start()

    def answer(self, conn):
        data = conn.recv(1024)
        self.requests.append(data)
        answer = self.reply(data)
        if answer is None:
            self.open.append(conn)
            return
        with conn:
            conn.sendall(answer)

    def close(self):
        self.sock.shutdown(socket.SHUT_RDWR)
        self.sock.close()
        for conn in self.open:
            conn.close()
        self.thread.join(5)
