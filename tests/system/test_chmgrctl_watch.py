"""chmgrctl watch: the live view of the slots, as JSON lines when the output
is not a terminal, redrawn in place on a terminal."""

import json
import os
import pty
import select
import signal
import subprocess
import time

from chmgrctl_support import client_binary
from conftest import start_listening, timeout_factor, wait_until
from json_schema_subset import assert_valid

STAGES = ["PRESENT", "VERIFIED", "POWERED", "SYNCED", "READY", "ACTIVE"]


class Watch:
    """`chmgrctl watch ARGS...` with its standard output read line by line."""

    def __init__(self, sandbox, *args, env=None):
        run_env = dict(sandbox.env)
        run_env.update(env or {})
        self.proc = subprocess.Popen([str(client_binary()), "watch", *map(str, args)], env=run_env,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL,
                                     text=True)
        self.objects = []

    def next_object(self, timeout=20):
        ready, _, _ = select.select([self.proc.stdout], [], [], timeout * timeout_factor())
        assert ready, f"no output from watch within {timeout} s"
        line = self.proc.stdout.readline()
        assert line, f"watch ended: {self.proc.wait()} {self.proc.stderr.read()}"
        value = json.loads(line)
        assert_valid(value)
        self.objects.append(value)
        return value

    def until_end(self, timeout=60):
        while True:
            value = self.next_object(timeout)
            if value["event"] == "end":
                return value

    def close(self):
        if self.proc.poll() is None:
            self.proc.kill()
        self.proc.wait()


def test_watch_json_follows_a_bring_up_and_ends_when_the_slot_is_operational(sandbox, daemon):
    # A clock factor at which the ready step lasts half a second: the stages come one by one.
    daemon.start(scale="0.01")
    sandbox.start_emulator()
    wait_until(lambda: subprocess.run([str(client_binary()), "show"], env=sandbox.env,
                                      capture_output=True).returncode == 0, what="the control socket")
    # The client learns the daemon's clock factor from the same variable.
    watch = Watch(sandbox, "3", "--until-online", "3", "--timeout", 60 * timeout_factor(), "--interval", "0.05",
                  env={"CHMGR_TIME_SCALE": "0.01"})
    try:
        first = watch.next_object()
        assert (first["event"], first["slot"], first["oper_state"], first["reason"]) == (
            "slot", 3, "Empty", "no card in the slot")
        sandbox.insert(3, sn="SN00000003")
        end = watch.until_end()
        assert end["outcome"] == "operational"
        assert watch.proc.wait(10 * timeout_factor()) == 0
        transitions = [o for o in watch.objects if o["event"] == "transition"]
        assert [t["stage"] for t in transitions] == STAGES
        assert all(t["slot"] == 3 for t in transitions)
        times = [t["time"] for t in transitions]
        assert times == sorted(times), json.dumps(transitions, indent=1)
        slot_states = [o for o in watch.objects if o["event"] == "slot"]
        assert slot_states[-1]["oper_state"] == "Operational"
        assert slot_states[-1]["stage"] == "ACTIVE"
        ready = [o for o in slot_states if o["stage"] == "READY"]
        assert ready and all(0 <= o["remaining_seconds"] <= 50 * 0.01 for o in ready)
        assert all(o["stage_seconds"] >= 0 for o in ready)
        assert watch.proc.stderr.read() == ""
    finally:
        watch.close()


def test_watch_until_online_exits_1_when_the_slot_is_stuck(sandbox, daemon):
    start_listening(sandbox, daemon)
    watch = Watch(sandbox, "all", "--until-online", "4", "--timeout", 60 * timeout_factor(), "--interval", "0.05")
    try:
        watch.next_object()
        sandbox.insert(4)  # nothing powers the card: the daemon gives it up
        end = watch.until_end()
        assert (end["outcome"], end["slot"], end["reason"]) == ("stuck", 4, "stuck at VERIFIED after 240 tries")
        assert watch.proc.wait(10 * timeout_factor()) == 1
        assert watch.proc.stderr.read() == "chmgrctl: slot 4 will not come up: stuck at VERIFIED after 240 tries\n"
        logged = [o for o in watch.objects if o["event"] == "log" and o["slot"] == 4]
        assert "slot state stuck and not changing state MAX tries = 240" in [o["message"] for o in logged]
    finally:
        watch.close()


def test_watch_until_online_exits_4_at_its_time_limit(sandbox, daemon):
    start_listening(sandbox, daemon)
    started = time.monotonic()
    result = subprocess.run([str(client_binary()), "watch", "2", "--until-online", "2", "--timeout", "1"],
                            env=sandbox.env, capture_output=True, text=True, timeout=30 * timeout_factor())
    took = time.monotonic() - started
    assert result.returncode == 4
    assert result.stderr == "chmgrctl: slot 2 not operational after 1 s: no card in the slot\n"
    lines = [json.loads(line) for line in result.stdout.splitlines()]
    for line in lines:
        assert_valid(line)
    assert [o["event"] for o in lines] == ["slot", "end"]
    assert lines[-1]["outcome"] == "time_limit"
    assert 0.5 <= took < 1 + 5 * timeout_factor()


def test_watch_on_a_terminal_redraws_and_leaves_cleanly_on_ctrl_c(sandbox, daemon):
    start_listening(sandbox, daemon)
    pid, fd = pty.fork()
    if pid == 0:
        os.execve(str(client_binary()), ["chmgrctl", "watch", "--interval", "0.1"], sandbox.env)
    output = b""
    try:
        deadline = time.monotonic() + 20 * timeout_factor()
        while output.count(b"chmgrctl watch ") < 2 and time.monotonic() < deadline:
            ready, _, _ = select.select([fd], [], [], 0.5)
            if ready:
                output += os.read(fd, 65536)
        assert output.count(b"\033[H\033[2J") >= 2  # redrawn in place
        assert b"\033[?25l" in output  # cursor hidden while drawing
        assert b"slot 1  Empty       [------------] -" in output
        os.kill(pid, signal.SIGINT)
        while True:
            try:
                chunk = os.read(fd, 65536)
            except OSError:
                break
            if not chunk:
                break
            output += chunk
        _, status = os.waitpid(pid, 0)
        assert os.WIFEXITED(status) and os.WEXITSTATUS(status) == 128 + signal.SIGINT
        assert output.rstrip(b"\r\n").endswith(b"\033[?25h")  # the cursor is given back
    finally:
        try:
            os.kill(pid, signal.SIGKILL)
            os.waitpid(pid, 0)
        except (ProcessLookupError, ChildProcessError):
            pass
        os.close(fd)
