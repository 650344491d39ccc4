"""What must hold on a machine that has booted after a power cut."""

import io
import pathlib
import shutil
import sys
import tarfile

TESTS = pathlib.Path(__file__).resolve().parent.parent
sys.path[:0] = [str(TESTS / name) for name in ("faults", "model", "support")]
from aftermath import Aftermath  # noqa: E402
from appliance import Appliance  # noqa: E402
from classify import classify  # noqa: E402
from model import known_states, words  # noqa: E402

OTHERS = ("check.service", "automatic.service", "update.service", "web.service", "missed@check.service")
TIMES = "ActiveEnterTimestampMonotonic"
SHOW = f"systemctl show --property=ActiveState,Result,{TIMES} orbamira-recover.service basic.target"
# The first that the journal of this boot has of the units that must wait for recovery, in seconds since the boot.
FIRST = "journalctl -b -q -o short-monotonic --no-pager " + " ".join(f"UNIT=orbamira-{name}" for name in OTHERS)
FIRST += " | sed -n 's/^\\[ *\\([0-9.]*\\)\\].*/\\1/p;q'"


class Between:
    """The states of the model, for an appliance that was cut between two of many versions."""

    def __init__(self, *versions):
        self.versions, self.states = versions, known_states()

    def problem(self, appliance, publisher):
        state = classify(appliance, publisher, self.versions)
        return None if state in self.states else f"no state of the model: {words(state)}"


def unpack(tar, folder, build, publisher, versions):
    """The appliance that was kept in a tar file. A previous pack older than both versions, unknown to the model, is not
    unpacked."""
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir()
    with tarfile.open(fileobj=io.BytesIO(tar)) as file:
        file.extractall(folder)
    appliance = Appliance(folder, build)
    older = [version for version in publisher.payloads if version not in versions]
    if any(publisher.is_whole(appliance.previous, version) for version in older):
        shutil.rmtree(appliance.previous)
    return appliance


def aftermath(appliance, publisher, old, new, last):
    """`old` is what was installed when the power was cut, None without a pack; `last` the version before `new`."""
    result = Aftermath(publisher, appliance, old, new)
    result.known = Between(last, new)
    return result


def order_problems(shown, first):
    """Whether recovery succeeded, and before everything else; from what SHOW and FIRST print."""
    recovery, basic = (dict(line.split("=", 1) for line in unit.splitlines()) for unit in shown.strip().split("\n\n"))
    if (recovery["ActiveState"], recovery["Result"]) != ("active", "success"):
        return [f"recovery did not succeed: {recovery['ActiveState']}, {recovery['Result']}"]
    done = int(recovery[TIMES])
    problems = []
    if not done or done > int(basic[TIMES]):
        problems.append("recovery ended after basic.target was reached")
    if first.strip() and float(first) * 1e6 < done:
        problems.append("another unit of the updater began before recovery had ended")
    return problems
