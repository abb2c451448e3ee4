"""What the operator is told: a card that cannot come up does not hold the
others, show and watch name the holder and the cause, a failed portd reload
is reported until a reload succeeds, and every JSON output uses one key and
one value for one fact."""

import json
import re
import signal
import subprocess

from chmgrctl_support import bring_up, chmgrctl, chmgrctl_json, client_binary, show_slot
from conftest import console_lines, timeout_factor, wait_until
from json_schema_subset import assert_valid

CONF = "etc/tarnel/cards.conf"
DOCUMENT_RELPATH = "etc/tarnel/cm_status.json"


def start(daemon, sandbox, scale="0.001"):
    handle = daemon.start(scale=scale)
    wait_until(lambda: chmgrctl(sandbox, "show").returncode == 0, what="the control socket")
    return handle


def wait_reason(sandbox, slot, predicate, what, timeout=20):
    return wait_until(lambda: (lambda s: s if predicate(s) else None)(show_slot(sandbox, slot)), timeout=timeout,
                      what=what)


def conf_fields(sandbox, slot):
    for line in sandbox.read(CONF).splitlines():
        fields = line.split()
        if fields and fields[0] == str(slot):
            return fields
    return None


def reason_lines(sandbox):
    return chmgrctl(sandbox, "show").stdout.split("\n\n", 1)[1].splitlines()


# ---------------------------------------------------------------- a card that cannot come up


def test_card_without_a_compatible_ini_does_not_hold_the_reload_of_healthy_cards(sandbox, daemon):
    # Slow enough that slot 1's stuck verdict (which would release the hold by
    # itself) comes long after the healthy cards are in service.
    handle = start(daemon, sandbox, scale="0.05")
    sandbox.start_emulator()
    sandbox.insert(1, pn="KTR9600-C4", extra=("--no-ini-eeprom",))
    slot1 = wait_reason(sandbox, 1, lambda s: s["reason"] == "no compatible INI for this card",
                        "slot 1 to have no INI")
    assert (slot1["stuck"], slot1["oper_state"]) == (False, "Offline")

    sandbox.insert(3)
    sandbox.insert(4)
    for slot in (3, 4):
        wait_reason(sandbox, slot, lambda s: s["oper_state"] == "Operational", f"slot {slot} in service", timeout=30)
    assert not [line for line in console_lines(handle) if "Holding reload because of this slot 1" in line]
    assert not show_slot(sandbox, 1)["stuck"]  # slot 1 was not given up meanwhile
    assert "slot 1: no compatible INI for this card" in reason_lines(sandbox)


def test_parked_card_names_the_slot_holding_the_reload(sandbox, daemon):
    start(daemon, sandbox, scale="0.2")
    sandbox.start_emulator("--slots", "5")
    sandbox.insert(2)  # not played: stops at VERIFIED, still coming up
    wait_reason(sandbox, 2, lambda s: s["awaited_event"] == "powered", "slot 2 to await power")
    sandbox.insert(5)
    slot5 = wait_reason(sandbox, 5, lambda s: s["reason"] == "waiting for the portd reload, held by slot 2",
                        "slot 5 held by slot 2")
    assert slot5["awaited_event"] is None
    assert "slot 5: waiting for the portd reload, held by slot 2" in reason_lines(sandbox)
    watch = chmgrctl(sandbox, "watch", "5", "--json", "--timeout", "0.2", "--interval", "0.1")
    first = json.loads(watch.stdout.splitlines()[0])
    assert (first["slot"], first["reason"]) == (5, "waiting for the portd reload, held by slot 2")


# ---------------------------------------------------------------- a failed reload of portd


def test_failed_portd_reload_keeps_the_card_dirty_until_a_reload_succeeds(sandbox, daemon):
    handle = start(daemon, sandbox)
    sandbox.systemctl_exit_code(1)
    bring_up(sandbox, 2)
    assert "shell_command.cpp:<N> ERR process systemctl reload portd exited with 1 error code" in console_lines(handle)
    assert conf_fields(sandbox, 2)[4:6] == ["1", "Online"]

    slot = show_slot(sandbox, 2)
    assert slot["oper_state"] == "Operational"
    match = re.fullmatch(r"ports not taken by portd \(reload failed at (\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)\)",
                         slot["reason"] or "")
    assert match, slot["reason"]
    # The time is that of the failed reload, which slot 2 ran itself.
    log = json.loads(sandbox.read(DOCUMENT_RELPATH))["slot2"]["Log"]
    clocks = {line.rstrip("\n").rsplit(" ", 1)[-1]: " ".join(line.split("]", 1)[1].split(" ")[1:3])
              for line in log if line.endswith(("Reloading portd...\n", "portd reloaded\n"))}
    assert clocks["portd..."] <= match[1] <= clocks["reloaded"]
    assert f"slot 2: {slot['reason']}" in reason_lines(sandbox)

    sandbox.systemctl_exit_code(0)
    bring_up(sandbox, 6)  # its reload succeeds and takes every dirty card in
    wait_until(lambda: conf_fields(sandbox, 2)[4] == "0" and conf_fields(sandbox, 6)[4] == "0",
               what="the dirty bits cleared")
    assert show_slot(sandbox, 2)["reason"] is None
    assert show_slot(sandbox, 6)["reason"] is None


