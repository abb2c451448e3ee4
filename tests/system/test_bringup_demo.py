"""The demonstration (tools/chmgr-demo) runs by itself, shows the cards
coming into service and one going away, and leaves nothing behind."""

import glob
import subprocess

from conftest import REPO, daemon_binary, timeout_factor

DEMO = REPO / "tools" / "chmgr-demo"


def run_demo(*args, timeout=120):
    return subprocess.run([str(DEMO), *args], capture_output=True, text=True, stdin=subprocess.DEVNULL,
                          timeout=timeout * timeout_factor(), check=False)


def last_table(output):
    """The rows of the last table printed, by slot number."""
    rows = {}
    for line in output.splitlines():
        fields = line.split()
        if fields and fields[0].isdigit() and len(fields) >= 9 and 1 <= int(fields[0]) <= 8:
            rows[int(fields[0])] = line
    return rows


def test_demo_brings_two_cards_up_removes_one_and_cleans_up():
    before = set(glob.glob("/tmp/chmgr-demo-*"))
    result = run_demo("--no-live", "--scale", "0.005", "--build-dir", str(daemon_binary().parent))

    assert result.returncode == 0, result.stderr
    assert result.stderr == ""
    out = result.stdout
    assert "Inserted KTR9600-C16 into slot 3 and KTR9600-C4 into slot 6: bringing them up ..." in out
    assert "Both cards are in service (cards.conf 'Online', LED green)." in out
    assert "Done: slot 6 is empty again" in out
    rows = last_table(out)
    assert rows[3].split() == ["3", "KTR9600-C16", "1", "1", "1", "1", "1", "1", "SLOT_ACTIVE",
                               "100G", "dirty", "0", "Online", "green", "16"]
    assert rows[6].split() == ["6", "-", "-", "-", "-", "1", "-", "-", "SLOT_EMPTY",
                               "400G", "dirty", "0", "Offline", "green", "4"]
    assert "[SLOT6] Transitioned from 63 to SLOT_EMPTY" in out
    assert out.rstrip().endswith("systemctl stand-in: 1 x reload portd, 2 x reload envd")
    # The sandbox is gone, and with it the daemon and the emulator it ran.
    assert set(glob.glob("/tmp/chmgr-demo-*")) == before


def test_demo_without_a_built_daemon_says_so():
    result = run_demo("--build-dir", "/nonexistent-build")

    assert result.returncode == 2
    assert result.stderr == ("chmgr-demo: /nonexistent-build/chassis-mgr not found: build first "
                             "(see docs/demo.md) or give --build-dir\n")
