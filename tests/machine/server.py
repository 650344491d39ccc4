"""The update server of guests: nginx in a network of our own, where nothing else is."""

import fcntl
import pathlib
import shutil
import socket
import struct
import sys

TESTS = pathlib.Path(__file__).resolve().parent.parent
sys.path[:0] = [str(TESTS / "support")]
from appliance import Publisher  # noqa: E402
from nginx import Nginx  # noqa: E402

ADDRESS = "http://updates"  # a name that guests know, of an IPv4 address and an IPv6 address
REPLY = "reply.json"
_SET_FLAGS, _UP = 0x8914, 1
# Port 80 is free in a network namespace of our own.
_HTTP = """\
  log_format requests '$request_method $request_uri';
  server {{ listen LISTEN; listen 127.0.0.1:80; listen [::1]:80; root {root}; access_log access.log requests; }}"""


def bring_up_loopback():
    """A new network namespace has it down."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        fcntl.ioctl(any_socket, _SET_FLAGS, struct.pack("16sh14x", b"lo", _UP))


class Server(Publisher):
    """Publishes versions, signed, one at a time; serves for as long as it is entered."""

    def __enter__(self):
        self.folder.mkdir(parents=True)
        self.url = ADDRESS
        self.certificate = self.make_signer()
        self.nginx = Nginx(self.folder.parent / "nginx", _HTTP.format(root=self.folder))
        self.nginx.__enter__()
        return self

    def __exit__(self, *_):
        self.nginx.__exit__()

    def offer(self, version):
        if version not in self.payloads:
            self.publish(version, seed=version)
        new = self.folder / "reply.new"
        shutil.copy(self.folder / f"reply-{version}.json", new)
        new.replace(self.folder / REPLY)

    def requests(self):
        return self.nginx.log()
