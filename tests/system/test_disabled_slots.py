"""A disabled slot keeps the event it awaited: its ready and active events are
refused with their own lines (written one slot number low), its supervision
stops without a stuck verdict, and an enable starts it again from its
presence."""

import pytest

from conftest import (console_lines, ctl_exchange, ctl_request, socket_listening, status_document, wait_until,
                      write_once)

LINECARD_ENABLE = 3
LINECARD_DISABLE = 4


def start(sandbox, daemon):
    handle = daemon.start()
    handle.wait_console("[SLOT8] startup.cpp:", timeout=10)
    wait_until(lambda: socket_listening(sandbox), what="the control socket to listen")
    return handle


def logged(handle, line):
    return line in console_lines(handle, keepends=True)


def raise_event(sandbox, handle, slot, name, line):
    write_once(sandbox.event(slot, name), "1")
    wait_until(lambda: handle.proc.poll() is None and logged(handle, f"[SLOT{slot}] {line}\n"),
               what=f"slot {slot}: {line}")


def bring_to_ready(sandbox, handle, slot):
    """Drives a new card by hand until the slot awaits its ready event."""
    sandbox.sim_set(f"slot{slot}/ready", "1")
    sandbox.insert(slot, extra=("--no-events",))
    raise_event(sandbox, handle, slot, "present", "transitions_detect.cpp:<N> Transitioned from 0 to SLOT_PRESENT")
    raise_event(sandbox, handle, slot, "verified", "transitions_power.cpp:<N> Transitioned from 1 to SLOT_VERIFIED")
    raise_event(sandbox, handle, slot, "powered", "transitions_power.cpp:<N> Transitioned from 3 to SLOT_POWERED")
    raise_event(sandbox, handle, slot, "synced", "reload_rendezvous.cpp:<N> portd reloaded")
    wait_until(lambda: status_document(sandbox, handle, slot)[f"slot{slot}"]["Exp Event"] == "ready",
               what=f"slot {slot} to await ready")


def disable(sandbox, slot):
    sandbox.sim_set(f"slot{slot}/ready", "0")  # the card goes down at once
    reply = ctl_exchange(sandbox, ctl_request(LINECARD_DISABLE, slot))
    assert reply[16:20] == b"\0\0\0\0"


@pytest.mark.parametrize("slot, line", [
    (3, "[SLOT2] transitions_ready.cpp:<N> Will not transition to ready while in disabled state\n"),
    (1, "transitions_ready.cpp:<N> Will not transition to ready while in disabled state\n"),
])
def test_ready_event_of_a_disabled_slot_is_refused_one_slot_low(sandbox, daemon, slot, line):
    handle = start(sandbox, daemon)
    bring_to_ready(sandbox, handle, slot)
    disable(sandbox, slot)

    document = status_document(sandbox, handle, slot)[f"slot{slot}"]
    assert (document["STATE"], document["Exp Event"], document["Disabled"]) == ("SLOT_PRESENT |SLOT_SYNCED | ",
                                                                               "ready", True)
    write_once(sandbox.event(slot, "ready"), "1")
    wait_until(lambda: logged(handle, line), what=line)
    ring = status_document(sandbox, handle, slot - 1 if slot > 1 else 255)
    ring_lines = ring[f"slot{slot - 1}"]["Log"] if slot > 1 else ring["Log"]
    tag = f"[SLOT{slot - 1}:INFO]" if slot > 1 else "[INFO]"
    assert any(entry.startswith(tag) and entry.endswith(" Will not transition to ready while in disabled state\n")
               for entry in ring_lines), ring_lines
    assert "SLOT_READY" not in status_document(sandbox, handle, slot)[f"slot{slot}"]["STATE"]


def test_active_event_of_a_disabled_slot_is_refused_one_slot_low(sandbox, daemon):
    handle = start(sandbox, daemon)
    bring_to_ready(sandbox, handle, 5)
    raise_event(sandbox, handle, 5, "ready", "transitions_ready.cpp:<N> Invoking reload envd")
    disable(sandbox, 5)
    assert status_document(sandbox, handle, 5)["slot5"]["Exp Event"] == "active"

    write_once(sandbox.event(5, "active"), "1")
    wait_until(lambda: logged(handle, "[SLOT4] transitions_active.cpp:<N> "
                                      "Will not transition to active while in disabled state\n"),
               what="the refused active event")
    assert "SLOT_ACTIVE" not in status_document(sandbox, handle, 5)["slot5"]["STATE"]


def test_disabled_slot_is_never_declared_stuck_and_enable_restarts_it(sandbox, daemon):
    handle = start(sandbox, daemon)
    bring_to_ready(sandbox, handle, 3)
    disable(sandbox, 3)
    # Barrier: a card left at VERIFIED in slot 6 from now on is declared stuck
    # after the 240 expiries that slot 3 would have counted from earlier on.
    sandbox.insert(6)
    wait_until(lambda: logged(handle, "[SLOT6] supervision.cpp:<N> ERR slot state stuck and not changing state "
                                      "MAX tries = 240\n"), 10, what="slot 6 declared stuck")
    assert not any(line.startswith("[SLOT3] supervision.cpp:") for line in console_lines(handle))
    document = status_document(sandbox, handle, 3)["slot3"]
    assert (document["STATE"], document["Exp Event"]) == ("SLOT_PRESENT |SLOT_SYNCED | ", "ready")

    reply = ctl_exchange(sandbox, ctl_request(LINECARD_ENABLE, 3))
    assert reply[16:20] == b"\0\0\0\0"
    assert logged(handle, "[SLOT3] transitions_detect.cpp:<N> Already in present state\n")
    # The verified file still reads 1: the restarted supervision finds it.
    wait_until(lambda: logged(handle, "[SLOT3] transitions_power.cpp:<N> Transitioned from 5 to SLOT_VERIFIED\n"),
               what="slot 3 verified again")
