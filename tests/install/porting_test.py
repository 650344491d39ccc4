#!/usr/bin/env python3
"""Brings the updater to another appliance by doing what docs/porting.md says, and has it work there.

The commands of the guide's two levels of change are run in a copy of the sources. After each level the whole story is
told by the programs of that copy: another root, other folders and names first, then an own platform library too.
"""

import argparse
import gzip
import hashlib
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import Appliance, install  # noqa: E402
from nginx import WebServer  # noqa: E402
from source_copy import QUICK, copy_sources  # noqa: E402

OF_BEFORE = re.compile(rb"/(etc|run|usr/(lib|libexec|share)|var/(cache|lib))/orbamira|codec-pack|orbamira-hevc")
TOOLS = ("cmake", "ninja", "nginx", "bash")
SKIPPED = 77

# Lines of a list of folders and names, and what is said of them.
REFUSED = {
    "set(ORBAMIRA_GRUOP acme)": "sets variables that platform/paths.h does not list: ORBAMIRA_GRUOP",
    "set(ORBAMIRA_STATE_FOLDER volume1/state)": 'ORBAMIRA_STATE_FOLDER is "volume1/state", which does not match',
    'set(ORBAMIRA_HEVC_PACK "acme hevc")': 'ORBAMIRA_HEVC_PACK is "acme hevc", which does not match',
}

PLUGIN = """#!/bin/sh
case $1 in
  --app-id) echo com.example.recorder ;;
  *) echo "$*" >> "$ORBAMIRA_ROOT/plugin.log" ;;
esac
"""


def digest(path):
    return hashlib.sha256(path.read_bytes()).hexdigest()


def content(path):
    data = path.read_bytes()
    return gzip.decompress(data) if path.suffix == ".gz" else data


class Port:
    """A copy of the sources that becomes another appliance's, level by level."""

    def __init__(self, source, folder, compiler):
        self.tree, self.build_folder = folder, folder / "build/release"
        copy_sources(source, folder)
        self.environment = {
            "CMAKE_BUILD_PARALLEL_LEVEL": "2",
            **os.environ,
            "CXX": compiler,
            "CCACHE_BASEDIR": str(folder),
            "CCACHE_NOHASHDIR": "1",
        }
        if shutil.which("ccache"):
            self.environment["CMAKE_CXX_COMPILER_LAUNCHER"] = "ccache"

    def run(self, *command):
        done = subprocess.run(
            command,
            cwd=self.tree,
            env=self.environment,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            check=False,
        )
        if done.returncode != 0:
            raise RuntimeError(f"{' '.join(command)} ended with {done.returncode}:\n{done.stdout}")

    def follow_guide(self, level):
        """Runs the commands of the guide's section that begins with this number."""
        guide = (self.tree / "docs/porting.md").read_text()
        section = re.search(rf"^## {level}\. .*?(?=^## )", guide, re.MULTILINE | re.DOTALL).group()
        blocks = re.findall(r"^```sh port\n(.*?)^```$", section, re.MULTILINE | re.DOTALL)
        assert blocks, f"level {level} of the guide has no commands"
        for block in blocks:
            before = self.digests()
            self.run("bash", "-euo", "pipefail", "-c", block)
            assert self.digests() != before, f"these commands of the guide change nothing:\n{block}"

    def refusal(self, line):
        """What is said of a list of folders and names with this line."""
        paths, build = self.tree / "refused.cmake", self.tree / "build/refused"
        paths.write_text(line)
        try:
            self.run("cmake", "-G", "Ninja", "-B", str(build), f"-DORBAMIRA_PATHS={paths}")
        except RuntimeError as error:
            return " ".join(str(error).split())
        finally:
            paths.unlink()
            shutil.rmtree(build)
        return ""

    def digests(self):
        folders = [folder for folder in self.tree.iterdir() if folder.is_dir() and folder.name != "build"]
        files = [
            path for folder in (self.tree, *folders) for path in folder.glob("*" if folder == self.tree else "**/*")
        ]
        return {path: digest(path) for path in files if path.is_file()}

    def build(self):
        """Builds what the guide's commands configured, as quickly as it compiles."""
        self.run("cmake", "--preset", "release", *QUICK)
        self.run("cmake", "--build", "--preset", "release")


