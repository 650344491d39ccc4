"""A fleet of appliances through one day: when each asks for a new pack, and when it fetches one.

Everything is drawn from a seeded source, so a fleet is the same whenever it is made. Seconds are those of a day in UTC.
"""

import array
import dataclasses
import itertools
import math
import random
import re

DAY = 86_400
MINUTE, HOUR = 60, 3_600
# systemd.timer(5): each machine has its own place in this time, timers without AccuracySec= too.
ACCURACY = 60

# Hours from UTC, and the share of the fleet that lives there: assumed, after where such appliances are sold.
WORLD = {
    -8: 0.08,
    -7: 0.02,
    -6: 0.06,
    -5: 0.12,
    -3: 0.04,
    0: 0.08,
    1: 0.25,
    2: 0.07,
    3: 0.05,
    5.5: 0.05,
    8: 0.10,
    9: 0.06,
    10: 0.02,
}
ONE_ZONE = {1: 1.0}

# The network sets the clocks, except for a few that drift (standard deviations in seconds).
SET_CLOCK, LOOSE_CLOCK, LOOSE_SHARE = 0.05, 300, 0.02
# When appliances that are off at night are switched on: local hour, and its standard deviation.
MORNING, MORNING_SPREAD = 7.5, 1.0
# When those that are on in the evening only are switched on, and for how many hours, with the standard deviations.
EVENING, EVENING_SPREAD = 20.0, 1.0
SITTING, SITTING_SPREAD = 3.0, 1.0
# How long an appliance takes to boot after power is back, in seconds.
QUICKEST_BOOT, SLOWEST_BOOT = 20, 80

_UNITS = {"": 1, "s": 1, "sec": 1, "min": MINUTE, "m": MINUTE, "h": HOUR, "hour": HOUR, "hours": HOUR}


def seconds(text):
    """A span of time as systemd writes it."""
    parts = re.findall(r"(\d+) *([a-z]*)", text)
    if not parts or "".join(number + unit for number, unit in parts) != text.replace(" ", ""):
        raise ValueError(f"{text!r} is no span of time")
    return sum(int(number) * _UNITS[unit] for number, unit in parts)


@dataclasses.dataclass(frozen=True)
class Timer:
    """When a daily timer elapses by the local clock: `at`, and at most `delay` and `accuracy` later, in seconds."""

    at: int
    delay: int
    accuracy: int

    @classmethod
    def read(cls, path):
        """The timer of a unit file. Raises ValueError for one that is not daily."""
        settings = dict(re.findall(r"^(\w+)=(.*)$", path.read_text(), flags=re.MULTILINE))
        clock = re.fullmatch(r"\*-\*-\* (\d+):(\d+):(\d+)", settings["OnCalendar"])
        if not clock:
            raise ValueError(f"{path}: not once a day: {settings['OnCalendar']}")
        hours, minutes, rest = map(int, clock.groups())
        return cls(
            at=hours * HOUR + minutes * MINUTE + rest,
            delay=seconds(settings.get("RandomizedDelaySec", "0")),
            accuracy=seconds(settings.get("AccuracySec", str(ACCURACY))),
        )

    def without_delay(self):
        return dataclasses.replace(self, delay=0)


@dataclasses.dataclass(frozen=True)
class Missed:
    """When a missed check is made up for: `wait` after boot and at most `delay` and `accuracy` later, where the last
    answer is at least `age` old, in seconds."""

    wait: int
    delay: int
    accuracy: int
    age: int

    @classmethod
    def read(cls, timer, service):
        """Of the unit files."""
        settings = dict(re.findall(r"^(\w+)=(.*)$", timer.read_text(), flags=re.MULTILINE))
        minutes = re.search(r"^ExecCondition=.* -mmin -(\d+) ", service.read_text(), flags=re.MULTILINE)
        return cls(
            wait=seconds(settings["OnBootSec"]),
            delay=seconds(settings["RandomizedDelaySec"]),
            accuracy=seconds(settings.get("AccuracySec", str(ACCURACY))),
            age=int(minutes[1]) * MINUTE,
        )

    def after(self, boot, source):
        """When the timer elapses."""
        return boot + self.wait + source.uniform(0, self.delay) + source.uniform(0, self.accuracy)


def times_of_checks(count, timer, missed, zones, off_at_night, seed):
    """When each appliance checks. Those that were off at the time do it soon after they are switched on."""
    source = random.Random(seed)
    uniform, gauss, chance = source.uniform, source.gauss, source.random
    zone_of = source.choices(
        [hours * HOUR for hours in zones], cum_weights=list(itertools.accumulate(zones.values())), k=count
    )
    for zone in zone_of:
        if chance() < off_at_night:
            time = missed.after(gauss(MORNING, MORNING_SPREAD) * HOUR, source)
        else:
            clock = gauss(0, LOOSE_CLOCK if chance() < LOOSE_SHARE else SET_CLOCK)
            time = timer.at + uniform(0, timer.delay) + uniform(0, timer.accuracy) + clock
        yield (time - zone) % DAY


