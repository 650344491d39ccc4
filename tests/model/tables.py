#!/usr/bin/env python3
"""Writes the tables of docs/reliability.md, which are made from the steps, anew."""

import pathlib
import re

from model import road, run, trace
from steps import BOOT, CHECK, MEMORY, UPDATE, State

PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs/reliability.md"
FOLDERS = ("pack", "backup", "previous", "unpacked", "half_built", "download")
MARKED = re.compile(r"(<!-- tests/model: (\w+) -->\n).*?(<!-- end -->\n)", re.DOTALL)
UPGRADE = State(pack="old", healthy="old", status="need_download", offer="new")
BAD_PACK = State(pack="new", previous="old", healthy="old", status="up_to_date", unhealthy="new")


def folders(state):
    named = {"new": "new {}", "old": "old {}", "there": "{}", "part": "part of {}"}
    held = ((name, getattr(state, name)) for name in FOLDERS)
    return ", ".join(named[value].format(name.replace("_", "-")) for name, value in held if value) or "nothing"


def after_recovery(states):
    """What recovery makes of what a kill leaves."""
    ends = [run(BOOT, state._replace(**MEMORY)) for state in states]
    return " or ".join(dict.fromkeys(f"{folders(end)}; `{end.status}`" for end in ends))


def step_table(program, start):
    rows = [
        "| step | before | why it is one step | after | after an interruption and recovery |",
        "| --- | --- | --- | --- | --- |",
    ]
    rest, before = start, start
    for step, state in trace(program, start):
        if step.why:
            rows.append(
                f"| {step.name} | {folders(before)} | {step.why} | {folders(state)} | {after_recovery((rest, state))} |"
            )
            before = state
        rest = state
    return rows


def record_table():
    """What each record becomes without a person, for every offer."""
    offers = {"no pack": ("", "new"), "newer": ("old", "new"), "same": ("new", "new"), "older": ("new", "old")}
    rows = ["| record | no pack | pack, newer one offered | pack, same version offered | pack, older one offered |"]
    rows.append("| --- | --- | --- | --- | --- |")
    for name, values in RECORDS.items():
        cells = []
        for pack, offered in (TAKEN_BACK if "no more" in name else offers).values():
            offer = pack if "the installed version" in name else "new" if "need_" in name else ""
            start = State(pack=pack, healthy=pack or "nobody", offered=offered, **{"offer": offer, **values})
            cells.append(way(start))
        rows.append(f"| {name} | {' | '.join(cells)} |")
    return rows


TAKEN_BACK = {"no pack": ("", "new"), "newer": ("old", "new"), "same": ("old", "old"), "older": ("old", "old")}
RECORDS = {
    "`lost`": {"status": "lost"},
    "`lost` beside a backup": {"status": "lost", "backup": "old"},
    "`downloading`": {"status": "downloading"},
    "`download_failed`": {"status": "download_failed"},
    "`need_download` of a newer version, perhaps on offer no more": {"status": "need_download"},
    "`need_download` of the installed version": {"status": "need_download"},
    "`installing`, `downloading_installing`": {"status": "downloading_installing"},
    "the same at the step `post_install`": {"status": "downloading_installing", "last": "last"},
    "`download_install_failed`": {"status": "download_install_failed"},
    "`install_failed`": {"status": "install_failed"},
    "`install_failed` with its file": {"status": "install_failed", "download": "new"},
    "`need_install` without its file": {"status": "need_install"},
    "`need_install` with its file": {"status": "need_install", "download": "new"},
    "`up_to_date`": {"status": "up_to_date"},
    "a broken store": {"status": "broken"},
}


def way(start):
    """The road in words."""
    said, before = [], start
    for program, state in road(start):
        if program == "update":
            said.append("update")
        elif program == "check" and not state.found:
            said.append(f"check records `{state.status}`")
        elif program == "check":
            said.append("check")
        elif state.status != start.status:
            said.append(f"recovery records `{state.status}`")
        before = state
    if before.status != "up_to_date":
        said.append("waits for `packctl install`")
    return ", ".join(said) or "nothing to do"


def tables():
    return {"update": step_table(UPDATE, UPGRADE), "bad_pack": step_table(CHECK, BAD_PACK), "records": record_table()}


def renewed(page):
    """The page with its tables as the steps have them now."""
    made = tables()
    return MARKED.sub(lambda found: found[1] + "\n".join(made[found[2]]) + "\n" + found[3], page)


if __name__ == "__main__":
    PAGE.write_text(renewed(PAGE.read_text()))
