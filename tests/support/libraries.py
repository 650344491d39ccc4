"""Shared libraries for packs, good and bad."""

import subprocess

SOURCES = {
    "good": "int codec(void) { return 1; }",
    "crashing": "__attribute__((constructor)) static void crash(void) { __builtin_trap(); }",
    "hanging": "int pause(void); __attribute__((constructor)) static void hang(void) { for (;;) pause(); }",
    "ending": "void _exit(int); __attribute__((constructor)) static void end(void) { _exit(0); }",
    "unresolved": "int elsewhere(void); int codec(void) { return elsewhere(); }",
}


def compile_library(folder, kind, *options, source=None):
    """The bytes of a library of one of the kinds above, or of C source of its own."""
    code, library = folder / f"{kind}.c", folder / f"{kind}.so"
    code.write_text((source or SOURCES[kind]) + "\n")
    subprocess.run(["cc", "-shared", "-fPIC", "-o", library, code, *options], check=True)
    return library.read_bytes()


def of_another_machine(library):
    """The library as if it were built for another processor: the machine in its header is another."""
    return library[:18] + b"\xf7\x00" + library[20:]
