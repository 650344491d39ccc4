"""The reply on the disk, and beside it the replies that a web server gives to some appliances in its place."""

import contextlib
import fcntl
import itertools
import json
import os
import re

from orbamira_mkpack import rules
from orbamira_mkpack.packing import MkpackError, put_in_place, work_folder
from orbamira_mkpack.releases import CHANNEL, ROLLOUT, Releases, is_older

NO_REPLY = "Move it away, or name another by --reply"


def read_reply(path):
    """The members of the reply; empty when there is no file yet. Raises MkpackError when the file is not a reply."""
    try:
        with open(path, encoding="utf-8") as file:
            members = json.load(file)
    except FileNotFoundError:
        return {}
    except (ValueError, RecursionError) as error:
        raise MkpackError(f"{path} is not valid JSON ({error}), and was left as it is", NO_REPLY) from error
    if not isinstance(members, dict):
        raise MkpackError(f"{path} is not a JSON object, and was left as it is", NO_REPLY)
    return members


def text_of(members):
    return json.dumps(members, indent=2, sort_keys=True) + "\n"


@contextlib.contextmanager
def reply_lock(path):
    """Keeps other mkpack from the reply. The lock is on a file beside it, since the reply itself is replaced."""
    folder, name = os.path.split(path)
    os.makedirs(folder or ".", exist_ok=True)
    with open(os.path.join(folder, f".{name}.lock"), "a") as file:
        fcntl.flock(file, fcntl.LOCK_EX)
        yield


def change_reply(path, name, change):
    """Has `change` work on the Releases of the pack, and writes the reply and those beside it anew."""
    with reply_lock(path):
        members = read_reply(path)
        releases = Releases(name, members.get(name))
        change(releases)
        members[name] = releases.member()
        others = replies_beside(path, members)
        folder = os.path.dirname(path) or "."
        # Whoever reads meanwhile is offered the old release or the new one; a web server that misses a reply for some
        # gives the reply for all.
        for other, content in others.items():
            _write(os.path.join(folder, other), content)
        _write(path, members)
        for other in _present_beside(path) - others.keys():
            os.unlink(os.path.join(folder, other))


def _write(path, members):
    with work_folder(os.path.dirname(path) or ".") as work:
        temporary = os.path.join(work, "reply")
        with open(temporary, "w", encoding="utf-8") as file:
            file.write(text_of(members))
            put_in_place(file, temporary, path)


def _stem(path):
    return os.path.basename(path).removesuffix(".json")


def _present_beside(path):
    """The names of the replies for some that lie beside the reply."""
    packs = "|".join(map(re.escape, rules.CODECS_OF_PACK))
    staged = rf"(\+({packs})-{rules.VERSION_PATTERN.pattern})"
    pattern = re.compile(rf"{re.escape(_stem(path))}(@{rules.CHANNEL_PATTERN.pattern}{staged}*|{staged}+)\.json")
    try:
        return {name for name in os.listdir(os.path.dirname(path) or ".") if pattern.fullmatch(name)}
    except FileNotFoundError:
        return set()


def channels_beside(path):
    """The channels that have a reply beside it. A channel stays, since appliances ask for its reply."""
    found = (re.match(rf"{re.escape(_stem(path))}@([a-z0-9-]+)", name) for name in _present_beside(path))
    return {match[1] for match in found if match}


def releases_of(members):
    """The Releases of each pack of the reply, by name."""
    return {name: Releases(name, members[name]) for name in rules.CODECS_OF_PACK if name in members}


def suffix_of(name, offer):
    """What the name of a reply has for a release that only some appliances are offered."""
    return f"+{name}-{offer['version']}"


def replies_beside(path, members):
    """The replies for some, by their file names: of each channel, and of each choice of partly offered releases."""
    packs = releases_of(members)
    channels = channels_beside(path) | {channel for releases in packs.values() for channel in releases.channels()}
    replies = {}
    for channel in [None, *sorted(channels)]:
        partial = {name: releases.partial(channel) for name, releases in packs.items()}
        partial = [(name, offer) for name, offer in partial.items() if offer]
        for count in range(len(partial) + 1):
            for chosen in itertools.combinations(partial, count):
                if channel or chosen:
                    file = _stem(path) + (f"@{channel}" if channel else "")
                    file += "".join(suffix_of(*choice) for choice in chosen) + ".json"
                    replies[file] = _with_offers(members, packs, channel, dict(chosen))
    return replies


def _with_offers(members, packs, channel, chosen):
    """The reply in which the chosen offers, or the newest of the channel, are for everyone who gets it."""
    changed = dict(members)
    for name, releases in packs.items():
        offer = chosen.get(name) or releases.newest_for_all(channel)
        newer = [each for each in releases.staged if is_older(offer, each)]
        kept = {"staged": newer, "withdrawn": releases.withdrawn}
        plain = {key: value for key, value in offer.items() if key not in (ROLLOUT, CHANNEL)}
        changed[name] = {**plain, **{key: value for key, value in kept.items() if value}}
    return changed
