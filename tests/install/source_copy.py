"""A copy of what is built and shipped of the sources, for tests that build it elsewhere."""

import shutil

PARTS = (
    *("CMakeLists.txt", "CMakePresets.json"),
    *("bench", "cmake", "docs", "packaging", "platform", "tools", "updater"),
    "tests/install/own_platform",
)
# What makes them compile as quickly as they can: several sources at a time, and no debug information, as in what is
# shipped.
QUICK = (
    *("-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O0", "-DCMAKE_UNITY_BUILD=ON"),
    "-DORBAMIRA_BUILD_BENCH=OFF",
)


def copy_sources(source, folder):
    """Copies them into the folder, which is made; libraries that scripts/setup built are used where they are."""
    for name in PARTS:
        copy = shutil.copytree if (source / name).is_dir() else shutil.copy
        (folder / name).parent.mkdir(parents=True, exist_ok=True)
        copy(source / name, folder / name)
    if (source / "build/deps").exists():
        (folder / "build").mkdir()
        (folder / "build/deps").symlink_to((source / "build/deps").resolve())
