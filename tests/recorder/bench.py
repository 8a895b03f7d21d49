"""What the scenarios are written with: the recorder's commands, its state in one look, and waiting for a state."""

import contextlib
import json
import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
FOLDER = pathlib.Path(os.environ.get("RECORDER_TEST_FOLDER", ROOT / "build" / "native" / "recorder-test"))
PROGRAMS = pathlib.Path(os.environ.get("RECORDER_TEST_PROGRAMS", ROOT / "build" / "native"))
STATE, MEDIA, COPIES = FOLDER / "state", FOLDER / "media", FOLDER / "copies"

# On a busy machine everything takes its time; a state that does not come is what fails a test, not one that comes late.
SECONDS = 120

COMMAND = [ROOT / "recorder" / "virtual-recorder", "--state", STATE, "--programs", PROGRAMS]
RECORD = [ROOT / "recorder" / "record", "--state", STATE, "--programs", PROGRAMS]
HOST = [ROOT / "recorder" / "host", "--state", STATE, "--programs", PROGRAMS]

PARAMETERS = {
    "status": "kParamMediaDaemonStatus", "selected": "kParamSelectedSlot", "change": "kParamSlotChangeCommand",
    "alarms": "kParamAlarms", "extended": "kParamExtendedAlarms", "invalid": "kParamInvalidMediaAlert",
    "loading": "kParamMediaLoadingStatus", "volume": "kParamVolumeName", "path": "kParamStoragePath",
    "capacity": "kParamCapacityRemaining", "command": "kParamMediaCommand", "system": "kParamSystemCommand",
    "changed": "kParamMediaChangedTime", "progress": "kParamProgressStatus", "transport": "kParamTransportState",
    "clip": "kParamClipName", "panel1": "0x7b05010a", "panel2": "0x7b05020a",
}
TEXTS = {"volume", "path", "clip"}

# A pass of the daemon's loop begins with its pause. The kernel's own trace shows the pauses, the relay's announcement of the
# disk and the mounts in one order, whatever the speed of the machine.
TRACE_ON = ("cd /sys/kernel/tracing && { [ -e trace ] || mount -t tracefs tracefs .; } && cd /sys/kernel/tracing && "
            "echo 0 > tracing_on && echo > trace && for call in clock_nanosleep mount sendto; do "
            "echo 1 > events/syscalls/sys_enter_$call/enable || exit 1; done && echo 1 > tracing_on")
TRACE_OFF = ("cd /sys/kernel/tracing && echo 0 > tracing_on && echo 0 > events/enable && "
             "grep -E '(mediad|mount|uevent-relay)-[0-9]' trace")

# Alarm bits.
LOW, CRITICAL, REMOVED, UNFORMATTED, DAMAGED = 0x2000, 0x4000, 0x10000, 0x800000, 0x1000000

# What a recorder shows that has nothing selected and that nothing is wrong with.
IDLE = {"status": 3, "selected": 0, "change": 0, "alarms": 0, "extended": 0, "invalid": 0, "path": "",
        "led1": 0, "led2": 0, "panel1": 0, "panel2": 0, "mounts": {}}

# The header of a medium's volume, as recorder/system/fdisk.gpt places it, and the bit of an orderly unmount.
HEADER, CLEAN_BIT = (2048 + 40960) * 512 + 1024, 1 << 8

# The tool that the recorder has, run on this machine.
FSCK = ROOT / "build" / "recorder" / "parts" / "fsck.hfsplus"


def command(*words):
    """A virtual-recorder command: exit status, output, error output."""
    return _run([*COMMAND, *words])


def record(*words):
    """A recording: exit status, output, error output."""
    return _run([*RECORD, *words])


def host(*words):
    """What the computer at the FireWire cable does: exit status, output, error output."""
    return _run([*HOST, *words])


def _run(words):
    result = subprocess.run(words, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=300)
    return result.returncode, result.stdout, result.stderr


def recorder(*words):
    """One that must succeed; its output."""
    status, out, error = command(*words)
    if status != 0:
        raise AssertionError(f"virtual-recorder {' '.join(map(str, words))}: status {status}: {error.strip() or out.strip()}")
    return out


def sh(line):
    return recorder("sh", line)


