"""The table: what each program changes on the disk and in the record, step by step.

A program is a list of groups of steps. A step applies where `when` holds, and `then` is its whole effect: a kill comes
before it or after it. An error skips the rest of its group; then the next group runs, or, where the group is one that
`fails`, what the program does when it failed. A power cut takes back what no sync has reached, the newest change
first. A sync of a file or of a folder reaches nothing else: btrfs keeps an earlier change of another folder in memory.
"""

import typing

UNDER_WAY = ("downloading", "installing", "downloading_installing")
FAILED = ("download_failed", "install_failed", "download_install_failed")
VERSIONS = ("old", "new")


class State(typing.NamedTuple):
    """What is on the disk and in the record. An empty text is nothing."""

    pack: str = ""  # "old" or "new": whole, and of that version; "part": not whole, which no step leads to
    backup: str = ""  # likewise: the pack that an update set aside
    previous: str = ""  # likewise: the pack that an update replaced
    unpacked: str = ""  # "there"
    half_built: str = ""  # "there"
    removed: str = ""  # "there": a folder that left its place and is being deleted
    temporary: str = ""  # "there": a file that has not reached its place
    download: str = ""  # "old" or "new": with a whole package; "part": the folder with less
    healthy: str = ""  # who the note of a healthy pack names: "old", "new" or "nobody"
    rejected: str = ""  # the version that does not come again by itself
    status: str = "missing"  # that is recorded; "missing" and "broken" tell of the file
    offer: str = ""  # the version in the record
    last: str = ""  # "last": the recorded step of the install is the last
    # The world, which no step changes.
    offered: str = "new"
    unhealthy: str = ""  # the version that fails its health check
    # What a program remembers until it ends.
    was_cut: str = ""
    verdict: str = ""
    writes: tuple = ()  # the status and version that are being recorded
    found: str = ""  # a check that found work


MEMORY = {"was_cut": "", "verdict": "", "writes": (), "found": ""}

# What one sync reaches.
FILE = ("temporary",)  # a file by itself, before it takes its name
PACKS = ("pack", "backup", "previous", "unpacked", "half_built", "removed")
RECORD = ("status", "offer", "last", "temporary")
REJECTED = ("rejected", "temporary")
PACKAGE = ("download",)
HEALTHY = ("healthy", "temporary")
FILE_SYSTEM = (*PACKS, *RECORD, *REJECTED, *PACKAGE, "healthy")


class Step(typing.NamedTuple):
    name: str
    when: typing.Callable
    then: typing.Callable
    does: str = ""  # "end" or "fail", besides `then`
    syncs: tuple = ()  # what is on the disk after it
    why: str = ""  # nobody sees half of it; of steps that the documentation tells of


class Group(typing.NamedTuple):
    steps: list
    fails: bool = False


class Program(typing.NamedTuple):
    name: str
    groups: list
    failed: typing.Optional["Program"] = None


def always(_):
    return True


def same(state):
    return state


def put(**values):
    return lambda s: s._replace(**values)


def move(source, target):
    return lambda s: s._replace(**{target: getattr(s, source), source: ""})


def end(name, when):
    return Step(name, when, same, "end")


def sync(what, when=always):
    return Step("sync", when, same, syncs=what)


DELETE = Step("delete what was moved aside", lambda s: s.removed, put(removed=""))


def remove(field, when=always, why=""):
    """A folder leaves its place, and then is deleted."""
    aside = put(**{field: "", "removed": "there"})
    return [Step(f"move `{field}` aside", lambda s: getattr(s, field) and when(s), aside, why=why), DELETE]


def record(status, when=always, offer="", last="", why=""):
    """One clear, then the values; `status` and `offer` are texts, or functions of the state before."""
    title = "what is left" if callable(status) else status
    values = [value if callable(value) else lambda s, value=value: value for value in (status, offer)]

    def clear(s):
        return s._replace(status="lost", offer="", last="", writes=tuple(value(s) for value in values))

    return [
        Step("clear the record", when, clear),
        Step(
            "record the status",
            lambda s: s.writes,
            lambda s: s._replace(status=s.writes[0], temporary="there"),
            syncs=RECORD,
        ),
        Step(
            f"record `{title}`",
            lambda s: s.writes,
            lambda s: s._replace(offer=s.writes[1], last=last, temporary="", writes=()),
            syncs=RECORD,
            why=why,
        ),
    ]


