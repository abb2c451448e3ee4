"""The console written to the journal: each line carries its syslog priority.

The service manager names the journal stream in JOURNAL_STREAM; when the
daemon's standard output is that stream, every console line starts with
"<N>" (ERR 3, WARN 4, no level word 6), which the journal strips and keeps as
the entry's priority.  Anywhere else the console is written unchanged.
"""

import re
import shutil

from conftest import console_lines, journal_stream_of

EVENTS_DIR = "var/run/hw-management/events"
PRIORITY = re.compile(r"^<(\d)>")


def start_without_events(sandbox, daemon, journal_stream):
    """Starts the daemon with the events directory missing: an ERR line per
    slot (no INI in the simulated firmware), one WARN line for the missing
    directory and INFO lines, all during start-up."""
    shutil.rmtree(sandbox.path(EVENTS_DIR))
    handle = daemon.start(env={"JOURNAL_STREAM": journal_stream})
    handle.wait_console("is missing, looking for it every supervision period\n")
    handle.wait_console("Initializing debug_thread\n")  # written by its own thread
    handle.kill()
    return handle


def expected_start_lines(sandbox, prefixes):
    err, warn, info = prefixes
    return ([f"{err}sdk_ini.cpp:<N> ERR ks_mgmt_slot_info_get FAILED\n"] * 8 +
            [f"{warn}event_watches.cpp:<N> WARN Directory {sandbox.path(EVENTS_DIR)}/ is missing, "
             "looking for it every supervision period\n",
             f"{info}debug_trigger.cpp:<N> Initializing debug_thread\n",
             f"{info}sdk_connection.cpp:<N> KS api open success handle = 1\n"])


def test_console_on_the_journal_stream_prefixes_each_line_with_its_priority(sandbox, daemon):
    out = daemon.next_console_path()
    handle = start_without_events(sandbox, daemon, journal_stream_of(out))
    lines = console_lines(handle, keepends=True)
    expected = expected_start_lines(sandbox, ("<3>", "<4>", "<6>"))
    for line in expected:
        assert lines.count(line) == expected.count(line), line
    assert "<6>[SLOT1] cards_conf.cpp:<N> dirty_flag = 0, state = Offline, admin_state = enable in cards.conf\n" \
        in lines
    for line in lines:
        match = PRIORITY.match(line)
        assert match, line
        text = line[match.end():]
        level = "3" if " ERR " in text else "4" if " WARN " in text else "6"
        assert match[1] == level, line
        assert not PRIORITY.match(text), line  # exactly one prefix


def test_console_elsewhere_than_the_journal_stream_has_no_prefix(sandbox, daemon):
    out = daemon.next_console_path()
    dev, ino = journal_stream_of(out).split(":")
    handle = start_without_events(sandbox, daemon, f"{dev}:{int(ino) + 1}")
    lines = console_lines(handle, keepends=True)
    for line in expected_start_lines(sandbox, ("", "", "")):
        assert line in lines
    assert not [line for line in lines if line.startswith("<")]
