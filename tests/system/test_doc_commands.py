"""Every command quoted in README.md, docs/*.md and the man pages' EXAMPLES
runs as written against the emulated chassis (rules in README.md, "The
documentation's commands")."""

import signal
import subprocess

from chmgrctl_support import bring_up, client_binary
from conftest import timeout_factor
from doc_commands import NOT_RUN, REPO, RUN, classify, documented_commands

# A command that still runs after this long is interrupted; only a watch may
# be (it follows the chassis until its condition or its own limit, and the
# chassis is in whatever state the previous commands left).
COMMAND_LIMIT_S = 3.0
# Exit statuses that are an answer: done, refused by the daemon (the chassis
# is in whatever state the previous command left it), a watch's time limit,
# a watch ended by Ctrl-C.
ANSWERS = {0, 1, 4}


def executable(program):
    return str(client_binary()) if RUN[program] is None else str(REPO / RUN[program])


def is_watch(argv):
    return argv[0] == "chmgrctl" and "watch" in argv


def run(sandbox, command):
    argv = [executable(command.argv[0])] + command.argv[1:]
    proc = subprocess.Popen(argv, env=sandbox.env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True, cwd=REPO)
    interrupted = False
    try:
        out, err = proc.communicate(timeout=COMMAND_LIMIT_S * timeout_factor())
    except subprocess.TimeoutExpired:
        interrupted = True
        proc.send_signal(signal.SIGINT)
        try:
            out, err = proc.communicate(timeout=10 * timeout_factor())
        except subprocess.TimeoutExpired:
            proc.kill()
            out, err = proc.communicate()
    return proc.returncode, interrupted, out, err


def test_rules_of_the_documented_commands():
    assert classify("x", "chmgrctl show 3   # one slot").argv == ["chmgrctl", "show", "3"]
    assert classify("x", "$ chmgrctl show").run
    assert classify("x", "CHMGR_ROOT=/tmp/r chmgrctl status").argv == ["chmgrctl", "status"]
    assert classify("x", "tools/chmgr-hwemu run &").run is False
    assert classify("x", "journalctl -u chassis-mgr -p err").why_not == NOT_RUN["journalctl"]
    assert classify("x", "[SLOT3:ERR]... supervision.cpp:33 slot state stuck") is None
    assert classify("x", "1       400G        0G               400G        0  Online   enable") is None
    sources = {command.source.split(":")[0] for command in documented_commands() if command.run}
    assert {"docs/operations.md", "docs/man/chmgrctl.8", "docs/hardware-emulator.md"} <= sources


def test_every_documented_command_runs_against_the_emulated_chassis(sandbox, daemon):
    daemon.start()
    sandbox.start_emulator()
    for slot in (1, 2, 3, 4):
        bring_up(sandbox, slot)

    failures, ran, skipped = [], 0, []
    for command in documented_commands():
        if not command.run:
            skipped.append(f"{command.source}: {command.text}  ({command.why_not})")
            continue
        ran += 1
        code, interrupted, out, err = run(sandbox, command)
        if interrupted:
            ok = is_watch(command.argv) and code == 128 + signal.SIGINT
        else:
            ok = code in ANSWERS if command.argv[0] == "chmgrctl" else code == 0
        if not ok:
            failures.append(f"{command.source}: {command.text}\n  exit {code}{' (interrupted)' if interrupted else ''}"
                            f"\n  stdout: {out[-500:]!r}\n  stderr: {err[-500:]!r}")
    print(f"{ran} documented commands run; not run:\n  " + "\n  ".join(skipped))
    assert ran > 0
    assert not failures, "\n".join(failures)
