"""Line-card administration over the control socket, against the running
daemon, with cards brought up by the hardware emulator."""

from conftest import CTL_HEADER, console_lines, console_records, ctl_exchange, ctl_request, padded, start_listening, wait_until

CONF_RELPATH = "etc/tarnel/cards.conf"
FAILURE = 0xFFFFFFF0  # -16
LINECARD_ENABLE, LINECARD_DISABLE, SHOW_SUMMARY = 3, 4, 5
PRE_PROVISION_ENABLE, PRE_PROVISION_DISABLE = 7, 8


def exchange(sandbox, data):
    # A reply may wait for a card to go down and for a reload of portd: a longer time-out.
    return ctl_exchange(sandbox, data, timeout=30)


def command(sandbox, cmd, slot, card_type=0, seq=1):
    """(status, status_str) of a 1,024-byte reply that echoes the request."""
    reply = exchange(sandbox, ctl_request(cmd, slot, seq=seq, card_type=card_type))
    assert len(reply) == 1024
    rcmd, length, rseq, rslot, status, rtype = CTL_HEADER.unpack(reply[:24])
    assert (rcmd, length, rseq, rslot, rtype) == (cmd, 24, seq, slot, card_type)
    return status, reply[24:152]


def slot_state(sandbox, slot):
    reply = exchange(sandbox, ctl_request(SHOW_SUMMARY, slot))
    return reply[24 + 76:24 + 108].split(b"\0", 1)[0].decode()


def bring_up(sandbox, slot):
    if not sandbox.emulators:
        sandbox.start_emulator()
    sandbox.insert(slot, pn="KTR9600-C16", sn=f"SN{slot:08d}", rev=2)
    wait_until(lambda: slot_state(sandbox, slot) == "Operational", timeout=20,
               what=f"slot {slot} to be operational")


def conf_line(sandbox, slot):
    for line in sandbox.read(CONF_RELPATH).splitlines():
        if line.split()[:1] == [str(slot)]:
            return line.split()
    return None


def test_enable_of_slot_0_answers_success_and_changes_nothing(sandbox, daemon):
    start_listening(sandbox, daemon)
    before = sandbox.read(CONF_RELPATH)
    status, _ = command(sandbox, LINECARD_ENABLE, 0)
    assert status == 0
    assert sandbox.read(CONF_RELPATH) == before


