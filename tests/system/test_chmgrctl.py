"""chmgrctl, the administration client, against the running daemon (and,
for broken daemons, against small stand-in servers)."""

import json

import pytest

from chmgrctl_support import StandInServer, bring_up, chmgrctl, chmgrctl_json
from conftest import CTL_HEADER, SOCKET_RELPATH, ctl_exchange, ctl_request, start_listening, wait_until
from json_schema_subset import KNOWN_KEYWORDS, assert_valid, errors, load_schema

DOCUMENT_RELPATH = "etc/tarnel/cm_status.json"
EMPTY_TABLE = ("SLOT  STATE  ADMIN    STAGE  CARD  SERIAL  UP TIME\n" +
               "".join(f"{s}     Empty  enabled  -      -     none    -\n" for s in range(1, 9)) + "\n" +
               "".join(f"slot {s}: no card in the slot\n" for s in range(1, 9)))


def empty_slot(slot):
    return {"slot": slot, "oper_state": "Empty", "admin_state": "enabled", "stage": None, "stuck": False,
            "awaited_event": "present", "provisioned": False, "provisioned_type": None, "card_type": None,
            "part_number": None, "serial_no": None, "hw_revision": 0, "ini_minor": 0, "ports": 0, "up_time_seconds": None,
            "reason": "no card in the slot"}


# ---------------------------------------------------------------- show and detail


def test_show_prints_a_table_of_all_slots(sandbox, daemon):
    start_listening(sandbox, daemon)
    result = chmgrctl(sandbox, "show")
    assert (result.returncode, result.stdout, result.stderr) == (0, EMPTY_TABLE, "")
    assert chmgrctl(sandbox, "show", "all").stdout == EMPTY_TABLE


def test_show_json_lists_every_slot(sandbox, daemon):
    start_listening(sandbox, daemon)
    result = chmgrctl(sandbox, "--json", "show")
    assert result.returncode == 0
    assert json.loads(result.stdout) == {"schema_version": 2, "command": "show",
                                         "slots": [empty_slot(s) for s in range(1, 9)]}
    assert result.stdout.startswith('{\n  "schema_version": 2,\n  "command": "show",\n  "slots": [\n')
    assert result.stdout.endswith("}\n")


def test_show_and_detail_of_an_operational_card(sandbox, daemon):
    start_listening(sandbox, daemon)
    bring_up(sandbox, 3)
    # The active step marks the card Operational before it records that the
    # slot now awaits its removal.
    wait_until(lambda: chmgrctl_json(sandbox, "detail", "3")["slots"][0]["awaited_event"] == "empty",
               what="slot 3 to await its removal")
    show = chmgrctl(sandbox, "show", "3")
    lines = show.stdout.splitlines()
    assert lines[0] == "SLOT  STATE        ADMIN    STAGE   CARD  SERIAL      UP TIME"
    assert lines[1].startswith("3     Operational  enabled  ACTIVE  C16   SN00000003  ")
    assert lines[1].split("  ")[-1].endswith("s")
    assert len(lines) == 2  # no reason for a slot in service
    wide = chmgrctl(sandbox, "show", "3", "--wide").stdout.splitlines()
    assert wide[0] == ("SLOT  STATE        ADMIN    STAGE   AWAITING  PROV  CARD  SERIAL      HW REV  PORTS  "
                       "UP TIME  REASON")
    assert wide[1].startswith("3     Operational  enabled  ACTIVE  empty     -     C16   SN00000003  2       16     ")
    assert wide[1].endswith("  -")
    detail = chmgrctl(sandbox, "detail", "3").stdout.splitlines()
    assert detail[:12] == ["Slot 3", "  State:        Operational", "  Admin state:  enabled",
                           "  Stage:        ACTIVE", "  Awaiting:     empty", "  Reason:       -",
                           "  Card type:    KTR9600-C16", "  Serial no:    SN00000003", "  HW revision:  2",
                           "  INI minor:    5", "  Ports:        16", "  Provisioned:  -"]
    assert detail[12].startswith("  Up time:      ")
    as_json = chmgrctl_json(sandbox, "detail", "3")
    slot = as_json["slots"][0]
    assert slot.pop("up_time_seconds") >= 0
    assert as_json == {"schema_version": 2, "command": "detail", "slots": [slot]}
    assert slot == {"slot": 3, "oper_state": "Operational", "admin_state": "enabled", "stage": "ACTIVE",
                    "stuck": False, "awaited_event": "empty", "provisioned": False, "provisioned_type": None,
                    "card_type": "KTR9600-C16", "part_number": None, "serial_no": "SN00000003", "hw_revision": 2,
                    "ini_minor": 5,
                    "ports": 16, "reason": None}


