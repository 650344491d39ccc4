"""A machine without KVM that runs until its power is cut: QEMU, over a disk that is recorded."""

import contextlib
import pathlib
import socket
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "blocks"))
import disk  # noqa: E402

PATIENCE = 1200  # seconds until a boot, or a command, counts as hung
END = b"\0"
OPTIONS = (
    "qemu-system-x86_64 -nodefaults -no-user-config -display none -no-reboot "
    "-machine pc -accel tcg -cpu max -smp 1 -m 512 -device virtio-rng-pci -device virtio-blk-pci,drive=root "
    "-device virtio-serial-pci -device virtserialport,chardev=agent"
).split()
APPEND = (
    "console=ttyS0 quiet no_timer_check mitigations=off random.trust_cpu=on audit=0 apparmor=0 "
    "systemd.show_status=0 systemd.log_target=journal panic=-1"
)
NETWORK = "user"  # the machine outside has the addresses 10.0.2.2 and fec0::2
IPV6_ONLY = "user,ipv4=off,ipv6=on"


class Hung(Exception):
    """The guest did not do in time what it should."""


class Machine:
    """Runs while it is entered. Ends as by a power cut."""

    def __init__(self, folder, boot, device, file_system, network=NETWORK, mount="rw", more=()):
        self.folder, self.console = folder, folder / "console"
        options = "nodiscard,noatime" if file_system == "btrfs" else "noatime"
        self.command = [
            *OPTIONS,
            *("-chardev", f"socket,id=agent,path={folder / 'agent'}", "-serial", f"file:{self.console}"),
            *("-drive", f"file={device},format=raw,if=none,id=root,cache=writeback,discard=ignore"),
            *("-kernel", boot / "kernel", "-initrd", boot / "initrd", "-append"),
            f"{APPEND} machine_file_system={file_system} machine_mount={mount},{options}",
            *(("-netdev", f"{network},id=net", "-device", "virtio-net-pci,netdev=net,romfile=") if network else ()),
            *more,
        ]

    def __enter__(self):
        with contextlib.ExitStack() as stack:
            listener = stack.enter_context(socket.socket(socket.AF_UNIX))
            listener.settimeout(PATIENCE)
            path = self.folder / "agent"
            path.unlink(missing_ok=True)
            listener.bind(str(path))
            listener.listen()
            self.process = subprocess.Popen(
                self.command, stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, preexec_fn=disk.end_with_parent
            )
            self.began = time.monotonic()
            self.agent, _ = listener.accept()
        return self

    def __exit__(self, *_):
        self.cut()
        self.agent.close()
        self.process.stderr.close()

    def cut(self):
        """Ends at this very moment."""
        self.process.kill()
        self.process.wait()

    def await_boot(self, until=None):
        """Seconds until all units have been started."""
        self._answer(until)
        return time.monotonic() - self.began

    def run(self, command, expected=(0,)):
        """What a shell command prints in the guest."""
        self.agent.sendall(command.encode() + b"\n")
        output, _, status = self._answer().rstrip(b"\n").rpartition(b"\n")
        if expected is not None and int(status) not in expected:
            raise RuntimeError(f"{command} ended with {int(status)}: {output.decode(errors='replace')}")
        return output

    def _answer(self, until=None):
        end = time.monotonic() + PATIENCE if until is None else until
        answer = b""
        while not answer.endswith(END):
            self.agent.settimeout(max(0.001, end - time.monotonic()))
            try:
                part = self.agent.recv(1 << 20)
            except TimeoutError:
                raise Hung(f"no answer: {self.last_words()}") from None
            if not part:
                raise Hung(f"the machine ended: {self.last_words()}")
            answer += part
        return answer[:-1]

    def last_words(self):
        return self.console.read_text(errors="replace")[-8000:]
