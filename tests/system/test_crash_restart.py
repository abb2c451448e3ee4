"""A daemon killed with SIGKILL at a random moment of card bring-ups loses
nothing: after a restart every present, enabled card comes Operational,
cards.conf keeps its eight lines with the administrator's settings, and the
port list matches the cards in service.  See crash_trials.py for a trial;
bench/crash_bench.py runs many more.

CHMGR_CRASH_SEED picks the first seed (default 1); ten consecutive seeds
run."""

import os

import pytest

from conftest import daemon_binary, timeout_factor
from crash_trials import run_trial

TRIALS = 10
FIRST_SEED = int(os.environ.get("CHMGR_CRASH_SEED", "1"))


@pytest.mark.parametrize("seed", range(FIRST_SEED, FIRST_SEED + TRIALS))
def test_kill_during_bring_ups_then_restart_loses_nothing(seed):
    failures = run_trial(daemon_binary(), seed, timeout=60.0 * timeout_factor())
    assert not failures, f"seed {seed} (rerun with CHMGR_CRASH_SEED={seed}):\n" + "\n".join(
        f"{kind}: {detail}" for kind, detail in failures)
