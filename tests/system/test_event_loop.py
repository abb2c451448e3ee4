"""The event sources and the poll loop of the real chassis-mgr binary: file
wake-ups per slot, files that appear after start-up or come back after being
deleted or replaced, a tree that appears after start-up, a directory at an
event path, the per-slot timers of empty slots, bad event files, and the exit
on a poll failure."""

import re
import resource
import shutil
import subprocess
import time

from conftest import (console_lines, daemon_binary, fd_infos, inotify_watch_counts, read_text, timeout_factor,
                      wait_in_main_loop, wait_until, write_once)

SCALE = 0.001
EMPTY_POLL_PERIOD = 10 * SCALE  # seconds
TIMER_VALUE = re.compile(r"^it_value: \((\d+), (\d+)\)$", re.M)
TIMER_INTERVAL = re.compile(r"^it_interval: \((\d+), (\d+)\)$", re.M)


def received(handle, slot):
    """Number of "Received event" lines of the slot so far (a message without
    a line end may come before one on the same console line)."""
    return len(re.findall(rf"\[SLOT{slot}\] event_loop\.cpp:\d+ Received event\n", handle.console()))


def wait_received(handle, slot, count):
    wait_until(lambda: received(handle, slot) >= count,
               what=f"{count} 'Received event' lines of slot {slot}")
    return received(handle, slot)


def slot_timers(pid):
    """(remaining, interval) in seconds of every timer descriptor of the process."""
    timers = []
    for info in fd_infos(pid, "anon_inode:[timerfd]"):
        value = TIMER_VALUE.search(info)
        interval = TIMER_INTERVAL.search(info)
        timers.append((int(value[1]) + int(value[2]) / 1e9, int(interval[1]) + int(interval[2]) / 1e9))
    return timers


def test_file_write_wakes_its_slot_and_the_files_decide_the_event(sandbox, daemon):
    handle = daemon.start()
    wait_in_main_loop(handle)
    write_once(sandbox.event(4, "synced"), "1")  # not the awaited file: no event
    wait_received(handle, 4, 1)
    write_once(sandbox.event(4, "present"), "1")  # the awaited file reads 1
    wait_received(handle, 4, 2)
    wait_until(lambda: "[SLOT4] slot_model.cpp:<N> Event received" in console_lines(handle),
               what="slot 4's event to be decided")
    slot4 = [line for line in console_lines(handle, keepends=True) if line.startswith("[SLOT4] ")
             and ("event_loop" in line or "slot_model" in line)]
    assert slot4[-3:] == ["[SLOT4] event_loop.cpp:<N> Received event\n",
                          "[SLOT4] event_loop.cpp:<N> Received event\n",
                          "[SLOT4] slot_model.cpp:<N> Event received\n"]
    assert all(received(handle, slot) == 0 for slot in (1, 2, 3, 5, 6, 7, 8))


def test_each_write_read_by_the_loop_is_one_wakeup(sandbox, daemon):
    handle = daemon.start()
    wait_in_main_loop(handle)
    for count in range(1, 6):
        write_once(sandbox.event(6, "ready"), "0")
        wait_received(handle, 6, count)
    assert received(handle, 6) == 5


def watching_line(sandbox, slot, name):
    return f"[SLOT{slot}] event_watches.cpp:<N> Watching {sandbox.event(slot, name)}"


def wait_line(handle, line):
    wait_until(lambda: line in console_lines(handle), what=repr(line))


def test_event_file_created_after_start_up_is_watched_and_read(sandbox, daemon):
    late = sandbox.event(2, "active")
    late.unlink()
    handle = daemon.start()
    wait_until(lambda: inotify_watch_counts(handle.pid).count(6) == 7
               and 5 in inotify_watch_counts(handle.pid),
               what="the watches, slot 2 without its active file")
    write_once(late, "1")
    wait_line(handle, watching_line(sandbox, 2, "active"))
    write_once(late, "0")
    wait_received(handle, 2, 1)
    assert console_lines(handle).count(watching_line(sandbox, 2, "active")) == 1


def test_event_file_deleted_and_re_created_is_watched_again(sandbox, daemon):
    handle = daemon.start()
    wait_in_main_loop(handle)
    path = sandbox.event(3, "verified")
    path.unlink()
    wait_received(handle, 3, 1)  # the end of the old file's watch
    write_once(path, "0")
    wait_line(handle, watching_line(sandbox, 3, "verified"))
    write_once(path, "0")
    wait_received(handle, 3, 2)
    assert console_lines(handle).count(watching_line(sandbox, 3, "verified")) == 1


