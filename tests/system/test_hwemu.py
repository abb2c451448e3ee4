"""Tests of tools/chmgr-hwemu, the emulated hardware-management tree."""

import ctypes
import os
import struct
import subprocess
import time
from pathlib import Path

import pytest

from conftest import HWEMU, ctl_exchange, ctl_request, start_listening, timeout_factor, wait_until

EVENTS = ("present", "verified", "synced", "powered", "active", "ready")
HW = "var/run/hw-management"
IN_CLOSE_WRITE = 0x8
EVENT_HEADER = struct.Struct("iIII")  # wd, mask, cookie, len


class Inotify:
    """Minimal inotify reader (names of the files closed after writing)."""

    def __init__(self):
        self.libc = ctypes.CDLL(None, use_errno=True)
        self.fd = self.libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        assert self.fd >= 0, os.strerror(ctypes.get_errno())
        self.dirs = {}

    def watch(self, directory, mask=IN_CLOSE_WRITE):
        wd = self.libc.inotify_add_watch(self.fd, os.fsencode(str(directory)), mask)
        assert wd >= 0, os.strerror(ctypes.get_errno())
        self.dirs[wd] = Path(directory).name

    def read(self):
        """All queued events as "dir/name" strings, in the order they happened."""
        names = []
        while True:
            try:
                data = os.read(self.fd, 65536)
            except BlockingIOError:
                return names
            offset = 0
            while offset < len(data):
                wd, mask, _cookie, length = EVENT_HEADER.unpack_from(data, offset)
                offset += EVENT_HEADER.size
                name = data[offset:offset + length].rstrip(b"\0").decode()
                offset += length
                if mask & IN_CLOSE_WRITE:
                    names.append(f"{self.dirs[wd]}/{name}")

    def close(self):
        os.close(self.fd)


@pytest.fixture
def inotify():
    watcher = Inotify()
    yield watcher
    watcher.close()


def run_hwemu(*args, env=None):
    return subprocess.run([str(HWEMU), *map(str, args)], capture_output=True, text=True,
                          env=env, stdin=subprocess.DEVNULL, check=False)


def events_of(sandbox, slot):
    return {name: sandbox.event(slot, name).read_text() for name in EVENTS}


def eeprom(sandbox, slot):
    return sandbox.path(f"{HW}/lc{slot}/eeprom")


# ---------------------------------------------------------------- help and arguments


@pytest.mark.parametrize("command", ["", "create", "insert", "remove", "event", "show", "run"])
def test_help_is_available_for_the_tool_and_every_command(command):
    result = run_hwemu(*([command] if command else []), "--help")
    assert result.returncode == 0
    assert result.stdout.startswith(f"usage: chmgr-hwemu {command}".rstrip())


@pytest.mark.parametrize("args", [["insert", "9", "--pn", "X", "--sn", "Y", "--rev", "1"],
                                  ["insert", "0", "--pn", "X", "--sn", "Y", "--rev", "1"],
                                  ["event", "3", "bogus", "1"],
                                  ["run", "--slots", "0"],
                                  ["run", "--slots", "3-9"],
                                  ["run", "--sync-empty", "9"],
                                  ["frobnicate"]])
def test_bad_arguments_are_refused_with_status_2(sandbox, args):
    assert sandbox.hwemu(*args, check=False).returncode == 2


def test_commands_other_than_create_need_a_tree(tmp_path):
    result = run_hwemu("--root", tmp_path / "empty", "remove", "3")
    assert result.returncode == 1
    assert result.stderr == (f"chmgr-hwemu: no hardware-management tree under {tmp_path}/empty; "
                             "run 'create' first\n")


def test_root_comes_from_the_option_after_the_command_or_the_environment(tmp_path):
    env = dict(os.environ, CHMGR_ROOT=str(tmp_path / "from-env"))
    assert run_hwemu("create", env=env).returncode == 0
    assert (tmp_path / "from-env" / HW / "events" / "lc8_ready").read_text() == "0"
    assert run_hwemu("create", "--root", tmp_path / "from-opt", env=env).returncode == 0
    assert (tmp_path / "from-opt" / "etc/tarnel/cards.conf").exists()


