"""The demonstration (tools/chmgr-demo) runs by itself, shows the cards
coming into service and one going away, and leaves nothing behind."""

import os
import shutil
import subprocess
import tempfile

from conftest import RECORDER, REPO, daemon_binary, timeout_factor

DEMO = REPO / "tools" / "chmgr-demo"


def run_demo(*args, timeout=120, tmpdir=None):
    env = dict(os.environ, TMPDIR=tmpdir) if tmpdir else None
    return subprocess.run([str(DEMO), *args], capture_output=True, text=True, stdin=subprocess.DEVNULL,
                          env=env, timeout=timeout * timeout_factor(), check=False)


def last_table(output):
    """The rows of the last table printed, by slot number."""
    rows = {}
    for line in output.splitlines():
        fields = line.split()
        if fields and fields[0].isdigit() and len(fields) >= 9 and 1 <= int(fields[0]) <= 8:
            rows[int(fields[0])] = line
    return rows


STEP_TITLES = [
    "chassis-mgr runs on the emulated chassis: eight empty slots.",
    "Both cards are in service (cards.conf 'Online', LED green).",
    "Done: slot 6 is empty again (its ports stay configured in cards.conf), slot 3 stays in service.",
]
TABLE_HEADER = ("slot  card         pre ver pow syn rdy act  daemon state        cards.conf"
                "              LED     ports")
SHOW_HEADER = "SLOT  STATE        ADMIN    STAGE   CARD  SERIAL         UP TIME"


def show_rows(output, heading):
    """The rows of slots 3 and 6 in the `chmgrctl show` printed under
    `heading`, without the up time (it depends on the machine's speed)."""
    lines = output.splitlines()
    start = lines.index(f"$ chmgrctl show    # {heading}")
    assert lines[start + 1] == SHOW_HEADER
    return [lines[start + 1 + slot].split()[:6] for slot in (3, 6)]


def test_demo_brings_two_cards_up_removes_one_and_cleans_up():
    # A short directory of its own: the sandbox's socket path must stay short,
    # and other demonstrations may run in /tmp meanwhile.
    tmpdir = tempfile.mkdtemp(prefix="demo-test-")
    result = run_demo("--no-live", "--scale", "0.005", "--build-dir", str(daemon_binary().parent), tmpdir=tmpdir)

    assert result.returncode == 0, result.stderr
    assert result.stderr == ""
    out = result.stdout
    rows = last_table(out)
    assert rows[3].split() == ["3", "KTR9600-C16", "1", "1", "1", "1", "1", "1", "SLOT_ACTIVE",
                               "100G", "dirty", "0", "Online", "green", "16"]
    assert rows[6].split() == ["6", "-", "-", "-", "-", "1", "-", "-", "SLOT_EMPTY",
                               "400G", "dirty", "0", "Offline", "green", "4"]
    assert "[SLOT6] Transitioned from 63 to SLOT_EMPTY" in out
    assert "systemctl stand-in: 1 x reload portd, 2 x reload envd\n" in out
    # The sandbox is gone, and with it the daemon and the emulator it ran.
    assert os.listdir(tmpdir) == []
    os.rmdir(tmpdir)


def test_demo_off_a_terminal_prints_one_table_per_step():
    result = run_demo("--scale", "0.005", "--build-dir", str(daemon_binary().parent))

    assert result.returncode == 0, result.stderr
    lines = result.stdout.splitlines()
    assert lines.count(TABLE_HEADER) == len(STEP_TITLES)
    titles = [lines[i - 2] for i, line in enumerate(lines) if line == TABLE_HEADER]
    assert titles == STEP_TITLES
    assert "\x1b" not in result.stdout


def test_demo_shows_the_operator_view_once_the_cards_are_online_and_after_the_removal():
    result = run_demo("--scale", "0.005", "--build-dir", str(daemon_binary().parent))

    assert result.returncode == 0, result.stderr
    assert show_rows(result.stdout, "both cards in service") == [
        ["3", "Operational", "enabled", "ACTIVE", "C16", "DEMO-C16-0003"],
        ["6", "Operational", "enabled", "ACTIVE", "C4", "DEMO-C4-0006"]]
    assert show_rows(result.stdout, "after the removal from slot 6") == [
        ["3", "Operational", "enabled", "ACTIVE", "C16", "DEMO-C16-0003"],
        ["6", "Empty", "enabled", "-", "-", "none"]]
    lines = result.stdout.splitlines()
    start = lines.index("$ chmgrctl watch 3 --until-online 3 --interval 0.1    # its stage changes")
    watched = lines[start + 1:start + 8]
    assert [line.split("  -> ")[-1] for line in watched[:6]] == [
        "PRESENT", "VERIFIED", "POWERED", "SYNCED", "READY", "ACTIVE"]
    assert all("  slot 3  -> " in line for line in watched[:6])
    assert watched[6] == "  outcome: operational"


def test_demo_runs_from_the_installed_layout(tmp_path):
    """Installed, the programs are PREFIX/sbin/chassis-mgr, PREFIX/bin/chmgrctl,
    chmgr-hwemu and chmgr-demo, and the stand-in PREFIX/share/chassis-mgr-sim/systemctl."""
    prefix = tmp_path / "usr"
    for directory in ("bin", "sbin", "share/chassis-mgr-sim"):
        (prefix / directory).mkdir(parents=True)
    build = daemon_binary().parent
    shutil.copy2(build / "chassis-mgr", prefix / "sbin")
    shutil.copy2(build / "chmgrctl", prefix / "bin")
    for tool in ("chmgr-demo", "chmgr-hwemu"):
        shutil.copy2(REPO / "tools" / tool, prefix / "bin")
    shutil.copy2(RECORDER, prefix / "share/chassis-mgr-sim/systemctl")
    env = {key: value for key, value in os.environ.items() if key != "CHMGR_BUILD_DIR"}

    result = subprocess.run([str(prefix / "bin/chmgr-demo"), "--scale", "0.005"], capture_output=True,
                            text=True, stdin=subprocess.DEVNULL, env=env, cwd=tmp_path,
                            timeout=120 * timeout_factor(), check=False)

    assert result.returncode == 0, result.stderr
    assert result.stdout.splitlines().count(TABLE_HEADER) == len(STEP_TITLES)


def test_demo_without_a_built_daemon_says_so():
    result = run_demo("--build-dir", "/nonexistent-build")

    assert result.returncode == 2
    assert result.stderr == ("chmgr-demo: /nonexistent-build/chassis-mgr not found: build first "
                             "(see docs/demo.md) or give --build-dir\n")
