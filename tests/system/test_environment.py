"""The daemon refuses an environment it cannot run safely in (exit status 10)."""
import os
import subprocess

import pytest

from conftest import timeout_factor

BUILD_DIR = os.environ.get("CHMGR_BUILD_DIR", os.path.join(os.path.dirname(__file__), "..", "..", "build"))
DAEMON = os.path.join(BUILD_DIR, "chassis-mgr")


def run_daemon(env_overrides):
    env = {k: v for k, v in os.environ.items() if not k.startswith("CHMGR_")}
    env.update(env_overrides)
    return subprocess.run([DAEMON], env=env, capture_output=True, text=True,
                          timeout=10 * timeout_factor())


@pytest.mark.parametrize("root", ["/tmp/a b", "/tmp/x;touch y", "/tmp/$(id)", "/tmp/a|b", "relative/root"])
def test_unsafe_or_relative_root_is_refused(tmp_path, root):
    result = run_daemon({"CHMGR_ROOT": root, "CHMGR_TIME_SCALE": "0.001"})
    assert result.returncode == 10
    assert result.stdout == ""
    assert result.stderr.startswith("chassis-mgr: CHMGR_ROOT ")
    assert root in result.stderr


@pytest.mark.parametrize("scale", ["0", "-1", "abc", "nan", "inf", "1e999", "0.5s"])
def test_time_scale_that_is_not_a_positive_number_is_refused(tmp_path, scale):
    result = run_daemon({"CHMGR_ROOT": str(tmp_path), "CHMGR_TIME_SCALE": scale})
    assert result.returncode == 10
    assert result.stderr == f"chassis-mgr: CHMGR_TIME_SCALE must be a positive decimal number: '{scale}'\n"
