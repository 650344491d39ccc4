#!/usr/bin/env python3
"""Every state of the model has a road to up to date, planted mistakes are found, and the documentation is of today."""

import unittest
from unittest import mock

import model
import steps
import tables


def without(program, *names):
    """The program with steps taken out."""
    left_out = [step.name for group in program.groups for step in group.steps if step.name in names]
    assert left_out, f"{program.name} has no step {names}"
    groups = [
        group._replace(steps=[step for step in group.steps if step.name not in names]) for group in program.groups
    ]
    return program._replace(groups=groups)


def stuck():
    return [found for unhealthy in model.UNHEALTHY for found in model.stuck(model.states_with(unhealthy))]


class ModelTest(unittest.TestCase):
    def test_every_state_has_a_road(self):
        self.assertEqual([model.words(state) for state, _ in stuck()], [])

    def test_no_state_has_a_part_of_a_pack_in_place(self):
        states = model.known_states()
        print(f"{len(states)} states")
        self.assertFalse([state for state in states if "part" in (state.pack, state.backup, state.previous)])

    def test_a_step_of_recovery_left_out_is_found(self):
        for name in (
            "put the backup back",
            "move `half_built` aside",
            "set a broken store aside",
            "record `what is left`",
        ):
            with self.subTest(name), mock.patch.object(model, "BOOT", without(steps.BOOT, name)):
                self.assertTrue(stuck())

    def test_a_road_left_out_is_found(self):
        for name in ("tell of a new pack", "clear the record"):
            with self.subTest(name), mock.patch.object(model, "CHECK", without(steps.CHECK, name)):
                self.assertTrue(stuck())

    def test_a_step_of_an_update_left_out_hides_states_that_are_seen(self):
        seen = steps.State(
            *("", "old", "", "there", "there", "", "", "new", "old"), status="downloading_installing", offered="new"
        )
        self.assertIn(seen, model.known_states())
        for name in ("set the old pack aside", "unpack", "build the pack beside its place"):
            with self.subTest(name):
                programs = [without(steps.UPDATE, name)]
                self.assertNotIn(seen, model.reachable(programs, ""))

    def test_a_sync_reaches_what_it_syncs_and_no_earlier_change_elsewhere(self):
        seen = (
            steps.State(pack="old", healthy="old", status="broken", temporary="there"),
            steps.State("old", "", "", "there", "there", "", "", "new", "old", "", "download_install_failed"),
        )
        for state in seen:
            self.assertIn(state, model.known_states())
        with mock.patch.object(model, "synced_by", lambda step, state: state._asdict() if step.syncs else {}):
            self.assertFalse(model.reachable(steps.PROGRAMS, "").intersection(seen))

    def test_the_documentation_has_the_tables(self):
        page = tables.PAGE.read_text()
        self.assertEqual(tables.MARKED.sub("", page).count("tests/model:"), 0)
        self.assertEqual(page, tables.renewed(page), "Run: python3 tests/model/tables.py")


if __name__ == "__main__":
    unittest.main()