# ---------------------------------------------------------------- create


CARDS_CONF = (
    "1       0G        0G                 0G        0  Offline   enable\n"
    "2       0G        0G                 0G        0  Offline   enable\n"
    "3       0G        0G                 0G        0  Offline   enable\n"
    "4       0G        0G                 0G        0  Offline   enable\n"
    "5       0G        0G                 0G        0  Offline   enable\n"
    "6       0G        0G                 0G        0  Offline   enable\n"
    "7       0G        0G                 0G        0  Offline   enable\n"
    "8       0G        0G                 0G        0  Offline   enable\n"
)


def test_create_makes_every_file_with_its_content(tmp_path):
    root = tmp_path / "root"
    assert run_hwemu("--root", root, "create", "--kernel-release", "5.10.0-test").returncode == 0
    hw = root / HW
    for slot in range(1, 9):
        for name in EVENTS:
            assert (hw / f"events/lc{slot}_{name}").read_bytes() == b"0"
        assert (hw / f"system/lc{slot}_pwr").read_bytes() == b"0"
        assert (hw / f"system/lc{slot}_enable").read_bytes() == b"0"
        led = hw / f"lc{slot}/led"
        assert (led / "led_status_orange").read_bytes() == b""
        assert (led / "led_status_green").read_bytes() == b""
        assert os.access(led / "led_status_state", os.X_OK)
        assert list((hw / f"lc{slot}/eeprom").iterdir()) == []
    assert (root / "etc/tarnel/cards.conf").read_text() == CARDS_CONF
    assert (root / "etc/tarnel/debug_slot").read_bytes() == b""
    assert (root / "etc/brl/chmgr_ports_list.txt").read_text() == (
        "#Automatically generated by portd\n#Do not edit.\n"
        "#entry      slot        module_port        local_port\n")
    for directory in ("etc/brl", "run/chassismgr", "var/log", "var/run/ks-sim"):
        assert (root / directory).is_dir()
    gearbox = root / "usr/lib/tarnel/brlgbfwupgrade.ks"
    assert os.access(gearbox, os.X_OK)
    assert subprocess.run([str(gearbox), "-s", "1"], check=False).returncode == 0
    image = (root / "usr/share/borlin/firmware/5.10.0-test/INI/"
             "Buff_KTR9600-C16_INI_EPROM_v1.bin").read_bytes()
    assert len(image) == 1300
    assert image[:5] == bytes([0x05, 0x00, 0x00, 0x02, 0x02])


def test_create_names_the_image_directory_after_the_running_kernel(tmp_path):
    assert run_hwemu("--root", tmp_path, "create").returncode == 0
    listed = list((tmp_path / "usr/share/borlin/firmware").iterdir())
    assert [p.name for p in listed] == [os.uname().release]


def test_shipped_image_is_the_same_in_every_tree(tmp_path):
    images = []
    for name in ("a", "b"):
        result = run_hwemu("--root", tmp_path / name, "create", "--kernel-release", "r")
        assert result.returncode == 0
        images.append((tmp_path / name / "usr/share/borlin/firmware/r/INI/"
                       "Buff_KTR9600-C16_INI_EPROM_v1.bin").read_bytes())
    assert images[0] == images[1]


def test_create_again_keeps_existing_files_and_adds_missing_ones(sandbox):
    sandbox.write(f"{HW}/events/lc1_present", "1")
    sandbox.write("etc/tarnel/cards.conf", "# administrator's file\n")
    sandbox.event(2, "ready").unlink()
    sandbox.hwemu("create")
    assert sandbox.read(f"{HW}/events/lc1_present") == "1"
    assert sandbox.read("etc/tarnel/cards.conf") == "# administrator's file\n"
    assert sandbox.read(f"{HW}/events/lc2_ready") == "0"


