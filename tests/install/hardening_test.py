#!/usr/bin/env python3
"""Checks that every program and library that is shipped has the compiler's and the linker's protections.

What is shipped is a folder of packages or an installation below a root; the programs of the build, which still have the
names of their functions, answer for those that are linked statically. The test first shows that it finds a program
without protections.
"""

import argparse
import pathlib
import platform
import re
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import unpack  # noqa: E402

# Functions of the C library in whose place one that checks sizes is called, or that the compiler sees to be right. Not
# those that copy memory: the compiler calls them itself where nobody knows the size.
CHECKED = (
    "printf|fprintf|snprintf|sprintf|vsnprintf|vsprintf|vfprintf|strcat|strcpy|strncat|stpcpy|realpath|syslog|vsyslog"
)
UNPROTECTED = (
    "-fno-stack-protector",
    "-fcf-protection=none",
    "-U_FORTIFY_SOURCE",
    "-no-pie",
    "-Wl,-z,norelro,-z,lazy,-z,execstack",
)
PROGRAM = """
#include <stdio.h>
#include <string.h>
int main(int count, char** arguments) {
  char text[100];
  strcpy(text, arguments[count - 1]);
  puts(text);
}
"""


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def is_elf(path):
    if path.is_symlink() or not path.is_file():
        return False
    with path.open("rb") as file:
        return file.read(4) == b"\x7fELF"


def disassembly(path):
    return output("objdump", "--disassemble", "--demangle", "--no-show-raw-insn", path)


def own_code(path, build):
    """What the project's own functions of a program are compiled to, apart from others that are linked statically."""
    named = next((program for program in build.glob(f"tools/**/{path.name}") if is_elf(program)), path)
    return [function for function in disassembly(named).split("\n\n") if re.match(r"\S+ <(main|orbamira::)", function)]


def missing(path, build, fortified):
    """The protections that the file lacks."""
    headers, dynamic = output("readelf", "-hlW", path), output("readelf", "-dW", path)
    symbols = output("readelf", "--dyn-syms", "-W", path)
    if "(NEEDED)" in dynamic:
        guarded = "__stack_chk_fail" in symbols
        # The few that every program gets from the C library are marked in any case; a small one may have no more.
        marked = disassembly(path).count("endbr64") > 10 or any(
            "endbr64" in function for function in own_code(path, build)
        )
    else:
        code = own_code(path, build)
        guarded = any("<__stack_chk_fail>" in function for function in code)
        marked = any("endbr64" in function for function in code)
    checked = re.search(r"UND __\w+_chk(@|$)", symbols, re.MULTILINE)
    unchecked = re.search(rf"UND ({CHECKED})(@|$)", symbols, re.MULTILINE)
    protections = {
        "any place in memory (PIE)": re.search(r"Type: +DYN", headers),
        "a stack that is not executed": re.search(r"GNU_STACK .* RW +0x", headers),
        "read-only tables (relro)": "GNU_RELRO" in headers,
        "tables that are complete at the start (now)": re.search(r"BIND_NOW|Flags:.*\bNOW\b", dynamic),
        "guarded frames (stack protector)": guarded,
        "checked sizes (fortify)": not fortified or checked or not unchecked,
        "marked targets of jumps (cf-protection)": marked or platform.machine() != "x86_64",
    }
    return [name for name, holds in protections.items() if not holds]


def check_that_faults_are_seen(folder, compiler):
    source, program = folder / "unprotected.cpp", folder / "unprotected"
    source.write_text(PROGRAM)
    subprocess.run([compiler, "-O2", "-w", *UNPROTECTED, source, "-o", program], check=True)
    seen = len(missing(program, folder, True))
    expected = 7 if platform.machine() == "x86_64" else 6
    assert (
        seen == expected
    ), f"a program without protections lacks {seen} of {expected}: {missing(program, folder, True)}"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    shipped = parser.add_mutually_exclusive_group(required=True)
    shipped.add_argument("--packages", type=pathlib.Path, help="folder of packages")
    shipped.add_argument("--root", type=pathlib.Path, help="where it is installed")
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--compiler", default="c++")
    parser.add_argument("--fortified", action="store_true", help="the build is optimized, so sizes are checked too")
    options = parser.parse_args()

    with tempfile.TemporaryDirectory(prefix="orbamira-hardening-") as name:
        folder = pathlib.Path(name)
        check_that_faults_are_seen(folder, options.compiler)
        root = options.root
        if options.packages:
            if not options.packages.is_dir():
                print("skipped: no packages were made")
                return 77
            root = folder / "root"
            unpack(options.packages, root)
        files = sorted(path for path in root.rglob("*") if is_elf(path))
        assert len(files) >= 7, f"only these were found: {files}"
        failed = False
        for path in files:
            lacks = missing(path, options.build, options.fortified)
            failed = failed or bool(lacks)
            print(
                f"{'FAILED' if lacks else 'ok'}: {path.relative_to(root)}{' lacks ' if lacks else ''}{', '.join(lacks)}"
            )
        return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
