"""The emulator: which accelerator it can use, how it is started, and the two sockets through which it is driven."""

import base64
import json
import os
import pathlib
import platform
import shutil
import socket
import subprocess
import time

from . import packages
from .common import SHARED, Deadline, Failure, replace_file, say

PROGRAM = "qemu-system-x86_64"

# Each slot has a host of its own at a place of its own, which is what the board's file names.
SLOTS = {"S1": "0x10", "S2": "0x11"}

# How long a guest may take to prove that KVM boots it; one that boots at all needs a fraction of it.
PROBE_SECONDS = 10


def accelerator(initrd):
    """"kvm" when it has been seen to boot a guest on this machine, else "tcg". The verdict is kept."""
    if not os.access("/dev/kvm", os.R_OK | os.W_OK):
        return "tcg"
    verdict = SHARED / "accelerator.json"
    machine = f"{platform.release()} {platform.version()}"
    try:
        known = json.loads(verdict.read_text())
        if known["machine"] == machine:
            return known["accelerator"]
    except (OSError, ValueError, KeyError):
        pass
    say(f"trying whether this machine's KVM boots a guest (at most {PROBE_SECONDS} s)")
    try:
        result = subprocess.run(_command("kvm", initrd, "rdinit=/usr/libexec/recorder/probe") + ["-serial", "stdio"],
                                stdin=subprocess.DEVNULL, capture_output=True, timeout=PROBE_SECONDS)
        works = b"recorder: the probe runs" in result.stdout
    except subprocess.TimeoutExpired:
        works = False
    name = "kvm" if works else "tcg"
    replace_file(verdict, json.dumps({"machine": machine, "accelerator": name}) + "\n")
    return name


def _command(accelerator_name, initrd, append):
    program = shutil.which(PROGRAM)
    if not program:
        raise Failure(f"this machine has no {PROGRAM}; install the package qemu-system-x86")
    # Emulated, a plain processor is the quickest: what it lacks would be emulated piece by piece, and two of them spend half
    # of their time on each other.
    processor = ["-cpu", "max", "-smp", "2"] if accelerator_name == "kvm" else ["-cpu", "qemu64", "-smp", "1"]
    return [program, "-accel", accelerator_name, *processor, "-m", "768", "-nodefaults", "-no-reboot",
            "-display", "none", "-kernel", str(packages.KERNEL), "-initrd", str(initrd),
            "-append", f"console=ttyS0 quiet panic=-1 mitigations=off {append}",
            "-device", "virtio-rng-pci",
            *(part for slot, place in SLOTS.items() for part in ("-device", f"virtio-scsi-pci,id={slot},addr={place}"))]


def _medium_options(slot, image):
    """A medium that is in its slot at power-on."""
    backend, device = medium_backend(slot, image), medium_device(slot)
    return ["-blockdev", json.dumps(backend), "-device", json.dumps(device)]


def medium_backend(slot, image):
    return {"node-name": f"medium-{slot}", "driver": "raw", "file": {"driver": "file", "filename": str(image)}}


def medium_device(slot):
    return {"driver": "scsi-hd", "id": f"disk-{slot}", "bus": f"{slot}.0", "drive": f"medium-{slot}",
            "channel": 0, "scsi-id": 0, "lun": 0}


def start(folder, accelerator_name, media, append):
    """Starts a recorder in the background; its sockets, console and process id are files of the folder.

    The sockets are named relative to the folder, for a socket's whole path may be 107 bytes long.
    """
    for name in ("qmp.sock", "agent.sock", "terminal.sock", "console.log", "pid"):
        (folder / name).unlink(missing_ok=True)
    command = _command(accelerator_name, (folder / "initrd").resolve(), append) + [
        "-name", "recorder", "-daemonize", "-pidfile", "pid", "-serial", "file:console.log",
        "-qmp", "unix:qmp.sock,server=on,wait=off",
        "-device", "virtio-serial-pci",
        "-chardev", "socket,id=terminal,path=terminal.sock,server=on,wait=off",
        "-device", "virtconsole,chardev=terminal,nr=0",
        "-chardev", "socket,id=agent,path=agent.sock,server=on,wait=off",
        "-device", "virtserialport,chardev=agent,nr=1,name=org.qemu.guest_agent.0",
    ]
    for slot, image in media.items():
        command += _medium_options(slot, image)
    try:
        result = subprocess.run(command, cwd=folder, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60)
    except subprocess.TimeoutExpired:
        raise Failure("the emulator did not start within 60 s") from None
    if result.returncode != 0:
        raise Failure(f"the emulator does not start: {_reason(result.stderr)}")


def run(folder, accelerator_name, media, append, seconds):
    """Runs a guest to its end and returns what it wrote to its console."""
    command = _command(accelerator_name, folder / "initrd", append) + ["-serial", "stdio"]
    for slot, image in media.items():
        command += _medium_options(slot, image)
    try:
        result = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, timeout=seconds)
    except subprocess.TimeoutExpired:
        raise Failure(f"the guest did not end within {seconds} s") from None
    if result.returncode != 0:
        raise Failure(f"the emulator failed: {_reason(result.stderr.decode(errors='replace'))}")
    return result.stdout.decode(errors="replace")


def _reason(text):
    lines = text.strip().splitlines()
    return lines[-1].removeprefix(f"{PROGRAM}: ") if lines else "no reason given"