def test_enable_of_slot_9_answers_failure_without_a_log_line(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    status, text = command(sandbox, LINECARD_ENABLE, 9)
    assert status == FAILURE
    assert text == padded(b"Bad slot received from CTL cmd")
    lines = console_lines(handle)
    assert "ctl_admin.cpp:<N> Received CTL cmd LINECARD_ENABLE" in lines
    assert not any("Bad slot" in line for line in lines)


def test_pre_provision_of_card_type_2_is_refused(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    status, text = command(sandbox, PRE_PROVISION_ENABLE, 3, card_type=2)
    assert status == FAILURE
    assert text == padded(b"Attempting to pre-provision unsupported card type")
    # The refusal has no line feed: the control thread's reply line follows it
    # on the same console line, unless another thread writes in between.
    records = console_records(handle)
    refusal = ("[SLOT3] ctl_admin.cpp:<N> ERR Attempting to pre-provision unsupported card type, "
               "requested type = 2")
    reply = "ctl_admin.cpp:<N> sending response to client\n"
    assert refusal in records
    assert reply in records[records.index(refusal) + 1:]


def test_powered_enabled_slot_is_refused_until_disabled(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    bring_up(sandbox, 2)
    status, text = command(sandbox, PRE_PROVISION_ENABLE, 2, card_type=3)
    assert status == FAILURE
    assert text == padded(b"Remove active card or disable the slot before pre-provisioning")
    assert "[SLOT2] ctl_admin.cpp:<N> ERR Cannot pre-provision with active card in slot" in console_lines(handle)

    status, _ = command(sandbox, LINECARD_DISABLE, 2)
    assert status == 0
    assert conf_line(sandbox, 2)[-1] == "disable"
    wait_until(lambda: slot_state(sandbox, 2) == "Offline", what="slot 2 to go offline")
    status, _ = command(sandbox, PRE_PROVISION_ENABLE, 2, card_type=3)
    assert status == 0
    assert conf_line(sandbox, 2)[2] == "100G"


def test_disable_then_enable_brings_the_card_back(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    bring_up(sandbox, 6)
    status, _ = command(sandbox, LINECARD_DISABLE, 6)
    assert status == 0
    lines = console_lines(handle)
    assert "[SLOT6] ctl_admin.cpp:<N> Disable" in lines
    assert any(line.startswith("[SLOT6] ctl_admin.cpp:<N> un-ready state after ") for line in lines)
    assert sandbox.read("var/run/hw-management/system/lc6_pwr").endswith("0\n")
    assert ("reload", "envd") in [call.args for call in sandbox.systemctl_calls()]

    status, _ = command(sandbox, LINECARD_ENABLE, 6)
    assert status == 0
    assert conf_line(sandbox, 6)[-1] == "enable"
    wait_until(lambda: slot_state(sandbox, 6) == "Operational", timeout=20,
               what="slot 6 to be operational again")


def test_synced_file_reading_0_gives_the_timeout_after_two_waiting_lines(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    status, text = command(sandbox, PRE_PROVISION_ENABLE, 3, card_type=3)
    assert status == FAILURE
    assert text == padded(b"TIMEOUT: INI programing SYNC event\n")
    lines = [line for line in console_lines(handle) if "SYNC" in line]
    assert lines == ["[SLOT3] ctl_admin.cpp:<N> Waiting for SYNCED event",
                     "[SLOT3] ctl_admin.cpp:<N> Waiting for SYNCED event",
                     "[SLOT3] ctl_admin.cpp:<N> ERR TIMEOUT: INI programing SYNC event"]


def test_pre_provision_of_an_empty_slot_programs_the_ini_and_reloads_portd(sandbox, daemon):
    start_listening(sandbox, daemon)
    sandbox.write("var/run/hw-management/events/lc7_synced", "1")
    status, _ = command(sandbox, PRE_PROVISION_ENABLE, 7, card_type=3)
    assert status == 0
    assert ("reload", "portd") in [call.args for call in sandbox.systemctl_calls()]
    assert conf_line(sandbox, 7)[:5] == ["7", "100G", "100G", "100G", "0"]
    assert sandbox.sim_read("slot7/ini_identity") == "3 2 5\n"


def test_unprovision_with_a_failing_ini_reset_answers_0_with_the_text(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    sandbox.sim_set("faults", "ks_mgmt_slot_ini_operation_set 4\n")
    status, text = command(sandbox, PRE_PROVISION_DISABLE, 4)
    assert status == 0
    assert text == padded(b"INI programming for slot failed")
    assert "[SLOT4] ctl_admin.cpp:<N> ERR INI programming failed for slot" in console_lines(handle)


def test_unprovision_of_a_bad_slot_is_refused(sandbox, daemon):
    handle = start_listening(sandbox, daemon)
    status, text = command(sandbox, PRE_PROVISION_DISABLE, 9)
    assert status == FAILURE
    assert text == padded(b"Bad slot received from CTL cmd")
    assert "ctl_admin.cpp:<N> ERR Bad slot(9) received from CTL cmd" in console_lines(handle)


PORT_LIST_RELPATH = "etc/brl/chmgr_ports_list.txt"


def port_count(sandbox, slot):
    lines = sandbox.read(PORT_LIST_RELPATH).splitlines()
    return sum(1 for line in lines if not line.startswith("#") and line.split()[1:2] == [str(slot)])


def c4_disabled_and_provisioned_for_c16(sandbox, daemon, slot):
    """A 4-port card in service, then disabled and its slot pre-provisioned
    for the 16-port card (whose INI is programmed into the slot)."""
    handle = start_listening(sandbox, daemon)
    sandbox.start_emulator()
    sandbox.insert(slot, pn="KTR9600-C4", sn=f"SN{slot:08d}", rev=2)
    wait_until(lambda: slot_state(sandbox, slot) == "Operational", timeout=20, what=f"slot {slot} to be operational")
    assert port_count(sandbox, slot) == 4
    assert command(sandbox, LINECARD_DISABLE, slot)[0] == 0
    command(sandbox, PRE_PROVISION_ENABLE, slot, card_type=3)
    return handle


def test_card_in_a_slot_provisioned_for_another_type_keeps_its_own_type(sandbox, daemon):
    handle = c4_disabled_and_provisioned_for_c16(sandbox, daemon, 5)
    assert command(sandbox, LINECARD_ENABLE, 5)[0] == 0
    wrong = "[SLOT5] transitions_power.cpp:<N> ERR Different card inserted than what is pre-provisioned"
    wait_until(lambda: wrong in console_lines(handle), what="the card to be refused")
    assert slot_state(sandbox, 5) != "Operational"


def test_card_comes_back_with_its_own_ports_after_the_provisioning_is_taken_back(sandbox, daemon):
    c4_disabled_and_provisioned_for_c16(sandbox, daemon, 5)
    assert command(sandbox, PRE_PROVISION_DISABLE, 5)[0] == 0
    assert command(sandbox, LINECARD_ENABLE, 5)[0] == 0
    wait_until(lambda: slot_state(sandbox, 5) == "Operational", timeout=20, what="slot 5 to be operational again")
    assert port_count(sandbox, 5) == 4
    # cards.conf is briefly absent while the active step rewrites it.
    wait_until(lambda: conf_line(sandbox, 5)[1:4] == ["400G", "0G", "400G"], what="cards.conf for the 4-port card")
