"""Start-up of the real chassis-mgr binary in a sandbox root: options and
their exit statuses, the refused environments, the single-instance pid file,
the console on standard output, detaching, and the start-up state of the
slots as the console shows it."""

import os
import re
import stat
import subprocess
from pathlib import Path

import pytest

from conftest import (console_lines, daemon_binary, in_main_loop, inotify_watch_counts, read_text, status_document,
                      wait_debug_trigger_watched, wait_in_main_loop, wait_until)

PID_RELPATH = "var/run/chassis-mgr.pid"
EXIT_BAD_ARGUMENT = 10
EXIT_HALT = 1


def usage(program):
    return (f"usage: {program} [OPTIONS]\n"
            "OPTIONS:\n"
            "    -d: detach and become a daemon\n"
            "    -l: log level(DEBUG, INFO, WARNING, ERROR, CRITICAL)\n"
            "    -emul: run in emul environment\n"
            "\n")


def built_version():
    """The version text the build was configured with (CMake cache)."""
    cache = Path(daemon_binary()).parent / "CMakeCache.txt"
    match = re.search(r"^CHMGR_VERSION:STRING=(.*)$", read_text(cache), re.M)
    assert match, "CHMGR_VERSION not found in the CMake cache"
    return match.group(1)


def run_binary(sandbox, *args, env=None, timeout=10):
    """Runs the binary to completion (for the paths that exit at once)."""
    run_env = dict(sandbox.env)
    run_env["CHMGR_TIME_SCALE"] = "0.001"
    run_env.update(env or {})
    return subprocess.run([str(daemon_binary()), *args], env=run_env, cwd=sandbox.base,
                          capture_output=True, text=True, stdin=subprocess.DEVNULL,
                          timeout=timeout, check=False)


def pid_file_text(sandbox):
    return sandbox.read(PID_RELPATH)


# ---------------------------------------------------------------- options


def test_version_prints_the_banner_with_the_build_version_and_exits_0(sandbox):
    result = run_binary(sandbox, "-V")
    assert result.returncode == 0
    version = built_version()
    assert version
    assert result.stderr == f" Tarnel Linux chassis-mgr version {version}\n"
    assert result.stdout == ""
    assert not sandbox.path(PID_RELPATH).exists()


def test_version_works_whatever_the_environment(sandbox):
    result = run_binary(sandbox, "-V", env={"CHMGR_TIME_SCALE": "abc", "CHMGR_ROOT": "/x;y"})
    assert result.returncode == 0
    assert result.stderr.startswith(" Tarnel Linux chassis-mgr version ")


def test_invalid_argument_before_version_exits_10_with_the_usage(sandbox):
    result = run_binary(sandbox, "--verbose", "-V")
    assert result.returncode == EXIT_BAD_ARGUMENT
    assert result.stderr == "Unexpected argument '--verbose'\n" + usage(daemon_binary())
    assert not sandbox.path(PID_RELPATH).exists()


def test_level_as_the_last_argument_is_rejected_as_unexpected(sandbox):
    result = run_binary(sandbox, "-emul", "-l")
    assert result.returncode == EXIT_BAD_ARGUMENT
    assert result.stderr == "Unexpected argument '-l'\n" + usage(daemon_binary())


def test_unknown_level_name_is_skipped_and_parsing_continues(sandbox):
    result = run_binary(sandbox, "-l", "VERBOSE", "-bogus")
    assert result.returncode == EXIT_BAD_ARGUMENT
    assert result.stderr == "Unexpected argument '-bogus'\n" + usage(daemon_binary())


def test_unknown_level_name_leaves_the_threshold_at_info(sandbox, daemon):
    handle = daemon.start("-l", "VERBOSE", "-emul")
    wait_in_main_loop(handle)
    lines = console_lines(handle, keepends=True)
    assert "sdk_connection.cpp:<N> KS api open success handle = 1\n" in lines
    assert "[SLOT1] startup.cpp:<N> Initial empty slot detected\n" in lines


