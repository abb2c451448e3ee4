"""Card bring-up on the real binary: the simulated SDK, the emulated
hardware-management tree playing the hardware (`chmgr-hwemu run`), and
stand-ins for `systemctl` and the gearbox tool.

A card inserted into a slot goes PRESENT, VERIFIED, POWERED, SYNCED (with
the shared reload of portd), READY (enable, gearbox update, reset,
activation, reload of envd) and ACTIVE, ending "Online" in cards.conf;
removal takes it back."""

import re

from conftest import status_document, timeout_factor, wait_until, write_once

SCALE = 0.001
LINE_NO = re.compile(r"(\.(?:cpp|c|h)):\d+ ")
TRANSITION = re.compile(r"^\[SLOT(\d)\] [a-z_]+\.cpp:<N> (Transitioned .*)$")
CONF = "etc/tarnel/cards.conf"
SLOT_SYNCED = 0x04
NEW_CARD_PATH = ["Transitioned from 0 to SLOT_PRESENT",
                 "Transitioned from 1 to SLOT_VERIFIED",
                 "Transitioned from 3 to SLOT_POWERED",
                 "Transitioned from 11 to SLOT_SYNCED",
                 "Transitioned to WAIT_RELOAD_PORTD",
                 "Transitioned from 15 to SLOT_READY",
                 "Transitioned from 31 to SLOT_ACTIVE"]


# ---------------------------------------------------------------- helpers


def console_lines(handle):
    """Console lines, line numbers replaced by <N>."""
    return [LINE_NO.sub(r"\1:<N> ", line) for line in handle.console().splitlines(keepends=True)]


def transitions(handle, slot):
    """The slot's "Transitioned ..." messages that change its state, in order.

    Left out: the no-valid transition, which only logs (an event file of the
    slot changed while another was awaited), and a synced transition for a
    slot already synced, which logs its line too.  The main loop decides
    events from the files as they read at wake-up, so whether such repeats
    occur depends on timing (a file event and a timer expiry for the same
    change, or a file written just before the slot awaited it)."""
    found = []
    for line in console_lines(handle):
        match = TRANSITION.match(line.rstrip("\n"))
        if match and int(match[1]) == slot and not changes_nothing(match[2]):
            found.append(match[2])
    return found


def changes_nothing(step):
    if step.endswith(" to no_valid_transition"):
        return True
    synced = re.fullmatch(r"Transitioned from (\d+) to SLOT_SYNCED", step)
    return bool(synced) and int(synced[1]) & SLOT_SYNCED != 0


def from_main_loop(line):
    """A line the main loop writes for a wake-up (its own thread)."""
    return re.match(r"^(\[SLOT\d\] )?(event_loop|slot_model|event_watches)\.cpp:<N> ", line) is not None


def distinct_steps(steps):
    """`steps` without immediate repeats."""
    return [step for i, step in enumerate(steps) if i == 0 or step != steps[i - 1]]


def conf_line(slot, detected, provisioned, configured, dirty, state, admin):
    return (f"{slot}       {detected}G        {provisioned}G               {configured:3d}G        "
            f"{dirty}  {state}   {admin}\n")


def conf_text(lines=None):
    """cards.conf of eight empty slots, with `lines` ({slot: line}) in place."""
    lines = lines or {}
    return "".join(lines.get(slot, conf_line(slot, 0, 0, 0, 0, "Offline", "enable")) for slot in range(1, 9))


def conf_slot_line(sandbox, slot):
    for line in sandbox.read(CONF).splitlines(keepends=True):
        if line.split(maxsplit=1)[:1] == [str(slot)]:
            return line
    return None


def wait_online(sandbox, handle, *slots, timeout=10.0):
    def online():
        if handle.proc.poll() is not None:
            return None
        return all(" Online " in (conf_slot_line(sandbox, slot) or "") for slot in slots)
    wait_until(online, timeout, what=f"slots {slots} 'Online' in cards.conf")


def start_chassis(sandbox, daemon, emulate="1-8", scale=SCALE, conf=None):
    """The emulator playing slots `emulate` (None: no emulator) and the daemon
    on top, with every empty slot announced."""
    if conf is not None:
        sandbox.write(CONF, conf)
    emulator = sandbox.start_emulator("--slots", emulate) if emulate else None
    handle = daemon.start(scale=scale)
    handle.wait_console("[SLOT8] startup.cpp:", timeout=10)  # every empty slot announced
    return handle, emulator


