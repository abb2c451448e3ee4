"""Show commands, the status document and the debug trigger, against the
running daemon, with cards brought up by the hardware emulator."""

import json
import os
import struct

from conftest import CTL_HEADER, console_lines, ctl_exchange, ctl_request, start_listening, status_document, wait_until

RECORD = struct.Struct("<I32s32sII32sI8s")
DOCUMENT_RELPATH = "etc/tarnel/cm_status.json"
SHOW_SUMMARY, SHOW_DETAIL, DEBUG_SLOT = 5, 6, 9
ACTIVE_STATE = ("SLOT_PRESENT |SLOT_VERIFIED |SLOT_SYNCED |SLOT_POWERED |SLOT_READY |"
                "SLOT_ACTIVE | ")


def text(field):
    return field.split(b"\0", 1)[0].decode()


def records(reply, count):
    out = []
    for index in range(count):
        slot, serial, card, major, minor, state, prov, uptime = RECORD.unpack_from(reply, 24 + 120 * index)
        out.append((slot, text(serial), text(card), major, minor, text(state), prov))
    return out


def slot_state(sandbox, slot):
    return records(ctl_exchange(sandbox, ctl_request(SHOW_SUMMARY, slot)), 1)[0][5]


def bring_up(sandbox, slot, serial):
    """Inserts a 16-port card (hardware revision 2) and waits until it is in service."""
    if not sandbox.emulators:
        sandbox.start_emulator()
    sandbox.insert(slot, pn="KTR9600-C16", sn=serial, rev=2)
    wait_until(lambda: slot_state(sandbox, slot) == "Operational", timeout=20,
               what=f"slot {slot} to be operational")
    # The active step marks the card active first and stamps its up time just
    # before it turns the LED green: wait for the LED to see the stamp.
    wait_until(lambda: "255" in sandbox.read(f"var/run/hw-management/lc{slot}/led/led_status_green"),
               what=f"slot {slot}'s LED to turn green")


def test_summary_of_an_empty_chassis_has_eight_empty_records(sandbox, daemon):
    start_listening(sandbox, daemon)
    reply = ctl_exchange(sandbox, ctl_request(SHOW_SUMMARY, 255, seq=3))
    assert len(reply) == 1024
    assert CTL_HEADER.unpack(reply[:24]) == (5, 1024, 3, 255, 0, 0)
    assert records(reply, 8) == [(s, "none", "none", 0, 0, "Empty", 0) for s in range(1, 9)]


def test_summary_for_slot_0_or_9_answers_success_without_records(sandbox, daemon):
    start_listening(sandbox, daemon)
    marker = b"\xab" * 1000
    first = ctl_exchange(sandbox, ctl_request(SHOW_SUMMARY, 0, seq=1, length=1024) + marker)
    assert first[24:] == marker
    for slot in (0, 9, 254, 256):
        reply = ctl_exchange(sandbox, ctl_request(SHOW_SUMMARY, slot, seq=2))
        assert CTL_HEADER.unpack(reply[:24]) == (5, 1024, 2, slot, 0, 0)
        assert reply[24:] == marker


def test_summary_of_slot_3_is_record_zero_and_states_follow_the_card(sandbox, daemon):
    start_listening(sandbox, daemon)
    assert slot_state(sandbox, 3) == "Empty"
    sandbox.insert(3, pn="KTR9600-C16", sn="SN00000003", rev=2)  # no emulator yet: never powered
    wait_until(lambda: slot_state(sandbox, 3) == "Offline", what="slot 3 to be offline")
    sandbox.remove(3)
    wait_until(lambda: slot_state(sandbox, 3) == "Empty", what="slot 3 to be empty again")
    bring_up(sandbox, 3, "SN00000003")
    reply = ctl_exchange(sandbox, ctl_request(SHOW_SUMMARY, 3, seq=4))
    assert CTL_HEADER.unpack(reply[:24]) == (5, 1024, 4, 3, 0, 0)
    assert records(reply, 1) == [(3, "SN00000003", "KTR9600-C16", 2, 5, "Operational", 0)]