class Story:
    """The story of the demo, on the appliance that the guide's commands make."""

    def __init__(self, stage, server, report):
        self.stage, self.root, self.server, self.report = stage, stage.root, server, report
        self.settings = self.root / "etc/acme/codecs/updater.conf"
        self.packages = self.root / "volume1/acme/state/packages"
        self.plugin_log = self.root / "plugin.log"
        self.told = []

    def write_settings(self, line):
        """`line` formats a key and its value."""

        def write(path, **settings):
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text("".join(line.format(key, value) + "\n" for key, value in settings.items()))

        write(self.root / "etc/acme/nas.conf", model="acme-nas", owner="owner-7", timezone="Europe/Vienna")
        write(self.root / "etc/acme/codecs/version.conf", major_version="3", minor_version="1", build="1200")
        write(self.settings, pack_update_server=f"{self.server.url}/reply.json", plugin_time_limit="7")

    def add_plugin(self):
        plugin = self.root / "opt/acme/lib/plugins/10-recorder"
        plugin.write_text(PLUGIN)
        plugin.chmod(0o755)

    def publish(self, version):
        payload = self.server.folder / f"payload-{version}"
        if not payload.exists():
            payload.mkdir()
            (payload / "codec").write_bytes(os.urandom(200_000))
        subprocess.run(
            [
                self.stage.program("mkpack"),
                "--payload",
                payload,
                "--output",
                self.server.packs,
                "--name",
                "acme-hevc",
                "--version",
                version,
                "--title",
                "HEVC",
                "--base-url",
                self.server.url,
            ],
            check=True,
            stdout=subprocess.DEVNULL,
        )

    def run(self, expected, *arguments):
        done = subprocess.run(
            [self.stage.program("packctl"), *arguments],
            env=self.stage.environment(),
            capture_output=True,
            text=True,
            timeout=600,
            check=False,
        )
        self.report.check(
            f"packctl {' '.join(arguments)} ends with {expected}",
            done.returncode == expected,
            f"{done.returncode}, {done.stdout}{done.stderr}",
        )
        return done.stdout

    def answer(self, command, key):
        return json.loads(self.run(0, "--json", command)).get(key)

    def expect_status(self, status):
        self.report.equal("the status", status, self.answer("status", "status"))

    def expect_installed(self, version):
        self.report.equal(
            "the package", ("acme-hevc", version), (self.answer("info", "package"), self.answer("info", "version"))
        )
        # The pack that was installed before may be kept beside it.
        self.report.equal("the packages' folder", {"codecs"}, set(os.listdir(self.packages)) - {".codecs.previous"})
        self.report.equal(
            "the pack's content",
            digest(self.server.folder / f"payload-{version}/codec"),
            digest(self.packages / "codecs/codec"),
        )

    def expect_told(self, event, version, status):
        self.told += [
            f"--event {event} --package acme-hevc --timing {timing} --version {version} --status {status}"
            for timing in ("pre", "post")
        ]

    def tell(self, release):
        first, second = f"{release}.0.0", f"{release}.1.0"
        self.publish(first)
        self.run(0, "check")
        self.expect_status("need_download")
        self.report.equal(
            "what the server was asked",
            "GET /reply.json?identify=acme-codecs&unique=acme-nas&version=1.0.0&kos_version=3.1-1200",
            self.server.requests()[-1],
        )
        self.run(0, "doctor")
        self.run(0, "update")
        self.expect_told("install", first, "INSTALL")
        self.expect_status("up_to_date")
        self.expect_installed(first)
        self.run(2, "check")

        self.publish(second)
        self.run(0, "check")
        package = next(self.server.packs.glob(f"acme-hevc-{second}-*.opk"))
        with package.open("r+b") as file:
            file.seek(4000)
            byte = file.read(1)
            file.seek(4000)
            file.write(bytes([byte[0] ^ 1]))
        self.run(1, "download")
        self.expect_status("download_failed")
        self.expect_installed(first)

        self.publish(second)
        self.run(0, "download")
        self.expect_status("need_install")
        self.expect_installed(first)
        self.run(0, "install")
        self.expect_told("uninstall", first, "UPGRADE")
        self.expect_told("install", second, "UPGRADE")
        self.expect_status("up_to_date")
        self.expect_installed(second)

        self.report.equal("the plugins", ["com.example.recorder"], self.answer("plugins", "app_ids"))
        self.run(0, "remove")
        self.report.equal("a pack is installed", False, self.answer("info", "installed"))
        self.report.equal("the packages' folder", [], os.listdir(self.packages))
        self.report.equal("what plugins were told", self.told, self.plugin_log.read_text().splitlines())
        self.expect_limits(release)
        self.run(0, "recover")

    def expect_limits(self, release):
        """The programs that read settings for themselves read the same ones."""
        settings = self.settings.read_text()
        limit = next(line for line in settings.splitlines() if "plugin_time_limit" in line)
        self.settings.write_text(settings.replace(limit, limit.replace("7", "0.2")))
        hanging = self.root / "opt/acme/lib/plugins/99-hanging"
        hanging.write_text("#!/bin/sh\nexec sleep 600\n")
        hanging.chmod(0o755)
        said = subprocess.run(
            [self.root / "opt/acme/libexec/list-app-ids", self.root / "ids"],
            env=self.stage.environment(),
            check=True,
            capture_output=True,
            text=True,
        ).stderr
        self.report.check("the plugins' time limit is that of the settings", "longer than 0.2 s" in said, said)
        hanging.unlink()

        limit = settings.splitlines()[-1].replace("plugin_time_limit", "unpack_limit")
        self.settings.write_text(f"{settings}{limit}\n")
        version = f"{release}.2.0"
        self.publish(version)
        self.run(0, "check")
        self.run(1, "update")
        self.told.append(f"--event install --package acme-hevc --timing pre --version {version} --status INSTALL")
        self.report.equal("a pack beyond the unpack limit is installed", False, self.answer("info", "installed"))
        self.settings.write_text(settings)