def card_ready(sandbox, *slots):
    """The SDK will report these slots' cards ready."""
    for slot in slots:
        sandbox.sim_set(f"slot{slot}/ready", "1")


def portd_reloads(sandbox):
    return [call for call in sandbox.systemctl_calls() if call.args == ("reload", "portd")]


def envd_reloads(sandbox):
    return [call for call in sandbox.systemctl_calls() if call.args == ("reload", "envd")]


def gearbox_args(sandbox, slot):
    return ("-s", str(slot), "-t", "cardtype_16x100", "-l", "INFO", "-f", f"{sandbox.root}/var/log/gb.log")


# ---------------------------------------------------------------- the full path


def test_new_card_in_unprovisioned_slot_comes_online(sandbox, daemon):
    handle, _ = start_chassis(sandbox, daemon)
    card_ready(sandbox, 3)
    sandbox.insert(3, pn="KTR9600-C16", sn="SN-C16-0003", rev=2)

    wait_online(sandbox, handle, 3)

    assert sandbox.read(CONF) == conf_text({3: conf_line(3, 100, 0, 100, 0, "Online", "enable")})
    assert transitions(handle, 3) == NEW_CARD_PATH
    assert [call.args for call in sandbox.systemctl_calls()] == [("reload", "portd"), ("reload", "envd")]
    assert [call.args for call in sandbox.gearbox_calls()] == [gearbox_args(sandbox, 3)]
    # The LED turns green right after the slot is marked online.
    wait_until(lambda: sandbox.led_log(3) == ["orange", "green"], what="LED orange then green")
    lines = console_lines(handle)
    assert "[SLOT3] transitions_ready.cpp:<N> READY after 0 poll loop\n" in lines
    assert "[SLOT3] transitions_ready.cpp:<N> INI in-use after 0 poll loop\n" in lines
    assert "[SLOT3] reload_rendezvous.cpp:<N> Reloading portd...\n" in lines
    assert "[SLOT3] reload_rendezvous.cpp:<N> portd reloaded\n" in lines

    document = status_document(sandbox, handle, 3)
    slot = document["slot3"]
    assert slot["STATE"] == "SLOT_PRESENT |SLOT_VERIFIED |SLOT_SYNCED |SLOT_POWERED |SLOT_READY |SLOT_ACTIVE | "
    assert slot["Serial No"] == "SN-C16-0003"
    assert slot["Card Type"] == "KTR9600-C16"
    uptime = slot["Up Time"]
    assert uptime["Hours"] == 0 and uptime["Minutes"] == 0 and 0 <= uptime["Seconds"] < 60


def test_four_port_card_comes_online_at_400(sandbox, daemon):
    handle, _ = start_chassis(sandbox, daemon)
    card_ready(sandbox, 6)
    sandbox.insert(6, pn="KTR9600-C4", sn="SN-C4-0006", rev=1)

    wait_online(sandbox, handle, 6)

    assert conf_slot_line(sandbox, 6) == conf_line(6, 400, 0, 400, 0, "Online", "enable")
    assert transitions(handle, 6) == NEW_CARD_PATH
    assert [call.args for call in sandbox.gearbox_calls()] == [gearbox_args(sandbox, 6)]


def test_removal_clears_all_but_synced_and_records_the_slot(sandbox, daemon):
    handle, _ = start_chassis(sandbox, daemon)
    card_ready(sandbox, 3)
    sandbox.insert(3, sn="SN-GONE")
    wait_online(sandbox, handle, 3)
    wait_until(lambda: sandbox.led_log(3) == ["orange", "green"], what="LED orange then green")

    sandbox.remove(3)
    wait_until(lambda: "Transitioned from 63 to SLOT_EMPTY" in handle.console(),
               what="the removal of slot 3")
    wait_until(lambda: conf_slot_line(sandbox, 3) == conf_line(3, 0, 0, 100, 0, "Offline", "enable"),
               what="cards.conf to record the removal")

    lines = console_lines(handle)
    assert "[SLOT3] transitions_detect.cpp:<N> Card type present:3\n" in lines
    assert "[SLOT3] transitions_detect.cpp:<N> port_speed setting for cards.conf- 100\n" in lines
    slot = status_document(sandbox, handle, 3)["slot3"]
    assert slot["STATE"] == "SLOT_SYNCED | "
    assert slot["Serial No"] == "none"
    assert slot["Card Type"] == "none"
    assert slot["Exp Event"] == "present"
    assert "Up Time" not in slot
    assert sandbox.led_log(3) == ["orange", "green"]  # removal leaves the LED alone
    assert len(portd_reloads(sandbox)) == 1


