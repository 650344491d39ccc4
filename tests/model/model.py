#!/usr/bin/env python3
"""Walks all states that the steps reach, with a fault at each of them, and looks for a road from every state.

From every state each program is started, and each step of it struck: killed before and after, failing, and with the
loss of what no sync has reached. What that leaves is a state too, so that any number of faults may follow each other,
one for each run of a program. The road is what runs without a person: recovery, and on two days a check, and an update
where the check found work.
"""

import collections
import functools
import pathlib
import sys
import threading

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import steps  # noqa: E402
from classify import classify  # noqa: E402
from steps import BOOT, CHECK, MEMORY, STARTS, UPDATE  # noqa: E402

DAYS = 2
UNHEALTHY = ("", "new")  # the version that fails its health check, or none
OFFERED = ("new", "old")  # what the server has; the old one when the maker took the new one back


def synced_by(step, state):
    return {name: getattr(state, name) for name in step.syncs}


def run(program, state):
    """The state that the program leaves when nothing disturbs it."""
    for _, state in trace(program, state):
        pass
    return state


def trace(program, state):
    """Each step that applies, with the state after it."""
    for group in program.groups:
        for step in group.steps:
            if not step.when(state):
                continue
            if step.does == "fail":
                yield from trace(program.failed, state)
                return
            state = step.then(state)
            yield step, state
            if step.does == "end":
                return


class Faults:
    """What the runs of one program leave: killed midway, also with the power, or ended, also after an error."""

    def __init__(self, program):
        self.program = program
        self.known = set()  # places in the program, and states of runs that met an error there

    def strike(self, state):
        """Two sets of states: of killed runs, and of ended ones. Nothing waits for a note to reach the disk."""
        killed, ended, after_cut, notes = {state}, set(), {state}, set()
        for number, group in enumerate(self.program.groups):
            for step in group.steps:
                if not step.when(state):
                    continue
                ended |= self.after_error(number, group, state)
                if step.does == "fail":
                    return killed, ended
                before, state = state, step.then(state)
                if before.healthy not in ("", state.healthy):
                    notes |= {before.healthy, "nobody"}
                killed.update(state._replace(healthy=note) for note in notes)
                after_cut = {earlier._replace(**synced_by(step, state)) for earlier in after_cut} | {state}
                killed |= after_cut
                if step.does == "end":
                    return killed, {*ended, state}
        return killed, {*ended, state}

    def after_error(self, number, group, state):
        """How a run ends when the rest of the group is skipped; empty when that is known."""
        state = state._replace(writes=())
        if (number, state) in self.known:
            return set()
        self.known.add((number, state))
        if group.fails:
            return {run(self.program.failed, state._replace(**MEMORY))}
        return {run(self.program._replace(groups=self.program.groups[number + 1 :]), state)}


def road(state):
    """The programs that run by themselves until the appliance is in order, with what each of them leaves."""
    walked = [("boot", run(BOOT, state))]
    for _ in range(DAYS):
        if is_in_order(walked[-1][1]):
            break
        checked = run(CHECK, walked[-1][1]._replace(**MEMORY))
        walked.append(("check", checked))
        if checked.found:
            walked.append(("update", run(UPDATE, checked._replace(**MEMORY))))
    return walked


def is_in_order(state):
    """Up to date with the right pack, and nothing is left behind."""
    left = (state.backup, state.unpacked, state.half_built, state.removed, state.temporary)
    if any(left):
        return False
    if state.status == "need_install" and state.download in steps.VERSIONS and not steps.is_news(state):
        return state.offer != state.offered  # downloaded, and on offer no longer: waits for a person
    if state.download:
        return False
    if steps.is_rejected(state):  # what there was before the bad pack stays, if anything
        return state.pack != state.rejected and state.status in (
            "up_to_date",
            steps.after_rejection(state),
            *(() if state.pack else ("lost",)),
        )
    return state.status == "up_to_date" and state.pack and not steps.is_news(state)


def stuck(states):
    """The states from which there is no road, with the way that was tried."""
    for state in (state._replace(offered=offered) for state in states for offered in OFFERED):
        walked = road(state)
        if not is_in_order(walked[-1][1]):
            yield state, walked


def reachable(programs, unhealthy):
    """The states that faults and undisturbed runs lead to. After a kill recovery comes first."""
    strikes = [Faults(program) for program in programs]
    found = {(start._replace(unhealthy=unhealthy), False) for start in STARTS}
    todo = collections.deque(found)
    while todo:
        state, was_killed = todo.popleft()
        for faults in strikes:
            if was_killed and faults.program.groups[0] is not BOOT.groups[0]:
                continue
            killed, ended = faults.strike(state)
            for left, by_kill in (*((s, True) for s in killed), *((s, False) for s in ended)):
                node = left._replace(**MEMORY), by_kill
                if node not in found:
                    found.add(node)
                    todo.append(node)
    return {state for state, _ in found}


def words(state):
    """What is there, as a person reads it."""
    return ", ".join(
        f"{name} {value}" for name, value in state._asdict().items() if value and name not in ("offered", "unhealthy")
    )


@functools.lru_cache
def states_with(unhealthy):
    """The states that the programs lead to."""
    return reachable(steps.PROGRAMS, unhealthy)


@functools.lru_cache
def known_states():
    """The states of both worlds, told apart by what is on the disk alone."""
    return {state._replace(unhealthy="") for unhealthy in UNHEALTHY for state in states_with(unhealthy)}


class Known:
    """Holds the states of real appliances against those of the model. Safe for several threads."""

    def __init__(self):
        self.lock = threading.Lock()
        self.seen = set()
        self.states = known_states()

    def problem(self, appliance, publisher):
        """What is wrong with the state of the appliance, whose publisher has the old and the new version; else None."""
        state = classify(appliance, publisher, sorted(publisher.payloads))
        with self.lock:
            self.seen.add(state)
            is_known = state in self.states
        return None if is_known else f"no state of the model: {words(state)}"

    def report(self):
        return f"model: {len(self.seen)} states seen of {len(self.states)}"


def main():
    """Walks all states and prints their number, and each that has no road."""
    failed = False
    for unhealthy in UNHEALTHY:
        states = states_with(unhealthy)
        without_road = list(stuck(states))
        print(f"new pack {'bad' if unhealthy else 'good'}: {len(states)} states, {len(without_road)} without a road")
        for state, walked in without_road:
            print(
                f"  {words(state)}; {state.offered} offered; " + "; ".join(f"{name}: {words(s)}" for name, s in walked)
            )
        failed = failed or bool(without_road)
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
