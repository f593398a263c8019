"""Faults: killed at any instant, disks that are full, calls that fail, a database in trouble, a clock that jumps.

The tables are always one whole old or new state of each family, and after a restart the daemon serves one of them. The
usual run is short; VELLUM_FAULT_ROUNDS sets the kills of each program (scripts/faults), VELLUM_FAULT_SEED the seed.
"""

import os
import random
import time
import unittest

from faults import FAMILIES, FaultWorld, difference

ROUNDS = int(os.environ.get("VELLUM_FAULT_ROUNDS", "10"))  # kills of each program
SEED = int(os.environ.get("VELLUM_FAULT_SEED", random.randrange(1 << 32)))


def setUpModule():
    global world
    world = FaultWorld()


def tearDownModule():
    world.close()


class FaultCase(unittest.TestCase):
    def assert_one_of(self, found, states, what):
        """`found` is, for each family, that of one of the states."""
        for family in FAMILIES:
            if not any(found[family] == state[family] for state in states):
                told = "; ".join(difference(found[family], state[family]) for state in states)
                self.fail(f"{what}: {family} is none of the states: {told}")


class Kill(FaultCase):
    """kill -9 at a random instant of a backup and its script (two rounds of three), or of a load."""

    def setUp(self):
        self.chance = random.Random(f"{SEED} {self.id()}")
        self.left = [0, 0]  # how often the old greylist was in the tables after the kill, and the new one
        world.settle()

    def tearDown(self):
        print(f"seed {SEED}, {ROUNDS} rounds: {self.left[0]} left the old rows, {self.left[1]} the new ... ",
              end="", flush=True)

    def rounds(self, kill_while_saving, kill_while_loading):
        for number in range(ROUNDS):
            old = world.settle()
            what = f"seed {SEED}, round {number}"
            if number % 3 == 2:
                kill_while_loading(old, what)
            else:
                new = world.change()
                kill_while_saving(old, new, what)

    def save_and_kill(self, victim):
        backup = world.vellum.start_ctl("backup")
        # Any instant will do, and the early ones more often: asking takes some milliseconds, the script some hundred.
        time.sleep(10 ** self.chance.uniform(-2.5, -0.5))
        victim.kill()
        backup.wait()

    def check_left(self, old, new, what):
        found = world.tables()
        self.assert_one_of(found, (old, new), what)
        self.left[found["greylist"] == new["greylist"]] += 1

    def load_and_kill(self, victim):
        loads = [world.vellum.start_ctl(family, "reload") for family in FAMILIES]
        time.sleep(self.chance.uniform(0, 0.1))
        victim.kill()
        for load in loads:
            load.wait()

    def load_all(self):
        for family in FAMILIES:
            world.vellum.ctl(family, "reload")

    def test_state_daemon(self):
        def saving(old, new, what):
            self.save_and_kill(world.vellum.daemon)
            self.check_left(old, new, what)
            world.vellum.start_daemon()
            stored = world.tables()
            self.assert_one_of(stored, (old, new), what)
            self.assert_one_of(world.memory(), (stored,), f"{what}, started again")

        def loading(old, what):
            world.vellum.daemon.kill()
            world.vellum.daemon.start()
            time.sleep(self.chance.uniform(0, 0.4))
            world.vellum.daemon.kill()
            self.assert_one_of(world.tables(), (old,), what)
            world.vellum.start_daemon()
            self.assert_one_of(world.memory(), (old,), what)
        self.rounds(saving, loading)

    def test_database_daemon(self):
        def saving(old, new, what):
            self.save_and_kill(world.vellum.dbd)
            self.check_left(old, new, what)
            world.vellum.start_dbd()
            world.accepted_is_done()
            self.assert_one_of(world.tables(), (old, new), what)
            self.assert_one_of(world.memory(), (new,), what)

        def loading(old, what):
            self.load_and_kill(world.vellum.dbd)
            world.vellum.start_dbd()
            self.assert_one_of(world.tables(), (old,), what)
            self.assert_one_of(world.memory(), (old,), what)
        self.rounds(saving, loading)

    def test_database(self):
        def saving(old, new, what):
            self.save_and_kill(world.mariadb)
            world.mariadb.start()
            self.check_left(old, new, what)
            world.accepted_is_done()
            self.assert_one_of(world.tables(), (old, new), what)
            self.assert_one_of(world.memory(), (new,), what)

        def loading(old, what):
            self.load_and_kill(world.mariadb)
            world.mariadb.start()
            self.assert_one_of(world.tables(), (old,), what)
            self.load_all()
            self.assert_one_of(world.memory(), (old,), what)
        self.rounds(saving, loading)


if __name__ == "__main__":
    unittest.main()
