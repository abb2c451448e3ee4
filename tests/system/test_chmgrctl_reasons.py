"""chmgrctl show: the plain reason given for every slot that is not in service."""

import json

from chmgrctl_support import chmgrctl, chmgrctl_json, show_slot
from conftest import start_listening, wait_until
from json_schema_subset import assert_valid

DOCUMENT_RELPATH = "etc/tarnel/cm_status.json"


def wait_reason(sandbox, slot, predicate, what):
    return wait_until(lambda: (lambda s: s if predicate(s) else None)(show_slot(sandbox, slot)), timeout=20,
                      what=what)


def stage_clock(sandbox, slot, stage):
    """Date and time of the slot's log line that records `stage`."""
    document = json.loads(sandbox.read(DOCUMENT_RELPATH))
    lines = [line for line in document[f"slot{slot}"]["Log"] if line.rstrip("\n").endswith(f" to SLOT_{stage}")]
    fields = lines[-1].split("]", 1)[1].split(" ")
    return f"{fields[1]} {fields[2]}"


def reason_lines(sandbox):
    text = chmgrctl(sandbox, "show").stdout
    return text.split("\n\n", 1)[1].splitlines()


def test_reason_for_a_card_in_a_disabled_slot(sandbox, daemon):
    start_listening(sandbox, daemon)
    assert chmgrctl(sandbox, "disable", "5").returncode == 0
    sandbox.insert(5)
    slot = wait_reason(sandbox, 5, lambda s: s["oper_state"] == "Offline", "slot 5 to hold the card")
    assert (slot["admin_state"], slot["reason"]) == ("disabled", "disabled by the administrator")
    assert "slot 5: disabled by the administrator" in reason_lines(sandbox)


def test_reason_for_a_card_waiting_for_an_event(sandbox, daemon):
    handle = daemon.start(scale="1")  # real supervision periods: the card waits, it is not given up
    wait_until(lambda: chmgrctl(sandbox, "show").returncode == 0, what="the control socket")
    sandbox.insert(2)  # no emulator: nothing powers the card
    slot = wait_reason(sandbox, 2, lambda s: s["awaited_event"] == "powered", "slot 2 to await power")
    clock = stage_clock(sandbox, 2, "VERIFIED")
    assert slot["reason"] == f"waiting for powered since {clock}"
    assert (slot["stage"], slot["stuck"]) == ("VERIFIED", False)
    assert f"slot 2: waiting for powered since {clock}" in reason_lines(sandbox)
    assert handle.proc.poll() is None


def test_reason_for_a_stuck_card(sandbox, daemon):
    start_listening(sandbox, daemon)  # a small clock factor: 240 one-second expiries pass quickly
    sandbox.insert(4)  # no emulator: the powered event never comes
    slot = wait_reason(sandbox, 4, lambda s: s["stuck"], "slot 4 to be given up")
    assert slot["reason"] == "stuck at VERIFIED after 240 tries"
    assert slot["stage"] == "VERIFIED"
    assert "slot 4: stuck at VERIFIED after 240 tries" in reason_lines(sandbox)
    table = chmgrctl(sandbox, "show", "4").stdout.splitlines()
    assert table[1].startswith("4     Offline  enabled  stuck at VERIFIED  C16   SN00000004  -")


def test_reason_for_an_unsupported_card(sandbox, daemon):
    start_listening(sandbox, daemon)
    sandbox.start_emulator()
    sandbox.insert(6, pn="KTR9600-X9", sn="SNX0000006")
    slot = wait_reason(sandbox, 6, lambda s: s["oper_state"] == "Offline" and s["reason"].startswith("unsupported"),
                       "slot 6 to refuse the card")
    assert slot["reason"] == "unsupported card KTR9600-X9"
    assert "slot 6: unsupported card KTR9600-X9" in reason_lines(sandbox)


def test_reason_for_a_card_of_another_type_than_provisioned(sandbox, daemon):
    start_listening(sandbox, daemon)
    sandbox.write("var/run/hw-management/events/lc7_synced", "1")
    assert chmgrctl(sandbox, "provision", "7", "C16").returncode == 0
    sandbox.start_emulator()
    sandbox.insert(7, pn="KTR9600-C4")
    slot = wait_reason(sandbox, 7, lambda s: s["reason"].startswith("pre-provisioned"), "slot 7 to refuse the card")
    assert slot["reason"] == "pre-provisioned for C16 but a C4 is inserted"
    assert (slot["provisioned_type"], slot["oper_state"]) == ("C16", "Offline")
    assert "slot 7: pre-provisioned for C16 but a C4 is inserted" in reason_lines(sandbox)
    assert_valid(chmgrctl_json(sandbox, "show"))
