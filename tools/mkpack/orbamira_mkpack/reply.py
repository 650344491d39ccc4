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
        raise ReplyError("it is no JSON object")
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


def named_paths(reply, base_url):
    """The files that the links of packs stand for, as far as they stand for any."""
    links = [member.get("link") for member in reply.values() if isinstance(member, dict)]
    return {path_of(link, base_url) for link in links if isinstance(link, str) and rules.http_address(link)}


def _member_findings(member, base_url):
    """Pairs of what is wrong with one member and what to do."""
    if not isinstance(member, dict):
        yield "it is no JSON object", PUBLISH_AGAIN
        return
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


def findings(reply, base_url):
    """What is wrong with the reply by itself."""
    found = [
        Finding(name, problem, remedy)
        for name, member in reply.items()
        if name in rules.CODECS_OF_PACK
        for problem, remedy in _member_findings(member, base_url)
    ]
    if not rules.CODECS_OF_PACK.keys() & reply.keys():
        names = " nor ".join(rules.CODECS_OF_PACK)
        found.append(Finding("the reply", f"it names neither {names}", "publish a pack"))
    return found


def judge(reply, base_url, report):
    """Tells the report of the reply by itself; yields the name and the member of each pack that is right so far."""
    report.findings += findings(reply, base_url)
    report.notes += notes(reply)
    wrong = report.names_with_findings()
    for name in rules.CODECS_OF_PACK:
        if name in reply and name not in wrong:
            yield name, reply[name]


def notes(reply):
    """What a publisher may want to know of a reply that is not wrong."""
    for name in rules.CODECS_OF_PACK:
        if name not in reply:
            yield f"{name} is not offered: appliances that ask for it find nothing new, and log a failed check"
    for name in reply:
        if name not in rules.CODECS_OF_PACK:
            yield f"{name} is in the reply, and no appliance asks for it"
