#!/usr/bin/env python3
"""An update takes little memory in each of its processes: no more for a large pack than for a small one, and little
more for a reply without end."""

import argparse
import contextlib
import http.server
import pathlib
import sys
import tempfile
import threading

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import Appliance, Publisher  # noqa: E402

LIMIT_KIB = 24 * 1024
GROWTH_KIB = 2 * 1024
# A reply as long as one may be, and of what takes most memory once it is parsed.
WORST_LIMIT_KIB = 176 * 1024
REPLY_LIMIT = 1024 * 1024
SIZES = {"small pack": (1_000_000, 1_000_000), "large pack": (31_000_000,) * 7}


def peak(appliance, report, expected=0):
    """Resident memory in KiB, at its most, of the largest process of an update that ends with the expected status."""
    # Started from a small program: a process counts the memory of the one that it was forked from.
    done = appliance.packctl("update", wrapper=("/usr/bin/time", "--quiet", "--format=%M", f"--output={report}"))
    if done.returncode != expected:
        raise RuntimeError(f"the update ended with {done.returncode}: {done.stdout}{done.stderr}")
    return int(report.read_text())


@contextlib.contextmanager
def hostile_server(pieces):
    """Serves a reply of these pieces for as long as somebody takes them; gives its address."""

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            self.send_response(200)
            self.end_headers()
            with contextlib.suppress(OSError):
                for piece in pieces():
                    self.wfile.write(piece)

        def log_message(self, *_):
            pass

    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler) as server:
        threading.Thread(target=server.serve_forever, daemon=True).start()
        yield f"http://127.0.0.1:{server.server_address[1]}"
        server.shutdown()


def hundred_megabytes():
    yield b'{"orbamira-hevc":['
    for _ in range(100):
        yield b"[0]," * (256 * 1024)


def endless():
    while True:
        yield b"[0]," * 1024


def longest():
    head, tail = b'{"orbamira-hevc":[', b"0]}"
    yield head + b"[0]," * ((REPLY_LIMIT - len(head) - len(tail)) // 4) + tail


HOSTILE = {
    "endless reply": (endless, LIMIT_KIB),
    "reply of 100 MiB": (hundred_megabytes, LIMIT_KIB),
    "longest reply": (longest, WORST_LIMIT_KIB),
}


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True, help="build folder whose programs are put to the test")
    arguments = parser.parse_args()
    peaks = {}
    with tempfile.TemporaryDirectory(prefix="orbamira-memory-") as name:
        folder = pathlib.Path(name)
        with Publisher(folder / "published", arguments.build) as publisher:
            appliance = Appliance.lay_out(folder / "root", arguments.build)
            for number, (size, payload) in enumerate(SIZES.items(), start=1):
                appliance.use_server(publisher.publish(f"{number}.0", number, payload))
                peaks[size] = peak(appliance, folder / "peak")
                if not publisher.is_whole(appliance.pack, f"{number}.0"):
                    raise RuntimeError("the pack is not in place")
            excess = [size for size, kib in peaks.items() if kib > LIMIT_KIB]
            for reply, (pieces, limit) in HOSTILE.items():
                with hostile_server(pieces) as address:
                    appliance.use_server(address)
                    peaks[reply] = peak(appliance, folder / "peak", expected=1)
                    appliance.expect("recover")
                excess += [reply] if peaks[reply] > limit else []
    print(", ".join(f"{what}: {kib} KiB" for what, kib in peaks.items()))
    sys.exit(bool(excess) or peaks["large pack"] - peaks["small pack"] > GROWTH_KIB)


if __name__ == "__main__":
    main()