def test_create_warns_about_a_root_the_daemon_would_refuse(tmp_path):
    result = run_hwemu("--root", tmp_path / "a b", "create")
    assert result.returncode == 0
    assert result.stderr == (f"chmgr-hwemu: warning: the daemon refuses the root "
                             f"'{tmp_path}/a b' (allowed: letters, digits and /._-+)\n")


def test_led_state_records_the_colour_written_since_its_last_run(sandbox):
    led = sandbox.path(f"{HW}/lc5/led")
    state = str(led / "led_status_state")

    def append_and_run(colour):
        if colour:
            with open(led / f"led_status_{colour}", "a", encoding="ascii") as f:
                f.write("255\n")
        return subprocess.run(["sh", "-c", state], check=False).returncode

    assert [append_and_run(c) for c in ("orange", "green", None, "orange")] == [0, 0, 0, 0]
    assert sandbox.led_log(5) == ["orange", "green", "none", "orange"]
    assert (led / "led_status_orange").read_text() == "255\n255\n"
    (led / "led_status_state.rc").write_text("3\n")
    assert append_and_run("green") == 3
    assert sandbox.led_log(5)[-1] == "green"


# ---------------------------------------------------------------- insert


def test_insert_writes_vpd_and_ini_eeprom(sandbox):
    sandbox.hwemu("insert", 3, "--pn", "KTR9600-C16-R2", "--sn", "MT2231X00123", "--rev", 2)
    ee = eeprom(sandbox, 3)
    assert (ee / "vpd_parsed").read_text() == ("PN_VPD_FIELD: KTR9600-C16-R2\n"
                                               "SN_VPD_FIELD: MT2231X00123\n"
                                               "HW_REV_FIELD: 2\n")
    assert (ee / "ini_parsed").read_text() == "HW_REVISION: 2\nMINOR_INI_VERSION: 1\nCARD_TYPE: 3\n"
    image = (ee / "ini").read_bytes()
    assert len(image) == 1024
    assert image[:5] == bytes([0x01, 0x00, 0x00, 0x02, 0x02])
    assert events_of(sandbox, 3) == {"present": "1", "verified": "1", "synced": "0",
                                     "powered": "0", "active": "0", "ready": "0"}
    assert sorted(p.name for p in ee.iterdir()) == ["ini", "ini_parsed", "vpd_parsed"]


@pytest.mark.parametrize("part, card_type, type_byte", [("KTR9600-C4", 1, 0),
                                                        ("KTR9600-C4-B", 1, 0),
                                                        ("KTR9600-C16", 3, 2),
                                                        ("KTR9600-C8", 0, 0),
                                                        ("XYZ", 0, 0)])
def test_ini_card_type_follows_the_part_number(sandbox, part, card_type, type_byte):
    sandbox.insert(4, pn=part, rev=7)
    ee = eeprom(sandbox, 4)
    assert (ee / "ini_parsed").read_text() == (f"HW_REVISION: 7\nMINOR_INI_VERSION: 1\n"
                                               f"CARD_TYPE: {card_type}\n")
    assert (ee / "ini").read_bytes()[:5] == bytes([1, 0, 0, 7, type_byte])


def test_ini_identity_can_be_given(sandbox):
    sandbox.insert(6, rev=2, extra=("--ini-card-type", 1, "--ini-hw-rev", 0x0203,
                                    "--ini-minor", 0x0105))
    ee = eeprom(sandbox, 6)
    assert (ee / "ini_parsed").read_text() == ("HW_REVISION: 515\nMINOR_INI_VERSION: 261\n"
                                               "CARD_TYPE: 1\n")
    assert (ee / "ini").read_bytes()[:5] == bytes([0x05, 0x01, 0x02, 0x03, 0x00])