# ---------------------------------------------------------------- the reload of portd


def test_two_cards_inserted_together_share_one_reload(sandbox, daemon):
    # Slot 5's hardware is not played at first: its card stays short of
    # SYNCED, so slot 3 must wait for it.  Slot 5 is supervised meanwhile and
    # declared stuck (leaving the rendezvous) after 240 periods: a slower
    # clock keeps that well beyond the time this test takes to start the
    # emulator for it on a loaded machine.
    handle, _ = start_chassis(sandbox, daemon, emulate="3", scale=min(0.1, 0.02 * timeout_factor()))
    card_ready(sandbox, 3, 5)
    sandbox.insert(5, pn="KTR9600-C4", sn="SN5")
    wait_until(lambda: "Transitioned from 1 to SLOT_VERIFIED" in "".join(
        line for line in console_lines(handle) if line.startswith("[SLOT5]")), what="slot 5 verified")
    sandbox.insert(3, pn="KTR9600-C16", sn="SN3")

    holding = "reload_rendezvous.cpp:<N> Holding reload because of this slot 5\n"
    # Slot 3 re-enters the rendezvous every 3 s while slot 5 holds it.
    wait_until(lambda: console_lines(handle).count(holding) >= 2, what="slot 3 held by slot 5 twice")
    assert portd_reloads(sandbox) == []
    assert " Offline " in conf_slot_line(sandbox, 3)

    # Now slot 5's hardware answers: its power comes on and it syncs.
    sandbox.start_emulator("--slots", "5")
    write_once(sandbox.event(5, "powered"), "1")
    wait_online(sandbox, handle, 3, 5, timeout=20)

    assert len(portd_reloads(sandbox)) == 1
    assert len(envd_reloads(sandbox)) == 2
    assert sandbox.read(CONF) == conf_text({3: conf_line(3, 100, 0, 100, 0, "Online", "enable"),
                                            5: conf_line(5, 400, 0, 400, 0, "Online", "enable")})
    lines = console_lines(handle)
    reloading = [line for line in lines if "Reloading portd..." in line]
    assert len(reloading) == 1
    # Slot 3 re-entered the rendezvous every 3 s while slot 5 held it.
    slot3 = transitions(handle, 3)
    assert slot3.count("Transitioned to WAIT_RELOAD_PORTD") >= 2
    assert distinct_steps(slot3) == NEW_CARD_PATH
    assert transitions(handle, 5) == NEW_CARD_PATH


def test_pre_provisioned_slot_never_reloads_portd(sandbox, daemon):
    # Slot 4 pre-provisioned for the 16-port card; its INI is already in
    # the switch firmware.
    sandbox.sim_set("slot4/ini_identity", "3 2 5\n")
    sandbox.sim_set("slot4/ini_status", "3")
    handle, _ = start_chassis(sandbox, daemon,
                              conf=conf_text({4: conf_line(4, 0, 100, 100, 0, "Offline", "enable")}))
    card_ready(sandbox, 4)
    sandbox.insert(4, pn="KTR9600-C16", sn="SN4")

    wait_online(sandbox, handle, 4)

    assert portd_reloads(sandbox) == []
    assert len(envd_reloads(sandbox)) == 1
    assert conf_slot_line(sandbox, 4) == conf_line(4, 100, 100, 100, 0, "Online", "enable")
    # A synced event seen twice (file wake-up and timer) logs twice.
    assert distinct_steps(transitions(handle, 4)) == ["Transitioned from 0 to SLOT_PRESENT",
                                                      "Transitioned from 1 to SLOT_VERIFIED",
                                                      "Transitioned from 3 to SLOT_POWERED",
                                                      "Transitioned from 11 to SLOT_SYNCED",
                                                      "Transitioned from 11 to SLOT_READY",
                                                      "Transitioned from 27 to SLOT_ACTIVE"]
    assert "[SLOT4] transitions_power.cpp:<N> Checking INI for slot\n" not in console_lines(handle)


def test_failing_portd_reload_is_logged_and_the_card_still_comes_online(sandbox, daemon):
    handle, _ = start_chassis(sandbox, daemon)
    sandbox.systemctl_exit_code(1)
    card_ready(sandbox, 2)
    sandbox.insert(2)

    wait_online(sandbox, handle, 2)

    lines = console_lines(handle)
    assert "shell_command.cpp:<N> ERR process systemctl reload portd exited with 1 error code\n" in lines
    assert "shell_command.cpp:<N> ERR process systemctl reload envd exited with 1 error code\n" in lines
    assert "[SLOT2] transitions_ready.cpp:<N> ERR reload envd failed\n" in lines
    # portd has not taken the card's ports: its line stays dirty.
    assert conf_slot_line(sandbox, 2) == conf_line(2, 100, 0, 100, 1, "Online", "enable")
    assert len(portd_reloads(sandbox)) == 1


