"""What must hold on an appliance after a fault, and what must come of its next start."""


class Aftermath:
    """Looks at an appliance that was struck while it went from one version (none when empty) to another.

    `lost` collects how a pack, or the store, was less than promised; `stuck` what would need a person.
    """

    def __init__(self, publisher, appliance, old, new):
        self.publisher, self.appliance, self.old, self.new = publisher, appliance, old, new
        self.lost = []
        self.stuck = []

    def look(self):
        """The promises that hold at every instant."""
        publisher, appliance = self.publisher, self.appliance
        if appliance.pack.exists():
            old_fits = self.old and publisher.is_whole(appliance.pack, self.old)
            if not (old_fits or publisher.is_whole(appliance.pack, self.new)):
                self.lost.append("the pack folder holds a part of a pack")
        elif self.old and not publisher.is_whole(appliance.backup, self.old):
            self.lost.append("neither pack nor backup is whole")
        try:
            appliance.status()
        except ValueError as error:
            self.lost.append(f"the status store cannot be read: {error}")

    def go_on(self):
        """Recovery, as at boot, then the next check and update against the healthy server."""
        appliance = self.appliance
        self._packctl("recover", 0)
        if self.old and not appliance.pack.exists():
            self.lost.append("no pack is in place after recovery")
        self.look()
        self._packctl("check", 0, 2)
        self._packctl("update", 0)
        status = appliance.status()
        if status != "up_to_date":
            self.stuck.append(f"the status is {status}")
        if not self.publisher.is_whole(appliance.pack, self.new):
            self.lost.append("the new pack is not whole at the end")
        if appliance.leftovers():
            self.stuck.append(f"left behind: {' '.join(appliance.leftovers())}")

    def _packctl(self, command, *accepted):
        done = self.appliance.packctl(command)
        if done.returncode not in accepted:
            self.stuck.append(f"{command} ended with {done.returncode}: {(done.stdout + done.stderr).strip()}")