@pytest.mark.parametrize("root_suffix", ["x;y", "a b", "$(id)", "q`", "r'", "s|t"])
def test_root_with_a_shell_metacharacter_is_refused_with_status_10(sandbox, root_suffix):
    root = f"{sandbox.root}{root_suffix}"
    result = run_binary(sandbox, env={"CHMGR_ROOT": root})
    assert result.returncode == EXIT_BAD_ARGUMENT
    assert result.stderr == ("chassis-mgr: CHMGR_ROOT may hold only letters, digits and '/._-+' "
                             f"(it is used in shell commands): '{root}'\n")
    assert result.stdout == ""


@pytest.mark.parametrize("scale", ["0", "-1", "abc", "nan", "inf", "1e400", "0.5s"])
def test_time_scale_that_is_not_a_positive_number_is_refused_before_the_pid_file(sandbox, scale):
    result = run_binary(sandbox, env={"CHMGR_TIME_SCALE": scale})
    assert result.returncode == EXIT_BAD_ARGUMENT
    assert result.stderr == f"chassis-mgr: CHMGR_TIME_SCALE must be a positive decimal number: '{scale}'\n"
    assert not sandbox.path(PID_RELPATH).exists()


def test_refused_environment_leaves_an_existing_pid_file_alone(sandbox):
    sandbox.write(PID_RELPATH, "4242\n")
    result = run_binary(sandbox, env={"CHMGR_TIME_SCALE": "-1"})
    assert result.returncode == EXIT_BAD_ARGUMENT
    assert pid_file_text(sandbox) == "4242\n"


# ---------------------------------------------------------------- pid file


def test_fresh_pid_file_holds_the_pid_and_a_line_feed(sandbox, daemon):
    handle = daemon.start()
    wait_in_main_loop(handle)
    assert pid_file_text(sandbox) == f"{handle.pid}\n"
    assert stat.S_IMODE(os.stat(sandbox.path(PID_RELPATH)).st_mode) == 0o644 & ~current_umask()


def current_umask():
    mask = os.umask(0)
    os.umask(mask)
    return mask


def test_second_instance_exits_1_because_the_pid_file_is_locked(sandbox, daemon):
    first = daemon.start()
    wait_in_main_loop(first)
    second = daemon.start(expect_exit=True)
    assert second.wait_exit() == EXIT_HALT
    assert second.stderr() == "Halting: could not lock the pid file: -1\n"
    assert second.console() == ""
    assert first.proc.poll() is None
    assert pid_file_text(sandbox) == f"{first.pid}\n"


def test_stale_pid_file_of_a_dead_instance_is_reused(sandbox, daemon):
    first = daemon.start()
    wait_in_main_loop(first)
    first.kill()
    second = daemon.start()
    wait_in_main_loop(second)
    assert pid_file_text(sandbox) == f"{second.pid}\n"


def test_longer_stale_pid_is_overwritten_from_offset_0_and_keeps_its_tail(sandbox, daemon):
    old = "123456789012345\n"
    sandbox.write(PID_RELPATH, old)
    handle = daemon.start()
    wait_in_main_loop(handle)
    new = f"{handle.pid}\n"
    assert len(new) < len(old)
    assert pid_file_text(sandbox) == new + old[len(new):]


def test_pid_path_that_is_a_directory_halts_with_status_1(sandbox):
    sandbox.path(PID_RELPATH).mkdir()
    result = run_binary(sandbox)
    assert result.returncode == EXIT_HALT
    assert result.stderr == "Halting: could not open the existing pid file\n"
    assert result.stdout == ""


def test_missing_pid_directory_halts_with_status_1(sandbox):
    run_dir = sandbox.path("var/run")
    for entry in ("hw-management", "ks-sim"):
        os.rename(run_dir / entry, sandbox.base / entry)
    run_dir.rmdir()
    result = run_binary(sandbox)
    assert result.returncode == EXIT_HALT
    assert result.stderr == "Halting: could not open the existing pid file\n"


