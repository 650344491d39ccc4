"""What one check sends over the wire, from a real packctl and a real nginx with a relay in between that counts."""

import json
import pathlib
import select
import shutil
import socket
import struct
import sys
import threading

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
import project  # noqa: E402
from packs import VERSIONS  # noqa: E402
from server import Server  # noqa: E402

# IPv4, and TCP with time stamps; the first segment of each side says more.
HEADERS = 20 + 32
FIRST_HEADERS = 20 + 40
_BUFFER = 64 << 10
# struct tcp_info: so many bytes before the numbers of segments that were sent and received.
_SEGMENTS_AT = 136


class Relay:
    """Passes one connection on to a local port and counts what both sides send."""

    def __init__(self, port):
        self.port = port
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.address = f"http://127.0.0.1:{self.listener.getsockname()[1]}"
        self.sent = {"request": 0, "answer": 0}
        self.segments = (0, 0)
        self.thread = threading.Thread(target=self._pass_on)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.thread.join()
        self.listener.close()

    def _pass_on(self):
        client, _ = self.listener.accept()
        with client, socket.create_connection(("127.0.0.1", self.port)) as server:
            ways = {client: (server, "request"), server: (client, "answer")}
            while True:
                for side in select.select(list(ways), [], [])[0]:
                    data = side.recv(_BUFFER)
                    if not data:
                        self.segments = self._segments(client)
                        return
                    other, way = ways[side]
                    other.sendall(data)
                    self.sent[way] += len(data)

    @staticmethod
    def _segments(client):
        """From the client and to it. Not counted yet: our end of the connection, and what acknowledges it."""
        info = client.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 256)
        to_client, from_client = struct.unpack_from("=II", info, _SEGMENTS_AT)
        return from_client + 1, to_client + 1


def offer(folder, build):
    """A folder with a reply as mkpack writes it for both packs. No package is fetched, so there is none."""
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    paths = project.appliance.Paths(build)
    digest = "0123456789abcdef" * 4
    reply = {
        name: {
            "checksum": digest,
            "size": 67_700_000,
            "title": title,
            "version": VERSIONS[1],
            "link": f"https://packs.example.com/packs/{name}-{VERSIONS[1]}-{digest[:12]}.opk",
        }
        for name, title in ((paths.hevc_pack, "HEVC decoder"), (paths.hevc_aac_pack, "HEVC decoder and AAC decoder"))
    }
    (folder / "reply.json").write_text(json.dumps(reply, indent=2, sort_keys=True) + "\n")
    return folder


def expect_offer(done):
    """The check must have found what is offered."""
    answer = json.loads(done.stdout or "{}")
    if done.returncode != 0 or answer.get("result") != "new_pack" or answer.get("version") != VERSIONS[1]:
        raise RuntimeError(f"packctl check ended with {done.returncode}: {done.stdout}{done.stderr}")


def measure(build, folder):
    """Bytes of one check: HTTP's of request and answer, and all of them, with the headers of TCP and IPv4."""
    root = folder / "wire"
    shutil.rmtree(root, ignore_errors=True)
    appliance = project.install(build, root)
    with Server(offer(folder / "offer", build), folder / "nginx") as server:
        with Relay(int(server.url.rpartition(":")[2])) as relay:
            appliance.use_server(relay.address + "/reply.json")
            expect_offer(appliance.packctl("check", "--json"))
    shutil.rmtree(root)
    headers = {
        way: count * HEADERS + FIRST_HEADERS - HEADERS
        for way, count in zip(("request", "answer"), relay.segments, strict=True)
    }
    return {
        "request": relay.sent["request"],
        "answer": relay.sent["answer"],
        "segments": sum(relay.segments),
        "to_server": relay.sent["request"] + headers["request"],
        "from_server": relay.sent["answer"] + headers["answer"],
    }
