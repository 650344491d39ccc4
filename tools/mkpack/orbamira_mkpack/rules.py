"""What appliances take: the rules that a pack is made by and judged by."""

import re
import urllib.parse

# The build puts the names of platform/paths.h in.
HEVC_PACK = "@ORBAMIRA_HEVC_PACK@"
HEVC_AAC_PACK = "@ORBAMIRA_HEVC_AAC_PACK@"

# What signed packages are made for, and what appliances call themselves.
PRODUCT = "@ORBAMIRA_PACKAGE_ID@"

# The codecs that appliances count on in a pack of this name.
CODECS_OF_PACK = {HEVC_PACK: ["hevc"], HEVC_AAC_PACK: ["hevc", "aac"]}
CODECS = ["hevc", "aac"]

# What mkpack can be told to do.
COMMANDS = ["publish", "rollout", "withdraw", "security", "verify", "nginx"]

INFO_NAME = "INFO"
PAYLOAD_NAME = "package.tgz"
MANIFEST_NAME = "MANIFEST"
SIGNATURE_NAME = "MANIFEST.sig"
# In the payload, so that the appliance has it; a copy lies beside the package.
BILL_NAME = "sbom.cdx.json"

# What appliances unpack at most.
MAX_NAME_SIZE = 4096
MAX_DEPTH = 128
MAX_MEMBERS = 20_000
MAX_CONTENT_SIZE = 16 << 30

VERSION_PATTERN = re.compile(r"[0-9A-Za-z][0-9A-Za-z._+-]{0,63}")
CHANNEL_PATTERN = re.compile(r"[a-z0-9][a-z0-9-]{0,31}")
FACT_PATTERN = re.compile(r"[0-9A-Za-z._+-]{1,128}")
CERTIFICATE_PATTERN = re.compile(rb"-----BEGIN CERTIFICATE-----.*?-----END CERTIFICATE-----", re.DOTALL)

# How much of the file's SHA-256 is in a package's name.
DIGITS_IN_NAME = 12


def marker_of(codec):
    """The empty file that tells appliances of the codec."""
    return f"has_{codec}"


def leads_outside(target, depth):
    """Whether a symbolic link that lies `depth` folders deep may lead out of the payload.

    Only the ".." at the beginning of the target are allowed: they climb real folders, so counting them is enough. After
    a name that may itself be a link, a ".." could lead anywhere.
    """
    parts = [part for part in target.split("/") if part not in ("", ".")]
    climbs = 0
    while climbs < len(parts) and parts[climbs] == "..":
        climbs += 1
    return not target or target.startswith("/") or ".." in parts[climbs:] or climbs > depth


def http_address(text):
    """The parts of an http or https address; None for anything else."""
    try:
        parts = urllib.parse.urlsplit(text)
        # The port is looked at for its error, the one a number out of range gives.
        valid = parts.scheme in ("http", "https") and parts.hostname and parts.port != 0
    except ValueError:
        return None
    return parts if valid and text.isascii() and text.isprintable() and " " not in text else None


def _version_part(text):
    """Orders parts: numbers by value, which may be longer than any integer, before texts by their bytes."""
    if text.isdigit() or not text:
        digits = text.lstrip("0")
        return 0, len(digits), digits
    return 1, 0, text


def is_newer(current, candidate):
    """Whether appliances with the version `current` take `candidate`, both as VERSION_PATTERN has them."""
    parts = [[_version_part(part) for part in re.split(r"[._+-]", text)] for text in (current, candidate)]
    length = max(map(len, parts))
    old, new = (found + [_version_part("")] * (length - len(found)) for found in parts)
    return old < new