# ---------------------------------------------------------------- refused cards


def test_disabled_slot_powers_nothing_and_holds_no_reload(sandbox, daemon):
    handle, _ = start_chassis(sandbox, daemon,
                              conf=conf_text({6: conf_line(6, 0, 0, 0, 0, "Offline", "disable")}))
    card_ready(sandbox, 2, 6)
    sandbox.insert(6, sn="SN-DISABLED")
    wait_until(lambda: "[SLOT6] transitions_power.cpp:<N> card inserted in a slot that is disabled\n"
               in console_lines(handle), what="slot 6 refused")
    sandbox.insert(2, sn="SN-OK")

    wait_online(sandbox, handle, 2)

    assert sandbox.read("var/run/hw-management/system/lc6_pwr") == "0"
    assert sandbox.led_log(6) == []
    assert transitions(handle, 6) == ["Transitioned from 0 to SLOT_PRESENT"]
    assert len(portd_reloads(sandbox)) == 1
    assert conf_slot_line(sandbox, 6) == conf_line(6, 0, 0, 0, 0, "Offline", "disable")


def test_wrong_card_in_pre_provisioned_slot_stops_verified_without_power(sandbox, daemon):
    handle, _ = start_chassis(sandbox, daemon,
                              conf=conf_text({4: conf_line(4, 0, 400, 400, 0, "Offline", "enable")}))
    sandbox.insert(4, pn="KTR9600-C16", sn="SN-WRONG")

    wait_until(lambda: "[SLOT4] transitions_power.cpp:<N> ERR Different card inserted than what is "
               "pre-provisioned\n" in console_lines(handle), what="the wrong card refused")

    assert sandbox.read("var/run/hw-management/system/lc4_pwr") == "0"
    assert transitions(handle, 4) == ["Transitioned from 0 to SLOT_PRESENT", "Transitioned from 1 to SLOT_VERIFIED"]
    # No power: the slot stays PRESENT and VERIFIED (a repeated verified
    # event only re-arms the supervision, which never sees power).
    slot = status_document(sandbox, handle, 4)["slot4"]
    assert slot["STATE"] == "SLOT_PRESENT |SLOT_VERIFIED | "
    assert sandbox.led_log(4) == []
    assert conf_slot_line(sandbox, 4) == conf_line(4, 0, 400, 400, 0, "Offline", "enable")


def test_unsupported_card_stops_at_present(sandbox, daemon):
    handle, _ = start_chassis(sandbox, daemon)
    sandbox.insert(7, pn="KTR9600-X9", sn="SN-ODD")

    wait_until(lambda: "Unable to determine card type" in handle.console(), what="the card given up")

    assert "[SLOT7] transitions_detect.cpp:<N> ERR Unsupported line card inserted(vpd_value = KTR9600-X9)\n" \
        in console_lines(handle)
    assert transitions(handle, 7) == ["Transitioned from 0 to SLOT_PRESENT"]
    assert sandbox.read("var/run/hw-management/system/lc7_pwr") == "0"
    slot = status_document(sandbox, handle, 7)["slot7"]
    assert slot["STATE"] == "SLOT_PRESENT | "
    assert slot["Card Type"] == "none"


def test_part_number_with_suffix_is_the_16_port_card(sandbox, daemon):
    handle, _ = start_chassis(sandbox, daemon)
    card_ready(sandbox, 1)
    sandbox.insert(1, pn="KTR9600-C16XYZ", sn="SN-XYZ")

    wait_online(sandbox, handle, 1)

    assert conf_slot_line(sandbox, 1) == conf_line(1, 100, 0, 100, 0, "Online", "enable")
    assert status_document(sandbox, handle, 1)["slot1"]["Card Type"] == "KTR9600-C16"


def test_vpd_of_4095_bytes_or_more_warns_and_the_card_comes_up(sandbox, daemon):
    handle, _ = start_chassis(sandbox, daemon)
    card_ready(sandbox, 8)
    vpd = sandbox.base / "big_vpd.txt"
    vpd.write_text("PN_VPD_FIELD: KTR9600-C4\nSN_VPD_FIELD: SN-BIG\nHW_REV_FIELD: 1\n"
                   f"PAD_FIELD: {'x' * 5000}\n")
    sandbox.insert(8, pn="KTR9600-C4", rev=1, extra=("--vpd-text", vpd))

    wait_online(sandbox, handle, 8)

    assert "vpd.cpp:<N> WARN The VPD buffer read is overflowing\n" in console_lines(handle)
    assert status_document(sandbox, handle, 8)["slot8"]["Serial No"] == "SN-BIG"


