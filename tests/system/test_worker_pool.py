"""The worker pool on the real binary: cards in their long ready step hold
one worker each, whatever else is queued for their slots.

The ready step (enable, 30 s, gearbox update, enable, 15 s, reset, 5 s, SDK
polls, activation) holds its slot for about a minute, and the slot's
supervision timer, armed by the step before, expires during it.  Four cards
whose ready events arrive 50 ms apart must all be inside their ready steps
at once: the expiries of the busy slots may not take the workers the later
cards need."""

import re
import time

from conftest import console_lines, status_document, wait_until, write_once
from test_bringup import CONF, card_ready, conf_line, conf_slot_line, conf_text

# A slower clock than the other bring-up tests: the ready step lasts about a
# second, long against the 50 ms between the ready events and against the
# start-up of the stand-in gearbox tool on a loaded machine.
SCALE = 0.02
SLOTS = (1, 2, 3, 4)
READY_EVENT_GAP_S = 0.05
RING_LINE = re.compile(r"^\[SLOT(\d):INFO\](\d+\.\d{6}) \S+ \S+ transitions_ready\.cpp:\d+ (.*)\n?$")
READY_START = "Transitioned from 11 to SLOT_READY"
READY_END = "Invoking reload envd"


def ready_step_times(document, slot):
    """(start, end) wall-clock seconds of the slot's ready step, from the
    time stamps of its first and last line in the slot's log ring."""
    times = {}
    for line in document[f"slot{slot}"]["Log"]:
        match = RING_LINE.match(line)
        if match and int(match[1]) == slot and match[3] in (READY_START, READY_END):
            times.setdefault(match[3], float(match[2]))
    return times.get(READY_START), times.get(READY_END)


def cards_waiting_for_ready(sandbox, daemon, slots):
    """Pre-provisioned cards (their INI already in the firmware, so no INI
    programming and no reload of portd) brought up to the point where they
    await their ready event; the test plays the hardware itself."""
    for slot in slots:
        sandbox.sim_set(f"slot{slot}/ini_identity", "3 2 5\n")
        sandbox.sim_set(f"slot{slot}/ini_status", "3")
        card_ready(sandbox, slot)
    sandbox.write(CONF, conf_text({slot: conf_line(slot, 0, 100, 100, 0, "Offline", "enable") for slot in slots}))
    handle = daemon.start(scale=SCALE)
    handle.wait_console("[SLOT8] startup.cpp:", timeout=10)  # every empty slot announced
    for slot in slots:
        sandbox.insert(slot, pn="KTR9600-C16", sn=f"SN-POOL-{slot}", rev=2)
    for slot in slots:
        write_once(sandbox.event(slot, "powered"), "1")
        write_once(sandbox.event(slot, "synced"), "1")

    def all_await_ready():
        document = status_document(sandbox, handle)
        return all(document[f"slot{slot}"]["Exp Event"] == "ready" for slot in slots)
    wait_until(all_await_ready, timeout=20, what=f"slots {slots} to await their ready events")
    return handle


def test_four_cards_whose_ready_events_come_50_ms_apart_run_their_ready_steps_at_once(sandbox, daemon):
    handle = cards_waiting_for_ready(sandbox, daemon, SLOTS)

    for index, slot in enumerate(SLOTS):
        if index:
            time.sleep(READY_EVENT_GAP_S)  # the gap between the cards' events is the scenario itself
        write_once(sandbox.event(slot, "ready"), "1")

    ends = [f"[SLOT{slot}] transitions_ready.cpp:<N> {READY_END}\n" for slot in SLOTS]
    wait_until(lambda: all(end in console_lines(handle, keepends=True) for end in ends), timeout=30,
               what="every card to end its ready step")
    document = status_document(sandbox, handle)
    steps = {slot: ready_step_times(document, slot) for slot in SLOTS}
    assert all(start is not None and end is not None for start, end in steps.values()), steps
    last_start = max(start for start, _ in steps.values())
    first_end = min(end for _, end in steps.values())
    # Every card began its ready step before any card ended one: four at once.
    assert last_start < first_end, (
        "ready steps did not all overlap: " + ", ".join(
            f"slot {slot} {start - last_start:+.3f}..{end - last_start:+.3f} s"
            for slot, (start, end) in sorted(steps.items())))
    # Each step ran once, although the slots' timers expired during it.
    lines = console_lines(handle, keepends=True)
    for slot in SLOTS:
        assert lines.count(f"[SLOT{slot}] transitions_ready.cpp:<N> {READY_START}\n") == 1


ACTIVE_LINE = re.compile(r"^\[SLOT(\d):INFO\](\d+\.\d{6}) \S+ \S+ transitions_active\.cpp:\d+ "
                         r"Transitioned from \d+ to SLOT_ACTIVE\n?$")


def active_time(document, slot):
    """Wall-clock seconds of the slot's active transition, from its log ring."""
    for line in document[f"slot{slot}"]["Log"]:
        match = ACTIVE_LINE.match(line)
        if match and int(match[1]) == slot:
            return float(match[2])
    return None


def test_cards_whose_ready_steps_end_go_active_before_the_next_cards_ready_steps(sandbox, daemon):
    """Eight cards inserted together: the first four run their ready steps,
    the second four's ready events queue up behind them, then the first four
    report active.  Each of the first four goes active as its ready step ends,
    not after the second four's ready steps."""
    first, second = SLOTS, (5, 6, 7, 8)
    handle = cards_waiting_for_ready(sandbox, daemon, first + second)
    for slot in first:
        write_once(sandbox.event(slot, "ready"), "1")
    starts = [f"[SLOT{slot}] transitions_ready.cpp:<N> {READY_START}\n" for slot in first]
    wait_until(lambda: all(start in console_lines(handle, keepends=True) for start in starts), timeout=20,
               what="the first four cards to start their ready steps")
    for slot in second:
        write_once(sandbox.event(slot, "ready"), "1")
    for slot in first:  # reported while the ready steps still run: queued behind the second four's
        write_once(sandbox.event(slot, "active"), "1")

    ends = [f"[SLOT{slot}] transitions_ready.cpp:<N> {READY_END}\n" for slot in second]
    wait_until(lambda: all(end in console_lines(handle, keepends=True) for end in ends), timeout=30,
               what="the second four cards to end their ready steps")
    wait_until(lambda: all(" Online " in (conf_slot_line(sandbox, slot) or "") for slot in first),
               timeout=10, what="the first four cards 'Online'")
    document = status_document(sandbox, handle)
    actives = {slot: active_time(document, slot) for slot in first}
    second_ends = {slot: ready_step_times(document, slot)[1] for slot in second}
    assert None not in actives.values() and None not in second_ends.values(), (actives, second_ends)
    first_second_end = min(second_ends.values())
    assert max(actives.values()) < first_second_end, (
        "first cards went active after a later card's ready step: " + ", ".join(
            f"slot {slot} {time - first_second_end:+.3f} s" for slot, time in sorted(actives.items())))
