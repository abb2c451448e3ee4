"""Descriptors of the running daemon: every one it opens is closed on exec,
so the commands it runs (systemctl, the gearbox tool) inherit only standard
input, output and error."""

import os

from conftest import ctl_exchange, ctl_request, start_listening, wait_until

SHOW_SUMMARY = 5
O_CLOEXEC = 0o2000000


def fd_flags(pid):
    """{fd: open flags} of every descriptor of the process above 2."""
    flags = {}
    for fd in os.listdir(f"/proc/{pid}/fd"):
        if int(fd) <= 2:
            continue
        try:
            with open(f"/proc/{pid}/fdinfo/{fd}", encoding="ascii") as info:
                for line in info:
                    if line.startswith("flags:"):
                        flags[int(fd)] = int(line.split()[1], 8)
        except OSError:
            continue
    return flags


def slot_state(sandbox, slot):
    reply = ctl_exchange(sandbox, ctl_request(SHOW_SUMMARY, slot))
    return reply[24 + 76:24 + 108].split(b"\0", 1)[0].decode()


def test_every_descriptor_of_the_daemon_is_closed_on_exec(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    flags = fd_flags(handle.pid)
    assert len(flags) >= 8 + 8 + 2  # slot watches and timers, the socket, the pid file at least
    assert {fd: f for fd, f in flags.items() if not f & O_CLOEXEC} == {}


def test_commands_run_during_a_bring_up_inherit_only_the_standard_descriptors(sandbox, daemon):
    start_listening(sandbox, daemon)
    sandbox.sim_set("slot4/ready", "1")
    sandbox.start_emulator("--slots", "4")
    sandbox.insert(4)
    wait_until(lambda: slot_state(sandbox, 4) == "Operational", timeout=20, what="slot 4 to be operational")
    started = sandbox.started_fds()
    commands = [args[0] if args[0] == "reload" else "gearbox" for args, _ in started]
    assert {"reload", "gearbox"} <= set(commands)
    for args, fds in started:
        assert sorted(fds) == [0, 1, 2], (args, fds)