# Moves that several programs make.


def is_replaced(s):
    return s.pack and s.backup and s.backup != s.pack


KEEP_BACKUP = [
    *remove("previous", is_replaced),
    Step(
        "keep the old pack",
        is_replaced,
        move("backup", "previous"),
        why="the new pack is on disk already; an older previous pack moves aside in one `rename` before any of it is "
        "removed; the backup is renamed",
    ),
    *remove("backup", lambda s: s.pack),
]

NOTE_HEALTHY = Group(
    [
        Step("begin the note", lambda s: not s.healthy, put(temporary="there"), syncs=FILE),
        Step(
            "end the note",
            lambda s: not s.healthy,
            lambda s: s._replace(healthy=s.pack or "nobody", temporary=""),
            syncs=HEALTHY,
        ),
    ]
)

OPEN_STORE = [
    Step("set a broken store aside", lambda s: s.status == "broken", put(status="missing")),
    Step("begin an empty store", lambda s: s.status == "missing", put(temporary="there"), syncs=FILE),
    Step("make an empty store", lambda s: s.status == "missing", put(status="lost", temporary=""), syncs=RECORD),
]


def is_good(s):
    return s.verdict == "good"


def is_bad(s):
    return s.verdict == "bad"


FORGET_VERDICT = Group([Step("forget the verdict", lambda s: s.verdict, put(verdict=""))])
REJECT = [
    Step("begin the rejection", lambda s: is_bad(s) and s.pack, put(temporary="there"), syncs=FILE),
    Step(
        "record the version as rejected",
        lambda s: is_bad(s) and s.pack,
        lambda s: s._replace(rejected=s.pack, temporary=""),
        syncs=REJECTED,
        why="a synced file, `health.json`, renamed into place",
    ),
    Step("note the previous pack", lambda s: is_bad(s) and s.previous, lambda s: s._replace(healthy=s.previous)),
]

# The way back to the previous pack, or to none.
TAKE_BACK = [
    *(step._replace(when=lambda s, applies=step.when: is_bad(s) and applies(s)) for step in KEEP_BACKUP),
    *remove("backup", lambda s: is_bad(s) and s.previous),
    Step("previous becomes backup", lambda s: is_bad(s) and s.previous, move("previous", "backup"), why="one `rename`"),
    *remove("pack", is_bad, why="it moves aside in one `rename`"),
    Step("put the old pack back", lambda s: is_bad(s) and s.backup, move("backup", "pack"), why="one `rename`"),
    sync(PACKS, is_bad),
]


# Recovery.


def mended(s):
    """The status when no update is in progress."""
    if s.status == "lost":
        return ("download_install_failed" if s.was_cut else "up_to_date") if s.pack else "lost"
    if s.status == "downloading":
        return "download_failed"
    if s.status in UNDER_WAY:
        return "up_to_date" if s.pack and s.last else "download_install_failed"
    if s.status in ("need_install", "install_failed"):
        return s.status if s.download in VERSIONS else "download_install_failed"
    return "download_install_failed" if is_bad(s) and not s.pack else s.status


RECOVERY = Program(
    "recovery",
    [
        Group(
            [
                Step("see the backup", lambda s: s.backup, put(was_cut="yes")),
                Step("put the backup back", lambda s: s.backup and not s.pack, move("backup", "pack"), syncs=PACKS),
            ]
        ),
        Group(KEEP_BACKUP),
        Group(remove("unpacked")),
        Group(remove("half_built")),
        Group(
            [Step("find the pack rejected", lambda s: s.pack and s.pack == s.rejected, put(verdict="bad")), *TAKE_BACK]
        ),
        Group([DELETE]),
        NOTE_HEALTHY,
        Group([Step("remove temporary files", lambda s: s.temporary, put(temporary=""))]),
        Group([*OPEN_STORE, *record(mended, lambda s: mended(s) != s.status)]),
        Group(remove("download", lambda s: s.status not in ("need_install", "install_failed"))),
        FORGET_VERDICT,
    ],
)


# The health check.