def test_detail_of_all_slots_prints_eight_blocks(sandbox, daemon):
    start_listening(sandbox, daemon)
    result = chmgrctl(sandbox, "detail")
    assert result.returncode == 0
    blocks = result.stdout.split("\n\n")
    assert len(blocks) == 8
    assert blocks[7] == ("Slot 8\n  State:        Empty\n  Admin state:  enabled\n  Stage:        -\n"
                         "  Awaiting:     present\n  Reason:       no card in the slot\n  Card type:    none\n"
                         "  Serial no:    none\n  HW revision:  0\n  INI minor:    0\n  Ports:        -\n"
                         "  Provisioned:  -\n  Up time:      -\n")


# ---------------------------------------------------------------- administration


def test_enable_and_disable_report_each_slot_or_all(sandbox, daemon):
    start_listening(sandbox, daemon)
    assert chmgrctl(sandbox, "enable", "2").stdout == "slot 2: enabled\n"
    assert chmgrctl(sandbox, "disable", "all").stdout == "".join(f"slot {s}: disabled\n" for s in range(1, 9))
    assert all(line.endswith("disable") for line in sandbox.read("etc/tarnel/cards.conf").splitlines())
    result = chmgrctl(sandbox, "enable", "all", "--json")
    assert result.returncode == 0
    assert json.loads(result.stdout) == {"schema_version": 2, "command": "enable", "slot": "all", "status": 0,
                                         "results": [{"slot": s, "status": 0} for s in range(1, 9)]}
    assert chmgrctl_json(sandbox, "disable", "5") == {"schema_version": 2, "command": "disable", "slot": 5,
                                                     "status": 0, "results": [{"slot": 5, "status": 0}]}


def test_success_never_shows_the_stale_text_of_an_earlier_failure(sandbox, daemon):
    start_listening(sandbox, daemon)
    stale = ctl_exchange(sandbox, ctl_request(3, 9))  # a failed enable leaves its text in the daemon's buffer
    assert stale[24:54] == b"Bad slot received from CTL cmd"
    result = chmgrctl(sandbox, "enable", "1")
    assert (result.returncode, result.stdout, result.stderr) == (0, "slot 1: enabled\n", "")


def test_provision_refused_for_an_active_card_exits_1_with_the_daemon_text(sandbox, daemon):
    start_listening(sandbox, daemon)
    bring_up(sandbox, 2)
    result = chmgrctl(sandbox, "provision", "2", "C4")
    assert result.returncode == 1
    assert result.stdout == ""
    assert result.stderr == ("chmgrctl: provision slot 2 failed: Remove active card or disable the slot "
                             "before pre-provisioning\n")
    as_json = chmgrctl(sandbox, "provision", "2", "C4", "--json")
    assert as_json.returncode == 1
    text = "Remove active card or disable the slot before pre-provisioning"
    assert json.loads(as_json.stdout) == {"schema_version": 2, "command": "provision", "slot": 2, "status": -16,
                                          "results": [{"slot": 2, "status": -16, "message": text}]}


def test_provision_timeout_text_is_shown_without_its_line_feed(sandbox, daemon):
    start_listening(sandbox, daemon)
    result = chmgrctl(sandbox, "provision", "3", "KTR9600-C16")
    assert result.returncode == 1
    assert result.stderr == "chmgrctl: provision slot 3 failed: TIMEOUT: INI programing SYNC event\n"


