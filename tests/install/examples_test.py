#!/usr/bin/env python3
"""Builds the examples against the unpacked packages, runs them, and compares what they print with their page.

--with says how the library is found: by find_package or by pkg-config.
"""

import argparse
import fnmatch
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import Appliance, make_pack, unpack  # noqa: E402
from nginx import WebServer  # noqa: E402

EXAMPLES = ("update", "watch_status", "own_services")
WARNINGS = "-Wall -Wextra -Wpedantic -Werror"
PATIENCE = 600

# Once, after an install: waits until its folder holds no file "hold" any more.
HOLDING_PLUGIN = """#!/bin/sh
[ "$2 $6" = "install post" ] || exit 0
cd "$(dirname "$0")" || exit 1
: > ../held
n=0
while [ -e ../hold ] && [ "$n" -lt 6000 ]; do sleep 0.1; n=$((n + 1)); done
"""


def build_with_cmake(stage, source, folder, compiler):
    subprocess.run(
        [
            "cmake",
            "-S",
            source / "examples",
            "-B",
            folder,
            "-G",
            "Ninja",
            f"-DCMAKE_PREFIX_PATH={stage.root}/usr",
            f"-DCMAKE_CXX_COMPILER={compiler}",
            f"-DCMAKE_CXX_FLAGS={WARNINGS}",
        ],
        check=True,
        stdout=subprocess.DEVNULL,
    )
    subprocess.run(["cmake", "--build", folder], check=True, stdout=subprocess.DEVNULL)
    return {}


def build_with_pkg_config(stage, source, folder, compiler):
    # The files name the place that they will be used at; here that is the staged one.
    modules = folder / "modules"
    modules.mkdir(parents=True)
    for module in (stage.libraries / "pkgconfig").glob("*.pc"):
        text, moved = re.subn(r"(?m)^prefix=(.*)$", f"prefix={stage.root}/usr", module.read_text())
        assert moved == 1, f"{module} names no prefix"
        (modules / module.name).write_text(text)
    environment = {**os.environ, "PKG_CONFIG_PATH": str(modules)}
    flags = subprocess.run(
        ["pkg-config", "--cflags", "--libs", "orbamira-updater"],
        env=environment,
        check=True,
        capture_output=True,
        text=True,
    ).stdout
    for example in EXAMPLES:
        subprocess.run(
            [
                compiler,
                "-std=c++17",
                *shlex.split(WARNINGS),
                source / f"examples/{example}.cpp",
                "-o",
                folder / example,
                *shlex.split(flags),
            ],
            check=True,
        )
    # Nothing of a program built this way says where the libraries are staged.
    return {"LD_LIBRARY_PATH": str(stage.libraries)}


def blocks_of(page):
    """The indented blocks of the page, each as its lines."""
    return [[line[4:] for line in block.splitlines()] for block in re.findall(r"(?m)(?:^ {4}.*\n)+", page.read_text())]


class Session:
    """The examples, run in the order of a reader, each against the next block of the page that shows it."""

    def __init__(self, stage, folder, environment, page):
        self.folder = folder
        self.environment = {**stage.environment(), **environment}
        self.blocks = blocks_of(page)
        self.failures = 0

    def start(self, example, *arguments):
        return subprocess.Popen(
            [self.folder / example, *arguments],
            env=self.environment,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
        )

    def expect(self, example, *arguments):
        process = self.start(example, *arguments)
        output, _ = process.communicate(timeout=PATIENCE)
        self.compare(example, output.splitlines(), process.returncode)

    def compare(self, example, printed, status):
        block = next(block for block in self.blocks if re.match(rf"\$ {example}\b", block[0]))
        self.blocks.remove(block)
        pattern = "\n".join(block[1:]).replace("...\n", "*")
        self.check(f"{example} ends with 0", status == 0, f"it ended with {status}, after\n" + "\n".join(printed))
        self.check(
            f"{example} prints what the page says", fnmatch.fnmatchcase("\n".join(printed), pattern), "\n".join(printed)
        )

    def check(self, what, holds, seen):
        print(f"{'ok' if holds else 'FAILED'}: {what}")
        if not holds:
            print(f"seen: {seen}")
            self.failures += 1


def publish(stage, server, version):
    """Has the server offer a pack of random bytes, made by the installed mkpack."""
    payload = server.folder / f"payload-{version}"
    payload.mkdir()
    (payload / "codec").write_bytes(os.urandom(300_000))
    make_pack(stage.build, payload, server.packs, version, server.url, stage.program("mkpack"))


def watch_an_update(session, stage):
    plugin = stage.plugins / "10-holding"
    hold, held = plugin.parent.parent / "hold", plugin.parent.parent / "held"
    plugin.parent.mkdir(parents=True, exist_ok=True)
    hold.touch()
    plugin.write_text(HOLDING_PLUGIN)
    plugin.chmod(0o755)
    update = session.start("update")
    deadline = time.monotonic() + PATIENCE
    while not held.exists():  # until the pack is in place and the plugin holds the update
        assert update.poll() is None and time.monotonic() < deadline, "the update did not wait for the plugin"
        time.sleep(0.05)
    watch = session.start("watch_status")
    first = watch.stdout.readline()
    hold.unlink()
    rest, _ = watch.communicate(timeout=PATIENCE)
    session.compare("watch_status", (first + rest).splitlines(), watch.returncode)
    update.communicate(timeout=PATIENCE)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--packages", type=pathlib.Path, required=True)
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--source", type=pathlib.Path, required=True)
    parser.add_argument("--compiler", required=True)
    parser.add_argument("--with", dest="tool", choices=("find_package", "pkg-config"), required=True)
    options = parser.parse_args()

    with tempfile.TemporaryDirectory(prefix="orbamira-examples-") as name, WebServer(
        pathlib.Path(name) / "server"
    ) as server:
        folder = pathlib.Path(name)
        unpack(options.packages, folder / "stage")
        stage = Appliance(folder / "stage", options.build)
        build = build_with_cmake if options.tool == "find_package" else build_with_pkg_config
        environment = build(stage, options.source, folder / "programs", options.compiler)
        session = Session(stage, folder / "programs", environment, options.source / "examples/README.md")

        # On an appliance without a single setting: everything comes from the program's own services.
        publish(stage, server, "1.0.0")
        session.expect("own_services", f"{server.url}/reply.json")
        request = [block for block in session.blocks if block[0].startswith("GET ")][0]
        session.check("the server is asked as the page says", server.requests()[-1:] == request, server.requests())

        stage.identify()
        stage.use_server(f"{server.url}/reply.json")
        session.expect("update")
        session.expect("update")
        publish(stage, server, "1.1.0")
        watch_an_update(session, stage)

        unseen = [block for block in session.blocks if block[0].startswith("$ ")]
        session.check("everything that the page shows was seen", not unseen, unseen)
        return 1 if session.failures else 0


if __name__ == "__main__":
    sys.exit(main())