FORGIVEN = Step(
    "begin to forgive it", lambda s: is_good(s) and s.rejected == s.pack, put(temporary="there"), syncs=FILE
)
ACT_ON_VERDICT = [
    Group(
        [
            FORGIVEN,
            FORGIVEN._replace(name="forget its rejection", then=put(temporary="", rejected=""), syncs=REJECTED),
            Step("open the note", lambda s: is_good(s) and not s.healthy, put(healthy="nobody")),
            Step("note the healthy pack", is_good, lambda s: s._replace(healthy=s.pack)),
        ],
        fails=True,
    ),
    Group([*REJECT, *TAKE_BACK], fails=True),
    Group([DELETE]),
    Group(record(lambda s: "up_to_date" if s.pack else "download_install_failed", is_bad), fails=True),
    FORGET_VERDICT,
]
JUDGE = Step(
    "check its health",
    lambda s: s.pack,
    lambda s: s._replace(verdict="bad" if s.pack == s.unhealthy else "good"),
    why="nothing is changed but a note, `healthy-pack`",
)
OWED_JUDGE = JUDGE._replace(when=lambda s: s.pack and s.healthy and s.pack != s.healthy)
TRIAL, OWED_TRIAL = ([Group([judge]), *ACT_ON_VERDICT] for judge in (JUDGE, OWED_JUDGE))


# The check.


def is_news(s):
    return not s.pack or (s.pack, s.offered) == ("old", "new")


def is_rejected(s):
    return s.rejected == s.offered


def is_unsettled(s):
    """A failure, or an offer that nobody took: what a check looks at again when it finds nothing new."""
    return s.pack and not is_news(s) and s.status in (*FAILED, "need_download")


def is_repetition(s):
    """Of the installed version; not where that was taken back, nor where a newer one was on offer and no longer is."""
    taken_back = (s.pack, s.offered) == ("new", "old")
    was_on_offer = s.status == "need_download" and (s.pack, s.offer) == ("old", "new")
    return is_unsettled(s) and not taken_back and not was_on_offer


def is_over(s):
    return is_unsettled(s) and not is_repetition(s)


def waits_for_install(s):
    return s.status == "need_install" and s.offer == s.offered and not is_rejected(s)


def after_rejection(s):
    return "up_to_date" if s.pack else "download_install_failed"


FOUND = Step("tell of a new pack", always, put(found="yes"))
FIND_WORK = [
    FOUND._replace(when=lambda s: is_news(s) or is_repetition(s)),
    *record("need_download", is_news, offer=lambda s: s.offered),
    end("found a new pack", is_news),
    *record("up_to_date", is_over),
    *remove("download", lambda s: s.status == "up_to_date"),
    *record("need_download", is_repetition, offer=lambda s: s.pack),
]
CHECK = Program(
    "check",
    [
        *OWED_TRIAL,
        Group(
            [
                *OPEN_STORE,
                FOUND._replace(when=waits_for_install),
                end("a downloaded pack waits", waits_for_install),
                *record(
                    after_rejection, lambda s: is_rejected(s) and s.status in (*FAILED, "need_download", "need_install")
                ),
                *remove("download", is_rejected),
                end("rejected", is_rejected),
                *FIND_WORK,
            ],
            fails=True,
        ),
    ],
    RECOVERY,
)


# The flows of the library.


def begin_flow(status, permits):
    """What comes before the download, for the statuses from which the flow may start."""
    return [
        Group([end("not permitted", lambda s: s.status not in permits)]),
        NOTE_HEALTHY,
        Group(
            record(
                status, why="each change of the status is one sector of the disk, or a synced file renamed into place"
            ),
            fails=True,
        ),
    ]


def fetch(version):
    return Group(
        [
            Step("make the download's folder", always, put(download="part")),
            Step(
                "download",
                always,
                lambda s: s._replace(download=version(s)),
                syncs=PACKAGE,
                why="the file is synced before its checksum is compared",
            ),
        ],
        fails=True,
    )


