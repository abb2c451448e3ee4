"""Transition timer supervision in the real chassis-mgr binary: a card that
stops between two stages is declared stuck after 241 expiries (quickly, at a
small clock factor), and an awaited file that changes without a
close-after-write is still found by the next expiry."""

import os
import re
import time

from conftest import status_document, wait_debug_trigger_watched, wait_in_main_loop, wait_until, write_once

SCALE = 0.001
STUCK = re.compile(r"\[SLOT3\] supervision\.cpp:\d+ ERR slot state stuck and not changing state "
                   r"MAX tries = 240\n")
TIMER_EVENT = re.compile(r"\[SLOT3\] event_loop\.cpp:\d+ Received timer event\n")


def card_waiting_for_verification(sandbox, daemon, scale=SCALE):
    """Slot 3 holds a card whose present file is raised, but never its
    verified file: the slot then waits for verification, supervised."""
    sandbox.insert(3, extra=("--no-events",))
    handle = daemon.start(scale=scale)
    wait_in_main_loop(handle)
    wait_debug_trigger_watched(handle)
    write_once(sandbox.event(3, "present"), "1")
    return handle


def test_stuck_verdict_arrives_after_241_expiries_at_a_small_clock_factor(sandbox, daemon):
    started = time.monotonic()
    handle = card_waiting_for_verification(sandbox, daemon)
    text = handle.wait_console(STUCK)
    elapsed = time.monotonic() - started
    print(f"stuck verdict {elapsed:.3f} s after start-up at clock factor {SCALE}")
    # Marked once in the log, on the expiry that declares the slot stuck.
    assert len(TIMER_EVENT.findall(text)) == 1
    assert TIMER_EVENT.search(text).start() < STUCK.search(text).start()
    document = status_document(sandbox, handle)
    assert "ERR" in document["slot3"]["STATE"]
    assert document["slot3"]["Exp Event"] == "verified"
    # No second verdict: supervision has stopped re-arming the slot.
    assert len(STUCK.findall(handle.console())) == 1


def test_awaited_file_changed_without_a_close_is_found_by_the_next_expiry(sandbox, daemon):
    # A slower clock leaves seconds, not a quarter of one, before a verdict.
    handle = card_waiting_for_verification(sandbox, daemon, scale=0.01)
    wait_until(lambda: status_document(sandbox, handle)["slot3"]["Exp Event"] == "verified",
               what="slot 3 to await verification")
    received_before = handle.console().count("[SLOT3] event_loop.cpp")
    # Written through a descriptor kept open: inotify reports nothing until it closes.
    fd = os.open(sandbox.event(3, "verified"), os.O_WRONLY)
    try:
        os.pwrite(fd, b"1", 0)
        wait_until(lambda: status_document(sandbox, handle)["slot3"]["Exp Event"] != "verified",
                   what="the supervision to run the verified transition")
        assert handle.console().count("[SLOT3] event_loop.cpp") == received_before
        assert not STUCK.search(handle.console())
    finally:
        os.close(fd)