def test_provision_and_unprovision_of_an_empty_slot(sandbox, daemon):
    start_listening(sandbox, daemon)
    sandbox.write("var/run/hw-management/events/lc7_synced", "1")
    result = chmgrctl(sandbox, "provision", "7", "c16")
    assert (result.returncode, result.stdout, result.stderr) == (
        0, "slot 7: pre-provisioned for KTR9600-C16\n", "")
    assert chmgrctl(sandbox, "show", "7", "--json").stdout.count('"provisioned": true') == 1
    result = chmgrctl(sandbox, "unprovision", "7")
    assert (result.returncode, result.stdout, result.stderr) == (0, "slot 7: pre-provisioning removed\n", "")
    assert chmgrctl(sandbox, "show", "7", "--json").stdout.count('"provisioned": false') == 1
    assert chmgrctl_json(sandbox, "provision", "7", "C16") == {
        "schema_version": 2, "command": "provision", "slot": 7, "status": 0, "results": [{"slot": 7, "status": 0}]}
    assert chmgrctl_json(sandbox, "show", "7")["slots"][0]["provisioned_type"] == "C16"
    assert chmgrctl_json(sandbox, "unprovision", "7") == {
        "schema_version": 2, "command": "unprovision", "slot": 7, "status": 0,
        "results": [{"slot": 7, "status": 0}]}


def test_unprovision_warns_with_the_text_of_a_failed_step(sandbox, daemon):
    start_listening(sandbox, daemon)
    sandbox.sim_set("faults", "ks_mgmt_slot_ini_operation_set 4\n")
    result = chmgrctl(sandbox, "unprovision", "4")
    assert result.returncode == 0
    assert result.stdout == "slot 4: pre-provisioning removed\n"
    assert result.stderr == "chmgrctl: warning: slot 4: INI programming for slot failed\n"
    assert chmgrctl_json(sandbox, "unprovision", "4") == {
        "schema_version": 2, "command": "unprovision", "slot": 4, "status": 0,
        "results": [{"slot": 4, "status": 0, "warning": "INI programming for slot failed"}]}


# ---------------------------------------------------------------- status


def test_status_json_raw_is_the_status_document(sandbox, daemon):
    start_listening(sandbox, daemon)
    result = chmgrctl(sandbox, "status", "--json", "--raw")
    assert result.returncode == 0
    assert result.stdout == sandbox.read(DOCUMENT_RELPATH) + "\n"
    assert list(json.loads(result.stdout)) == ["chassis", "Log"] + [f"slot{s}" for s in range(1, 9)]


def test_status_json_translates_the_status_document(sandbox, daemon):
    start_listening(sandbox, daemon)
    bring_up(sandbox, 4)
    wait_until(lambda: chmgrctl_json(sandbox, "status", "4")["slots"][0]["awaited_event"] == "empty",
               what="slot 4 to await nothing more")
    translated = chmgrctl_json(sandbox, "status", "4")
    document = json.loads(sandbox.read(DOCUMENT_RELPATH))
    raw = document["slot4"]
    assert list(translated) == ["schema_version", "command", "chassis", "log", "slots"]
    assert translated["chassis"] == "KTR9600"
    assert translated["log"] == [line.rstrip("\n") for line in document["Log"]]
    slot = translated["slots"][0]
    assert slot == {
        "slot": 4, "state": raw["STATE"].rstrip(" "), "awaited_event": "empty", "card_type": "KTR9600-C16",
        "provisioned": False, "admin_state": "enabled", "serial_no": "SN00000004", "stuck": False,
        "up_time_seconds": raw["Up Time"]["Hours"] * 3600 + raw["Up Time"]["Minutes"] * 60 + raw["Up Time"]["Seconds"],
        "log": [line.rstrip("\n") for line in raw["Log"]]}
    assert all(not line.endswith("\n") for line in slot["log"]) and slot["log"]