def test_a_32_character_serial_fills_its_32_bytes_in_the_summary_and_the_document(sandbox, daemon):
    start_listening(sandbox, daemon)
    serial = "SN-0123456789-ABCDEFGHIJ-KLMNOPQ"
    assert len(serial) == 32
    sandbox.insert(4, pn="KTR9600-C16", sn=serial, rev=2)  # no emulator yet: never powered
    wait_until(lambda: slot_state(sandbox, 4) == "Offline", what="slot 4 to be offline")
    reply = ctl_exchange(sandbox, ctl_request(SHOW_SUMMARY, 4))
    assert reply[24 + 4:24 + 36] == serial.encode()
    assert reply[24 + 36:24 + 68] == b"KTR9600-C16".ljust(32, b"\0")
    document = json.loads(ctl_exchange(sandbox, ctl_request(DEBUG_SLOT, 4))[24:])
    assert document["slot4"]["Serial No"] == serial


def test_detail_logs_the_ini_line_of_a_single_slot_as_a_line_of_slot_1(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    bring_up(sandbox, 5, "SN00000005")
    reply = ctl_exchange(sandbox, ctl_request(SHOW_DETAIL, 5, seq=8))
    assert CTL_HEADER.unpack(reply[:24]) == (6, 1024, 8, 5, 0, 0)
    assert records(reply, 1) == [(5, "SN00000005", "KTR9600-C16", 2, 5, "Operational", 0)]
    assert "[SLOT1] ctl_show.cpp:<N> INI Major = 2, INI Minor = 5" in console_lines(handle)
    assert "[SLOT5] ctl_show.cpp:<N> INI Major = 2, INI Minor = 5" not in console_lines(handle)

    ctl_exchange(sandbox, ctl_request(SHOW_DETAIL, 255))
    assert "[SLOT5] ctl_show.cpp:<N> INI Major = 2, INI Minor = 5" in console_lines(handle)


def test_debug_slot_sends_the_header_and_the_document(sandbox, daemon):
    start_listening(sandbox, daemon)
    reply = ctl_exchange(sandbox, ctl_request(DEBUG_SLOT, 2, seq=12, card_type=7))
    document = sandbox.path(DOCUMENT_RELPATH).read_bytes()
    assert CTL_HEADER.unpack(reply[:24]) == (9, 0, 12, 2, 0, 0)
    assert reply[24:] == document
    parsed = json.loads(document)
    assert list(parsed) == ["chassis", "Log", "slot2"]
    assert parsed["chassis"] == "KTR9600"
    assert list(parsed["slot2"]) == ["SLOT", "STATE", "Exp Event", "Card Type", "Provisioned",
                                     "Disabled", "Serial No", "Log"]
    assert parsed["slot2"]["STATE"] == " "
    assert parsed["slot2"]["SLOT"] == 2


def test_debug_slot_for_slot_9_closes_without_a_reply(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    assert ctl_exchange(sandbox, ctl_request(DEBUG_SLOT, 9)) == b""
    assert "ctl_show.cpp:<N> ERR Bad slot(9) received from CTL cmd" in console_lines(handle)
    assert not sandbox.path(DOCUMENT_RELPATH).exists()


def test_up_time_appears_only_for_the_active_card(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    bring_up(sandbox, 4, "SN00000004")
    document = json.loads(ctl_exchange(sandbox, ctl_request(DEBUG_SLOT, 255))[24:])
    assert list(document) == ["chassis", "Log"] + [f"slot{s}" for s in range(1, 9)]
    slot4 = document["slot4"]
    assert slot4["STATE"] == ACTIVE_STATE
    assert slot4["Card Type"] == "KTR9600-C16"
    assert slot4["Serial No"] == "SN00000004"
    up = slot4["Up Time"]
    assert list(up) == ["Hours", "Minutes", "Seconds"]
    assert up["Hours"] == 0 and 0 <= up["Minutes"] <= 1
    for slot in (1, 2, 3, 5, 6, 7, 8):
        assert "Up Time" not in document[f"slot{slot}"]
        assert document[f"slot{slot}"]["STATE"] in (" ", "SLOT_SYNCED | ")
    assert handle.proc.poll() is None


def test_trigger_file_with_3_rewrites_the_document_for_slot_3(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    document = status_document(sandbox, handle, slot=3)
    assert list(document) == ["chassis", "Log", "slot3"]
    assert "debug_trigger.cpp:<N> SLOT ID read = 3" in console_lines(handle)


def test_trigger_file_with_255_rewrites_it_with_all_slots(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    document = status_document(sandbox, handle, slot=255)
    assert list(document) == ["chassis", "Log"] + [f"slot{s}" for s in range(1, 9)]


def test_trigger_file_with_text_gives_only_the_chassis_part(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    status_document(sandbox, handle, slot=1)
    path = sandbox.path(DOCUMENT_RELPATH)
    os.utime(path, ns=(0, 0))
    sandbox.write("etc/tarnel/debug_slot", "not a number\n")
    wait_until(lambda: path.stat().st_mtime_ns != 0, what="the document to be rewritten")
    document = json.loads(wait_until(lambda: path.read_text() if path.read_text().endswith("}") else None,
                                     what="the whole document"))
    assert list(document) == ["chassis", "Log"]
    assert "debug_trigger.cpp:<N> SLOT ID read = 0" in console_lines(handle)


def test_serial_with_a_control_byte_is_shown_as_a_question_mark(sandbox, daemon):
    start_listening(sandbox, daemon)
    sandbox.insert(4, pn="KTR9600-C16", sn="SN\x1f00004", rev=2)

    def serial_shown():
        document = json.loads(ctl_exchange(sandbox, ctl_request(DEBUG_SLOT, 4))[24:])
        return document["slot4"]["Serial No"] or None

    assert wait_until(serial_shown, what="the serial number in the status document") == "SN?00004"
    assert json.loads(sandbox.read(DOCUMENT_RELPATH))["slot4"]["Serial No"] == "SN?00004"


def test_debug_trigger_file_deleted_then_renamed_into_place_still_triggers(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    status_document(sandbox, handle, 255)
    trigger = sandbox.path("etc/tarnel/debug_slot")
    trigger.unlink()
    temporary = trigger.with_name("debug_slot.new")
    temporary.write_text("2\n")
    temporary.rename(trigger)  # read as soon as it is watched again
    document = sandbox.path(DOCUMENT_RELPATH)
    wait_until(lambda: list(json.loads(document.read_text()))[2:] == ["slot2"], what="the document for slot 2")
    # The removal's own event may have read the renamed file first: the new
    # watch is announced once, possibly just after that document.
    watching = f"debug_trigger.cpp:<N> Watching {trigger}"
    wait_until(lambda: watching in console_lines(handle), what="the trigger file watched again")
    assert console_lines(handle).count(watching) == 1
    # The new watch reads the renamed file once more: a second slot-2 document
    # may still land after the next trigger is written, so ask until slot 5's.
    wait_until(lambda: list(status_document(sandbox, handle, 5))[2:] == ["slot5"], what="the document for slot 5")


def test_serial_keeps_the_encoder_escapes_and_delete_stays_raw(sandbox, daemon):
    start_listening(sandbox, daemon)
    sandbox.insert(5, pn="KTR9600-C16", sn="A\x01B\x1eC\x1fD\x7fE", rev=2)
    expected = b'\t\t"Serial No": "A\\u0001B\\u001EC?D\x7fE",\n'

    def document_bytes():
        reply = ctl_exchange(sandbox, ctl_request(DEBUG_SLOT, 5))[24:]
        return reply if expected in reply else None

    wait_until(document_bytes, what="the serial number in the status document")
    assert expected in (sandbox.path(DOCUMENT_RELPATH)).read_bytes()