# What the guest agent is given to write at a time.
PART = 1 << 18


class _Connection:
    """Lines of JSON over one of the emulator's sockets."""

    def __init__(self, folder, name):
        # Through a descriptor of the folder, so that the path is short wherever the folder lies.
        descriptor = os.open(folder, os.O_PATH | os.O_DIRECTORY)
        self._socket = socket.socket(socket.AF_UNIX)
        try:
            self._socket.settimeout(10)
            self._socket.connect(f"/proc/self/fd/{descriptor}/{name}")
        except BaseException:
            self._socket.close()
            raise
        finally:
            os.close(descriptor)
        self._received = b""

    def close(self):
        self._socket.close()

    def send(self, bytes_):
        self._socket.sendall(bytes_)

    def line(self, deadline, what):
        while b"\n" not in self._received:
            if deadline.passed():
                raise Failure(f"{what} does not answer (waited {deadline.seconds:g} s)")
            self._socket.settimeout(min(1, deadline.left()) or 0.01)
            try:
                part = self._socket.recv(1 << 16)
            except TimeoutError:
                continue
            if not part:
                raise Failure(f"{what} hung up")
            self._received += part
        line, _, self._received = self._received.partition(b"\n")
        return line


class Monitor:
    """Plugging and unplugging, as the hands of a person would."""

    def __init__(self, folder):
        try:
            self._connection = _Connection(folder, "qmp.sock")
        except OSError:
            raise Failure("the emulator does not answer") from None
        self._connection.line(Deadline(10), "the emulator")
        self.execute("qmp_capabilities")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._connection.close()

    def execute(self, command, seconds=10, **arguments):
        self._connection.send(json.dumps({"execute": command, "arguments": arguments}).encode() + b"\n")
        deadline = Deadline(seconds)
        while True:
            answer = json.loads(self._connection.line(deadline, "the emulator"))
            if "return" in answer:
                return answer["return"]
            if "error" in answer:
                raise Refused(answer["error"]["desc"])


class Refused(Failure):
    """The emulator said no."""


class Agent:
    """Commands in the guest, run by the distribution's guest agent."""

    def __init__(self, folder, seconds=10):
        try:
            self._connection = _Connection(folder, "agent.sock")
        except OSError:
            raise Failure("the emulator does not answer") from None
        self.meet(seconds)

    def meet(self, seconds=10):
        """Until the agent listens."""
        # What an interrupted command left behind ends at the byte 0xff.
        token = time.monotonic_ns() & 0x7fffffff
        self._connection.send(b"\xff" + json.dumps({"execute": "guest-sync-delimited", "arguments": {"id": token}}).encode() + b"\n")
        deadline = Deadline(seconds)
        while True:
            line = self._connection.line(deadline, "the guest agent")
            if b"\xff" in line and json.loads(line.rpartition(b"\xff")[2]).get("return") == token:
                return

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._connection.close()

    def _execute(self, command, **arguments):
        self._connection.send(json.dumps({"execute": command, "arguments": arguments}).encode() + b"\n")
        answer = json.loads(self._connection.line(Deadline(10), "the guest agent"))
        if "error" in answer:
            raise Failure(f"the guest agent refuses: {answer['error']['desc']}")
        return answer["return"]

    def run(self, line, seconds=120):
        """Runs a shell line; returns its exit status, standard output and standard error. One that takes longer than
        `seconds` is killed."""
        environment = ["PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin", "HOME=/root", "LANG=C.UTF-8", "TERM=dumb"]
        # A group of its own, led by the very process that the agent knows, so that all of it can be ended.
        started = self._execute("guest-exec", **{"path": "/usr/bin/setsid", "arg": ["/bin/bash", "-c", line],
                                                 "env": environment, "capture-output": True})
        deadline = Deadline(seconds)
        pause = 0.005
        while True:
            status = self._execute("guest-exec-status", pid=started["pid"])
            if status["exited"]:
                break
            if deadline.passed():
                self._execute("guest-exec", path="/usr/bin/kill", arg=["-KILL", "--", f"-{started['pid']}"])
                raise Failure(f"the command did not end within {seconds:g} s: {line}")
            time.sleep(pause)
            pause = min(pause * 1.5, 0.2)
        decode = lambda key: base64.b64decode(status.get(key, ""))
        # A command that was killed has a signal and no exit code.
        code = status["exitcode"] if "exitcode" in status else 128 + status.get("signal", 0)
        return code, decode("out-data"), decode("err-data")

    def send(self, source, path):
        """Writes the open file `source` to a path in the guest."""
        handle = self._execute("guest-file-open", path=path, mode="w")
        try:
            while part := source.read(PART):
                text = base64.b64encode(part).decode()
                if self._execute("guest-file-write", **{"handle": handle, "buf-b64": text})["count"] != len(part):
                    raise Failure(f"the guest has no room for {path}")
        finally:
            self._execute("guest-file-close", handle=handle)


def process(folder):
    """The process id of a folder's emulator, or None when none runs."""
    try:
        pid = int((folder / "pid").read_text())
        words = pathlib.Path(f"/proc/{pid}/cmdline").read_bytes().split(b"\0")
    except (OSError, ValueError):
        return None
    # A process id is used again one day; the image's path tells whose emulator it is.
    return pid if str((folder / "initrd").resolve()).encode() in words else None
