"""No ghost card, no stranded card: events that arrive after the slot has
moved on change nothing, a card that is gone or will not come up never holds
the portd reload of the others, and a late synced event still brings a card
into service."""

import re

from conftest import (console_lines, ctl_exchange, ctl_request, padded, socket_listening, status_document, wait_until,
                      write_once)

CONF = "etc/tarnel/cards.conf"
STALE = re.compile(r"Transitioned from (\d+) to SLOT_(VERIFIED|POWERED|SYNCED|READY|ACTIVE)$")
PRE_PROVISION_ENABLE = 7


def slot_conf_state(sandbox, slot):
    for line in sandbox.read(CONF).splitlines():
        fields = line.split()
        if fields and fields[0] == str(slot):
            return fields[5]
    return None


def wait_online(sandbox, handle, slot, timeout=10.0):
    wait_until(lambda: handle.proc.poll() is None and slot_conf_state(sandbox, slot) == "Online",
               timeout, what=f"slot {slot} 'Online' in cards.conf")


class Lines:
    """Counts of one slot's console messages, to wait for the next one."""

    def __init__(self, handle, slot):
        self.handle = handle
        self.prefix = f"[SLOT{slot}] "

    def messages(self):
        # A line still being written when the console is read may lack its message.
        parts = [line.split(" ", 2) for line in console_lines(self.handle) if line.startswith(self.prefix)]
        return [part[2] for part in parts if len(part) == 3]

    def count(self, message):
        return self.messages().count(message)

    def wait_next(self, message, before, timeout=5.0):
        wait_until(lambda: self.handle.proc.poll() is None and self.count(message) > before, timeout,
                   what=f"{self.prefix}{message!r} once more")


def stale_transitions(handle, slot):
    """Bring-up transitions logged for the slot while it held no card."""
    found = []
    for message in Lines(handle, slot).messages():
        match = STALE.search(message)
        if match and not int(match[1]) & 1:
            found.append(message)
    return found


def test_events_left_over_from_a_pulled_card_leave_the_slot_empty(sandbox, daemon):
    slot = 1
    handle = daemon.start()
    handle.wait_console("[SLOT8] startup.cpp:", timeout=10)
    sandbox.sim_set(f"slot{slot}/ready", "1")
    sandbox.insert(slot, extra=("--no-events",))
    lines = Lines(handle, slot)

    def raise_event(name, message):
        before = lines.count(message)
        write_once(sandbox.event(slot, name), "1")
        lines.wait_next(message, before)

    for cycle in range(12):
        old = 0 if cycle == 0 else 4
        raise_event("present", f"Transitioned from {old} to SLOT_PRESENT")
        raise_event("verified", f"Transitioned from {old + 1} to SLOT_VERIFIED")
        raise_event("powered", f"Transitioned from {old + 3} to SLOT_POWERED")
        if cycle == 0:
            raise_event("synced", "Transitioned from 11 to SLOT_SYNCED")
        raise_event("ready", "Transitioned from 15 to SLOT_READY")
        emptied = lines.count("Transitioned from 63 to SLOT_EMPTY")
        raise_event("active", "Transitioned from 31 to SLOT_ACTIVE")
        for name in ("present", "verified", "powered", "ready", "active"):
            write_once(sandbox.event(slot, name), "0")
        lines.wait_next("Transitioned from 63 to SLOT_EMPTY", emptied)
        assert stale_transitions(handle, slot) == []

    # Whatever was still queued has run once the status document is written.
    document = status_document(sandbox, handle, slot)
    assert document[f"slot{slot}"]["STATE"] == "SLOT_SYNCED | "
    assert stale_transitions(handle, slot) == []
    assert slot_conf_state(sandbox, slot) == "Offline"
    # The next card in the slot is brought up.
    sandbox.start_emulator("--slots", str(slot))
    sandbox.insert(slot)
    wait_online(sandbox, handle, slot)


def test_card_pulled_before_synced_does_not_hold_the_next_card(sandbox, daemon):
    sandbox.start_emulator("--slots", "2")
    # Slow enough that slot 1's supervision is far from its stuck verdict
    # (which would clear the flag by itself) when the card is pulled.
    handle = daemon.start(scale="0.05")
    handle.wait_console("[SLOT8] startup.cpp:", timeout=10)
    sandbox.insert(1)  # slot 1 is not played: the card stops at VERIFIED, awaiting power
    wait_until(lambda: "[SLOT1] transitions_power.cpp:<N> Transitioned from 1 to SLOT_VERIFIED\n"
               in console_lines(handle, keepends=True), what="slot 1 verified")
    write_once(sandbox.event(1, "present"), "0")
    wait_until(lambda: "[SLOT1] transitions_detect.cpp:<N> Transitioned from 3 to SLOT_EMPTY\n"
               in console_lines(handle, keepends=True), what="slot 1 emptied")
    assert "[SLOT1] supervision.cpp:<N> WARN Removing slot from wait_reload_portd" not in console_lines(handle)

    sandbox.sim_set("slot2/ready", "1")
    sandbox.insert(2)

    wait_online(sandbox, handle, 2, timeout=30)
    assert "reload_rendezvous.cpp:<N> Holding reload because of this slot 1" not in console_lines(handle)


def test_failed_pre_provisioning_does_not_hold_a_new_card(sandbox, daemon):
    sandbox.start_emulator("--slots", "2")
    handle = daemon.start()
    handle.wait_console("[SLOT8] startup.cpp:", timeout=10)
    wait_until(lambda: socket_listening(sandbox), what="the control socket to listen")
    reply = ctl_exchange(sandbox, ctl_request(PRE_PROVISION_ENABLE, 3, card_type=1))
    assert reply[24:152] == padded(b"Failed to locate and program INI")

    sandbox.sim_set("slot2/ready", "1")
    sandbox.insert(2)

    wait_online(sandbox, handle, 2)
    assert "reload_rendezvous.cpp:<N> Holding reload because of this slot 3" not in console_lines(handle)


def test_synced_event_after_the_stuck_verdict_still_brings_the_card_up(sandbox, daemon):
    slot = 1
    handle = daemon.start()
    handle.wait_console("[SLOT8] startup.cpp:", timeout=10)
    sandbox.sim_set(f"slot{slot}/ready", "1")
    sandbox.insert(slot)  # present and verified
    lines = Lines(handle, slot)
    wait_until(lambda: lines.count("Transitioned from 1 to SLOT_VERIFIED") == 1, what="slot 1 verified")
    write_once(sandbox.event(slot, "powered"), "1")
    wait_until(lambda: lines.count("ERR State stuck and not changing state to synced") == 1, 10,
               what="the stuck verdict on synced")

    write_once(sandbox.event(slot, "synced"), "1")
    wait_until(lambda: lines.count("portd reloaded") == 1, what="the reload for the late card")
    write_once(sandbox.event(slot, "ready"), "1")
    lines.wait_next("Transitioned from 15 to SLOT_READY", 0)
    write_once(sandbox.event(slot, "active"), "1")
    wait_online(sandbox, handle, slot)
