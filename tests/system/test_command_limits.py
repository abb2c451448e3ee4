"""Time limits of the outside commands: a command that never ends is killed
with its whole process group at its limit (the limit times the clock factor,
plus 2 s to start it), one ERR line names it and the limit, the command
counts as failed, and the slot goes on as it does after any failure of that
command.  The hanging stand-ins are the usual ones held, FIFOs that an
`echo` opens for ever, and small scripts that sleep."""

import os

from conftest import CTL_HEADER, console_lines, ctl_exchange, ctl_request, socket_listening, wait_until
from supervise_support import group_gone, process_group_of

SCALE = 0.01
LINECARD_DISABLE = 4
HW = "var/run/hw-management"
GEARBOX = "usr/lib/tarnel/brlgbfwupgrade.ks"


def limit_text(seconds):
    """The limit as the ERR line shows it: scaled, plus the 2 s start allowance."""
    return f"{seconds * SCALE + 2:g}"


def killed_line(command, seconds):
    return (f"shell_command.cpp:<N> ERR process {command} still running after its time limit of "
            f"{limit_text(seconds)} s: killed with its process group\n")


def wait_line(handle, line, timeout=20):
    wait_until(lambda: line in console_lines(handle, keepends=True), timeout, what=repr(line))


def wait_active(handle, slot, timeout=30):
    wait_line(handle, f"[SLOT{slot}] transitions_active.cpp:<N> Transitioned from 31 to SLOT_ACTIVE\n", timeout)


def pids_running(text):
    """Processes whose command line contains `text`."""
    found = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open(f"/proc/{entry}/cmdline", "rb") as cmdline:
                if text.encode() in cmdline.read().replace(b"\0", b" "):
                    found.append(int(entry))
        except OSError:
            continue
    return found


def group_of_running(text):
    """Process group of the (first) process whose command line holds `text`."""
    def group():
        for pid in pids_running(text):
            pgid = process_group_of(pid)
            if pgid:
                return pgid
        return None
    return wait_until(group, 10, what=f"a process running {text!r}")


def assert_group_ends(pgid):
    wait_until(lambda: group_gone(pgid), 10, what=f"process group {pgid} to be gone")


def sleeper(path, pid_file):
    """A command that records its pid and sleeps, in a child, for ever."""
    path.write_text(f"#!/bin/sh\necho $$ >> {pid_file}\nsleep 1000\n")
    os.chmod(path, 0o755)


def start(sandbox, daemon):
    sandbox.start_emulator()
    handle = daemon.start(scale=SCALE)
    handle.wait_console("[SLOT8] startup.cpp:", timeout=10)
    wait_until(lambda: socket_listening(sandbox), 10, what="the control socket to listen")
    return handle


def test_gearbox_tool_that_never_returns(sandbox, daemon):
    handle = start(sandbox, daemon)
    sandbox.gearbox_hold(True)
    sandbox.insert(3)
    wait_until(lambda: sandbox.gearbox_started(), 20, what="the gearbox tool to start")
    pgid = group_of_running(GEARBOX)
    command = f"{sandbox.root}/{GEARBOX} -s 3 -t cardtype_16x100 -l INFO -f {sandbox.root}/var/log/gb.log"
    wait_line(handle, killed_line(command, 120))
    assert_group_ends(pgid)
    wait_active(handle, 3)
    lines = console_lines(handle, keepends=True)
    assert lines.index(killed_line(command, 120)) < lines.index("[SLOT3] transitions_ready.cpp:<N> gearbox update done\n")
    assert not any(f"process {command} exited" in line for line in lines)
    assert sandbox.gearbox_calls() == []  # killed before it could record its end


def test_systemctl_that_never_returns(sandbox, daemon):
    handle = start(sandbox, daemon)
    sandbox.systemctl_hold(True)
    sandbox.insert(4)
    portd_group = group_of_running("systemctl reload portd")
    wait_line(handle, killed_line("systemctl reload portd", 120))
    assert_group_ends(portd_group)
    wait_line(handle, "[SLOT4] reload_rendezvous.cpp:<N> portd reloaded\n")
    wait_line(handle, killed_line("systemctl reload envd", 120), timeout=30)
    wait_line(handle, "[SLOT4] transitions_ready.cpp:<N> ERR reload envd failed\n")
    wait_active(handle, 4)
    assert sandbox.systemctl_started() == [("reload", "portd"), ("reload", "envd")]
    assert sandbox.systemctl_calls() == []


def test_led_colour_command_that_never_returns(sandbox, daemon):
    orange = sandbox.path(f"{HW}/lc2/led/led_status_orange")
    orange.unlink()
    os.mkfifo(orange)  # "echo 255 >> FIFO" waits for a reader that never comes
    handle = start(sandbox, daemon)
    sandbox.insert(2)
    pgid = group_of_running(f"echo 255 >> {orange}")
    wait_line(handle, killed_line(f"echo 255 >> {orange}", 30))
    assert_group_ends(pgid)
    wait_active(handle, 2)
    # The colour failed: its state command was not run; green was applied.
    wait_until(lambda: sandbox.led_log(2) == ["green"], what="only the green LED applied")


def test_led_state_command_that_never_returns(sandbox, daemon):
    state = sandbox.path(f"{HW}/lc6/led/led_status_state")
    pid_file = sandbox.base / "led_state.pids"
    state.unlink()
    sleeper(state, pid_file)
    handle = start(sandbox, daemon)
    sandbox.insert(6)
    pgid = wait_until(lambda: pid_file.exists() and pid_file.read_text().strip()
                      and process_group_of(int(pid_file.read_text().split()[0])), 20, what="led_status_state to start")
    wait_line(handle, killed_line(str(state), 30))
    assert_group_ends(pgid)
    wait_active(handle, 6)
    # Orange and green: each state command killed at its limit.
    wait_until(lambda: console_lines(handle, keepends=True).count(killed_line(str(state), 30)) == 2, 20,
               what="the green state command killed too")


def test_power_off_command_that_never_returns(sandbox, daemon):
    power = sandbox.path(f"{HW}/system/lc5_pwr")
    if power.exists():
        power.unlink()
    os.mkfifo(power)
    handle = daemon.start(scale=SCALE)
    handle.wait_console("[SLOT8] startup.cpp:", timeout=10)
    wait_until(lambda: socket_listening(sandbox), 10, what="the control socket to listen")
    reply = ctl_exchange(sandbox, ctl_request(LINECARD_DISABLE, 5))
    assert CTL_HEADER.unpack(reply[:24])[4] == 0
    lines = console_lines(handle, keepends=True)
    assert killed_line(f"echo 0 >> {power}", 30) in lines
    assert not any(f"echo 0 >> {power} exited" in line or f"Unable to launch echo 0 >> {power}" in line
                   for line in lines)
    assert pids_running(f"echo 0 >> {power}") == []


def test_kernel_release_query_that_never_returns(sandbox, daemon):
    pid_file = sandbox.base / "uname.pids"
    sleeper(sandbox.bin / "uname", pid_file)
    handle = start(sandbox, daemon)
    sandbox.insert(7)  # a C16 with no INI in the firmware: the shipped images are looked up
    pgid = wait_until(lambda: pid_file.exists() and pid_file.read_text().strip()
                      and process_group_of(int(pid_file.read_text().split()[0])), 20, what="uname to start")
    wait_line(handle, killed_line("uname -r", 30))
    wait_line(handle, "ini_select.cpp:<N> ERR Unable to locate INI directory (popen error)\n")
    assert_group_ends(pgid)
    # The card's own EEPROM image is programmed instead.
    wait_active(handle, 7)
