"""chmgrctl, the administration client, against the running daemon (and,
for broken daemons, against small stand-in servers)."""

import json
import socket
import subprocess
import threading

import pytest

from conftest import (CTL_HEADER, SOCKET_RELPATH, built_binary, ctl_exchange, ctl_request, start_listening,
                      timeout_factor, wait_until)

DOCUMENT_RELPATH = "etc/tarnel/cm_status.json"
EMPTY_TABLE = ("SLOT  CARD TYPE  SERIAL NO  STATE  INI  PROVISIONED\n" +
               "".join(f"{s}     none       none       Empty  0.0  no\n" for s in range(1, 9)))


def client_binary():
    return built_binary("chmgrctl", "client")


def chmgrctl(sandbox, *args, env=None):
    run_env = dict(sandbox.env)
    run_env.update(env or {})
    return subprocess.run([str(client_binary()), *map(str, args)], env=run_env, capture_output=True,
                          text=True, stdin=subprocess.DEVNULL, timeout=60 * timeout_factor())


def bring_up(sandbox, slot):
    if not sandbox.emulators:
        sandbox.start_emulator()
    sandbox.insert(slot, pn="KTR9600-C16", sn=f"SN{slot:08d}", rev=2)
    wait_until(lambda: json.loads(chmgrctl(sandbox, "show", slot, "--json").stdout)["slots"][0]["state"]
               == "Operational", timeout=20, what=f"slot {slot} to be operational")


class StandInServer:
    """A one-connection-at-a-time server at `path` answering every request with `reply(request)`."""

    def __init__(self, path, reply):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.bind(str(path))
        self.sock.listen(4)
        self.reply = reply
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()

    def serve(self):
        while True:
            try:
                conn, _ = self.sock.accept()
            except OSError:
                return
            with conn:
                data = conn.recv(1024)
                conn.sendall(self.reply(data))

    def close(self):
        self.sock.shutdown(socket.SHUT_RDWR)
        self.sock.close()
        self.thread.join(5)


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
    assert json.loads(result.stdout) == {"slots": [
        {"slot": s, "card_type": "none", "serial_no": "none", "state": "Empty", "ini_major": 0,
         "ini_minor": 0, "provisioned": False} for s in range(1, 9)]}
    assert result.stdout.startswith('{\n  "slots": [\n    {\n      "slot": 1,\n')
    assert result.stdout.endswith("}\n")


def test_show_and_detail_of_an_operational_card(sandbox, daemon):
    start_listening(sandbox, daemon)
    bring_up(sandbox, 3)
    show = chmgrctl(sandbox, "show", "3")
    assert show.stdout == ("SLOT  CARD TYPE    SERIAL NO   STATE        INI  PROVISIONED\n"
                           "3     KTR9600-C16  SN00000003  Operational  2.5  no\n")
    detail = chmgrctl(sandbox, "detail", "3")
    assert detail.stdout == ("Slot 3\n"
                             "  Card type:    KTR9600-C16\n"
                             "  Serial no:    SN00000003\n"
                             "  State:        Operational\n"
                             "  INI major:    2\n"
                             "  INI minor:    5\n"
                             "  Provisioned:  no\n")
    as_json = json.loads(chmgrctl(sandbox, "detail", "3", "--json").stdout)
    assert as_json == {"slots": [{"slot": 3, "card_type": "KTR9600-C16", "serial_no": "SN00000003",
                                  "state": "Operational", "ini_major": 2, "ini_minor": 5,
                                  "provisioned": False}]}


def test_detail_of_all_slots_prints_eight_blocks(sandbox, daemon):
    start_listening(sandbox, daemon)
    result = chmgrctl(sandbox, "detail")
    assert result.returncode == 0
    blocks = result.stdout.split("\n\n")
    assert len(blocks) == 8
    assert blocks[7] == ("Slot 8\n  Card type:    none\n  Serial no:    none\n  State:        Empty\n"
                         "  INI major:    0\n  INI minor:    0\n  Provisioned:  no\n")


# ---------------------------------------------------------------- administration


def test_enable_and_disable_report_each_slot_or_all(sandbox, daemon):
    start_listening(sandbox, daemon)
    assert chmgrctl(sandbox, "enable", "2").stdout == "slot 2: enabled\n"
    assert chmgrctl(sandbox, "disable", "all").stdout == "all slots: disabled\n"
    assert all(line.endswith("disable") for line in sandbox.read("etc/tarnel/cards.conf").splitlines())
    result = chmgrctl(sandbox, "enable", "all", "--json")
    assert result.returncode == 0
    assert json.loads(result.stdout) == {"command": "enable", "slot": "all", "status": 0}
    result = chmgrctl(sandbox, "disable", "5", "--json")
    assert json.loads(result.stdout) == {"command": "disable", "slot": 5, "status": 0}


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
    assert json.loads(as_json.stdout) == {
        "command": "provision", "slot": 2, "status": -16,
        "message": "Remove active card or disable the slot before pre-provisioning"}


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
    result = chmgrctl(sandbox, "--json", "provision", "7", "C16")
    assert (result.returncode, json.loads(result.stdout)) == (0, {"command": "provision", "slot": 7, "status": 0})
    result = chmgrctl(sandbox, "--json", "unprovision", "7")
    assert (result.returncode, json.loads(result.stdout)) == (0, {"command": "unprovision", "slot": 7, "status": 0})


def test_unprovision_warns_with_the_text_of_a_failed_step(sandbox, daemon):
    start_listening(sandbox, daemon)
    sandbox.sim_set("faults", "ks_mgmt_slot_ini_operation_set 4\n")
    result = chmgrctl(sandbox, "unprovision", "4")
    assert result.returncode == 0
    assert result.stdout == "slot 4: pre-provisioning removed\n"
    assert result.stderr == "chmgrctl: warning: slot 4: INI programming for slot failed\n"
    as_json = chmgrctl(sandbox, "unprovision", "4", "--json")
    assert json.loads(as_json.stdout) == {"command": "unprovision", "slot": 4, "status": 0,
                                          "warning": "INI programming for slot failed"}


# ---------------------------------------------------------------- status


def test_status_json_is_the_status_document(sandbox, daemon):
    start_listening(sandbox, daemon)
    result = chmgrctl(sandbox, "status", "--json")
    assert result.returncode == 0
    assert result.stdout == sandbox.read(DOCUMENT_RELPATH) + "\n"
    assert list(json.loads(result.stdout)) == ["chassis", "Log"] + [f"slot{s}" for s in range(1, 9)]


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
    for word in ("show", "detail", "enable", "disable", "provision", "unprovision", "status", "--socket",
                 "--json"):
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
])
def test_usage_errors_exit_2(sandbox, args, message):
    result = chmgrctl(sandbox, *args)
    assert result.returncode == 2
    assert result.stdout == ""
    assert result.stderr == f"chmgrctl: {message}\nTry 'chmgrctl --help' for more information.\n"