class Report:
    def __init__(self):
        self.failures = 0

    def check(self, what, holds, seen):
        print(f"{'ok' if holds else 'FAILED'}: {what}", flush=True)
        if not holds:
            print(f"seen: {seen}", flush=True)
            self.failures += 1

    def equal(self, what, expected, seen):
        self.check(f"{what}: {expected}", expected == seen, seen)


def build_host(stage, source, program, compiler):
    """Builds owner.cpp against what is installed."""
    folders = [f"-I{folder}" for folder in stage.include_folders] + ["-I/usr/include/jsoncpp"]
    subprocess.run(
        [
            compiler,
            "-std=c++17",
            *folders,
            source,
            "-o",
            program,
            f"-L{stage.libraries}",
            f"-Wl,-rpath-link,{stage.libraries}/orbamira/lib",
            "-lorbamira_updater",
            "-lorbamira_platform",
        ],
        check=True,
    )


def owner(stage, program):
    environment = {**stage.environment(), "LD_LIBRARY_PATH": str(stage.libraries)}
    return subprocess.run([program], env=environment, check=True, capture_output=True, text=True).stdout.rstrip("\n")


def expect_new_folders(stage, report):
    """What is installed names the folders, packs and group of the port, and none of before."""
    kept = sorted(
        str(file.relative_to(stage.root))
        for file in stage.root.rglob("*")
        if file.is_file() and OF_BEFORE.search(content(file))
    )
    report.equal("files that name a folder or pack of before", [], kept)
    units = "\n".join(unit.read_text() for unit in stage.root.rglob("orbamira-*.service"))
    report.equal(
        "folders that services make under the name of before",
        [],
        re.findall(r"^\w+Directory=orbamira", units, re.MULTILINE),
    )
    report.equal(
        "the services' folder of locks",
        {"acme/codecs"},
        set(re.findall(r"^RuntimeDirectory=(.*)", units, re.MULTILINE)),
    )
    report.equal(
        "the services' folders of the disk",
        {"/volume1/acme/cache", "/volume1/acme/state"},
        set(re.findall(r"^ReadWritePaths=([^-].*)", units, re.MULTILINE)),
    )
    report.equal(
        "the group",
        ["g acme -"],
        re.findall(r"^g .*", (stage.root / "usr/lib/sysusers.d/orbamira.conf").read_text(), re.MULTILINE),
    )


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--source", type=pathlib.Path, required=True)
    parser.add_argument("--compiler", required=True)
    options = parser.parse_args()
    path = os.environ["PATH"] + ":/usr/sbin"
    missing = [tool for tool in TOOLS if not shutil.which(tool, path=path)]
    if missing:
        print(f"skipped: without {', '.join(missing)}")
        return SKIPPED

    report = Report()
    with tempfile.TemporaryDirectory(prefix="orbamira-port-") as name, WebServer(
        pathlib.Path(name) / "server"
    ) as server:
        folder = pathlib.Path(name)
        port = Port(options.source.resolve(), folder / "source", options.compiler)
        for line, said in REFUSED.items():
            refusal = port.refusal(line)
            report.check(f"{line} is refused", said in refusal, refusal)
        port.follow_guide(2)
        port.build()
        install(port.build_folder, folder / "stage")
        stage = Appliance(folder / "stage", port.build_folder)
        expect_new_folders(stage, report)
        story = Story(stage, server, report)
        story.write_settings('{}="{}"')
        story.add_plugin()
        story.tell(1)
        host = folder / "owner"
        build_host(stage, port.tree / "tests/install/own_platform/owner.cpp", host, options.compiler)
        report.equal("the owner", " in ", owner(stage, host))

        libraries = stage.libraries / "liborbamira_updater.so.1", stage.libraries / "liborbamira_platform.so.1"
        updater, platform = map(digest, libraries)
        port.follow_guide(3)
        port.build()
        install(port.build_folder, stage.root)
        stage = Appliance(stage.root, port.build_folder)
        report.equal("the updater's library", updater, digest(libraries[0]))
        report.check("the platform's library is another", platform != digest(libraries[1]), platform)
        story.write_settings("{}: {}")
        story.tell(2)
        report.equal("the owner", "owner-7 in Europe/Vienna", owner(stage, host))
    return 1 if report.failures else 0


if __name__ == "__main__":
    sys.exit(main())
