"""A recorder for the built daemon: a board file, register file, tools that only pretend, real netlink, real shared
memory. Runs inside tests/isolated, with tests/process/tool bound over mount and umount."""

import ctypes
import os
import re
import signal
import socket
import struct
import subprocess
import time
import unittest

NETLINK_KOBJECT_UEVENT = 15
RELAY_GROUP = 4  # a mask, as uevent-relay's
BUILD = os.environ["MEDIAD_BUILD"]
TOOL = os.path.join(os.path.dirname(os.path.abspath(__file__)), "tool")
DEADLINE = float(os.environ.get("MEDIAD_TEST_DEADLINE", "30"))  # seconds; sanitizers are slow

NAME = "Media Manager"

BOARD = """
board_id = 0xec01
mediaCapabilities = {}
local function slot(name, number)
  return { name = name, address = "/host" .. number .. "/", scanPath = "/run/world/scan" .. number,
           capabilities = { "writeable" },
           present = { reg = 61, mask = 0x10 << 0 + number, shift = 0 },
           status = { { type = "register", reg = 62, bit = number }, { type = "parameter", param = 0x50000001 + number } } }
end
specification = { slots = { slot("S1", 0), slot("S2", 1) }, nextSlot = { default = "S1", S1 = "S2", S2 = "S1" } }
usefulStrings = { driver_scan = "echo driver_scan >> /run/world/journal", driver_load = "echo driver_load >> /run/world/journal" }
""".replace("0x10 << 0 + number", "0x10 * (number + 1)")  # Lua 5.2 has no shift operator


def write(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb" if isinstance(text, bytes) else "w") as file:
        file.write(text)


def read(path):
    try:
        with open(path) as file:
            return file.read()
    except FileNotFoundError:
        return ""


def eventually(condition, what, deadline=None):
    end = time.monotonic() + (deadline or DEADLINE)
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError("waited too long for " + what)
        time.sleep(0.02)


def mediactl(*arguments, check=True):
    done = subprocess.run([BUILD + "/tools/mediactl", *arguments], capture_output=True, text=True)
    if check and done.returncode != 0:
        raise AssertionError(f"mediactl {' '.join(arguments)}: {done.returncode} {done.stderr}")
    return done.stdout.rstrip("\n") if check else done


def get(parameter):
    return mediactl("get", parameter)


class Uevents:
    """Announces disks as the kernel's relay does."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_NETLINK, socket.SOCK_DGRAM, NETLINK_KOBJECT_UEVENT)
        self.socket.bind((0, 0))

    def send(self, action, device, host):
        path = f"/devices/pci0000:00/0000:00:0{host}.0/virtio{host}/host{host}/target{host}:0:0/{host}:0:0:0"
        lines = [f"{action}@{path}", f"ACTION={action}", f"DEVNAME={device}", f"PHYSDEVPATH={path}"]
        data = b"".join(line.encode() + b"\0" for line in lines)
        try:
            self.socket.sendto(data, (0, RELAY_GROUP))
        except ConnectionRefusedError:
            pass  # nobody listens, as on a machine whose daemon is down


class Daemon:
    """The built mediad in the foreground, its standard error in a file."""

    def __init__(self, *arguments):
        self.log_path = f"/run/world/stderr.{time.monotonic_ns()}"
        self.log_file = open(self.log_path, "wb")
        self.process = subprocess.Popen([BUILD + "/daemon/mediad", *(arguments or ("-d",))], stderr=self.log_file,
                                        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)

    def log(self):
        return read(self.log_path)

    def lines(self):
        return self.log().splitlines()

    def running(self):
        eventually(lambda: NAME + "starting MediaManager" in self.log() or self.process.poll() is not None, "the daemon's start")
        if self.process.poll() is not None:
            raise AssertionError("the daemon ended: " + self.log())
        eventually(lambda: mediactl("get", "kParamMediaDaemonStatus", check=False).stdout == "3\n", "daemon status 3")
        return self

    def wait(self):
        status = self.process.wait(timeout=DEADLINE)
        self.log_file.close()
        return status

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(timeout=DEADLINE)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.log_file.close()


class World(unittest.TestCase):
    def setUp(self):
        for directory in ("/run/mediad", "/run/world", "/sys/block"):
            subprocess.run(["rm", "-rf", directory], check=True)
        for slot in ("S1", "S2"):
            while subprocess.run(["real-umount", "-l", "/mnt/" + slot], stderr=subprocess.DEVNULL).returncode == 0:
                pass
        for leftover in os.listdir("/dev/shm"):
            os.unlink("/dev/shm/" + leftover)
        for directory in ("/run/world/disk", "/run/world/label", "/var/www", "/usr/local/share/specs"):
            os.makedirs(directory, exist_ok=True)
        write("/run/world/mounts", "")
        write("/run/world/journal", "")
        write("/run/world/used", "20")
        write("/etc/board-id", "0000ec01\n")
        self.board(BOARD)
        for tool in ("fsck.hfsplus", "volname.hfsplus", "df"):
            if not os.path.lexists("/usr/local/bin/" + tool):
                os.symlink(TOOL, "/usr/local/bin/" + tool)
        mediactl("card", "create")
        self.uevents = Uevents()
        self.daemons = []

    def tearDown(self):
        for daemon in self.daemons:
            daemon.stop()
        outcome = self._outcome.result
        if any(test is self for test, _ in outcome.failures + outcome.errors):
            for daemon in self.daemons:
                print("--- standard error of the daemon\n" + daemon.log(), flush=True)
            print("--- calls\n" + "\n".join(self.journal()), flush=True)
        self.uevents.socket.close()

    def board(self, text):
        write("/usr/local/share/specs/0000ec01.specification", text)

    def start(self, *arguments):
        daemon = Daemon(*arguments)
        self.daemons.append(daemon)
        return daemon

    # Slots are numbered as their hosts: 0 is S1, 1 is S2.
    def pin(self, slot, present):
        mask = 0x10 << slot
        mediactl("card", "write", "61", str(1 if present else 0), "--mask", hex(mask), "--shift", str(4 + slot))

    def disk(self, device, condition="clean", label="DAY 1"):
        write(f"/run/world/disk/{device}", condition)
        write(f"/run/world/label/{device}", label)
        os.makedirs(f"/sys/block/{device}/device", exist_ok=True)
        write(f"/sys/block/{device}/queue/scheduler", "[none] mq-deadline")

    def insert(self, slot, device, condition="clean", label="DAY 1"):
        self.disk(device, condition, label)
        self.pin(slot, True)
        self.uevents.send("add", device, slot)

    def in_use(self, slot="S1"):
        # The path alone will not do: it is published during the short mounts of an activation too.
        eventually(lambda: get("kParamSelectedSlot") == slot[1] and get("kParamStoragePath") == f"/mnt/{slot}/NEVO",
                   f"{slot} to be in use")

    def journal(self):
        return read("/run/world/journal").splitlines()

    def assertInOrder(self, wanted, lines):
        at = iter(lines)
        for line in wanted:
            self.assertTrue(any(line == other for other in at), f"{line!r} is missing, or not in order, in:\n" + "\n".join(lines))
