"""The manifest of a signed package: what the package is, and the digests of its members."""

import datetime
import hashlib
import re

from orbamira_mkpack import rules
from orbamira_mkpack.archive import Refused

NEWEST_FORMAT = 2
_DIGEST = re.compile(r"([0-9a-f]{64})  (.+)", re.DOTALL)
_DAMAGED = f"{rules.MANIFEST_NAME} is damaged"


def facts_of(options):
    """What the options say of a package, in the order in which its manifest has it; nothing in format 1."""
    if options.manifest_format == "1":
        return {}
    facts = {
        "format": options.manifest_format,
        "product": rules.PRODUCT,
        "pack": options.name,
        "version": options.version,
    }
    if options.minimum is not None:
        facts["minimum"] = options.minimum
    if options.expires is not None:
        facts["expires"] = options.expires.isoformat()
    return facts


def make(members, facts):
    """The text that says the facts and lists `members`, files by name, with the SHA-256 of each."""
    lines = [f"# {key}: {value}\n" for key, value in facts.items()]
    for name, content in sorted(members.items()):
        content.seek(0)
        lines.append(f"{hashlib.file_digest(content, 'sha256').hexdigest()}  {name}\n")
    return "".join(lines).encode()


def parse(text):
    """The facts and the digests by name. Raises Refused for what appliances do not understand."""
    lines = text.decode("utf-8", "surrogateescape").split("\n")
    if lines.pop():
        raise Refused(_DAMAGED)
    facts = {}
    while lines and lines[0].startswith("#"):
        line = lines.pop(0)
        key, separator, value = line.removeprefix("# ").partition(": ")
        if not line.startswith("# ") or not separator or key in facts:
            raise Refused(_DAMAGED)
        facts[key] = value
    if facts:
        _check(facts)
    matches = [_DIGEST.fullmatch(line) for line in lines]
    digests = {match[2]: match[1] for match in matches if match}
    if len(digests) != len(lines):
        raise Refused(_DAMAGED)
    return facts, digests


def _check(facts):
    number = facts.get("format", "")
    if not re.fullmatch("[0-9]{1,9}", number):
        raise Refused(_DAMAGED)
    if int(number) > NEWEST_FORMAT:
        raise Refused(f"{rules.MANIFEST_NAME} has the format {number}, which this mkpack does not know")
    names = [facts.get(key, "") for key in ("product", "pack", "version")]
    if "minimum" in facts:
        names.append(facts["minimum"])
    if int(number) != NEWEST_FORMAT or not all(rules.FACT_PATTERN.fullmatch(name) for name in names):
        raise Refused(_DAMAGED)
    if "expires" in facts:
        last_day(facts)
    if rules.is_newer(facts["version"], facts.get("minimum", "")):
        raise Refused(f"{rules.MANIFEST_NAME} names a version that is older than its own minimum")


def last_day(facts):
    """The last day on which appliances install the package; None when there is none."""
    if "expires" not in facts:
        return None
    try:
        if not re.fullmatch("[0-9]{4}-[0-9]{2}-[0-9]{2}", facts["expires"]):
            raise ValueError
        return datetime.date.fromisoformat(facts["expires"])
    except ValueError:
        raise Refused(_DAMAGED) from None


def today():
    """The day that appliances have, in UTC."""
    return datetime.datetime.now(datetime.timezone.utc).date()