def test_insert_raises_present_then_verified_once_each_after_the_eeprom(sandbox, inotify):
    inotify.watch(sandbox.path(f"{HW}/events"))
    inotify.watch(eeprom(sandbox, 3))
    sandbox.insert(3)
    seen = inotify.read()
    assert [name for name in seen if name.startswith("events/")] == \
        ["events/lc3_present", "events/lc3_verified"]
    # The EEPROM files are complete before present is raised.
    assert all(name.startswith("eeprom/") for name in seen[:-2])
    assert len(seen) > 2


def test_insert_of_a_present_card_raises_nothing_again(sandbox, inotify):
    sandbox.insert(3)
    inotify.watch(sandbox.path(f"{HW}/events"))
    sandbox.insert(3, sn="OTHER")
    assert inotify.read() == []
    assert "SN_VPD_FIELD: OTHER\n" in (eeprom(sandbox, 3) / "vpd_parsed").read_text()


def test_insert_without_events_only_writes_the_eeprom(sandbox, inotify):
    inotify.watch(sandbox.path(f"{HW}/events"))
    sandbox.insert(2, extra=("--no-events",))
    assert inotify.read() == []
    assert (eeprom(sandbox, 2) / "vpd_parsed").exists()


def test_insert_without_ini_eeprom(sandbox):
    sandbox.insert(2)
    sandbox.insert(2, extra=("--no-ini-eeprom",))
    assert sorted(p.name for p in eeprom(sandbox, 2).iterdir()) == ["vpd_parsed"]


def test_insert_with_vpd_text_takes_the_file_verbatim(sandbox, tmp_path):
    text = b"PN_VPD_FIELD:\tKTR9600-C4\r\nSN_VPD_FIELD:\n" + b"x" * 5000
    (tmp_path / "vpd.txt").write_bytes(text)
    sandbox.hwemu("insert", 7, "--vpd-text", tmp_path / "vpd.txt")
    assert (eeprom(sandbox, 7) / "vpd_parsed").read_bytes() == text
    assert (eeprom(sandbox, 7) / "ini_parsed").read_text() == \
        "HW_REVISION: 0\nMINOR_INI_VERSION: 1\nCARD_TYPE: 0\n"
    assert sandbox.read(f"{HW}/events/lc7_present") == "1"


def test_insert_needs_the_card_identity(sandbox):
    result = sandbox.hwemu("insert", 3, "--pn", "KTR9600-C16", check=False)
    assert result.returncode == 1
    assert result.stderr == "chmgr-hwemu: insert needs --sn, --rev (or --vpd-text FILE)\n"
    assert sandbox.read(f"{HW}/events/lc3_present") == "0"


# ---------------------------------------------------------------- remove and event


def test_remove_lowers_present_first_and_keeps_synced(sandbox, inotify):
    sandbox.insert(5)
    for name in ("synced", "powered", "ready", "active"):
        sandbox.hwemu("event", 5, name, "1")
    inotify.watch(sandbox.path(f"{HW}/events"))
    sandbox.remove(5)
    assert inotify.read() == ["events/lc5_present", "events/lc5_verified", "events/lc5_powered",
                              "events/lc5_ready", "events/lc5_active"]
    assert events_of(sandbox, 5) == {"present": "0", "verified": "0", "synced": "1",
                                     "powered": "0", "active": "0", "ready": "0"}
    assert list(eeprom(sandbox, 5).iterdir()) == []


def test_remove_writes_only_the_files_that_change(sandbox, inotify):
    sandbox.insert(5)
    inotify.watch(sandbox.path(f"{HW}/events"))
    sandbox.remove(5)
    sandbox.remove(5)
    assert inotify.read() == ["events/lc5_present", "events/lc5_verified"]