def test_status_of_an_active_card_for_people(sandbox, daemon):
    start_listening(sandbox, daemon)
    bring_up(sandbox, 4)
    # The active transition sets the state bit before it stops awaiting events.
    result = wait_until(lambda: (lambda r: r if "  Expected event:  empty\n" in r.stdout else None)(
        chmgrctl(sandbox, "status", "4")), what="slot 4 to await nothing more")
    assert result.returncode == 0
    lines = result.stdout.splitlines()
    assert lines[:9] == ["Chassis: KTR9600", "", "Slot 4",
                         "  State:           SLOT_PRESENT |SLOT_VERIFIED |SLOT_SYNCED |SLOT_POWERED |"
                         "SLOT_READY |SLOT_ACTIVE |",
                         "  Expected event:  empty", "  Card type:       KTR9600-C16",
                         "  Provisioned:     no", "  Disabled:        no", "  Serial no:       SN00000004"]
    assert lines[9].startswith("  Up time:         0 h ")
    assert lines[10] == "  Log:"
    assert "Daemon log:" in lines


def test_status_of_an_empty_slot_reads_none(sandbox, daemon):
    start_listening(sandbox, daemon)
    lines = chmgrctl(sandbox, "status", "1").stdout.splitlines()
    assert lines[3] == "  State:           none"
    assert lines[9] == "  Up time:         -"


# ---------------------------------------------------------------- failures and usage


def test_missing_daemon_is_explained(sandbox):
    result = chmgrctl(sandbox, "show")
    path = sandbox.path(SOCKET_RELPATH)
    assert result.returncode == 3
    assert result.stdout == ""
    assert result.stderr == (f"chmgrctl: cannot connect to chassis-mgr at {path}: No such file or directory "
                             "(is the daemon running?)\n")


def test_socket_option_overrides_the_root(sandbox, daemon):
    start_listening(sandbox, daemon)
    result = chmgrctl(sandbox, "--socket", sandbox.path(SOCKET_RELPATH), "show",
                      env={"CHMGR_ROOT": "/nonexistent"})
    assert result.stdout == EMPTY_TABLE
    result = chmgrctl(sandbox, f"--socket={sandbox.path(SOCKET_RELPATH)}", "show", "8")
    assert result.returncode == 0


def test_daemon_closing_without_a_reply_is_reported(sandbox):
    path = sandbox.base / "closing.sock"
    server = StandInServer(path, lambda request: b"")
    try:
        for args in (("status", "3"), ("show",), ("enable", "1")):
            result = chmgrctl(sandbox, "--socket", path, *args)
            assert result.returncode == 3, args
            assert result.stderr == ("chmgrctl: chassis-mgr closed the connection without a reply "
                                     "(the request was refused)\n")
        result = chmgrctl(sandbox, "--socket", path, "disable", "all", "--json")
        assert (result.returncode, result.stdout) == (3, "")  # no outcome to report, not a success
    finally:
        server.close()


def test_short_or_foreign_replies_are_reported(sandbox):
    path = sandbox.base / "short.sock"
    server = StandInServer(path, lambda request: request[:24] + b"\0" * 100)
    try:
        result = chmgrctl(sandbox, "--socket", path, "show")
        assert result.returncode == 3
        assert result.stderr == "chmgrctl: short reply from chassis-mgr (124 of 1024 bytes)\n"
    finally:
        server.close()
    path = sandbox.base / "foreign.sock"
    server = StandInServer(path, lambda request: CTL_HEADER.pack(5, 1024, 0, 255, 0, 0) + b"\0" * 1000)
    try:
        result = chmgrctl(sandbox, "--socket", path, "show")
        assert result.returncode == 3
        assert result.stderr.startswith("chmgrctl: unexpected reply from chassis-mgr")
    finally:
        server.close()


def test_status_without_a_document_is_reported(sandbox):
    path = sandbox.base / "nodoc.sock"
    server = StandInServer(path, lambda request: request[:24] + b"JSON output error\n")
    try:
        result = chmgrctl(sandbox, "--socket", path, "status")
        assert result.returncode == 1
        assert result.stderr == "chmgrctl: chassis-mgr sent no status document: JSON output error\n"
    finally:
        server.close()