def evening_figures(count, timer, missed, days, seed):
    """How appliances fare that are on in the evening only: how soon after boot they check, and how many never do in so
    many days. For comparison a persistent timer alone, whose own delay, the same every day, begins at each boot."""
    source = random.Random(seed)
    ways = {"with orbamira-missed@check.timer": [], "with a persistent timer alone": []}
    never = dict.fromkeys(ways, 0)
    for _ in range(count):
        own_delay = source.uniform(0, timer.delay)
        made = {way: [] for way in ways}
        last = -DAY
        for day in range(days):
            boot = day * DAY + source.gauss(EVENING, EVENING_SPREAD) * HOUR
            end = boot + max(0.5, source.gauss(SITTING, SITTING_SPREAD)) * HOUR
            soon, late = missed.after(boot, source), boot + own_delay
            if soon < end and soon - last >= missed.age:
                made["with orbamira-missed@check.timer"].append(soon - boot)
                last = soon
            if late < end:
                made["with a persistent timer alone"].append(late - boot)
        for way, waits in made.items():
            ways[way] += waits
            never[way] += not waits
    return {
        way: {
            "checks_a_day": len(waits) / count / days,
            "never": never[way] / count,
            "median": sorted(waits)[len(waits) // 2],
            "most": max(waits),
        }
        for way, waits in ways.items()
    }


def checks_after_outage(count, timer, missed, begin, end, seed):
    """When appliances of one time zone check that are always on, but lost power from one time of the day to another.
    Seconds after power was back, of those alone that check because of it."""
    source = random.Random(seed)
    for _ in range(count):
        own = timer.at + source.uniform(0, timer.delay)
        last = own if own < begin else own - DAY
        check = missed.after(end + source.uniform(QUICKEST_BOOT, SLOWEST_BOOT), source)
        if check - last >= missed.age:
            yield check - end


def per_second(times):
    """How many of the times are in each second of the day."""
    counts = array.array("L", bytes(array.array("L").itemsize * DAY))
    for time in times:
        counts[int(time)] += 1
    return counts


def most_within(counts, window):
    """The most in any so many seconds on end."""
    total = most = sum(counts[:window])
    for second in range(DAY):
        total += counts[(second + window) % DAY] - counts[second]
        most = max(most, total)
    return most


def outage_figures(count, timer, missed, begin, end, seed):
    """Figures of the checks after an outage."""
    times = list(checks_after_outage(count, timer, missed, begin, end, seed))
    counts = per_second(times)
    return {
        "checks": len(times),
        "peak_second": max(counts),
        "peak_minute": most_within(counts, MINUTE) / MINUTE,
        "last": max(times, default=0),
    }


def check_figures(counts, connection):
    """Figures of checks by second; `connection` is how long each is connected, in seconds."""
    window = max(1, math.ceil(connection))
    return {
        "checks": sum(counts),
        "mean": sum(counts) / DAY,
        "percentile_99": sorted(counts)[math.ceil(0.99 * DAY) - 1],
        "peak_second": max(counts),
        "peak_minute": most_within(counts, MINUTE) / MINUTE,
        "open_at_once": math.ceil(most_within(counts, window) * connection / window),
    }


def release_figures(times, size, line, cut, seed):
    """Figures of a release that each appliance fetches when it checks.

    `size` is that of the package in bytes, `line` the median of the appliances' lines in bits per second, `cut` the
    probability that a transfer is interrupted.
    """
    source = random.Random(seed)
    change = [0.0] * (DAY + 1)
    cuts = wasted = count = 0
    for time in times:
        count += 1
        speed = line * source.lognormvariate(0, 1)
        length = min(math.ceil(8 * size / speed), DAY)
        rate, begin, end = 8 * size / length, int(time), int(time) + length
        change[begin] += rate
        if end >= DAY:
            change[0] += rate
        change[end % DAY] -= rate
        while source.random() < cut:
            cuts += 1
            wasted += source.random()
    rates = list(itertools.accumulate(change[:DAY]))
    hours = sorted((sum(rates[hour * HOUR : (hour + 1) * HOUR]) for hour in range(24)), reverse=True)
    carried = list(itertools.accumulate(hours))
    return {
        "bytes": count * size,
        "bytes_without_resumes": round((count + wasted) * size),
        "resumes": cuts,
        "peak_bits_per_second": max(rates),
        "mean_bits_per_second": sum(rates) / DAY,
        "hours_of_95_percent": 1 + next(number for number, part in enumerate(carried) if part >= 0.95 * carried[-1]),
    }