def test_event_writes_the_file_once_per_call_even_unchanged(sandbox, inotify):
    inotify.watch(sandbox.path(f"{HW}/events"))
    sandbox.hwemu("event", 8, "ready", "1")
    # Read in between: inotify merges identical events waiting in its queue.
    assert inotify.read() == ["events/lc8_ready"]
    sandbox.hwemu("event", 8, "ready", "1")
    sandbox.hwemu("event", 8, "synced", "2")
    assert inotify.read() == ["events/lc8_ready", "events/lc8_synced"]
    assert sandbox.read(f"{HW}/events/lc8_synced") == "2"


def test_show_prints_one_line_per_slot(sandbox):
    sandbox.insert(2, pn="KTR9600-C4")
    lines = sandbox.hwemu("show").stdout.splitlines()
    assert len(lines) == 9
    assert lines[2].split() == ["2", "1", "1", "0", "0", "0", "0", "0", "0", "KTR9600-C4"]


# ---------------------------------------------------------------- run mode


def power(sandbox, slot, text="1\n"):
    """Writes the power file as the daemon does: truncate, write, close."""
    sandbox.write(f"{HW}/system/lc{slot}_pwr", text)


def power_off(sandbox, slot):
    """Appends "0" as the daemon's "echo 0 >> PATH" does."""
    with open(sandbox.path(f"{HW}/system/lc{slot}_pwr"), "a", encoding="ascii") as f:
        f.write("0\n")


def log_call(sandbox, line):
    with open(sandbox.sim_path("calls.log"), "a", encoding="ascii") as f:
        f.write(line + "\n")


def wait_event(sandbox, slot, name, value):
    wait_until(lambda: sandbox.event(slot, name).read_text() == value,
               what=f"lc{slot}_{name} to read {value}")


def test_run_answers_power_with_powered(sandbox):
    emulator = sandbox.start_emulator()
    sandbox.insert(3)
    power(sandbox, 3)
    wait_event(sandbox, 3, "powered", "1")
    assert emulator.stop().splitlines() == ["hwemu: running for slots 1,2,3,4,5,6,7,8",
                                            "slot 3: powered", "hwemu: stopped"]


def test_run_answers_ini_in_use_with_synced_and_the_boot_with_ready(sandbox, inotify):
    emulator = sandbox.start_emulator()
    sandbox.insert(3)
    power(sandbox, 3)
    wait_event(sandbox, 3, "powered", "1")
    inotify.watch(sandbox.path(f"{HW}/events"))
    sandbox.sim_set("slot3/ini_status", "3\n")
    wait_event(sandbox, 3, "ready", "1")
    assert events_of(sandbox, 3)["synced"] == "1"
    assert emulator.stop().splitlines()[1:] == ["slot 3: powered", "slot 3: synced",
                                                "slot 3: ready", "hwemu: stopped"]
    assert inotify.read() == ["events/lc3_synced", "events/lc3_ready"]


def test_run_ignores_ini_status_below_in_use(sandbox):
    emulator = sandbox.start_emulator()
    sandbox.insert(3)
    power(sandbox, 3)
    wait_event(sandbox, 3, "powered", "1")
    sandbox.sim_set("slot3/ini_status", "2\n")
    assert emulator.stop().splitlines()[1:] == ["slot 3: powered", "hwemu: stopped"]
    assert events_of(sandbox, 3)["synced"] == "0"


def test_run_answers_enable_with_ready_once(sandbox, inotify):
    emulator = sandbox.start_emulator()
    sandbox.insert(4)
    power(sandbox, 4)
    wait_event(sandbox, 4, "powered", "1")
    inotify.watch(sandbox.path(f"{HW}/events"))
    sandbox.write(f"{HW}/system/lc4_enable", "1\n")
    wait_event(sandbox, 4, "ready", "1")
    sandbox.write(f"{HW}/system/lc4_enable", "1\n")  # the second enable of a bring-up
    assert emulator.stop().splitlines()[1:] == ["slot 4: powered", "slot 4: ready",
                                                "hwemu: stopped"]
    assert inotify.read() == ["events/lc4_ready"]