def test_event_file_replaced_by_a_rename_is_watched_again_and_its_new_value_read(sandbox, daemon):
    handle = daemon.start()
    wait_in_main_loop(handle)
    path = sandbox.event(5, "present")
    temporary = path.with_name("lc5_present.new")
    write_once(temporary, "1")
    temporary.rename(path)  # the empty slot now reads a card: the change is read when the watch comes back
    wait_line(handle, watching_line(sandbox, 5, "present"))
    wait_line(handle, "[SLOT5] slot_model.cpp:<N> Event received")
    before = received(handle, 5)
    write_once(path, "1")
    wait_received(handle, 5, before + 1)
    assert console_lines(handle).count(watching_line(sandbox, 5, "present")) == 1


def test_hardware_tree_created_after_start_up_is_found_and_its_cards_detected(sandbox, daemon):
    tree = sandbox.path("var/run/hw-management")
    shutil.rmtree(tree)
    handle = daemon.start()
    events = f"{sandbox.root}/var/run/hw-management/events/"
    missing = f"event_watches.cpp:<N> WARN Directory {events} is missing, looking for it every supervision period"
    wait_line(handle, missing)
    sandbox.hwemu("create")
    wait_line(handle, f"event_watches.cpp:<N> Directory {events} found, watching its event files")
    sandbox.insert(3)
    wait_line(handle, "[SLOT3] transitions_detect.cpp:<N> Transitioned from 0 to SLOT_PRESENT")
    assert console_lines(handle).count(missing) == 1


def test_directory_at_an_event_path_gives_one_err_line_and_no_spin(sandbox, daemon):
    path = sandbox.event(6, "present")
    path.unlink()
    path.mkdir()
    handle = daemon.start()
    wait_in_main_loop_but_slot(handle)
    err = f"[SLOT6] event_watches.cpp:<N> ERR {path} is a directory, not an event file"
    wait_line(handle, err)
    write_once(path / "inner", "1")  # a record with a name: it never fits the event-file read
    # A record left queued would be read again at once, for ever: one
    # "Received event" line each time (tens of thousands a second).
    time.sleep(0.5)
    assert received(handle, 6) <= 1
    assert console_lines(handle).count(err) == 1

    (path / "inner").unlink()
    path.rmdir()
    write_once(path, "0")
    wait_line(handle, watching_line(sandbox, 6, "present"))
    write_once(path, "0")
    wait_received(handle, 6, 1)


def wait_in_main_loop_but_slot(handle):
    wait_until(lambda: inotify_watch_counts(handle.pid).count(6) == 7
               and 5 in inotify_watch_counts(handle.pid), what="the watches, one slot short of one")


def test_empty_slots_are_polled_every_ten_seconds_scaled_and_never_declared_stuck(sandbox, daemon):
    handle = daemon.start(scale=SCALE)
    wait_in_main_loop(handle)
    # Watch the eight one-shot timers for at least 30 periods: each is re-armed
    # on every expiry, so it is always found armed for at most one period.
    started = time.monotonic()
    samples = 0
    while time.monotonic() - started < 30 * EMPTY_POLL_PERIOD or samples < 10:
        timers = slot_timers(handle.pid)
        assert len(timers) == 8
        for remaining, interval in timers:
            assert interval == 0
            assert remaining <= EMPTY_POLL_PERIOD
        samples += 1
    assert handle.proc.poll() is None
    text = handle.console()
    assert "Received timer event" not in text
    assert "stuck" not in text


def test_bad_event_files_are_read_without_harm(sandbox, daemon):
    handle = daemon.start()
    wait_in_main_loop(handle)
    count = 0
    for content in (b"", b"\xff\x00\x01binary", b"1" + b"x" * (4 << 20), b"2", b"\n"):
        write_once(sandbox.event(7, "present"), content)
        count += 1
        wait_received(handle, 7, count)
    sandbox.event(7, "powered").unlink()  # removing a watched file ends its watch
    write_once(sandbox.event(7, "ready"), "1")
    wait_until(lambda: received(handle, 7) >= count + 1, what="slot 7 still woken")
    assert handle.proc.poll() is None


def test_poll_failure_logs_and_exits_with_status_1(sandbox):
    # poll refuses a set larger than the descriptors the process may open.
    def few_descriptors():
        resource.setrlimit(resource.RLIMIT_NOFILE, (12, 12))

    # A thread sanitizer build would report the threads left running by exit().
    env = dict(sandbox.env, CHMGR_TIME_SCALE=str(SCALE), TSAN_OPTIONS="report_thread_leaks=0")
    result = subprocess.run([str(daemon_binary())], env=env, cwd=sandbox.base, capture_output=True,
                            text=True, stdin=subprocess.DEVNULL, timeout=30 * timeout_factor(), check=False,
                            preexec_fn=few_descriptors)
    assert result.returncode == 1
    # Other threads may still log while the process exits.
    assert re.search(r"(^|\n)event_loop\.cpp:\d+ ERR poll\(\) error exiting\n", result.stdout)
