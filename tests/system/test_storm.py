"""A seeded storm of insertions, removals at every stage, disables,
enables, pre-provisionings and stray event writes on all eight slots of the
emulated chassis, checked after every step (see storm.py).

CHMGR_STORM_SEED replays a failing run; CHMGR_STORM_STEPS changes its length."""

import os
import shutil

from conftest import daemon_binary, short_base, timeout_factor
from storm import Chassis, Storm, new_seed

STEPS = int(os.environ.get("CHMGR_STORM_STEPS", "300"))


def test_storm_of_card_operations_keeps_every_slot_consistent(tmp_path):
    seed = int(os.environ.get("CHMGR_STORM_SEED", new_seed()))
    print(f"storm seed {seed}")
    base, own_dir = short_base(tmp_path)
    chassis = Chassis(base, daemon_binary(), factor=timeout_factor())
    try:
        chassis.start()
        Storm(chassis, seed).run(STEPS)
    finally:
        chassis.stop()
        if own_dir:
            shutil.rmtree(base, ignore_errors=True)