def test_run_answers_an_activation_of_a_powered_card_with_active(sandbox):
    emulator = sandbox.start_emulator()
    sandbox.insert(3)
    power(sandbox, 3)
    wait_event(sandbox, 3, "powered", "1")
    log_call(sandbox, "ks_mgmt_slot_control_set slot=3 op=SOFT_RESET")
    log_call(sandbox, "ks_mgmt_slot_control_set slot=3 op=ACTIVATE")
    wait_event(sandbox, 3, "active", "1")
    assert emulator.stop().splitlines()[1:] == ["slot 3: powered", "slot 3: active",
                                                "hwemu: stopped"]


def test_run_ignores_faulted_and_unpowered_activations(sandbox):
    emulator = sandbox.start_emulator()
    sandbox.insert(3)
    power(sandbox, 3)
    wait_event(sandbox, 3, "powered", "1")
    sandbox.insert(5)
    log_call(sandbox, "ks_mgmt_slot_control_set slot=3 op=ACTIVATE -> fault")
    log_call(sandbox, "ks_mgmt_slot_control_set slot=5 op=ACTIVATE")
    assert emulator.stop().splitlines()[1:] == [
        "slot 3: powered", "slot 5: activation without a powered card (ignored)", "hwemu: stopped"]
    assert events_of(sandbox, 3)["active"] == "0"
    assert events_of(sandbox, 5)["active"] == "0"


def test_run_only_follows_activations_logged_after_it_started(sandbox):
    sandbox.insert(3)
    sandbox.hwemu("event", 3, "powered", "1")
    log_call(sandbox, "ks_mgmt_slot_control_set slot=3 op=ACTIVATE")
    emulator = sandbox.start_emulator()
    assert emulator.stop().splitlines()[1:] == ["hwemu: stopped"]
    assert events_of(sandbox, 3)["active"] == "0"


def test_run_answers_power_off_with_active_ready_powered_down(sandbox, inotify):
    emulator = sandbox.start_emulator()
    sandbox.insert(3)
    power(sandbox, 3)
    wait_event(sandbox, 3, "powered", "1")
    sandbox.write(f"{HW}/system/lc3_enable", "1\n")
    log_call(sandbox, "ks_mgmt_slot_control_set slot=3 op=ACTIVATE")
    wait_event(sandbox, 3, "active", "1")
    inotify.watch(sandbox.path(f"{HW}/events"))
    power_off(sandbox, 3)
    wait_event(sandbox, 3, "powered", "0")
    assert sandbox.read(f"{HW}/system/lc3_pwr") == "1\n0\n"
    assert inotify.read() == ["events/lc3_active", "events/lc3_ready", "events/lc3_powered"]
    assert emulator.stop().splitlines()[1:] == ["slot 3: powered", "slot 3: ready",
                                                "slot 3: active", "slot 3: powered down",
                                                "hwemu: stopped"]
    assert events_of(sandbox, 3)["present"] == "1"


def test_run_powers_a_card_again_after_power_off(sandbox):
    emulator = sandbox.start_emulator()
    sandbox.insert(3)
    power(sandbox, 3)
    wait_event(sandbox, 3, "powered", "1")
    power_off(sandbox, 3)
    wait_event(sandbox, 3, "powered", "0")
    power(sandbox, 3)
    wait_event(sandbox, 3, "powered", "1")
    assert emulator.stop().splitlines()[1:] == ["slot 3: powered", "slot 3: powered down",
                                                "slot 3: powered", "hwemu: stopped"]


def test_run_does_not_power_or_boot_an_empty_slot(sandbox):
    emulator = sandbox.start_emulator()
    power(sandbox, 6)
    sandbox.write(f"{HW}/system/lc6_enable", "1\n")
    assert emulator.stop().splitlines()[1:] == [
        "slot 6: power requested without a card (ignored)",
        "slot 6: enable without a powered card (ignored)", "hwemu: stopped"]
    assert events_of(sandbox, 6)["powered"] == "0"
    assert events_of(sandbox, 6)["ready"] == "0"


