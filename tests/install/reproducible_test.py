#!/usr/bin/env python3
"""Builds the Debian packages twice, as two people would who never met, and expects the same bytes.

As a test it compiles as fast as it can. scripts/release makes the packages that are shipped with it.

The second builder works in another folder, on a date that is never the first one's, with other times on the sources and
another umask and locale.
"""

import argparse
import dataclasses
import os
import pathlib
import shutil
import subprocess
import sys

from source_copy import QUICK, copy_sources

TOOLS = ("cmake", "cpack", "ninja", "dpkg-deb", "dpkg-shlibdeps", "file")
SKIPPED = 77


@dataclasses.dataclass
class Builder:
    folder: str
    zone: str
    locale: str
    umask: int
    source_time: int

    def build(self, source, top, compiler, flags):
        """Returns the packages, by name."""
        folder = top / self.folder
        shutil.rmtree(folder, ignore_errors=True)
        copy_sources(source, folder)
        for path in folder.rglob("*"):
            os.utime(path, (self.source_time, self.source_time), follow_symlinks=False)
        for command in (
            ("cmake", "--preset", "release", *flags),
            ("cmake", "--build", "--preset", "release"),
            ("cpack", "--config", "build/release/CPackConfig.cmake", "-B", "packages"),
        ):
            self.run(command, folder, compiler)
        return {path.name: path for path in (folder / "packages").glob("*.deb")}

    def run(self, command, folder, compiler):
        # What the compiler's cache gives was compiled in this very folder, and nothing that holds the date is in it.
        cache = {"CCACHE_BASEDIR": "", "CCACHE_HASHDIR": "1", "CCACHE_SLOPPINESS": ""}
        environment = {
            "CMAKE_BUILD_PARALLEL_LEVEL": "2",
            **os.environ,
            **cache,
            "CXX": compiler,
            "TZ": self.zone,
            "LC_ALL": self.locale,
        }
        environment.pop("SOURCE_DATE_EPOCH", None)
        environment.pop("CCACHE_NOHASHDIR", None)
        if shutil.which("ccache"):
            environment["CMAKE_CXX_COMPILER_LAUNCHER"] = "ccache"
        subprocess.run(command, cwd=folder, env=environment, umask=self.umask, check=True, stdout=subprocess.DEVNULL)


BUILDERS = (
    Builder("one", "Etc/GMT+12", "C", 0o022, 1_000_000_000),
    Builder("another/place", "Pacific/Kiritimati", "C.UTF-8", 0o077, 1_700_000_000),
)


def members(package, folder):
    """What the package is made of: each file's bytes, and the lists with owners, modes and times."""
    folder.mkdir(parents=True)
    subprocess.run(["dpkg-deb", "--raw-extract", package, folder], check=True)
    found = {str(path.relative_to(folder)): path.read_bytes() for path in folder.rglob("*") if path.is_file()}
    listing = subprocess.run(["dpkg-deb", "--contents", package], check=True, capture_output=True, text=True)
    return {**found, **{f"the entry: {line}": line for line in listing.stdout.splitlines()}}


def differing(one, other, folder):
    shutil.rmtree(folder, ignore_errors=True)
    first, second = members(one, folder / "first"), members(other, folder / "second")
    names = sorted(name for name in first | second if first.get(name) != second.get(name))
    return names or ["the order or times of members"]


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--source", type=pathlib.Path, required=True)
    parser.add_argument("--folder", type=pathlib.Path, required=True, help="where to build; always the same one")
    parser.add_argument("--compiler", required=True)
    parser.add_argument("--shipped", action="store_true", help="compile as for an appliance")
    parser.add_argument("--output", type=pathlib.Path, help="where to put the packages if they are the same")
    options = parser.parse_args()
    missing = [tool for tool in TOOLS if not shutil.which(tool)]
    if missing:
        print(f"skipped: without {', '.join(missing)}")
        return SKIPPED

    source, top, flags = options.source.resolve(), options.folder.resolve(), () if options.shipped else QUICK
    first, second = (builder.build(source, top, options.compiler, flags) for builder in BUILDERS)
    differ = 0
    for name in sorted(first | second):
        same = name in first and name in second and first[name].read_bytes() == second[name].read_bytes()
        print(f"{'ok' if same else 'FAILED'}: {name} is the same", flush=True)
        if not same:
            differ += 1
            if name in first and name in second:
                print("  differ:", *differing(first[name], second[name], top / "differing"), sep="\n    ")
    failed = differ or not first
    if options.output and not failed:
        options.output.mkdir(parents=True)
        for path in first.values():
            shutil.copy(path, options.output)
    shutil.rmtree(top)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