# ---------------------------------------------------------------- failures on the way


def test_card_never_ready_is_reported_after_25_polls_and_still_activated(sandbox, daemon):
    handle, _ = start_chassis(sandbox, daemon)
    sandbox.sim_set("slot3/ready", "0")  # the SDK never reports this card ready
    sandbox.insert(3)

    wait_online(sandbox, handle, 3)

    lines = console_lines(handle)
    assert "[SLOT3] transitions_ready.cpp:<N> ERR Unable to get to ready state\n" in lines
    assert sum(1 for call in sandbox.sim_calls() if call == "ks_mgmt_slot_info_get slot=3") >= 25
    assert "ks_mgmt_slot_control_set slot=3 op=ACTIVATE" in sandbox.sim_calls()
    assert len(envd_reloads(sandbox)) == 1


def test_gearbox_exit_code_2_is_logged_then_update_done(sandbox, daemon):
    handle, _ = start_chassis(sandbox, daemon)
    sandbox.gearbox_exit_code(2)
    card_ready(sandbox, 3)
    sandbox.insert(3)

    wait_online(sandbox, handle, 3)

    command = " ".join((str(sandbox.gearbox),) + gearbox_args(sandbox, 3))
    lines = console_lines(handle)
    updating = lines.index("[SLOT3] transitions_ready.cpp:<N> Updating gearbox\n")
    done = lines.index("[SLOT3] transitions_ready.cpp:<N> gearbox update done\n")
    # Between the two, the ready step itself logs only the tool's exit code;
    # the main loop may log wake-ups of the slot meanwhile.
    assert [line for line in lines[updating + 1:done] if not from_main_loop(line)] == \
        [f"shell_command.cpp:<N> ERR process {command} exited with 2 error code\n"]


def test_failing_echo_skips_the_led_state_command(sandbox, daemon):
    orange = sandbox.path("var/run/hw-management/lc3/led/led_status_orange")
    orange.unlink()
    orange.mkdir()  # the append to a directory fails
    handle, _ = start_chassis(sandbox, daemon)
    card_ready(sandbox, 3)
    sandbox.insert(3)

    wait_online(sandbox, handle, 3)

    assert f"shell_command.cpp:<N> ERR process echo 255 >> {orange} exited with 2 error code\n" \
        in console_lines(handle)
    wait_until(lambda: sandbox.led_log(3) == ["green"], what="only the green LED applied")


def test_card_pulled_during_ready_transition_is_removed_afterwards(sandbox, daemon):
    handle, _ = start_chassis(sandbox, daemon)
    # The gearbox tool does not finish until the card is out: the removal
    # lands inside the ready step however slowly the machine runs.
    sandbox.gearbox_hold(True)
    card_ready(sandbox, 3)
    sandbox.insert(3)
    wait_until(lambda: "[SLOT3] transitions_ready.cpp:<N> Updating gearbox\n" in console_lines(handle),
               what="slot 3 in its ready step")

    sandbox.remove(3)
    sandbox.gearbox_hold(False)

    wait_until(lambda: "[SLOT3] transitions_detect.cpp:<N> Transitioned from 31 to SLOT_EMPTY\n"
               in console_lines(handle), what="the removal after the ready step")
    wait_until(lambda: conf_slot_line(sandbox, 3) == conf_line(3, 0, 0, 100, 0, "Offline", "enable"),
               what="cards.conf to record the removal")
    lines = console_lines(handle)
    assert lines.index("[SLOT3] transitions_ready.cpp:<N> Invoking reload envd\n") < \
        lines.index("[SLOT3] transitions_detect.cpp:<N> Transitioned from 31 to SLOT_EMPTY\n")
    assert "Transitioned from 31 to SLOT_ACTIVE" not in transitions(handle, 3)
    # The removal records cards.conf before it sets the slot to await a card.
    def awaiting_a_card():
        slot = status_document(sandbox, handle, 3)["slot3"]
        return slot if slot["Exp Event"] == "present" else None

    slot = wait_until(awaiting_a_card, what="slot 3 to await a card")
    assert slot["STATE"] == "SLOT_SYNCED | "