# ---------------------------------------------------------------- one vocabulary


def test_show_status_and_watch_use_one_key_and_one_value_per_fact(sandbox, daemon):
    start(daemon, sandbox)
    bring_up(sandbox, 3)
    # The active step sets the state bit before it stops awaiting events.
    wait_reason(sandbox, 3, lambda s: s["awaited_event"] == "empty", "slot 3 to await its removal")
    shown = chmgrctl_json(sandbox, "show", "3")["slots"][0]
    detail = chmgrctl_json(sandbox, "detail", "3")["slots"][0]
    status = chmgrctl_json(sandbox, "status", "3")["slots"][0]
    watch = chmgrctl(sandbox, "watch", "3", "--json", "--timeout", "0.2", "--interval", "0.1")
    watched = json.loads(watch.stdout.splitlines()[0])
    assert_valid(watched)
    for key in ("awaited_event", "admin_state", "card_type", "serial_no", "stuck"):
        assert shown[key] == detail[key] == status[key] == watched[key], key
    for key in ("hw_revision", "ini_minor", "provisioned_type", "part_number", "reason"):
        assert shown[key] == watched[key], key
    assert (shown["hw_revision"], shown["ini_minor"]) == (2, 5)
    for value in (detail, status, watched):
        assert abs(value["up_time_seconds"] - shown["up_time_seconds"]) <= 2 * timeout_factor()

    empty = [chmgrctl_json(sandbox, "show", "7")["slots"][0], chmgrctl_json(sandbox, "status", "7")["slots"][0]]
    for value in empty:
        assert (value["card_type"], value["serial_no"], value["up_time_seconds"]) == (None, None, None)


def test_unsupported_card_has_its_part_number_and_serial_in_their_own_fields(sandbox, daemon):
    start(daemon, sandbox)
    sandbox.insert(4, pn="KTR9600-X9", sn="SNX9")
    slot = wait_reason(sandbox, 4, lambda s: s["reason"] == "unsupported card KTR9600-X9", "slot 4 refused")
    assert (slot["card_type"], slot["part_number"], slot["serial_no"]) == (None, "KTR9600-X9", "SNX9")


def test_failed_pre_provisioning_shows_the_type_it_asked_for(sandbox, daemon):
    start(daemon, sandbox)
    result = chmgrctl(sandbox, "provision", "3", "C4")
    assert result.returncode == 1
    slot = chmgrctl_json(sandbox, "show", "3")["slots"][0]
    assert (slot["provisioned"], slot["provisioned_type"]) == (True, "C4")
    wide = chmgrctl(sandbox, "show", "3", "--wide").stdout.splitlines()
    assert " ? " not in wide[1] and " C4 " in wide[1]


def watch_until_signal(sandbox, signal_number):
    proc = subprocess.Popen([str(client_binary()), "watch", "3", "--json", "--interval", "0.05"], env=sandbox.env,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL, text=True)
    try:
        first = proc.stdout.readline()  # the first look is done
        assert json.loads(first)["event"] == "slot"
        proc.send_signal(signal_number)
        rest, _ = proc.communicate(timeout=30 * timeout_factor())
    finally:
        if proc.poll() is None:
            proc.kill()
            proc.wait()
    return proc.returncode, [json.loads(line) for line in (first + rest).splitlines()]


def test_watch_ends_with_its_end_object_on_sigint_and_sigterm(sandbox, daemon):
    start(daemon, sandbox)
    for signal_number, status in ((signal.SIGINT, 130), (signal.SIGTERM, 143)):
        code, lines = watch_until_signal(sandbox, signal_number)
        assert code == status
        end = lines[-1]
        assert_valid(end)
        assert (end["event"], end["slot"], end["outcome"], end["reason"]) == ("end", 3, "interrupted", None)


def test_watch_ends_with_its_end_object_at_its_time_limit(sandbox, daemon):
    start(daemon, sandbox)
    result = chmgrctl(sandbox, "watch", "3", "--json", "--timeout", "0.3", "--interval", "0.1")
    assert result.returncode == 0
    end = json.loads(result.stdout.splitlines()[-1])
    assert_valid(end)
    assert (end["event"], end["slot"], end["outcome"]) == ("end", 3, "stopped")
