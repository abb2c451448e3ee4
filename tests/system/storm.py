"""A storm of line-card operations on the emulated chassis, for the system
test (tests/system/test_storm.py) and the long run (bench/storm_bench.py).

The real daemon runs on an emulated root with the hardware emulator playing
all eight slots.  A seeded random sequence of steps inserts cards (alone or a
few at once), pulls them at every stage of their bring-up, puts the other
card type back, disables and enables slots, pre-provisions and
un-provisions them, and writes duplicate and late event files.  After each
step has settled the chassis is checked from outside:

- no slot is ACTIVE, or "Online" in cards.conf, without a card in it;
- every present, enabled card that its slot accepts is ACTIVE and "Online"
  and its ports are in the port list;
- nothing holds the portd reload at rest;
- a batch of new cards is brought into service with one reload of portd.

Standard library only: the bench runs it without pytest.
"""

import collections
import fcntl
import json
import os
import random
import re
import shutil
import signal
import socket
import struct
import subprocess
import time
from pathlib import Path

from daemon_probe import write_once

REPO = Path(__file__).resolve().parents[2]
HWEMU = REPO / "tools" / "chmgr-hwemu"
HW = "var/run/hw-management"
CONF = "etc/tarnel/cards.conf"
PORTS = "etc/brl/chmgr_ports_list.txt"
SOCKET = "run/chassismgr/chassismgr"
STATUS = "etc/tarnel/cm_status.json"
TRIGGER = "etc/tarnel/debug_slot"
SLOTS = range(1, 9)
CARDS = {"C16": ("KTR9600-C16", 3, 16), "C4": ("KTR9600-C4", 1, 4)}
CTL = struct.Struct("<6I")
LINECARD_ENABLE, LINECARD_DISABLE, PRE_PROVISION_ENABLE, PRE_PROVISION_DISABLE = 3, 4, 7, 8
STAGES = ["SLOT_PRESENT", "SLOT_VERIFIED", "SLOT_POWERED", "SLOT_SYNCED", "WAIT_RELOAD_PORTD",
          "SLOT_READY", "SLOT_ACTIVE", None]
RENDEZVOUS_RELOAD = re.compile(r"^\[SLOT\d\] reload_rendezvous\.cpp:\d+ Reloading portd\.\.\.$")
REFUSAL_OR_RESET = re.compile(r"^\[SLOT(\d)\] \S+ (ERR Different card inserted than what is pre-provisioned|"
                              r"Transitioned from \d+ to SLOT_EMPTY|Disable)$", re.M)
HOLDING = re.compile(r"^reload_rendezvous\.cpp:\d+ Holding reload because of this slot (\d)$")


class StormFailure(AssertionError):
    """An invariant broke or the chassis did not settle; names the seed."""


def poll(predicate, timeout, interval=0.003):
    """The first truthy value of `predicate()` within `timeout` seconds, else None."""
    deadline = time.monotonic() + timeout
    while True:
        try:
            value = predicate()
        except (OSError, ValueError):
            value = None
        if value or time.monotonic() >= deadline:
            return value
        time.sleep(interval)


def read_rewritten(path, timeout):
    """The text of a file the daemon rewrites by removing it and renaming its
    new content into place: missing for a moment during each rewrite, so a
    missing file is looked for again until `timeout`; None if still missing."""
    deadline = time.monotonic() + timeout
    while True:
        try:
            return path.read_text()
        except FileNotFoundError:
            if time.monotonic() >= deadline:
                return None
        time.sleep(0.001)