def test_run_waits_for_the_power_file_to_be_complete(sandbox):
    emulator = sandbox.start_emulator()
    sandbox.insert(2)
    path = sandbox.path(f"{HW}/system/lc2_pwr")
    with open(path, "w", encoding="ascii") as f:  # truncated, value not written yet
        f.flush()
        wait_until(lambda: path.stat().st_size == 0, what="the power file to be empty")
        f.write("1\n")
    wait_event(sandbox, 2, "powered", "1")
    assert emulator.stop().splitlines()[1:] == ["slot 2: powered", "hwemu: stopped"]


def test_run_plays_only_the_chosen_slots(sandbox):
    emulator = sandbox.start_emulator("--slots", "1,3-4")
    sandbox.insert(2)
    sandbox.insert(3)
    power(sandbox, 2)
    power(sandbox, 3)
    wait_event(sandbox, 3, "powered", "1")
    assert emulator.stop().splitlines() == ["hwemu: running for slots 1,3,4",
                                            "slot 3: powered", "hwemu: stopped"]
    assert events_of(sandbox, 2)["powered"] == "0"


def test_run_stops_cleanly_on_sigint(sandbox):
    proc = subprocess.Popen([str(HWEMU), "--root", str(sandbox.root), "run"],
                            stdout=subprocess.PIPE, text=True, env=sandbox.env)
    assert proc.stdout.readline().startswith("hwemu: running")
    proc.send_signal(2)
    out, _ = proc.communicate(timeout=10 * timeout_factor())
    assert proc.returncode == 0
    assert out == "hwemu: stopped\n"


# ---------------------------------------------------------------- root, sleeping, empty slots


NO_ROOT = ("chmgr-hwemu: no root given: use --root DIR or set CHMGR_ROOT "
           "(to work on the real tree under /, give --root / on purpose)\n")


@pytest.mark.parametrize("command", [["create"], ["show"], ["remove", "3"], ["run"]])
def test_every_command_refuses_to_run_without_a_root(tmp_path, command):
    env = {key: value for key, value in os.environ.items() if key != "CHMGR_ROOT"}
    result = subprocess.run([str(HWEMU), *command], capture_output=True, text=True, env=env,
                            cwd=tmp_path, stdin=subprocess.DEVNULL, check=False, timeout=30)
    assert (result.returncode, result.stdout, result.stderr) == (2, "", NO_ROOT)
    assert list(tmp_path.iterdir()) == []


def test_an_empty_root_variable_is_no_root(tmp_path):
    env = dict(os.environ, CHMGR_ROOT="")
    result = run_hwemu("show", env=env)
    assert (result.returncode, result.stderr) == (2, NO_ROOT)


def test_root_slash_given_on_purpose_is_taken(tmp_path):
    env = {key: value for key, value in os.environ.items() if key != "CHMGR_ROOT"}
    result = run_hwemu("--root", "/", "show", env=env)
    # Taken as the real tree: without one on this machine the tool says so.
    if not Path("/var/run/hw-management/events").is_dir():
        assert (result.returncode, result.stderr) == (
            1, "chmgr-hwemu: no hardware-management tree under /; run 'create' first\n")
    else:
        assert result.returncode == 0


def cpu_ticks(pid):
    fields = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return int(fields[11]) + int(fields[12])  # utime + stime


def test_run_sleeps_on_inotify_and_wakes_for_a_power_write(sandbox):
    emulator = sandbox.start_emulator()
    sandbox.insert(3)
    pid = emulator.proc.pid
    wait_until(lambda: Path(f"/proc/{pid}/wchan").read_text().startswith("poll_schedule_timeout"),
               what="the emulator to sleep waiting for its descriptors")
    inotify_fds = [fd for fd in os.listdir(f"/proc/{pid}/fd")
                   if os.readlink(f"/proc/{pid}/fd/{fd}") == "anon_inode:inotify"]
    assert len(inotify_fds) == 1
    # Idle: no file changes, no CPU time (a tick is 10 ms; polling burnt many per second).
    before = cpu_ticks(pid)
    deadline = time.monotonic() + 1.0
    while time.monotonic() < deadline:
        time.sleep(0.1)
    assert cpu_ticks(pid) - before <= 1
    power(sandbox, 3)
    wait_event(sandbox, 3, "powered", "1")
    assert emulator.stop().splitlines()[1:] == ["slot 3: powered", "hwemu: stopped"]


