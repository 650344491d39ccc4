"""Where the project's parts are, and the appliance that its tests use too."""

import argparse
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tests/support"))
import appliance  # noqa: E402

SOURCE = appliance.SOURCE
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
    appliance.install(build, root, "--strip")
    installed = appliance.Appliance(root, build)
    installed.identify("bench-appliance")
    return installed
