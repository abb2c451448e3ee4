"""The daemon's console, cut into lines or single log calls with the source
line numbers masked, and the journal stream naming a console file."""

import os
import re

# Console line: "file.cpp:123 " then the message; slot lines start with "[SLOTn] ".
CONSOLE_LINE_NUMBER = re.compile(r"(\.cpp):\d+ ")


def console_lines(handle, keepends=False):
    """Console lines with line numbers replaced by <N>."""
    return [CONSOLE_LINE_NUMBER.sub(r"\1:<N> ", line) for line in handle.console().splitlines(keepends=keepends)]


# Where one log call's console text starts: the optional slot tag, then "file.cpp:123 ".
CONSOLE_RECORD_START = re.compile(r"(?:\[SLOT\d\] )?[a-z_]+\.cpp:\d+ ")


def console_records(handle):
    """The console cut into the texts of single log calls, line numbers
    replaced by <N>, each with its line feed when it has one.

    A few messages end without a line feed, so whatever is written next -
    by any thread - continues their console line; cut at each log call's
    prefix instead, such a message is its own exact bytes."""
    text = handle.console()
    starts = [match.start() for match in CONSOLE_RECORD_START.finditer(text)]
    bounds = zip(starts, starts[1:] + [len(text)])
    return [CONSOLE_LINE_NUMBER.sub(r"\1:<N> ", text[start:end], count=1) for start, end in bounds]


def journal_stream_of(path):
    """The JOURNAL_STREAM value ("<dev>:<ino>") naming the file `path`."""
    st = os.stat(path)
    return f"{st.st_dev}:{st.st_ino}"
