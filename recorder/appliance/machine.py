"""One virtual recorder: its power, its slots, and commands in it.

Its folder holds the image, the sockets and what is in its slots: build/recorder/default, or what the environment variable
RECORDER_STATE or the option --state says. Recorders with different folders do not know of each other.
"""

import contextlib
import json
import os
import pathlib
import signal

from . import image, qemu
from .common import ROOT, SHARED, Deadline, Failure, Lock, replace_file, say, wait_until

# Generous: they end what would otherwise never end; nobody waits for them on a good day.
UP_SECONDS = 180
DOWN_SECONDS = 60
SLOT_SECONDS = 30

RUNNING = "3"


class Recorder:
    def __init__(self, folder=None, programs=None):
        self.folder = pathlib.Path(folder or os.environ.get("RECORDER_STATE") or SHARED / "default").absolute()
        self.programs = pathlib.Path(programs or os.environ.get("RECORDER_PROGRAMS") or ROOT / "build" / "native").absolute()
        self._agent = None  # while somebody speaks with it

    # --- power

    def is_on(self):
        return qemu.process(self.folder) is not None

    def up(self):
        """Image, power, and the daemon in its loop."""
        with Lock(self.folder / "power.lock", UP_SECONDS, "the recorder"):
            if self.is_on():
                self._await_daemon(Deadline(UP_SECONDS))
                say("the recorder is on already")
                return
            self.folder.mkdir(parents=True, exist_ok=True)
            deadline = Deadline(UP_SECONDS)
            if image.build(self.folder, self.programs):
                say(f"image made in {UP_SECONDS - deadline.left():.1f} s")
            accelerator = qemu.accelerator(self.folder / "initrd")
            media = self._media()
            present = f"recorder.present={','.join(media)}" if media else ""
            deadline = Deadline(UP_SECONDS)
            qemu.start(self.folder, accelerator, media, present)
            try:
                self._await_daemon(deadline)
            except BaseException:
                self._cut_power()
                raise
            say(f"the recorder is on, mediad runs ({accelerator}, {UP_SECONDS - deadline.left():.1f} s)")

    def _await_daemon(self, deadline):
        """Until the daemon says that it is in its loop; one that ends again and again is not waited for."""
        answered = False
        while not deadline.passed():
            if not self.is_on():
                raise Failure(f"the recorder lost its power while it started; its last words: {self._console()}")
            try:
                status, out, _ = self.sh("mediactl get kParamMediaDaemonStatus; exit_status=$?; "
                                         "grep -c '^mediad ended: status [^0]' /var/log/mediad.log; exit $exit_status", seconds=30)
                answered = True
            except Failure:
                continue
            lines = out.decode().split()
            if status == 0 and lines[0] == RUNNING:
                return
            if lines and lines[-1].isdigit() and int(lines[-1]) >= 3:
                break
        if not answered:
            raise Failure(f"the recorder did not start within {deadline.seconds:g} s; its last words: {self._console()}")
        words = [line for line in self._log().splitlines() if not line.startswith("mediad ended:")] or ["none"]
        raise Failure(f"mediad does not get into its loop; its last words: {words[-1]}")

    def _console(self):
        try:
            return (self.folder / "console.log").read_text(errors="replace").strip().splitlines()[-1]
        except (OSError, IndexError):
            return "none"

    def down(self):
        """Orderly: the daemon unmounts and ends first. A recorder that does not react loses its power."""
        with Lock(self.folder / "power.lock", UP_SECONDS, "the recorder"):
            if not self.is_on():
                say("the recorder is off already")
                return
            try:
                replace_file(self.folder / "mediad.log", self._log())
                self.sh("/usr/libexec/recorder/stop; cat /var/log/mediad.log", seconds=DOWN_SECONDS)
                replace_file(self.folder / "mediad.log", self._log())
                with qemu.Monitor(self.folder) as monitor:
                    monitor.execute("quit")
                wait_until(lambda: not self.is_on(), DOWN_SECONDS, "the recorder does not switch off")
            except Failure:
                self._cut_power()
            say("the recorder is off")

    def _cut_power(self):
        pid = qemu.process(self.folder)
        if pid is None:
            return
        os.kill(pid, signal.SIGKILL)
        wait_until(lambda: not self.is_on(), 10, "the emulator cannot be ended")

    # --- slots

    def _media(self):
        """The images in the slots, as far as they still exist."""
        try:
            known = json.loads((self.folder / "slots.json").read_text())
        except (OSError, ValueError):
            return {}
        return {slot: path for slot, path in known.items() if slot in qemu.SLOTS and os.path.exists(path)}

    def _remember(self, slot, path):
        media = self._media()
        media.pop(slot, None)
        if path:
            media[slot] = str(path)
        replace_file(self.folder / "slots.json", json.dumps(media, indent=4) + "\n")

    def _slot(self, slot):
        if slot not in qemu.SLOTS:
            raise Failure(f"there is no slot {slot}; there are {' and '.join(qemu.SLOTS)}")
        return slot

    def insert(self, slot, path):
        """The presence bit, then the disk. A recorder that is off has the medium in its slot at the next power-on."""
        self._slot(slot)
        path = pathlib.Path(path).absolute()
        if not path.is_file():
            raise Failure(f"there is no medium {path}")
        with self._hands():
            if slot in self._media():
                raise Failure(f"slot {slot} holds a medium already: {self._media()[slot]}")
            if str(path) in self._media().values():
                raise Failure(f"the medium {path} is in the other slot")
            if self.is_on():
                self._plug(slot, path)
            self._remember(slot, path)

    def _plug(self, slot, path):
        before = int(self._in_guest("cat /sys/kernel/uevent_seqnum"))
        with qemu.Monitor(self.folder) as monitor:
            try:
                monitor.execute("blockdev-add", **qemu.medium_backend(slot, path))
                self._presence(slot, 1)
                monitor.execute("device_add", **qemu.medium_device(slot))
            except Failure as failure:
                # The slot is as empty as it was.
                self._presence(slot, 0)
                try:
                    monitor.execute("blockdev-del", **{"node-name": f"medium-{slot}"})
                except qemu.Refused:
                    pass
                if '"write" lock' in str(failure):
                    raise Failure(f"the medium {path} is in use by another recorder") from None
                raise
        # The daemon may have put it off the bus again before anybody looks, but not without announcements.
        self._in_guest(f"for i in $(seq 300); do ls {self._disks(slot)} >/dev/null 2>&1 && exit; "
                       f"[ $(cat /sys/kernel/uevent_seqnum) -gt {before + 8} ] && exit; sleep 0.03; done; "
                       f"echo the kernel does not see the disk; exit 1")

    def eject(self, slot):
        """The presence bit goes, then the disk, once the recorder has let go of it or has had the time to."""
        with self._hands():
            self._holding(slot)
            if self.is_on():
                self._presence(slot, 0)
                self._in_guest(f"for i in $(seq 40); do ls {self._disks(slot)} >/dev/null 2>&1 || exit 0; sleep 0.05; done")
                self._unplug(slot)
            self._remember(slot, None)

    def yank(self, slot):
        """The disk goes first, in the middle of whatever is done with it, then the presence bit."""
        with self._hands():
            self._holding(slot)
            if self.is_on():
                self._unplug(slot)
                self._in_guest(f"for i in $(seq 300); do ls {self._disks(slot)} >/dev/null 2>&1 || exit 0; sleep 0.03; done; "
                               f"echo the kernel does not see that the disk is gone; exit 1")
                self._presence(slot, 0)
            self._remember(slot, None)

    def _holding(self, slot):
        if self._slot(slot) not in self._media():
            raise Failure(f"slot {slot} is empty")

    def _unplug(self, slot):
        with qemu.Monitor(self.folder) as monitor:
            try:
                monitor.execute("device_del", id=f"disk-{slot}")
            except qemu.Refused as refusal:
                if "not found" not in str(refusal):
                    raise

            def gone():
                try:
                    monitor.execute("blockdev-del", **{"node-name": f"medium-{slot}"})
                    return True
                except qemu.Refused as refusal:
                    return "Failed to find" in str(refusal)

            wait_until(gone, SLOT_SECONDS, f"the disk in slot {slot} cannot be taken out")

    def _disks(self, slot):
        return f"/sys/devices/pci0000:00/0000:00:{qemu.SLOTS[slot][2:]}.0/virtio*/host*/target*/*/block/*"

    def _presence(self, slot, bit):
        self._in_guest(f"/usr/libexec/recorder/presence {slot} {bit}")

    def _hands(self):
        return Lock(self.folder / "slots.lock", SLOT_SECONDS * 2, "the recorder's slots")

    # --- commands

    def sh(self, line, seconds=120):
        """Runs a shell line in the recorder: its exit status, standard output and standard error, as bytes."""
        with self._speaking(seconds) as agent:
            return agent.run(line, seconds)

    def send(self, source, path, seconds=120):
        """Copies a file into the recorder."""
        with open(source, "rb") as file, self._speaking(seconds) as agent:
            agent.send(file, path)

    @contextlib.contextmanager
    def conversation(self):
        """Whoever has much to say keeps the agent for himself meanwhile: meeting it takes longer than a short line."""
        with self._speaking(SLOT_SECONDS):
            yield

    @contextlib.contextmanager
    def _speaking(self, seconds):
        if not self.is_on():
            raise Failure("the recorder is off")
        if self._agent is not None:
            try:
                yield self._agent
            except Failure:
                # What is still under way would be taken for the next answer.
                self._agent.meet()
                raise
            return
        # The agent speaks with one at a time.
        with Lock(self.folder / "agent.lock", seconds, "the recorder's agent"), qemu.Agent(self.folder) as agent:
            self._agent = agent
            try:
                yield agent
            finally:
                self._agent = None

    def _in_guest(self, line):
        status, out, error = self.sh(line, SLOT_SECONDS)
        if status != 0:
            reason = (error or out).decode(errors="replace").strip().splitlines()
            raise Failure(reason[-1] if reason else f"a command in the recorder failed with status {status}: {line}")
        return out.decode(errors="replace").strip()

    def _log(self):
        return self.sh("cat /var/log/mediad.log 2>/dev/null")[1].decode(errors="replace")

    def log(self):
        """The daemon's standard error so far; of a recorder that is off, up to its end."""
        if self.is_on():
            return self._log()
        try:
            return (self.folder / "mediad.log").read_text(errors="replace")
        except OSError:
            raise Failure("the recorder has never been on") from None
