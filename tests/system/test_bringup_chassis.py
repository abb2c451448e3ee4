"""Bring-up of a whole chassis on the real binary: eight cards inserted at
once, and a restart of the daemon with cards already in service."""

import re

from conftest import wait_until, write_once
from test_bringup import (CONF, card_ready, conf_line, conf_slot_line, console_lines, distinct_steps,
                          envd_reloads, gearbox_args, portd_reloads, start_chassis, transitions, wait_online)

READY_START = re.compile(r"^\[SLOT(\d)\] transitions_ready\.cpp:<N> Transitioned from \d+ to SLOT_READY$")
READY_END = re.compile(r"^\[SLOT(\d)\] transitions_ready\.cpp:<N> Invoking reload envd$")


def most_ready_steps_at_once(handle):
    """Largest number of slots inside their ready step at the same time,
    from the console order of each step's first and last line."""
    inside, most = set(), 0
    for line in console_lines(handle):
        line = line.rstrip("\n")
        start, end = READY_START.match(line), READY_END.match(line)
        if start:
            inside.add(int(start[1]))
            most = max(most, len(inside))
        elif end:
            inside.discard(int(end[1]))
    return most


def test_eight_cards_inserted_at_once_all_come_online(sandbox, daemon):
    # A slower clock, so the ready steps of the eight cards overlap.
    handle, _ = start_chassis(sandbox, daemon, scale=0.005)
    sandbox.gearbox_sleep(0.02)
    parts = {slot: "KTR9600-C16" if slot % 2 else "KTR9600-C4" for slot in range(1, 9)}
    for slot, part in parts.items():
        card_ready(sandbox, slot)
        sandbox.insert(slot, pn=part, sn=f"SN-ALL-{slot}", rev=1 if part == "KTR9600-C4" else 2,
                       extra=("--no-events",))
    # All eight cards appear together.
    for slot in parts:
        write_once(sandbox.event(slot, "present"), "1")
    for slot in parts:
        write_once(sandbox.event(slot, "verified"), "1")

    wait_online(sandbox, handle, *parts, timeout=60)

    for slot, part in parts.items():
        speed = 100 if part == "KTR9600-C16" else 400
        assert conf_slot_line(sandbox, slot) == conf_line(slot, speed, 0, speed, 0, "Online", "enable")
        assert distinct_steps(transitions(handle, slot))[-2:] == ["Transitioned from 15 to SLOT_READY",
                                                                  "Transitioned from 31 to SLOT_ACTIVE"]
    assert len(envd_reloads(sandbox)) == 8
    assert 1 <= len(portd_reloads(sandbox)) <= 8
    # The four workers bound the parallelism: at most four ready steps at once.
    assert most_ready_steps_at_once(handle) == 4
    # One gearbox update at a time: sorted by start, each ends before the next starts.
    runs = sorted(sandbox.gearbox_calls(), key=lambda call: call.start)
    assert sorted(call.args for call in runs) == sorted(gearbox_args(sandbox, slot) for slot in parts)
    for earlier, later in zip(runs, runs[1:]):
        assert earlier.end <= later.start, f"gearbox runs overlap: {earlier} and {later}"


def test_restart_with_cards_in_place_brings_every_slot_back(sandbox, daemon):
    first, _ = start_chassis(sandbox, daemon)
    card_ready(sandbox, 3, 5)
    sandbox.insert(3, pn="KTR9600-C16", sn="SN-KEEP-3")
    sandbox.insert(5, pn="KTR9600-C16", sn="SN-KEEP-5")
    wait_online(sandbox, first, 3, 5)
    wait_until(lambda: sandbox.led_log(3)[-1:] == ["green"] and sandbox.led_log(5)[-1:] == ["green"],
               what="both LEDs green")
    first.kill()
    reloads_before = len(portd_reloads(sandbox))

    second = daemon.start()

    for slot in (3, 5):
        second.wait_console(f"[SLOT{slot}] slot_model.cpp:", timeout=10)
    wait_until(lambda: all("Transitioned from 31 to SLOT_ACTIVE" in transitions(second, slot) for slot in (3, 5)),
               timeout=10, what="both slots active again")
    wait_online(sandbox, second, 3, 5)

    lines = console_lines(second)
    for slot in (3, 5):
        assert f"[SLOT{slot}] slot_model.cpp:<N> Synced during bootup\n" in lines
        # Start-up hands the present card straight to the present step.
        assert distinct_steps(transitions(second, slot)) == ["Transitioned from 4 to SLOT_PRESENT",
                                                             "Transitioned from 5 to SLOT_VERIFIED",
                                                             "Transitioned from 7 to SLOT_POWERED",
                                                             "Transitioned from 15 to SLOT_READY",
                                                             "Transitioned from 31 to SLOT_ACTIVE"]
        assert f"[SLOT{slot}] ini_select.cpp:<N> Using FW stored INI\n" in lines
    # The ports were known already: no second reload of portd.
    assert len(portd_reloads(sandbox)) == reloads_before
    assert sandbox.read(CONF).count(" Online ") == 2
