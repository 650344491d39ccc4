"""What must hold on an appliance after a fault, and what must come of its next days without a person."""

import json

DAYS = 2  # that the timers have to bring everything in order
BY_ITSELF = {"update_policy": "auto_download_auto_install"}  # the setting under which the timers install


class Aftermath:
    """Looks at an appliance that was struck while it went from one version (none when empty) to another.

    `broken` is the text of a status store that was unreadable before the fault; `after_error` tells that the fault was
    a failing call, `had_store` that there was a status store before. `lost` collects how a pack, or the store, was less
    than promised; `stuck` what would need a person.
    """

    PROGRAM = "packctl"  # that was struck
    known = None  # the states of the model, for those who try two versions

    def __init__(self, publisher, appliance, old, new, broken=None, after_error=False):
        self.publisher, self.appliance, self.old, self.new = publisher, appliance, old, new
        self.broken, self.after_error = broken, after_error
        self.had_store = True
        self.minimum = None  # that the new pack's signature names
        self.lost = []
        self.stuck = []
        self.may_be_left = set()
        self.end_as(0, (new,))

    def end_as(self, ends, finals):
        """How an update ends that nothing disturbs, and the versions of which one is installed at the end."""
        self.ends, self.finals = ends, finals

    def look(self):
        """The promises that hold at every instant."""
        publisher, appliance = self.publisher, self.appliance
        self._expect_known()
        versions = {version for version in (self.old, self.new, *self.finals) if version}
        if appliance.pack.exists():
            if not any(publisher.is_whole(appliance.pack, version) for version in versions):
                self.lost.append("the pack folder holds a part of a pack")
        elif self.old and not any(publisher.is_whole(appliance.backup, version) for version in versions):
            self.lost.append("neither pack nor backup is whole")
        if appliance.previous.exists() and not any(
            publisher.is_whole(appliance.previous, version) for version in publisher.payloads
        ):
            self.lost.append("the previous pack is not whole")
        self._look_at_store()
        for name in ("offer.json", "hold.json"):
            self._look_at_note(self.appliance.state_folder / name)
        if self.appliance.accepted_file.exists() and self.appliance.accepted().keys() != {
            "minimum",
            "newest_signature",
        }:
            self.lost.append("what was accepted cannot be read")

    def look_after_error(self, calls):
        """A program that met an error, and lived, has itself removed what it was building."""
        if self.appliance.half_built():
            self.stuck.append(f"not removed after the error: {' '.join(self.appliance.half_built())}")
        if any(
            process == self.PROGRAM and f".{self.appliance.pack.name}.partial." in path for _, process, _, path in calls
        ):
            self.stuck.append("the half-built pack was left to recovery after the error")

    def recover(self):
        """Recovery, as at boot."""
        self._expect("", 0, program=self.appliance.helpers / "orba-recover")
        self.look_after_recovery()

    def look_after_recovery(self):
        """What holds from then on."""
        appliance = self.appliance
        if self.old and not appliance.pack.exists():
            self.lost.append("no pack is in place after recovery")
        if self.broken is not None:
            self._look_at_broken_store()
        self.look()
        left = [*appliance.half_built(), *appliance.half_removed()]
        if left:
            self.stuck.append(f"left behind by recovery: {' '.join(left)}")

    def go_on(self, unhold=False):
        """The next days against the healthy server, without a person, who at most ends a hold before."""
        if unhold:
            self._expect("unhold", 0, 2)  # 2 where updates are not held
        for _ in range(DAYS):
            self._one_day()
            self._expect_known()
            status = self._look_at_store()
            if status == "up_to_date":
                break
        else:
            self.stuck.append(f"after {DAYS} days the status is {status}")
        self.look_at_end()

    def look_at_end(self):
        """The right pack is there, and nothing else."""
        appliance = self.appliance
        if not any(self.publisher.is_whole(appliance.pack, version) for version in self.finals):
            self.lost.append("the right pack is not whole at the end")
        if self.minimum and appliance.accepted().get("minimum") != self.minimum:
            self.lost.append("the minimum is not remembered at the end")
        left = [path for path in appliance.leftovers() if path not in self.may_be_left]
        if left:
            self.stuck.append(f"left behind: {' '.join(left)}")

    def _one_day(self):
        """What the timers do: the update's unit is skipped unless a check has left an offer."""
        self._expect("check", 0, 2)
        if self.appliance.offer_file.exists():
            self._expect("update --automatic", self.ends)

    def _look_at_note(self, file):
        """It is whole or absent."""
        try:
            if file.exists() and not isinstance(json.loads(file.read_bytes()), dict):
                self.lost.append(f"{file.name} is no object")
        except ValueError as error:
            self.lost.append(f"{file.name} cannot be read: {error}")

    def _expect_known(self):
        """Every state of the disk is one of the model, of which it is known that no person is needed."""
        if self.known and (problem := self.known.problem(self.appliance, self.publisher)):
            self.stuck.append(problem)

    def _look_at_store(self):
        if self.broken is None and self.had_store and not self.appliance.status_file.exists():
            self.lost.append("the status store is gone")
        try:
            return self.appliance.status()
        except ValueError as error:
            if self.appliance.status_file.read_bytes() != self.broken:
                self.lost.append(f"the status store cannot be read: {error}")
            return "unreadable"

    def _look_at_broken_store(self):
        """What was broken to begin with is set aside by now, and its text kept unless that very step failed."""
        aside = self.appliance.broken_status_file
        if aside.exists():
            self.may_be_left.add(str(aside))
        if not self.after_error and not (aside.exists() and aside.read_bytes() == self.broken):
            self.lost.append("the text of the broken status store is gone")
        self.broken = None

    def _expect(self, command, *accepted, program=None):
        program = program or self.appliance.program(self.PROGRAM)
        done = self.appliance.run(program, *command.split())
        if done.returncode not in accepted:
            self.stuck.append(
                f"{program} {command} ended with {done.returncode}: " f"{(done.stdout + done.stderr).strip()}"
            )
        return done.returncode


class HostAftermath(Aftermath):
    """The same where a host of the library is all there is: it recovers, checks and updates each time it is started."""

    PROGRAM = "host"

    def recover(self):
        """Left to the host, which does so when it starts again."""

    def _one_day(self):
        self._expect("", 0, self.ends)