@pytest.mark.skipif(os.geteuid() == 0, reason="permissions do not stop root")
def test_pid_directory_that_is_not_writable_halts_with_status_1(sandbox):
    run_dir = sandbox.path("var/run")
    os.chmod(run_dir, 0o555)
    try:
        result = run_binary(sandbox)
    finally:
        os.chmod(run_dir, 0o755)
    assert result.returncode == EXIT_HALT
    assert result.stderr == "Halting: could not open the existing pid file\n"


# ---------------------------------------------------------------- console and detaching


def test_console_goes_to_standard_output_once_the_pid_file_is_locked(sandbox, daemon):
    handle = daemon.start()
    wait_in_main_loop(handle)
    lines = console_lines(handle, keepends=True)
    assert lines[0] == "sdk_connection.cpp:<N> KS api open success handle = 1\n"
    assert handle.stderr() == ""


def test_every_empty_slot_is_announced_in_slot_order(sandbox, daemon):
    handle = daemon.start()
    wait_in_main_loop(handle)
    empty = [line for line in console_lines(handle, keepends=True) if "Initial empty slot detected" in line]
    assert empty == [f"[SLOT{slot}] startup.cpp:<N> Initial empty slot detected\n" for slot in range(1, 9)]


def test_synced_file_at_start_up_is_announced(sandbox, daemon):
    sandbox.write("var/run/hw-management/events/lc2_synced", "1")
    handle = daemon.start()
    wait_in_main_loop(handle)
    lines = console_lines(handle, keepends=True)
    synced = lines.index("[SLOT2] slot_model.cpp:<N> Synced during bootup\n")
    assert lines.index("[SLOT2] startup.cpp:<N> Initial empty slot detected\n") > synced


def test_critical_threshold_prints_nothing_while_the_rings_fill(sandbox, daemon):
    handle = daemon.start("-l", "CRITICAL")
    wait_in_main_loop(handle)
    wait_debug_trigger_watched(handle)
    document = status_document(sandbox, handle)
    assert handle.console() == ""
    assert handle.stderr() == ""
    assert re.fullmatch(r"\[INFO\]\d+\.\d{6} \S+ \S+ sdk_connection\.cpp:\d+ "
                        r"KS api open success handle = 1\n", document["Log"][0])
    for slot in range(1, 9):
        assert re.fullmatch(rf"\[SLOT{slot}:INFO\]\d+\.\d{{6}} \S+ \S+ startup\.cpp:\d+ "
                            r"Initial empty slot detected\n", document[f"slot{slot}"]["Log"][-1])


def test_detached_daemon_writes_its_own_pid_and_prints_nothing(sandbox, daemon):
    launcher = daemon.start("-d", expect_exit=True)
    assert launcher.wait_exit() == 0
    pid = int(wait_until(lambda: pid_file_text(sandbox).strip(), what="the detached daemon's pid"))
    assert pid != launcher.pid
    wait_until(lambda: in_main_loop(pid), what="the detached daemon to reach its poll loop")
    assert pid_file_text(sandbox) == f"{pid}\n"
    assert os.readlink(f"/proc/{pid}/cwd") == "/"
    assert launcher.console() == ""
    assert launcher.stderr() == ""
    # The lock is held by the detached process: another instance is refused.
    second = daemon.start(expect_exit=True)
    assert second.wait_exit() == EXIT_HALT
    assert second.stderr() == "Halting: could not lock the pid file: -1\n"


def test_missing_slot_folders_leave_those_slots_alone(sandbox, daemon):
    events = sandbox.path("var/run/hw-management/events")
    for name in ("present", "verified", "synced", "powered", "active", "ready"):
        (events / f"lc5_{name}").unlink()
    handle = daemon.start()
    wait_until(lambda: sorted(inotify_watch_counts(handle.pid)).count(6) == 7
               and 0 in inotify_watch_counts(handle.pid),
               what="the watches of the seven complete slots")
    lines = console_lines(handle, keepends=True)
    assert f"[SLOT5] slot_model.cpp:<N> Unable to open {events}/lc5_synced\n" in lines
    assert "[SLOT5] startup.cpp:<N> Initial empty slot detected\n" not in lines
    assert "[SLOT6] startup.cpp:<N> Initial empty slot detected\n" in lines
    assert handle.proc.poll() is None