def passes_until_in_use(trace):
    """How many passes the daemon needed from the announcement of a disk to the last mount of it, from what TRACE_OFF gave."""
    trace = trace.splitlines()
    announced = next(i for i, line in enumerate(trace) if "uevent-relay-" in line and "sys_sendto(" in line)
    in_use = max(i for i, line in enumerate(trace) if "sys_mount(" in line)
    return sum(bool(re.search(r"\bmediad-.*sys_clock_nanosleep\(", line)) for line in trace[announced:in_use])


def volume_header(image):
    """Of a medium's volume, read from outside: was it unmounted in order, and how many blocks are free."""
    with open(image, "rb") as file:
        file.seek(HEADER)
        header = file.read(512)
    return bool(struct.unpack(">I", header[4:8])[0] & CLEAN_BIT), struct.unpack(">I", header[48:52])[0]


@contextlib.contextmanager
def volume_of(image):
    """The name of a file that holds a copy of a medium's volume."""
    with open(image, "rb") as source, tempfile.NamedTemporaryFile(dir=pathlib.Path(image).parent) as volume:
        # The second entry of the partition table, for the volume ends before the disk does.
        source.seek(2 * 512 + 128 + 32)
        first, last = struct.unpack("<QQ", source.read(16))
        source.seek(first * 512)
        volume.write(source.read((last - first + 1) * 512))
        volume.flush()
        yield volume.name


def check_volume(image):
    """The whole check of a medium's volume, made outside of the recorder: nothing is repaired."""
    with volume_of(image) as volume:
        result = subprocess.run([FSCK, "-n", "-f", volume], capture_output=True, text=True, timeout=300)
    if result.returncode != 0 or not volume_header(image)[0]:
        raise AssertionError(f"the volume is not clean: status {result.returncode}: {result.stdout}{result.stderr}")


def observe(run=sh):
    """Everything that scenarios look at, read in one go. "run" gives the output of a line in the recorder."""
    output = run("mediactl get " + " ".join(PARAMETERS.values()) + "; echo @; mediactl card read 61; mediactl card read 62; "
                "echo @; /bin/mount; echo @; readlink /var/www/media; echo @; ls /sys/block")
    parameters, registers, mounts, link, disks = (part.splitlines() for part in output.split("@\n"))
    state = {key: value if key in TEXTS else int(value) for key, value in zip(PARAMETERS, parameters, strict=True)}
    presence, leds = map(int, registers)
    state["present"] = [slot for slot, mask in (("S1", 0x10), ("S2", 0x20)) if presence & mask]
    state["led1"], state["led2"] = leds & 1, leds >> 1 & 1
    state["mounts"] = {}
    for line in mounts:
        found = re.match(r"/dev/\S+ on (/mnt/\S+) type hfsplus \((r[ow])\b", line)
        if found:
            state["mounts"][found[1]] = found[2]
    state["link"] = link[0] if link else None
    state["disks"] = [name for name in disks if name.startswith("sd")]
    return state


