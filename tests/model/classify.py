"""Reads the disk and the record of a real appliance into a state of the model."""

import json
import re

from steps import MEMORY, State

THERE = "there"


def classify(appliance, publisher, versions):
    """The state, without the world. `versions` names what the model calls old and new, in this order."""
    names = dict(zip(versions, ("old", "new")))

    def pack_in(folder):
        if not folder.exists():
            return ""
        return next((name for version, name in names.items() if publisher.is_whole(folder, version)), "part")

    def any_in(folder, pattern):
        return THERE if any(path != appliance.broken_status_file for path in folder.glob(pattern)) else ""

    status, offer, last = _record(appliance, names)
    return State(
        pack=pack_in(appliance.pack),
        backup=pack_in(appliance.backup),
        previous=pack_in(appliance.previous),
        unpacked=THERE if appliance.unpacked.exists() else "",
        half_built=any_in(appliance.packages, f".{appliance.pack.name}.partial.*"),
        removed=any_in(appliance.packages, ".removed.??????") or any_in(appliance.cache, ".removed.??????"),
        temporary=any_in(appliance.state_folder, "*.??????"),
        download=_download(appliance, publisher, names),
        healthy=_healthy(appliance, names),
        rejected=_rejected(appliance, names),
        status=status,
        offer=offer,
        last=last,
        **MEMORY,
    )


def _record(appliance, names):
    """Status, version and whether the step is the last."""
    try:
        store = json.loads(appliance.status_file.read_bytes())
    except FileNotFoundError:
        return "missing", "", ""
    except ValueError:
        store = None
    if not isinstance(store, dict):
        return "broken", "", ""
    offer = store.get("new_version", "")
    return (
        store.get("status", "lost"),
        names.get(offer, offer),
        "last" if store.get("install_step") == "post_install" else "",
    )


def _download(appliance, publisher, names):
    if not appliance.download.exists():
        return ""
    package = appliance.download / f"{appliance.pack.name}.opk"
    size = package.stat().st_size if package.exists() else 0
    for published in publisher.folder.glob("*.opk"):
        if published.stat().st_size == size and published.read_bytes() == package.read_bytes():
            return next(name for version, name in names.items() if f"-{version}-" in published.name)
    return "part"


def _healthy(appliance, names):
    note = appliance.state_folder / "healthy-pack"
    if not note.exists():
        return ""
    found = re.search(r'^version="([^"]+)"$', note.read_text(errors="replace"), re.MULTILINE)
    return names.get(found[1], "nobody") if found else "nobody"


def _rejected(appliance, names):
    try:
        rejected = json.loads(appliance.health_file.read_bytes())["rejected"]
    except (FileNotFoundError, ValueError):
        return ""
    return " ".join(names.get(entry["version"], entry["version"]) for entry in rejected)
