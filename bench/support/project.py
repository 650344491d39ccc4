"""Where the project's parts are, and the appliance that its tests use too."""

import argparse
import os
import pathlib
import subprocess
import sys

SOURCE = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(SOURCE / "tests/support"))
from appliance import PACK_NAME, Appliance, tree  # noqa: E402,F401

BUILD = SOURCE / "build/release"
FOLDER = SOURCE / "build/bench"


def parser(description):
    """A parser with the options that every benchmark has."""
    made = argparse.ArgumentParser(description=description, formatter_class=argparse.RawDescriptionHelpFormatter)
    made.add_argument("--build", type=pathlib.Path, default=BUILD, help="build folder whose programs are measured")
    made.add_argument(
        "--folder",
        type=pathlib.Path,
        default=FOLDER,
        help="where payloads (kept for the next time), packs and downloads lie: on a real disk",
    )
    made.add_argument("--json", type=pathlib.Path, help="write the figures to this file, too")
    return made


def install(build, root):
    """A fresh appliance below `root`, with what an installation of the build folder's programs brings."""
    subprocess.run(
        ["cmake", "--install", build, "--strip"],
        env={**os.environ, "DESTDIR": str(root)},
        check=True,
        stdout=subprocess.DEVNULL,
    )
    appliance = Appliance(root)
    settings = root / "etc/orbamira"
    (settings / "system.conf").write_text('unique="bench-appliance"\n')
    (settings / "version.conf").write_text('major_version="3"\nminor_version="1"\nbuild_number="1200"\n')
    (root / "packctl").symlink_to("usr/bin/packctl")
    return appliance
