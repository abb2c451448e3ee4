"""The commands quoted in the documentation: where they are looked for and
which of them are run against the emulated chassis (rules in README.md,
"The documentation's commands")."""

import re
import shlex
from pathlib import Path
from typing import NamedTuple

REPO = Path(__file__).resolve().parents[2]

# Programs whose quoted command lines are run, with the file that runs them
# (relative to the repository; None: the built binary of that name).
RUN = {
    "chmgrctl": None,
    "chmgr-hwemu": "tools/chmgr-hwemu",
    "tools/chmgr-hwemu": "tools/chmgr-hwemu",
}

# Programs whose command lines are recognised but not run, and why.
NOT_RUN = {
    "systemctl": "needs a real systemd",
    "journalctl": "needs a real systemd journal",
    "systemd-tmpfiles": "needs a real systemd",
    "systemd-analyze": "needs a real systemd",
    "promtool": "checks a real Prometheus set-up",
    "dpkg": "installs packages on the host",
    "dpkg-reconfigure": "reconfigures packages on the host",
    "apt": "installs packages on the host",
    "apt-get": "installs packages on the host",
    "adduser": "changes the host's users",
    "fuser": "looks at the host's real pid file",
    "kill": "signals processes of a real switch",
    "chassis-mgr": "starts the daemon on a real switch",
    "build/chassis-mgr": "starts a second daemon",
    "chmgr-demo": "runs a chassis of its own (tests/system/test_bringup_demo.py)",
    "tools/chmgr-demo": "runs a chassis of its own (tests/system/test_bringup_demo.py)",
    "cmake": "builds the project",
    "bash": "builds or packages the project",
    "export": "sets up a shell of the reader's",
    "mkdir": "works on the host's own files",
    "cp": "works on the host's own files",
    "mv": "works on the host's own files",
    "cat": "reads the switch's own files",
    "ls": "reads the switch's own files",
    "grep": "reads the switch's own files",
    "echo": "writes the switch's own files",
    "printf": "writes the switch's own files",
    "sleep": "a pause of a hand-run recipe",
}

ASSIGNMENT = re.compile(r"^[A-Za-z_][A-Za-z0-9_]*=\S*$")


class Command(NamedTuple):
    source: str  # "docs/operations.md:137"
    text: str    # the command line as quoted, without its prompt
    argv: list   # the words, comments and leading VAR=value assignments removed
    run: bool
    why_not: str  # for a command not run


def man_text(line):
    """A roff line as printed: escaped minus signs and quotes made plain."""
    return line.replace("\\-", "-").replace("\\(dq", '"').replace("\\(aq", "'").replace("\\e", "\\")


def markdown_blocks(path):
    """The code blocks of a Markdown file, each a list of (line number,
    text): lines indented by four spaces (blank lines inside kept), or lines
    between ``` fences."""
    block, fenced = [], False
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        if line.lstrip().startswith("```"):
            if fenced:
                yield block
                block = []
            fenced = not fenced
        elif fenced or line.startswith("    ") or (block and not line.strip()):
            block.append((number, line.strip()))
        elif block:
            yield block
            block = []
    if block:
        yield block


def man_examples(path):
    """The .nf/.fi (or .EX/.EE) blocks of the EXAMPLES section of a man page."""
    section, block = None, None
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        if line.startswith(".SH "):
            section = line[4:].strip().strip('"')
        elif section != "EXAMPLES":
            continue
        elif line.startswith((".nf", ".EX")):
            block = []
        elif line.startswith((".fi", ".EE")):
            if block is not None:
                yield block
            block = None
        elif block is not None and not line.startswith("."):
            block.append((number, man_text(line).strip()))


def command_lines(block):
    """The lines of a block that may be commands: in a block that shows a
    "$ " prompt only the prompted lines (the others are their output), else
    every line."""
    prompted = [(number, text) for number, text in block if text.startswith("$ ")]
    return prompted if prompted else block


def classify(source, text):
    """The Command a quoted line is, or None when it is not a command line."""
    if text.startswith("$ "):
        text = text[2:].strip()
    try:
        words = shlex.split(text, comments=True)
    except ValueError:
        return None  # unbalanced quotes: prose or output, not a command line
    while words and ASSIGNMENT.match(words[0]):
        words = words[1:]
    if not words:
        return None
    program = words[0]
    if program in RUN:
        if words[-1] == "&" or text.rstrip().endswith("&"):
            return Command(source, text, words, False, "starts a background process")
        if "|" in words:  # a filter of the output for the reader: the command itself is run
            words = words[:words.index("|")]
        return Command(source, text, words, True, "")
    if program in NOT_RUN:
        return Command(source, text, words, False, NOT_RUN[program])
    return None


def documented_commands():
    """Every command line quoted in README.md, docs/*.md and the EXAMPLES of
    the man pages, in that order."""
    found = []
    sources = [(path, markdown_blocks(path)) for path in [REPO / "README.md"] + sorted((REPO / "docs").glob("*.md"))]
    sources += [(path, man_examples(path)) for path in sorted((REPO / "docs" / "man").glob("*.[1-8]"))]
    for path, blocks in sources:
        for block in blocks:
            for number, text in command_lines(block):
                command = classify(f"{path.relative_to(REPO)}:{number}", text)
                if command:
                    found.append(command)
    return found