def place(status):
    """From a package to a pack in its place."""
    return [
        Group(
            [
                Step("find a backup in the way, or no package", cannot_place, same, "fail"),
                *record(status),
                Step("set the old pack aside", lambda s: s.pack, move("pack", "backup"), why="one `rename`"),
                *record(status),
                Step("unpack", always, put(unpacked="there"), why="nothing reads the folder yet"),
                Step("begin to remember what was accepted", always, put(temporary="there"), syncs=FILE),
                Step("remember what was accepted", always, put(temporary=""), syncs=FILE),
                Step("build the pack beside its place", always, put(half_built="there")),
                sync(FILE_SYSTEM),
                Step(
                    "place the new pack",
                    always,
                    lambda s: s._replace(pack=s.download, half_built=""),
                    syncs=PACKS,
                    why="`orba-copy` builds beside the final name, syncs the file system, then renames and syncs the "
                    "folder",
                ),
            ],
            fails=True,
        ),
        Group(KEEP_BACKUP),
        Group(remove("unpacked", why="a folder moves aside in one `rename` before any of it is removed")),
        Group(remove("download", why="likewise")),
        Group([*record(status, last="last"), *record("up_to_date", why="as the first step")], fails=True),
        Group(KEEP_BACKUP),
        Group([DELETE]),
        *TRIAL,
    ]


def cannot_place(s):
    return (s.pack and s.backup) or s.download not in VERSIONS


def after_error(status, version=""):
    """What the library cleans up itself, and then packctl by a recovery."""
    groups = [
        Group(remove("half_built")),
        Group([Step("put the backup back at once", lambda s: s.backup and not s.pack, move("backup", "pack"))]),
        Group(remove("unpacked")),
        Group(record(status, offer=version)),
    ]
    return Program(f"recovery after {status}", [*groups, *RECOVERY.groups])


UPDATE_FROM = ("lost", "need_download", "need_install", "download_install_failed", "up_to_date")
UPDATING = [
    *begin_flow("downloading_installing", UPDATE_FROM),
    fetch(lambda s: s.offered),
    *place("downloading_installing"),
]
DOWNLOAD = [
    *begin_flow("downloading", ("need_download", "download_failed")),
    fetch(lambda s: s.offered),
    Group([*record("need_install", offer=lambda s: s.offered), DELETE], fails=True),
]
INSTALL = [*begin_flow("installing", ("need_install", "install_failed")), *place("installing")]
BEGIN = [*OWED_TRIAL, Group(OPEN_STORE, fails=True)]


def is_settled(s):
    """Nothing is to be done by an update."""
    settled = s.pack and s.status in ("up_to_date", "lost")
    return (settled and not is_news(s)) or is_rejected(s)


def install_failed():
    return after_error("install_failed", lambda s: s.download if s.download in VERSIONS else "")


def verdict_by_hand(s):
    return s.previous and s.pack and s.previous != s.pack and s.status not in UNDER_WAY


PROGRAMS = [
    RECOVERY,
    CHECK,
    Program(
        "update", [*BEGIN, Group([end("nothing to do", is_settled)]), *UPDATING], after_error("download_install_failed")
    ),
    Program("download", [*BEGIN, *DOWNLOAD], after_error("download_failed")),
    Program("install", [*BEGIN, *INSTALL], install_failed()),
    Program(
        "install from a file",
        [
            *BEGIN,
            Group([end("not permitted", lambda s: s.status in UNDER_WAY or not is_news(s))]),
            NOTE_HEALTHY,
            Group(record("downloading_installing"), fails=True),
            Group(remove("download"), fails=True),
            fetch(lambda s: s.offered),
            Group(record("need_install", offer=lambda s: s.offered), fails=True),
            *INSTALL,
        ],
        install_failed(),
    ),
    Program(
        "removal",
        [
            Group([end("not permitted", lambda s: s.status in UNDER_WAY)]),
            Group([*remove("previous", lambda s: s.pack), *remove("pack"), sync(PACKS)], fails=True),
        ],
        RECOVERY,
    ),
    Program(
        "rollback",
        [
            Group(
                [Step("reject it", verdict_by_hand, put(verdict="bad")), end("no way back", lambda s: not is_bad(s))]
            ),
            *ACT_ON_VERDICT,
            *RECOVERY.groups,
        ],
        RECOVERY,
    ),
    Program(
        "host",
        [
            *RECOVERY.groups,
            *OWED_TRIAL,
            Group(
                [
                    *FIND_WORK,
                    *record("up_to_date", is_rejected),
                    end("rejected", is_rejected),
                    end("nothing new", lambda s: s.status != "need_download"),
                ],
                fails=True,
            ),
            *UPDATING,
        ],
        after_error("download_install_failed"),
    ),
]
BOOT, CHECK, UPDATE = PROGRAMS[:3]
STARTS = [
    State(),
    State(status="broken"),
    State(pack="old", healthy="old", status="up_to_date"),
    State(pack="old", healthy="old", status="broken"),
]