class Chassis:
    """The emulated root, the hardware emulator and the daemon on top.

    `base` is an empty directory; `factor` scales every time-out."""

    def __init__(self, base, binary, factor=1.0, scale="0.001"):
        self.base = Path(base)
        self.root = self.base / "r"
        self.binary = binary
        self.factor = factor
        self.scale = scale
        self.daemon = None
        self.emulator = None
        self.env = dict(os.environ)
        self.env["CHMGR_ROOT"] = str(self.root)
        self.env["PATH"] = f"{self.base / 'bin'}:{os.environ.get('PATH', '/usr/bin:/bin')}"
        self.out_path = self.base / "daemon.out"
        # The console is kept from the current step on only, so that reading
        # it costs the same at step 10,000 as at step 1.  Offsets into it
        # (marks) count from the start of the whole console.
        self._console = ""
        self._console_start = 0
        self._console_bytes = 0
        self._systemctl_bytes = 0
        self._portd_reloads = 0

    # -- life
    def start(self):
        self.hwemu("create")
        (self.base / "bin").mkdir(exist_ok=True)
        # Quick shell stand-ins: the storm runs thousands of bring-ups.
        self._script(self.base / "bin" / "systemctl", f'echo "$*" >> {self.base}/systemctl.log\n')
        self._script(self.root / "usr/lib/tarnel/brlgbfwupgrade.ks", "exit 0\n")
        for slot in SLOTS:  # every card reports ready at once
            (self.root / "var/run/ks-sim" / f"slot{slot}").mkdir(parents=True, exist_ok=True)
            (self.root / "var/run/ks-sim" / f"slot{slot}" / "ready").write_text("1")
        # The emulator reports every request it answers: its output goes to a
        # file, since a pipe nobody drains would fill up and stop it in the
        # middle of a step, holding the tree lock.
        emulator_out = self.base / "hwemu.out"
        with open(emulator_out, "wb") as out:
            self.emulator = subprocess.Popen([str(HWEMU), "--root", str(self.root), "run"], env=self.env,
                                             stdout=out, stderr=subprocess.STDOUT,
                                             stdin=subprocess.DEVNULL, start_new_session=True)
        def emulator_running():
            if self.emulator.poll() is not None:
                raise StormFailure(f"emulator exited: {emulator_out.read_text(errors='replace')!r}")
            return emulator_out.read_text(errors="replace").startswith("hwemu: running")
        if not poll(emulator_running, 10 * self.factor):
            raise StormFailure(f"emulator did not start: {emulator_out.read_text(errors='replace')!r}")
        run_env = dict(self.env, CHMGR_TIME_SCALE=self.scale)
        with open(self.out_path, "wb") as out:
            self.daemon = subprocess.Popen([str(self.binary)], stdout=out, stderr=subprocess.STDOUT,
                                           stdin=subprocess.DEVNULL, env=run_env, cwd=self.base,
                                           start_new_session=True)
        if not poll(lambda: "[SLOT8] startup.cpp:" in self.console_since(0) and self.listening(),
                    10 * self.factor):
            raise StormFailure("daemon did not start:\n" + self.console_since(0)[-2000:])

    def stop(self):
        for proc in (self.daemon, self.emulator):
            if proc and proc.poll() is None:
                try:
                    os.killpg(proc.pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
            if proc:
                proc.wait()

    def alive(self):
        return self.daemon.poll() is None

    @staticmethod
    def _script(path, body):
        path.parent.mkdir(parents=True, exist_ok=True)
        if path.exists():
            path.unlink()
        path.write_text("#!/bin/sh\n" + body)
        path.chmod(0o755)

    # -- files
    def path(self, rel):
        return self.root / rel

    def event_path(self, slot, name):
        return self.root / HW / "events" / f"lc{slot}_{name}"

    def event(self, slot, name):
        return self.event_path(slot, name).read_text()[:1] == "1"

    def write_event(self, slot, name, value):
        write_once(self.event_path(slot, name), value)

    # The card operations of chmgr-hwemu, done in-process under the tool's
    # tree lock (a loaded machine takes a third of a second to start the
    # tool, and the storm moves thousands of cards).
    def tree_lock(self):
        fd = os.open(self.root / HW / ".hwemu.lock", os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o644)
        fcntl.flock(fd, fcntl.LOCK_EX)
        return fd

    def place_card(self, slot, part, serial, card_type, rev=2, minor=1):
        """The card's EEPROM files (VPD, parsed INI, INI image), each
        replaced whole; no event is raised."""
        eeprom = self.root / HW / f"lc{slot}" / "eeprom"
        header = minor.to_bytes(2, "little") + rev.to_bytes(2, "big") + bytes([card_type - 1])
        files = {"vpd_parsed": f"PN_VPD_FIELD: {part}\nSN_VPD_FIELD: {serial}\nHW_REV_FIELD: {rev}\n".encode(),
                 "ini_parsed": f"HW_REVISION: {rev}\nMINOR_INI_VERSION: {minor}\nCARD_TYPE: {card_type}\n".encode(),
                 "ini": header + bytes(1024 - len(header))}
        fd = self.tree_lock()
        try:
            for name, data in files.items():
                (eeprom / f"{name}.tmp").write_bytes(data)
                os.rename(eeprom / f"{name}.tmp", eeprom / name)
        finally:
            os.close(fd)

    def pull_card(self, slot):
        """Present lowered first, then the other stages; synced stays."""
        fd = self.tree_lock()
        try:
            for name in ("present", "verified", "powered", "ready", "active"):
                if self.event(slot, name):
                    self.write_event(slot, name, "0")
            for name in ("vpd_parsed", "ini_parsed", "ini"):
                (self.root / HW / f"lc{slot}" / "eeprom" / name).unlink(missing_ok=True)
        finally:
            os.close(fd)

    def hwemu(self, *args):
        result = subprocess.run([str(HWEMU), "--root", str(self.root), *map(str, args)], env=self.env,
                                capture_output=True, text=True, stdin=subprocess.DEVNULL, check=False)
        if result.returncode != 0:
            raise StormFailure(f"chmgr-hwemu {args} failed: {result.stderr}")

    def _read_console(self):
        """Reads on from where the last read stopped, whole lines only."""
        with open(self.out_path, "rb") as out:
            out.seek(self._console_bytes)
            data = out.read()
        cut = data.rfind(b"\n") + 1
        if cut:
            self._console_bytes += cut
            self._console += data[:cut].decode(errors="replace")

    def console_end(self):
        """The offset of the end of the console read so far: a mark."""
        self._read_console()
        return self._console_start + len(self._console)

    def console_since(self, mark):
        """The console from `mark` (not forgotten yet) to its end so far."""
        self._read_console()
        if mark < self._console_start:
            raise ValueError(f"console before offset {self._console_start} was forgotten")
        return self._console[mark - self._console_start:]

    def forget_console_before(self, mark):
        """Drops the console text before `mark`: no later read looks at it."""
        if mark > self._console_start:
            self._console = self._console[mark - self._console_start:]
            self._console_start = mark

    def conf(self):
        """{slot: fields of its cards.conf line}."""
        lines = {}
        text = read_rewritten(self.path(CONF), self.factor)
        if text is None:
            raise FileNotFoundError(self.path(CONF))
        for line in text.splitlines():
            fields = line.split()
            if fields and fields[0].isdigit():
                lines[int(fields[0])] = fields
        return lines

    def port_counts(self):
        counts = {slot: 0 for slot in SLOTS}
        text = read_rewritten(self.path(PORTS), 0.1 * self.factor) or ""  # none before the first card
        for line in text.splitlines():
            fields = line.split()
            if len(fields) == 4 and not line.startswith("#"):
                counts[int(fields[1])] = counts.get(int(fields[1]), 0) + 1
        return counts

    def portd_reloads(self):
        """Reloads of portd so far, counted on from the last call."""
        try:
            with open(self.base / "systemctl.log", "rb") as log:
                log.seek(self._systemctl_bytes)
                data = log.read()
        except FileNotFoundError:
            return 0
        cut = data.rfind(b"\n") + 1
        self._systemctl_bytes += cut
        self._portd_reloads += data[:cut].splitlines().count(b"reload portd")
        return self._portd_reloads

    # -- control socket
    def listening(self):
        with open("/proc/net/unix", encoding="utf-8", errors="replace") as table:
            return any(len(f) >= 8 and f[7] == str(self.path(SOCKET)) for f in map(str.split, table))

    def ctl(self, cmd, slot, card_type=0):
        """(status, status text) of one control request."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as sock:
            sock.settimeout(30 * self.factor)
            sock.connect(str(self.path(SOCKET)))
            sock.sendall(CTL.pack(cmd, 24, 1, slot, 0, card_type))
            reply = b""
            while chunk := sock.recv(4096):
                reply += chunk
        status = CTL.unpack(reply[:24])[4]
        text = reply[24:152].split(b"\0", 1)[0].decode(errors="replace")
        return (status if status < 1 << 31 else status - (1 << 32)), text

    def status_document(self):
        path = self.path(STATUS)
        if path.exists():
            os.utime(path, ns=(0, 0))
        write_once(self.path(TRIGGER), "255\n")
        document = poll(lambda: path.stat().st_mtime_ns != 0 and json.loads(path.read_text()),
                        10 * self.factor)
        if not document:
            raise StormFailure("the status document was not rewritten")
        return document


class Storm:
    """A seeded sequence of steps on a started Chassis, checked after each."""

    def __init__(self, chassis, seed, log=None):
        self.chassis = chassis
        self.seed = seed
        self.rng = random.Random(seed)
        self.log = log or (lambda text: None)
        self.step_no = 0
        self.history = collections.deque(maxlen=8)  # the steps a failure shows
        self.provision = {slot: None for slot in SLOTS}  # (type, succeeded) or None
        self.disabled = {slot: False for slot in SLOTS}
        self.card = {slot: None for slot in SLOTS}  # "C16", "C4" or None
        self.serial = 0
        self.refused_slots = set()
        self.scanned = 0

    # -- running
    def run(self, steps):
        for _ in range(steps):
            self.step()

    def step(self):
        self.step_no += 1
        mark = self.chassis.console_end()
        self.chassis.forget_console_before(min(mark, self.scanned))
        reloads = self.chassis.portd_reloads()
        action = self.rng.choices(
            [self.insert_batch, self.pull_at_stage, self.remove_card, self.disable, self.enable,
             self.pre_provision, self.unprovision, self.duplicate_event, self.late_event],
            weights=[4, 4, 2, 1, 1, 1, 1, 1, 1])[0]
        description = action()
        self.history.append(description)
        self.settle_and_check(mark, reloads, description)
        self.log(f"step {self.step_no}: {description}")

    def fail(self, what):
        recent = "\n".join(self.history)
        raise StormFailure(f"storm seed {self.seed}, step {self.step_no}: {what}\nlast steps:\n{recent}")

    # -- actions
    def empty_slots(self):
        return [slot for slot in SLOTS if not self.card[slot]]

    def full_slots(self):
        return [slot for slot in SLOTS if self.card[slot]]

    def place(self, slot, kind):
        """The card's EEPROM files, without events."""
        self.serial += 1
        part, card_type, _ = CARDS[kind]
        self.chassis.place_card(slot, part, f"ST{self.serial:08d}", card_type)
        self.card[slot] = kind

    def raise_insertion(self, slots):
        """Present, then verified, for all of `slots` together."""
        for slot in slots:
            self.chassis.write_event(slot, "present", "1")
        for slot in slots:
            self.chassis.write_event(slot, "verified", "1")

    def insert_batch(self):
        empty = self.empty_slots()
        if not empty:
            return self.remove_card()
        slots = sorted(self.rng.sample(empty, self.rng.randint(1, min(3, len(empty)))))
        kinds = [self.rng.choice(list(CARDS)) for _ in slots]
        for slot, kind in zip(slots, kinds):
            self.place(slot, kind)
        self.raise_insertion(slots)
        return "insert " + " ".join(f"{slot}:{kind}" for slot, kind in zip(slots, kinds))

    def pull_at_stage(self):
        empty = self.empty_slots()
        if not empty:
            return self.remove_card()
        slot = self.rng.choice(empty)
        kind = self.rng.choice(list(CARDS))
        stage = self.rng.choice(STAGES)
        mark = self.chassis.console_end()
        self.place(slot, kind)
        self.raise_insertion([slot])
        if stage:
            pattern = re.compile(rf"^\[SLOT{slot}\] \S+ Transitioned (from \d+ )?to {stage}$", re.M)
            poll(lambda: pattern.search(self.chassis.console_since(mark)), 0.5 * self.chassis.factor)
        self.chassis.pull_card(slot)
        self.card[slot] = None
        text = f"pull {slot}:{kind} at {stage or 'once inserted'}"
        if self.rng.random() < 0.5:
            self.wait_removal_seen(slot, mark)
            other = "C4" if kind == "C16" else "C16"
            self.place(slot, other)
            self.raise_insertion([slot])
            text += f", then {other} put in"
        return text

    def wait_removal_seen(self, slot, mark):
        """The daemon decides events from the files' contents, so a card
        swapped faster than it reads them looks like the same card: a real
        swap takes seconds.  Waits until every insertion seen since `mark`
        has been followed by its removal and the slot awaits a card."""
        present = re.compile(rf"^\[SLOT{slot}\] \S+ Transitioned from \d+ to SLOT_PRESENT$", re.M)
        empty = re.compile(rf"^\[SLOT{slot}\] \S+ Transitioned from \d+ to SLOT_EMPTY$", re.M)

        def seen():
            console = self.chassis.console_since(mark)
            last_present = max((m.start() for m in present.finditer(console)), default=-1)
            last_empty = max((m.start() for m in empty.finditer(console)), default=-1)
            if last_present > last_empty:
                return False
            return "SLOT_PRESENT" not in self.chassis.status_document()[f"slot{slot}"]["STATE"]

        def seen_twice():  # an item decided before the pull may still run
            if not seen():
                return False
            time.sleep(0.02)
            return seen()
        if not poll(seen_twice, 5 * self.chassis.factor, interval=0.01):
            self.fail(f"the removal from slot {slot} was not taken into account")

    def remove_card(self):
        full = self.full_slots()
        if not full:
            return self.insert_batch()
        slot = self.rng.choice(full)
        self.chassis.pull_card(slot)
        self.card[slot] = None
        return f"remove {slot}"

    def disable(self):
        slot = self.rng.choice(list(SLOTS))
        status, text = self.chassis.ctl(LINECARD_DISABLE, slot)
        if status != 0:
            self.fail(f"disable of slot {slot} answered {status} {text!r}")
        self.disabled[slot] = True
        return f"disable {slot}"

    def enable(self):
        disabled = [slot for slot in SLOTS if self.disabled[slot]] or list(SLOTS)
        slot = self.rng.choice(disabled)
        status, text = self.chassis.ctl(LINECARD_ENABLE, slot)
        if status != 0:
            self.fail(f"enable of slot {slot} answered {status} {text!r}")
        self.disabled[slot] = False
        return f"enable {slot}"

    def pre_provision(self):
        slot = self.rng.choice(list(SLOTS))
        card_type = self.rng.choice([1, 3])
        status, text = self.chassis.ctl(PRE_PROVISION_ENABLE, slot, card_type)
        if status == 0 or not text.startswith("Remove active card"):
            # The slot is provisioned from here on, also when the INI or the
            # synced check failed; only a success promises service.  (A
            # reply's text may be left over from an earlier request.)
            self.provision[slot] = (card_type, status == 0)
        return f"pre-provision {slot} type {card_type}: {status} {text!r}"

    def unprovision(self):
        slot = self.rng.choice(list(SLOTS))
        status, text = self.chassis.ctl(PRE_PROVISION_DISABLE, slot)
        if status == 0 or not text.startswith("Remove active card"):
            self.provision[slot] = None
        return f"un-provision {slot}: {status} {text!r}"

    def duplicate_event(self):
        slot = self.rng.choice(list(SLOTS))
        raised = [name for name in ("present", "verified", "powered", "synced", "ready", "active")
                  if self.chassis.event(slot, name)]
        if not raised:
            return self.late_event()
        name = self.rng.choice(raised)
        self.chassis.write_event(slot, name, "1")
        return f"duplicate {name} on slot {slot}"

    def late_event(self):
        empty = self.empty_slots()
        if not empty:
            return self.remove_card()
        slot = self.rng.choice(empty)
        name = self.rng.choice(["verified", "powered", "ready", "active"])
        self.chassis.write_event(slot, name, "1")
        self.chassis.write_event(slot, name, "0")
        return f"late {name} on empty slot {slot}"

    # -- checks
    def refused(self):
        """Slots whose card was refused as not the pre-provisioned one: it
        stays unpowered until it is removed (or disabled and enabled), also
        when the pre-provisioning is taken back meanwhile."""
        console = self.chassis.console_since(self.scanned)
        for match in REFUSAL_OR_RESET.finditer(console):
            slot = int(match[1])
            if match[2].startswith("ERR"):
                self.refused_slots.add(slot)
            else:
                self.refused_slots.discard(slot)
        self.scanned += len(console)
        return frozenset(self.refused_slots)

    def accepted(self, slot, refused=frozenset()):
        """True when the slot's card must come into service."""
        kind = self.card[slot]
        if not kind or self.disabled[slot] or slot in refused:
            return False
        provision = self.provision[slot]
        return provision is None or (provision[1] and provision[0] == CARDS[kind][1])

    def settled(self):
        """The status document once every accepted card is ACTIVE and
        "Online" and every empty slot is neither and has been seen empty,
        else None.  (An active event that came before a pull may still make
        the slot Online until the daemon reads the removal that follows it.)"""
        conf = self.chassis.conf()
        refused = self.refused()
        judged = [slot for slot in SLOTS if self.accepted(slot, refused) or not self.card[slot]]
        if not all((conf[slot][5] == "Online") == self.accepted(slot, refused) for slot in judged):
            return None
        document = self.chassis.status_document()
        states = {slot: document[f"slot{slot}"]["STATE"] for slot in SLOTS}
        if not all(("SLOT_ACTIVE" in states[slot]) == self.accepted(slot, refused) for slot in judged):
            return None
        if any(not self.card[slot] and "SLOT_PRESENT" in states[slot] for slot in SLOTS):
            return None
        return document

    def settle_and_check(self, mark, reloads_before, description):
        chassis = self.chassis
        document = poll(lambda: not chassis.alive() or self.settled(), 20 * chassis.factor, interval=0.01)
        if not chassis.alive():
            self.fail(f"the daemon exited with {chassis.daemon.returncode}")
        if not document:
            conf = chassis.conf()
            document = chassis.status_document()
            refused = self.refused()
            self.fail("the chassis did not settle: " + ", ".join(
                f"slot {slot} card={self.card[slot]} accepted={self.accepted(slot, refused)} conf={conf[slot][5]} "
                f"state={document[f'slot{slot}']['STATE']!r}" for slot in SLOTS))
        conf = chassis.conf()
        ports = chassis.port_counts()
        refused = self.refused()
        for slot in SLOTS:
            state = document[f"slot{slot}"]["STATE"]
            if "SLOT_ACTIVE" in state and not self.card[slot]:
                self.fail(f"slot {slot} is ACTIVE without a card: {state!r}")
            if conf[slot][5] == "Online" and not self.card[slot]:
                self.fail(f"slot {slot} is Online in cards.conf without a card")
            if self.accepted(slot, refused):
                if "SLOT_ACTIVE" not in state:
                    self.fail(f"slot {slot} holds an accepted card but is not ACTIVE: {state!r}")
                if ports[slot] != CARDS[self.card[slot]][2]:
                    self.fail(f"slot {slot} in service with {ports[slot]} ports in the port list")
        self.check_no_hold(mark)
        self.check_reloads(mark, reloads_before, description)

    def check_no_hold(self, mark):
        """At rest, no parked slot keeps retrying behind a holder."""
        chassis = self.chassis
        rest = chassis.console_end()
        time.sleep(0.02)  # a held slot retries every 3 ms at this time scale
        for line in chassis.console_since(rest).splitlines():
            match = HOLDING.match(line)
            if match:
                self.fail(f"the portd reload is held at rest by slot {match[1]}")

    def check_reloads(self, mark, reloads_before, description):
        if not description.startswith("insert "):
            return
        lines = self.chassis.console_since(mark).splitlines()
        rendezvous = sum(1 for line in lines if RENDEZVOUS_RELOAD.match(line))
        if rendezvous > 1:
            self.fail(f"{rendezvous} rendezvous reloads of portd for one batch of new cards")
        waited = any("Transitioned to WAIT_RELOAD_PORTD" in line for line in lines)
        if waited and rendezvous != 1:
            self.fail("a batch of new cards joined the rendezvous but portd was not reloaded")


def daemon_binary():
    build = Path(os.environ.get("CHMGR_BUILD_DIR", REPO / "build"))
    return build / "chassis-mgr"


def new_seed():
    return int.from_bytes(os.urandom(4), "little")


def cleanup(base):
    shutil.rmtree(base, ignore_errors=True)
