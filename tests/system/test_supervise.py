"""The daemon under a service manager: READY=1 once the control socket
answers, STATUS= with the chassis summary on every change of a slot,
WATCHDOG=1 every half watchdog period while every thread makes progress,
and nothing at all without NOTIFY_SOCKET.  The service manager is played by
a datagram socket of the test (supervise_support.NotifySocket)."""

import re

import pytest

from conftest import CTL_HEADER, console_records, ctl_exchange, ctl_request, timeout_factor, wait_until
from supervise_support import NotifySocket

SHOW_SUMMARY = 5
SCALE = 0.001
EMPTY_CHASSIS = "8 slots: 8 empty"
STAGES = ["PRESENT", "VERIFIED", "POWERED", "SYNCED", "READY"]
BRINGING_UP = re.compile(r"^8 slots: 1 bringing up \(slot 4 at ([A-Z]+)\), 7 empty$")


@pytest.fixture
def notify(sandbox):
    sock = NotifySocket(sandbox.base)
    yield sock
    sock.close()


def stage_order(statuses):
    """Stages of slot 4 in the order the STATUS lines showed them."""
    found = []
    for status in statuses:
        match = BRINGING_UP.match(status)
        if match:
            found.append(STAGES.index(match[1]))
    return found


def test_ready_comes_once_the_control_socket_answers(sandbox, daemon, notify):
    handle = daemon.start(scale=SCALE, env=notify.env())
    notify.wait_for(lambda texts: texts, what="the first report")
    # The control socket answers the moment READY=1 is read.
    reply = ctl_exchange(sandbox, ctl_request(SHOW_SUMMARY, 255))
    assert len(reply) == 1024
    assert CTL_HEADER.unpack(reply[:24])[4] == 0
    assert notify.texts()[0] == "READY=1\nSTATUS=" + EMPTY_CHASSIS
    assert notify.texts().count("READY=1\nSTATUS=" + EMPTY_CHASSIS) == 1
    assert handle.proc.poll() is None


def test_status_follows_a_bring_up(sandbox, daemon, notify):
    sandbox.start_emulator()
    daemon.start(scale=SCALE, env=notify.env())
    notify.wait_status(EMPTY_CHASSIS)
    sandbox.insert(4)
    notify.wait_status("8 slots: 1 operational, 7 empty")
    statuses = notify.statuses()
    # Sent only when the line changes.
    assert all(a != b for a, b in zip(statuses, statuses[1:])), statuses
    assert statuses[0] == EMPTY_CHASSIS
    assert statuses[-1] == "8 slots: 1 operational, 7 empty"
    middle = statuses[1:-1]
    assert middle and all(BRINGING_UP.match(status) for status in middle), statuses
    order = stage_order(middle)
    assert order == sorted(order), statuses
    assert order[0] == 0 and order[-1] == STAGES.index("READY"), statuses


def test_status_names_disabled_and_refused_slots(sandbox, daemon, notify):
    sandbox.start_emulator()
    daemon.start(scale=SCALE, env=notify.env())
    notify.wait_status(EMPTY_CHASSIS)
    sandbox.insert(2, pn="KTR9600-X99")
    notify.wait_status("8 slots: 1 refused (slot 2), 7 empty")
    LINECARD_DISABLE = 4
    for slot in (6, 7):
        ctl_exchange(sandbox, ctl_request(LINECARD_DISABLE, slot))
    notify.wait_status("8 slots: 1 refused (slot 2), 2 disabled (slots 6, 7), 5 empty")


def test_watchdog_pings_every_half_period(sandbox, daemon, notify):
    period_usec = 200000
    daemon.start(scale=SCALE, env=notify.env(watchdog_usec=period_usec))
    notify.wait_pings(11, timeout=20)
    texts = notify.texts()
    assert texts[0].startswith("READY=1\n")  # no ping before start-up is over
    times = notify.ping_times()[-11:]
    half = period_usec / 2 / 1e6
    # The pings keep a fixed schedule: a late one (a loaded machine) never
    # makes the average faster than every half period.
    average = (times[-1] - times[0]) / 10
    assert half * 0.8 <= average <= half * 1.5 * timeout_factor(), times


def test_watchdog_for_another_process_sends_no_ping(sandbox, daemon, notify):
    env = notify.env(watchdog_usec=100000)
    env["WATCHDOG_PID"] = "1"
    sandbox.start_emulator()
    daemon.start(scale=SCALE, env=env)
    sandbox.insert(3)
    notify.wait_status("8 slots: 1 operational, 7 empty")
    assert "WATCHDOG=1" not in notify.texts()


def test_pings_stop_while_a_worker_is_blocked_and_resume_after(sandbox, daemon, notify):
    """A soft reset that never returns holds the ready step of slot 4: once the
    step is past its limit the pings stop, and they resume once the call is
    let go and the card comes up."""
    period_usec = 200000
    sandbox.sim_set("blocked", "ks_mgmt_slot_control_set 4\n")
    sandbox.start_emulator()
    handle = daemon.start(scale=SCALE, env=notify.env(watchdog_usec=period_usec))
    notify.wait_pings(2)
    sandbox.insert(4)
    wait_until(lambda: "ks_mgmt_slot_control_set slot=4 -> blocked" in sandbox.sim_calls(), 10,
               what="the soft reset of slot 4 to block")
    # The ready step (or the expiry that runs it) with its lock allowance:
    # 94 s of waits and 840 s of command limits times the clock factor, 2 s
    # to start each of its ten commands and a 5 s margin.
    limit_ms = round((94 + 840) * SCALE * 1000) + 10 * 2000 + 5000
    stopped = re.compile(r"Worker in slot_(?:ready|timeout)_event of slot 4 for \d+ ms \(limit %d ms\): "
                         r"watchdog pings stop\n" % limit_ms)
    handle.wait_console(stopped, timeout=limit_ms / 1000 + 10)
    # Ten periods without a ping (those sent before the line are read first).
    assert notify.pings_during(10 * period_usec / 1e6) == 0, notify.texts()[-5:]
    sandbox.sim_set("blocked", "")
    handle.wait_console("Every thread is making progress again: watchdog pings resume\n", timeout=10)
    notify.wait_pings(2)
    notify.wait_status("8 slots: 1 operational, 7 empty")
    records = console_records(handle)
    assert sum("watchdog pings stop" in record for record in records) == 1


def test_without_notify_socket_nothing_is_sent(sandbox, daemon, notify):
    sandbox.start_emulator()
    handle = daemon.start(scale=SCALE, env={"WATCHDOG_USEC": "100000"})
    sandbox.insert(5)
    handle.wait_console("Transitioned from 31 to SLOT_ACTIVE", timeout=20)
    assert notify.texts() == []
