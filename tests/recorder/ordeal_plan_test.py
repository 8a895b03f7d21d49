#!/usr/bin/env python3
"""What the ordeal draws: every phase with every fault, soon, and always the same for the same seed."""

import pathlib
import sys
import unittest

sys.dont_write_bytecode = True

from ordeal_plan import FAULTS, PAIRS, PHASES, TOOLS, draw  # noqa: E402

SEEDS = ("1", 7, -3)


def pairs(seed, first, count):
    return [(plan.phase, plan.fault) for plan in (draw(seed, number) for number in range(first, first + count))]


class Plans(unittest.TestCase):
    def test_every_phase_meets_every_fault_once_a_deck(self):
        wanted = sorted((phase, fault) for phase in PHASES for fault in FAULTS)
        for seed in SEEDS:
            for deck in range(3):
                self.assertEqual(wanted, sorted(pairs(seed, deck * PAIRS + 1, PAIRS)))

    def test_thirty_rounds_have_every_phase_and_every_fault(self):
        for seed in SEEDS:
            phases, faults = zip(*pairs(seed, 1, 30))
            self.assertEqual((set(PHASES), set(FAULTS)), (set(phases), set(faults)))

    def test_a_round_is_the_same_however_it_is_come_to(self):
        self.assertEqual([draw(5, number) for number in range(1, 200)], [draw(5, number) for number in range(1, 200)])
        self.assertNotEqual(pairs(5, 1, PAIRS), pairs(6, 1, PAIRS))
        self.assertNotEqual(pairs(5, 1, PAIRS), pairs(5, PAIRS + 1, PAIRS))

    def test_every_tool_of_a_phase_is_struck_sooner_or_later(self):
        plans = [draw(1, number) for number in range(1, 2000)]
        for phase, tools in TOOLS.items():
            struck = {plan.tool for plan in plans if plan.phase == phase and plan.fault in ("hang", "die")}
            self.assertEqual({name for name, _ in tools}, struck)

    def test_the_tools_are_those_that_can_be_told_to_fail(self):
        sys.path.insert(1, str(pathlib.Path(__file__).resolve().parents[2] / "recorder"))
        import ordeal_round
        self.assertEqual(set(ordeal_round.TOOLS), {name for tools in TOOLS.values() for name, _ in tools})


unittest.main()