def test_help_and_version(sandbox):
    result = chmgrctl(sandbox, "--help")
    assert result.returncode == 0
    assert result.stdout.startswith("Usage: chmgrctl [OPTIONS] COMMAND [ARGUMENTS]\n")
    for word in ("show", "detail", "enable", "disable", "provision", "unprovision", "status", "watch",
                 "--socket", "--json", "--timeout", "--until-online", "--wide", "--raw"):
        assert word in result.stdout
    result = chmgrctl(sandbox, "--version")
    assert result.returncode == 0
    assert result.stdout.startswith("chmgrctl (chassis-mgr) ")


@pytest.mark.parametrize("args, message", [
    ((), "no command given"),
    (("reboot",), "unknown command 'reboot'"),
    (("show", "9"), "invalid slot '9' (expected 1 to 8 or all)"),
    (("show", "0"), "invalid slot '0' (expected 1 to 8 or all)"),
    (("enable",), "'enable' needs a slot"),
    (("provision", "3"), "'provision' needs a slot and a card type"),
    (("provision", "all", "C4"), "invalid slot 'all' (expected 1 to 8)"),
    (("provision", "3", "C8"), "invalid card type 'C8' (expected C4 or C16)"),
    (("unprovision", "3", "4"), "too many arguments for 'unprovision'"),
    (("--bogus", "show"), "unknown option '--bogus'"),
    (("show", "--socket"), "option '--socket' needs a path"),
    (("show", "--timeout"), "option '--timeout' needs a value"),
    (("show", "--timeout", "0"), "invalid time limit '0' (expected seconds, more than 0)"),
    (("show", "--timeout=soon"), "invalid time limit 'soon' (expected seconds, more than 0)"),
    (("show", "--until-online", "3"), "option '--until-online' belongs to 'watch'"),
    (("watch", "2", "--until-online", "3"), "slot 3 of '--until-online' is not watched"),
    (("watch", "--until-online", "9"), "invalid slot '9' (expected 1 to 8)"),
    (("watch", "--interval", "-1"), "invalid interval '-1' (expected seconds, more than 0)"),
    (("show", "--raw"), "option '--raw' belongs to 'status'"),
])
def test_usage_errors_exit_2(sandbox, args, message):
    result = chmgrctl(sandbox, *args)
    assert result.returncode == 2
    assert result.stdout == ""
    assert result.stderr == f"chmgrctl: {message}\nTry 'chmgrctl --help' for more information.\n"


# ---------------------------------------------------------------- the JSON form


def test_every_json_output_follows_the_documented_schema(sandbox, daemon):
    start_listening(sandbox, daemon)
    sandbox.write("var/run/hw-management/events/lc7_synced", "1")
    outputs = {}
    for args in (("show",), ("show", "2"), ("detail",), ("detail", "8"), ("status",), ("status", "5"),
                 ("enable", "all"), ("disable", "3"), ("enable", "3"), ("provision", "7", "C16"),
                 ("unprovision", "7"), ("provision", "6", "C4")):
        result = chmgrctl(sandbox, *args, "--json")
        value = json.loads(result.stdout)
        assert_valid(value)
        assert value["schema_version"] == 2
        assert value["command"] == args[0]
        outputs[args] = value
    assert outputs[("provision", "6", "C4")]["status"] == -16  # a refusal follows the same form
    watch = chmgrctl(sandbox, "watch", "--json", "--timeout", "0.3", "--interval", "0.1")
    lines = [json.loads(line) for line in watch.stdout.splitlines()]
    assert [line["event"] for line in lines] == ["slot"] * 8 + ["end"]
    for line in lines:
        assert_valid(line)


def schema_keywords(node):
    """Every keyword used anywhere in a schema (property and definition names excluded)."""
    found = set()
    if isinstance(node, dict):
        for key, value in node.items():
            found.add(key)
            children = value.values() if key in ("properties", "$defs") else [value]
            for child in children:
                found |= schema_keywords(child)
    elif isinstance(node, list):
        for element in node:
            found |= schema_keywords(element)
    return found


def test_the_schema_uses_only_what_the_tests_check():
    schema = load_schema()
    assert schema_keywords(schema) <= KNOWN_KEYWORDS
    assert errors({}, schema)  # an empty object matches no output
