#!/usr/bin/env python3
"""Compares docs/architecture.md and its picture with the tree: arrows with includes, tables with folders and files.

A room is a folder; the headers of platform/ are one room and its sources another, as in the picture. The picture leaves
out an arrow where others lead the same way, so it is compared with the includes that no other includes imply.
"""

import argparse
import collections
import pathlib
import re
import shutil
import sys
import tempfile
import unittest
import xml.etree.ElementTree

SOURCE = pathlib.Path(__file__).resolve().parents[2]
PAGE = SOURCE / "docs/architecture.md"
PICTURE = SOURCE / "docs/architecture.svg"
FOLDERS = ("platform", "updater", "tools")
SUFFIXES = (".cpp", ".h")
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)
WORD = re.compile(r"`([^`\s]+)`")


def sources(tree):
    for folder in FOLDERS:
        yield from (path for path in sorted((tree / folder).rglob("*")) if path.suffix in SUFFIXES)


def room(path):
    """The room of a file, given by its path in the tree."""
    folder = str(pathlib.PurePath(path).parent)
    return f"platform/*{pathlib.PurePath(path).suffix}" if folder == "platform" else folder


def arrows(tree):
    """Each pair of rooms of which the first includes the second, with the includes that make it so."""
    found = collections.defaultdict(list)
    for path in sources(tree):
        name = str(path.relative_to(tree))
        for included in INCLUDE.findall(path.read_text()):
            if room(name) != room(included):
                found[room(name), room(included)].append(f"{name} includes {included}")
    return found


def reached(pairs, start):
    """The rooms that the arrows lead to from a room, in one step or in several."""
    seen, ahead = set(), [start]
    while ahead:
        here = ahead.pop()
        new = {end for begin, end in pairs if begin == here} - seen
        seen |= new
        ahead.extend(new)
    return seen


def without_shortcuts(pairs):
    pairs = set(pairs)
    return {pair for pair in pairs if pair[1] not in reached(pairs - {pair}, pair[0])}


def drawn():
    """The arrows of the picture; one may begin in several rooms."""
    paths = xml.etree.ElementTree.parse(PICTURE).iterfind(".//*[@data-from]")
    return {(begin, path.get("data-to")) for path in paths for begin in path.get("data-from").split()}


def differences(tree):
    """What the picture and the includes of a tree disagree about, in words."""
    real, picture = arrows(tree), drawn()
    for begin in sorted({begin for begin, _ in real}):
        if begin in reached(real, begin):
            yield f"{begin} includes itself by way of others"
    for begin, end in sorted(picture - without_shortcuts(real)):
        yield f"drawn, but not included or a shortcut: {begin} -> {end}"
    for begin, end in sorted(without_shortcuts(real) - picture):
        yield f"not drawn in architecture.svg: {begin} -> {end}: " + ", ".join(real[begin, end])


class ArchitectureTest(unittest.TestCase):
    def test_picture_has_the_arrows_of_the_includes(self):
        self.assertEqual([], list(differences(SOURCE)))

    def test_every_room_is_in_the_table(self):
        rows = re.findall(r"^\| (`.*?) \|", PAGE.read_text(), re.MULTILINE)
        named = {word.rstrip("/") for row in rows for word in WORD.findall(row)}
        for path in sources(SOURCE):
            with self.subTest(path):
                self.assertIn(str(path.parent.relative_to(SOURCE)), named)

    def test_every_file_and_folder_that_is_named_exists(self):
        top = {path.name for path in SOURCE.iterdir()}
        for word in WORD.findall(PAGE.read_text()):
            if word.split("/")[0] in top and "/" in word and "*" not in word:
                with self.subTest(word):
                    self.assertTrue((SOURCE / word).exists())
            elif re.fullmatch(r"\w+\.(cpp|h|py)", word):
                with self.subTest(word):
                    self.assertTrue(any(path for folder in FOLDERS for path in (SOURCE / folder).rglob(word)))

    def test_include_that_goes_up_is_found(self):
        for header, include, problem in (
            ("platform/version.h", "updater/pack_manager.h", "platform/*.h includes itself by way of others"),
            ("tools/http/server.h", "tools/packctl/cli/console.h", ": tools/http -> tools/packctl/cli"),
        ):
            with self.subTest(header), tempfile.TemporaryDirectory() as name:
                tree = pathlib.Path(name)
                for folder in FOLDERS:
                    shutil.copytree(SOURCE / folder, tree / folder)
                with (tree / header).open("a") as file:
                    file.write(f'#include "{include}"\n')
                self.assertIn(problem, "\n".join(differences(tree)))


if __name__ == "__main__":
    argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    ).parse_known_args()
    unittest.main(argv=sys.argv)
