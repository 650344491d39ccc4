"""Reads a reply as appliances do, and tells what of it they cannot use."""

import json
import os
import re
import urllib.parse

from orbamira_mkpack import rules
from orbamira_mkpack.report import Finding

# What appliances read of a reply at most.
MAX_SIZE = 1 << 20
DIGEST_PATTERN = re.compile(r"[0-9A-Fa-f]{64}|[0-9A-Fa-f]{128}")

PUBLISH_AGAIN = "publish the pack again"


class ReplyError(Exception):
    """Why a text is no reply."""


def parse(text):
    """The members of the reply `text`, bytes of which more than MAX_SIZE are too many. Raises ReplyError."""

    def members(pairs):
        found = {}
        for name, value in pairs:
            if name in found:
                raise ReplyError(f"{name!r} is in it twice")
            found[name] = value
        return found

    def constant(name):
        raise ValueError(f"{name} is no number")

    if len(text) > MAX_SIZE:
        raise ReplyError(f"it is longer than {MAX_SIZE} bytes")
    try:
        reply = json.loads(text.decode("utf-8"), object_pairs_hook=members, parse_constant=constant)
    except (ValueError, RecursionError) as error:
        raise ReplyError(f"it is not valid JSON: {error}") from error
    if not isinstance(reply, dict):
        raise ReplyError("it is not a JSON object")
    return reply


def _link_finding(link, base_url):
    if not isinstance(link, str) or rules.http_address(link) is None:
        return f"its link {link!r} is no http or https address", PUBLISH_AGAIN
    if base_url and not link.startswith(base_url + "/"):
        return (
            f"its link {link} is not below {base_url}",
            "publish the pack again with this --base-url, or verify with the one that it was published with",
        )
    if path_of(link, base_url) is None:
        return f"its link {link} names no file", PUBLISH_AGAIN
    return None


def path_of(link, base_url):
    """The file that the link stands for, relative to the folder that is served; None when it is none."""
    whole = urllib.parse.urlsplit(link).path
    path = whole.removeprefix(urllib.parse.urlsplit(base_url).path + "/") if base_url else whole.rpartition("/")[2]
    path = os.fsdecode(urllib.parse.unquote_to_bytes(path))
    bad = {"", ".", ".."} & set(path.split("/")) or "\0" in path
    return None if bad else path


def _list(member, key):
    """The list of that name in a pack; empty where there is none."""
    found = member.get(key, [])
    return found if isinstance(found, list) else []


def offers(name, member):
    """What a pack's member of the reply offers: a name for people, and the offer. The first is for everyone."""
    yield name, member
    for offer in _list(member, "staged"):
        if isinstance(offer, dict):
            yield f"{name} {offer.get('version')}", offer


def named_paths(reply, base_url):
    """The files that the links of packs stand for, as far as they stand for any."""
    members = [member for member in reply.values() if isinstance(member, dict)]
    members += [each for member in members for key in ("staged", "former") for each in _list(member, key)]
    links = [member.get("link") for member in members if isinstance(member, dict)]
    return {path_of(link, base_url) for link in links if isinstance(link, str) and rules.http_address(link)}


def _member_findings(member, base_url):
    """Pairs of what is wrong with one offer and what to do."""
    version = member.get("version")
    if not isinstance(version, str) or not rules.VERSION_PATTERN.fullmatch(version):
        yield f"its version {version!r} is none that mkpack gives", PUBLISH_AGAIN
    link = _link_finding(member.get("link"), base_url)
    if link:
        yield link
    checksum = member.get("checksum")
    if not isinstance(checksum, str) or not DIGEST_PATTERN.fullmatch(checksum):
        problem = f"its checksum {checksum!r} is no SHA-256 or SHA-512, and without one no appliance installs it"
        yield problem, PUBLISH_AGAIN
    if not isinstance(member.get("title", ""), str):
        yield "its title is no text", PUBLISH_AGAIN
    size = member.get("size", 0)
    if not isinstance(size, int) or isinstance(size, bool) or size < 0:
        yield f"its size {size!r} is no number of bytes", PUBLISH_AGAIN
    if not isinstance(member.get("security", False), bool):
        remedy = "run mkpack security for the release"
        yield f"its security mark {member['security']!r} is neither true nor false", remedy


def _is_share(share):
    return isinstance(share, (int, float)) and not isinstance(share, bool) and 0 < share <= 100


def _staged_findings(offer):
    if not offer.keys() & {"rollout", "channel"}:
        yield "it has neither a rollout nor a channel, so nobody is offered it", PUBLISH_AGAIN
    if not _is_share(offer.get("rollout", 100)):
        yield f"its rollout {offer['rollout']!r} is no percentage", PUBLISH_AGAIN
    channel = offer.get("channel", "beta")
    if not isinstance(channel, str) or not rules.CHANNEL_PATTERN.fullmatch(channel):
        yield f"its channel {channel!r} is none that mkpack gives", PUBLISH_AGAIN


def _list_findings(member):
    for key, kind in (("staged", dict), ("former", dict), ("withdrawn", str)):
        found = member.get(key, [])
        if not isinstance(found, list) or not all(isinstance(each, kind) for each in found):
            yield f'its "{key}" is nothing that mkpack writes', PUBLISH_AGAIN


def _pack_findings(name, member, base_url):
    """What is wrong with a pack's member, and with each of its releases."""
    if not isinstance(member, dict):
        yield Finding(name, "it is not a JSON object", PUBLISH_AGAIN)
        return
    for about, offer in offers(name, member):
        found = [*_member_findings(offer, base_url), *(_staged_findings(offer) if offer is not member else [])]
        yield from (Finding(about, *each) for each in found)
    for former in _list(member, "former"):
        found = _member_findings(former, base_url) if isinstance(former, dict) else []
        yield from (Finding(f"{name} {former.get('version')}", *each) for each in found)
    yield from (Finding(name, *each) for each in _list_findings(member))


def findings(reply, base_url):
    """What is wrong with the reply by itself."""
    found = [
        finding
        for name, member in reply.items()
        if name in rules.CODECS_OF_PACK
        for finding in _pack_findings(name, member, base_url)
    ]
    if not rules.CODECS_OF_PACK.keys() & reply.keys():
        names = " nor ".join(rules.CODECS_OF_PACK)
        found.append(Finding("the reply", f"it names neither {names}", "publish a pack"))
    return found


def judge(reply, base_url, report):
    """Tells the report of the reply by itself; yields each offer that is right so far, as offers() does, after the name
    of its pack."""
    report.findings += findings(reply, base_url)
    report.notes += notes(reply)
    wrong = report.names_with_findings()
    for name in rules.CODECS_OF_PACK:
        for about, offer in offers(name, reply[name]) if isinstance(reply.get(name), dict) else ():
            if about not in wrong:
                yield name, about, offer


def notes(reply):
    """What a publisher may want to know of a reply that is not wrong."""
    for name in rules.CODECS_OF_PACK:
        if name not in reply:
            yield f"{name} is not offered: appliances that ask for it find nothing new, and log a failed check"
    for name in reply:
        if name not in rules.CODECS_OF_PACK:
            yield f"{name} is in the reply, and no appliance asks for it"