class Scenario(unittest.TestCase):
    """Begins with empty slots, an idle daemon and no alarm, whatever the one before it left behind."""

    maxDiff = None

    def setUp(self):
        recorder("up")
        for slot in ("S1", "S2"):
            status, _, error = command("eject", slot)
            if status != 0 and "is empty" not in error:
                raise AssertionError(error)
        self._log_start = 0
        # A removed medium that was in use has the daemon started again.
        self.wait(present=[], disks=[], mounts={}, status=3, selected=0)
        sh("mediactl set kParamAlarms 0; mediactl set kParamInvalidMediaAlert 0; mediactl set kParamSlotChangeCommand 0")
        self.wait(**IDLE)
        shutil.rmtree(COPIES, ignore_errors=True)
        COPIES.mkdir()
        self._log_start = len(recorder("log"))
        # Watched is what came after the watcher's first line.
        sh("killall mediactl 2>/dev/null; rm -f /run/events; setsid mediactl watch >/run/events 2>&1 </dev/null & "
           "for i in $(seq 200); do mediactl set kParamSystemState 1; [ -s /run/events ] && break; sleep 0.05; done")
        self._event_start = len(self._all_events())

    def medium(self, name):
        """A copy of a prepared medium, so that no scenario sees what another one did to it."""
        copy = COPIES / f"{name}.img"
        subprocess.run(["cp", "--sparse=always", MEDIA / f"{name}.img", copy], check=True)
        return copy

    # --- what happened

    def said(self):
        """The daemon's messages since the scenario began."""
        return recorder("log")[self._log_start:]

    def _all_events(self):
        events = []
        for line in sh("cat /run/events").splitlines():
            number, name, value = (line.split(" ", 2) + ["", ""])[:3]
            if number.startswith("0x"):
                events.append((number if name == "-" else name, value))
        return events

    def events(self, *names):
        """The changes since the scenario began; of some parameters only, if they are named."""
        return [event for event in self._all_events()[self._event_start:] if not names or event[0] in names]

    def values(self, name):
        """What a parameter was set to since the scenario began."""
        return [value for _, value in self.events(name)]

    # --- waiting

    def wait(self, **wanted):
        """Until the recorder shows all of this at once; returns all that it shows then."""
        end = time.monotonic() + SECONDS
        while True:
            state = observe()
            different = [key for key in wanted if state[key] != wanted[key]]
            if not different:
                return state
            if time.monotonic() >= end:
                self.fail(f"not reached within {SECONDS} s: " +
                          ", ".join(f"{key} is {state[key]!r} and not {wanted[key]!r}" for key in different) +
                          f"; the whole state: {json.dumps(state)}; mediad said: {self.said()[-1500:]!r}")
            time.sleep(0.2)

    def wait_for(self, condition, what):
        end = time.monotonic() + SECONDS
        while not (result := condition()):
            if time.monotonic() >= end:
                self.fail(f"{what} (waited {SECONDS} s); mediad said: {self.said()[-1500:]!r}")
            time.sleep(0.2)
        return result

    def in_use(self, slot, volume, **more):
        """Waits for the whole state of a medium in use."""
        number = slot[1]
        return self.wait(**{**IDLE, "selected": int(number), "volume": volume, "path": f"/mnt/{slot}/NEVO", "loading": 0,
                            "link": f"/mnt/{slot}/NEVO", "mounts": {f"/mnt/{slot}": "rw"}, f"led{number}": 1,
                            f"panel{number}": 1, **more})

    def out_and_in_again(self, image, slot, volume, **more):
        """Lets go of the medium, has its volume checked from outside and takes it into use again: what its files hold then
        comes from the disk."""
        sh("mediactl slot next")
        self.wait(**{**IDLE, **more}, disks=[])
        check_volume(image)
        sh("mediactl slot next")
        self.in_use(slot, volume, **more)

    def assert_ended_and_came_back(self, *messages):
        """The daemon left in order, with status 0, and runs again."""
        self.wait_for(lambda: self.values("kParamMediaDaemonStatus")[-1:] == ["3"], "the daemon does not come back")
        self.assertEqual(["5", "6", "1", "3"], self.values("kParamMediaDaemonStatus"))
        # Between these lines a shell may complain that the disk is no longer there to be deleted.
        self.assertEqual([*messages, "Media Manager Cleaning up...", "Media Manager Leaving mediad...", "mediad ended: status 0",
                          "Media Managerstarting MediaManager"],
                         [line for line in self.said().splitlines() if line.startswith(("Media", "mediad"))])


def prepare():
    """Power, and the media that the scenarios use: made once, for each takes the start of a guest."""
    # What makes them may have changed since.
    shutil.rmtree(MEDIA, ignore_errors=True)
    MEDIA.mkdir(parents=True)
    clips, one = FOLDER / "clips", FOLDER / "one-clip"
    subprocess.run([ROOT / "recorder" / "make-clips", clips, "4"], check=True, timeout=600)
    one.mkdir(exist_ok=True)
    shutil.copy2(clips / "Clip_0004.mov", one)
    for name, size, label, options in [
            ("clean", 96, "REEL 7", ["--clips", clips]), ("second", 96, "SECOND", ["--clips", one]), ("small", 64, "SMALL", []),
            ("dirty", 96, "DIRTY", ["--clips", one, "--dirty"]), ("journaled", 96, "JOURNAL", ["--clips", one, "--journaled"]),
            ("damaged", 96, "BROKEN", ["--damaged"]), ("unformatted", 48, "NONE", ["--unformatted"])]:
        subprocess.run([ROOT / "recorder" / "make-medium", MEDIA / f"{name}.img", "--size", str(size), "--label", label,
                        *options], check=True, timeout=600)
    recorder("down")
    (STATE / "slots.json").unlink(missing_ok=True)
    print(recorder("up"), end="")
    sys.stdout.flush()