def test_run_wakes_for_a_new_simulator_slot_directory(sandbox):
    emulator = sandbox.start_emulator()
    sandbox.insert(5)
    power(sandbox, 5)
    wait_event(sandbox, 5, "powered", "1")
    assert not sandbox.sim_path("slot5").exists()
    sandbox.sim_set("slot5/ini_status", "3\n")
    wait_event(sandbox, 5, "synced", "1")
    wait_event(sandbox, 5, "ready", "1")
    emulator.stop()


def test_a_booted_card_reports_ready_to_the_simulated_sdk(sandbox):
    emulator = sandbox.start_emulator()
    sandbox.insert(2)
    power(sandbox, 2)
    sandbox.write(f"{HW}/system/lc2_enable", "1")
    wait_event(sandbox, 2, "ready", "1")
    assert sandbox.sim_read("slot2/ready") == "1\n"
    emulator.stop()


def test_a_staged_not_ready_card_stays_not_ready(sandbox):
    sandbox.sim_set("slot2/ready", "0")
    emulator = sandbox.start_emulator()
    sandbox.insert(2)
    power(sandbox, 2)
    sandbox.write(f"{HW}/system/lc2_enable", "1")
    wait_event(sandbox, 2, "ready", "1")
    assert sandbox.sim_read("slot2/ready") == "0"
    emulator.stop()


def test_empty_slot_is_held_synced_only_when_asked(sandbox):
    emulator = sandbox.start_emulator("--sync-empty", "4")
    assert emulator.output().splitlines()[0] == \
        "hwemu: running for slots 1,2,3,4,5,6,7,8 (synced without a card: 4)"
    wait_event(sandbox, 4, "synced", "1")
    assert emulator.stop().splitlines()[1:] == ["slot 4: synced (empty slot)", "hwemu: stopped"]
    assert [slot for slot in range(1, 9) if events_of(sandbox, slot)["synced"] == "1"] == [4]


def test_pre_provisioned_empty_slot_is_synced_and_reloads_portd(sandbox, daemon):
    emulator = sandbox.start_emulator("--sync-empty", "4")
    emulator.wait_output("slot 4: synced (empty slot)")
    handle = start_listening(sandbox, daemon)
    reply = ctl_exchange(sandbox, ctl_request(7, 4, card_type=3))  # PRE_PROVISION_ENABLE
    assert reply[16:20] == b"\0\0\0\0", handle.describe()  # status: success
    wait_until(lambda: ("reload", "portd") in [c.args for c in sandbox.systemctl_calls()],
               what="portd to be reloaded")
    assert not [line for line in handle.console().splitlines() if line.startswith("[SLOT4]") and " ERR " in line]


def test_a_powered_down_card_no_longer_reports_ready(sandbox):
    emulator = sandbox.start_emulator()
    sandbox.insert(2)
    power(sandbox, 2)
    sandbox.write(f"{HW}/system/lc2_enable", "1")
    wait_event(sandbox, 2, "ready", "1")
    power_off(sandbox, 2)
    wait_event(sandbox, 2, "powered", "0")
    assert sandbox.sim_read("slot2/ready") == "0\n"
    power(sandbox, 2)
    wait_event(sandbox, 2, "powered", "1")
    sandbox.write(f"{HW}/system/lc2_enable", "1")
    wait_event(sandbox, 2, "ready", "1")
    assert sandbox.sim_read("slot2/ready") == "1\n"
    emulator.stop()
