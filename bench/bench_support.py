"""Helpers shared by the benchmark scripts that start the real daemon: the
probes the system-test drivers use, from tests/system/daemon_probe.py."""
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests" / "system"))
from daemon_probe import in_main_loop, write_once  # noqa: E402,F401
