"""The rounds of the ordeal on a virtual recorder: a card goes in, the recorder is brought into a phase of its work, the
fault strikes, and then everything is looked at that must still be as it should."""

import collections
import contextlib
import hashlib
import json
import re
import shlex
import shutil
import subprocess
import time

import bench
from appliance import clips, medium
from appliance.common import Failure

# Of the card: room for the clips, and no more, because it is copied again and again.
MEGABYTES = 40
LABEL = "ORDEAL"
CLIPS = ("Clip_0001", "Clip_0002", "Clip_0003")
DELETED = "Clip_0002.mov"
REEL = "007"

TAKE = "/run/ordeal/take"

# Nobody waits as long on a good day. On a busy machine a state that does not come is what fails a round, not a late one.
SECONDS = 120
# Without anything happening, before the announcements that may have been lost are repeated, as a driver would.
PATIENCE = 15

# Where the tools stand that a fault may be in.
TOOLS = {
    "fsck.hfsplus": "/usr/sbin", "mkfs.hfsplus": "/usr/sbin", "sfdisk": "/usr/sbin", "parted": "/usr/sbin",
    "volname.hfsplus": "/usr/local/bin", "fdisk.gpt": "/usr/local/bin", "fwreset.sh": "/usr/local/bin",
    "clip-probe": "/usr/local/lib/mediad", "mount": "/usr/bin", "umount": "/usr/bin", "df": "/usr/bin", "rm": "/usr/bin",
    "mkdir": "/usr/bin", "cp": "/usr/bin", "sync": "/usr/bin", "endpoint": "/usr/bin", "pkill": "/usr/bin",
    "pgrep": "/usr/bin",
}
REAL = "/usr/libexec/recorder/real"

# What nobody resets on a recorder where a fault ended things halfway, an operator does.
IDLE = {"kParamTransportState": 1, "kParamMediaCommand": 0, "kParamSlotChangeCommand": 0, "kParamAlarms": 0,
        "kParamInvalidMediaAlert": 0, "kParamFirewireMode": 0, "kParamFirewireAVCPause": 0, "kParamNextTakeNumber": 1}
RESET = (f"set -- {' '.join(f'{name} {value}' for name, value in IDLE.items())}; "
         f"for now in $(mediactl get {' '.join(IDLE)}); do "
         "[ $now = $2 ] || mediactl set $1 $2; shift 2; done")

NO_MEDIA = "! grep -q ' /mnt/' /proc/mounts && ! compgen -G '/sys/block/sd*' >/dev/null"

# Whose children are nobody's who was left behind. The daemon's own are not among them: an idle one has none, and what it is
# just running ends while it is looked at again and again.
OWNERS = re.compile(r"\{keep-mediad\} |/usr/sbin/qemu-ga |ps -o ")
DAEMON = re.compile(r"/usr/local/bin/mediad ")

UNUSABLE = "1[01]"  # codes of a slot change: unformatted, damaged


class Lost(Exception):
    """What a round must not show."""


class Ordeal:
    """A recorder with tools that do as they are told, and its card."""

    def __init__(self, recorder, folder):
        self.recorder, self._folder = recorder, folder
        self._card = folder / "card.img"
        self.card_of_round = folder / "round.img"
        self.material = folder / "material.mov"
        self.digests = {}
        self.console_start = self.log_start = 0
        self.usual = None  # what the census says of an idle recorder

    # --- the recorder

    def sh(self, line, seconds=60):
        status, out, error = self.recorder.sh(line, seconds)
        if status != 0:
            said = (error or out).decode(errors="replace").strip().splitlines() or ["no reason given"]
            raise Lost(f"a command in the recorder failed with status {status}: {line}: {said[-1]}")
        return out.decode(errors="replace")

    def prepare(self):
        """The card, and power."""
        self._folder.mkdir(parents=True, exist_ok=True)
        source = self._folder / "clips"
        source.mkdir(exist_ok=True)
        for path in [*(source / f"{name}.mov" for name in CLIPS), self.material]:
            if not path.exists():
                clips.make(path, clips.PRORES, 0.5, "10:00:00:00", "2026-03-01T10:00:00Z")
        self.digests = {path.name: digest(path) for path in source.iterdir()}
        if not self._card.exists():
            medium.make(self._card, MEGABYTES, LABEL, source)
        self.recorder.up()
        self._furnish()

    def _furnish(self):
        """Every tool gets a second place; a recorder that has them there already keeps them."""
        self.sh(f"mkdir -p {REAL} /run/ordeal/orders; set -e; " + "; ".join(
            f"[ -e {REAL}/{name} ] || cp -d {folder}/{name} {REAL}/{name}" for name, folder in TOOLS.items()))
        self.sh(f"{bench.TRACE_ON}; echo 0 > tracing_on; echo 0 > events/enable")
        self._empty_slots()
        self.wait_for_daemon()
        self.sh(RESET)
        self.wait_idle()
        self.recorder.send(self.material, "/run/ordeal/material")
        self.usual = self._census()

    @staticmethod
    def exchange(tool):
        """The line that puts the faulty tool in a tool's place."""
        place = TOOLS[tool]
        return f"ln -s /usr/libexec/recorder/faulty-tool {place}/.{tool} && mv {place}/.{tool} {place}/{tool}"

    @staticmethod
    def put_back(tool):
        """The line that puts the tool itself back there."""
        place = TOOLS[tool]
        return f"cp -d {REAL}/{tool} {place}/.{tool} && mv {place}/.{tool} {place}/{tool}"

    def restore(self):
        """The recorder as it was, for whoever uses it afterwards."""
        self.sh("; ".join(map(self.put_back, TOOLS)) + f"; rm -rf {REAL} /run/ordeal")

    def start_over(self):
        """After a round that left who knows what: power off and on."""
        self.recorder.down()
        self._empty_slots()
        self.recorder.up()
        self._furnish()

    def _empty_slots(self):
        for slot in ("S1", "S2"):
            try:
                self.recorder.eject(slot)
            except Failure as failure:
                if "is empty" not in str(failure):
                    raise

    def observe(self):
        return bench.observe(self.sh)

    def until(self, condition, what, seconds=SECONDS, interval=0.3):
        end = time.monotonic() + seconds
        while not (result := condition()):
            if time.monotonic() >= end:
                raise Lost(f"{what} (waited {seconds} s)")
            time.sleep(interval)
        return result

    def await_line(self, condition, what, seconds=SECONDS):
        """Until a shell line in the recorder succeeds. It waits there: an emulated machine has better to do than to talk."""
        status, _, _ = self.recorder.sh(f"until {condition}; do [ $SECONDS -lt {seconds} ] || exit 9; sleep 0.4; done",
                                        seconds + 60)
        if status != 0:
            raise Lost(f"{what} (waited {seconds} s)")

    def wait(self, what, also="true", seconds=SECONDS, before="true", **wanted):
        """Until the recorder's parameters are all of this at once, and a shell line "also" succeeds. Each look begins
        with the shell line "before"."""
        # A line for each value, as mediactl prints them; the shell takes the last ends of lines for nothing.
        names = " ".join(bench.PARAMETERS[key] for key in wanted)
        text = shlex.quote("\n".join(map(str, wanted.values())).rstrip("\n"))
        try:
            self.await_line(f'{{ {before}; [ "$(mediactl get {names})" = {text} ] && {also}; }}', what, seconds)
        except Lost as lost:
            state = self.observe()
            different = [f"{key} is {state[key]!r} and not {value!r}"
                         for key, value in wanted.items() if state[key] != value]
            raise Lost(f"{lost}: {', '.join(different) or f'not so: {also}'}") from None

    def wait_idle(self, before="true"):
        idle = {key: value for key, value in bench.IDLE.items() if key in bench.PARAMETERS}
        self.wait("the recorder does not become idle", NO_MEDIA, before=before, **idle, loading=0, progress=0, command=0,
                  transport=1)

    def wait_in_use(self, slot, seconds=SECONDS):
        number = int(slot[1])
        # A card that was yanked is still in the table, but its device is gone.
        self.wait("the card is not taken into use",
                  f"[ -b \"$(awk '$2 == \"/mnt/{slot}\" && $4 ~ /^rw/ {{ print $1 }}' /proc/mounts)\" ] && "
                  f"[ /var/www/media -ef /mnt/{slot}/NEVO ]", seconds,
                  status=3, selected=number, path=f"/mnt/{slot}/NEVO", loading=0, progress=0, command=0,
                  **{f"panel{number}": 1})

    def said(self):
        """The daemon's messages since the round began."""
        return self.sh(f"tail -c +{self.log_start + 1} /var/log/mediad.log")

    def wait_for_daemon(self):
        """Until it has been started as often as it ended and once more."""
        self.await_line("awk '/^mediad ended/ { --n } /starting MediaManager/ { ++n } END { exit n != 1 }' "
                        "/var/log/mediad.log", "the daemon is not up")

    # --- what is left

    def _census(self):
        """What there is, a line each, without the processes that somebody of the recorder's own is just running: the daemon
        itself, and those of lines like this one."""
        lines, parents, words = [], {}, {}
        for line in self.sh("/usr/libexec/recorder/census").splitlines():
            what, _, rest = line.partition(" ")
            if what == "process":
                pid, parent, words[pid] = rest.split(" ", 2)
                parents[pid] = parent
            else:
                lines.append(line)
        for pid, text in words.items():
            above = parents[pid]
            while above in words and not OWNERS.match(words[above]) and not DAEMON.match(words[above]):
                above = parents[above]
            if (above not in words or DAEMON.match(words[above])) and "note-disk" not in text:
                lines.append(f"process {text}")
        return collections.Counter(lines)

    def check_nothing_left(self, **expected):
        """Nothing that the idle recorder did not have; "expected" are further kinds and how many of each there must be."""
        left = []

        def clean():
            now = self._census()
            left[:] = [line for line in (now - self.usual).elements() if kind(line) not in {*expected, "mutex"}]
            # One that was just made, or that somebody is using at the moment.
            left.extend(line for line in now if kind(line) == "mutex" and not line.endswith(" 1"))
            for word, count in expected.items():
                found = sum(kind(line) == word for line in now.elements())
                if found != count:
                    left.append(f"{word} {found} times and not {count} times")
            return not left

        try:
            self.until(clean, "left behind", 20, 0.5)
        except Lost as lost:
            raise Lost(f"{lost}: {', '.join(left)}") from None

    # --- one round

    def run(self, plan):
        self.log_start = int(self.sh("stat -c %s /var/log/mediad.log"))
        self.console_start = (self.recorder.folder / "console.log").stat().st_size
        subprocess.run(["cp", "--sparse=always", self._card, self.card_of_round], check=True)
        if plan.condition == "unformatted":
            with open(self.card_of_round, "r+b") as file:
                file.truncate(0)
                file.truncate(MEGABYTES << 20)
        elif plan.condition != "clean":
            medium.spoil(self.card_of_round, plan.condition)
        round_ = Round(self, plan)
        with self.recorder.conversation():
            round_.begin()
            round_.strike()
            round_.calm()
            round_.recover()
            round_.put_away()
            round_.look()

    def keep_logs(self, folder):
        """Everything that tells what happened in a round that went wrong, as far as the recorder still says it."""
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir(parents=True)
        for name, line in [("mediad.log", f"tail -c +{self.log_start + 1} /var/log/mediad.log"),
                           ("census", "/usr/libexec/recorder/census"), ("kernel.log", "dmesg | tail -n 200"),
                           ("firewire.log", "cat /var/log/firewire.log"), ("processes", "ps -o pid,ppid,pgid,stat,args"),
                           ("parameters", "mediactl status; mediactl clips"),
                           ("mounts", "cat /proc/mounts; ls -lR /run /mnt")]:
            with contextlib.suppress(Failure, OSError):
                status, out, error = self.recorder.sh(line, 20)
                (folder / name).write_bytes(out + error)
        with contextlib.suppress(OSError):
            shutil.copy2(self.recorder.folder / "console.log", folder)
            subprocess.run(["cp", "--sparse=always", self.card_of_round, folder / "card.img"], check=False)


def kind(line):
    return line.partition(" ")[0]


def digest(path):
    return hashlib.md5(path.read_bytes()).hexdigest()


class Round:
    """From an empty slot to an empty slot."""

    def __init__(self, ordeal, plan):
        self._ordeal, self._plan = ordeal, plan
        self._recorder, self._image = ordeal.recorder, ordeal.card_of_round
        self.sh = ordeal.sh
        self._maker = f"/mnt/{plan.slot}/NEVO"
        # What was on the card, and safe, before the fault.
        usable = plan.condition in ("clean", "dirty")
        self._safe = dict(ordeal.digests) if usable else {}
        self._allowed = set(self._safe)
        self._erased = plan.phase == "format"
        self._in_slot = False
        self._kills = 0

    # --- up to the phase

    def begin(self):
        plan = self._plan
        self._write_fault()
        if plan.phase in ("check", "repair", "mount", "scan"):
            self._arm()
            self._insert()
            return
        self._insert()
        if plan.condition in ("damaged", "unformatted"):
            self._await_unusable()
        else:
            self._ordeal.wait_in_use(plan.slot)
        getattr(self, f"_begin_{plan.phase}")()

    def _begin_use(self):
        self._arm()
        if self._plan.tool == "sync":
            # A daemon that ends writes what it has in use. Its keeper starts it again.
            self.sh("kill -TERM $(pidof mediad)")

    def _begin_record(self):
        self._take()
        self._await_take()
        self.sh("sync")
        number = int(self.sh("mediactl get kParamNextTakeNumber"))
        name = f"Clip_{number - 1:04}.mov"
        self._safe[name] = digest(self._ordeal.material)
        self._allowed |= {name, f"Clip_{number:04}.mov"}
        self._ordeal.await_line(f"mediactl clips | grep -q {name[:-4]}", f"{name} is not in the index")
        self._take(seconds=1.5)
        self._ordeal.await_line(f"[ -e {self._maker}/Clip_{number:04}.mov ]", "the take does not begin")
        self._arm()

    def _begin_delete(self):
        self._safe.pop(DELETED)
        self._arm()
        self.sh(f"mediactl set kParamClipsToDelete {DELETED}")

    def _begin_format(self):
        self._safe.clear()
        self._arm()
        self._ask_for_format()

    def _begin_firewire(self):
        plan = self._plan
        self.sh("mediactl set kParamFirewireAVCPause 1")
        early = plan.tool in ("fwreset.sh", "endpoint", "cp")
        if early:
            self._arm()
        self.sh("setsid mediactl firewire on </dev/null >/dev/null 2>&1 &")
        if early:
            return
        self._ordeal.await_line('[ "$(mediactl firewire status)" = offered ]', "the card is not offered")
        if plan.moment == "taken":
            self.sh("/usr/libexec/recorder/remote-host take")
            self.sh("mkdir -p /run/remote-host; cp /run/ordeal/material /run/remote-host/material; "
                    "/usr/libexec/recorder/remote-host write From_Host.mov")
            self._safe["From_Host.mov"] = digest(self._ordeal.material)
            self._allowed.add("From_Host.mov")
        self._arm()
        if not plan.moment:
            self.sh("mediactl set kParamFirewireMode 0")

    def _insert(self):
        self._recorder.insert(self._plan.slot, self._image)
        self._in_slot = True

    def _take(self, seconds=0.1):
        self.sh(f"cp /run/ordeal/material {TAKE}/material; rm -f {TAKE}/ended; "
                f"setsid /usr/libexec/recorder/record-take {TAKE} {seconds} </dev/null >{TAKE}/said 2>&1 &")

    def _await_take(self):
        """The take's status, 0 for a clip that was recorded."""
        self._ordeal.await_line(f"[ -e {TAKE}/ended ]", "the take does not end")
        return int(self.sh(f"cat {TAKE}/ended"))

    def _ask_for_format(self):
        self.sh(f"mediactl set kParamReelNumber {int(REEL)}; mediactl set kParamMediaCommand 4")

    def _await_unusable(self):
        self._ordeal.await_line(f"[[ $(mediactl get kParamSlotChangeCommand) == {UNUSABLE} ]]",
                                "the card is not found unusable")

    def _listed(self):
        return {clip["name"] for clip in json.loads(self.sh("mediactl clips --json"))}

    # --- the fault

    def _write_fault(self):
        """What the recorder does to itself at the moment; the hands of a person are told on the console."""
        plan = self._plan
        lines = ["PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin", "export PATH", f"sleep {plan.delay:.3f}"]
        if plan.fault == "kill":
            lines.append("kill -KILL $(pidof mediad)")
        elif plan.fault == "bounce":
            for at, seconds in enumerate(plan.bounces):
                lines.append(f"/usr/libexec/recorder/presence {plan.slot} {at % 2}; sleep {seconds:.3f}")
        lines.append("echo 'ordeal: struck' >/dev/console; touch /run/ordeal/struck")
        self.sh(f"cd /run/ordeal; rm -rf orders/* struck hung taken.* {TAKE}; mkdir {TAKE}; "
                "cat >/run/ordeal/fault <<'END'\n" + "\n".join(lines) + "\nEND")

    def _arm(self):
        plan = self._plan
        if plan.tool:
            # "?" stands for a blank, so that the pattern is one word.
            self.sh(f"echo {shlex.quote(f'{plan.pattern} {plan.orders}')} >/run/ordeal/orders.new && "
                    f"mv /run/ordeal/orders.new /run/ordeal/orders/{plan.tool} && {self._ordeal.exchange(plan.tool)}")
        else:
            self.sh("setsid sh /run/ordeal/fault </dev/null >/dev/null 2>&1 &")

    def strike(self):
        plan = self._plan
        if plan.fault in ("hang", "die"):
            self._await_mark(f"ordeal: {plan.tool} ", f"! [ -e /run/ordeal/orders/{plan.tool} ]")
            if plan.fault == "hang":
                time.sleep(plan.hold)
                self.sh("for i in $(seq 100); do [ -s /run/ordeal/hung ] && break; sleep 0.05; done; "
                        "kill -KILL $(cat /run/ordeal/hung) 2>/dev/null; true")
            return
        self._await_mark("ordeal: struck", "[ -e /run/ordeal/struck ]")
        self._kills = int(plan.fault == "kill")
        if plan.fault == "yank":
            self._recorder.yank(plan.slot)
            self._in_slot = False
            if plan.returned:
                time.sleep(plan.hold)
                self._insert()

    def _await_mark(self, mark, look):
        """The console is quick, but a message of the kernel may fall into its words."""
        console = self._recorder.folder / "console.log"
        end = time.monotonic() + SECONDS
        next_look = time.monotonic() + 2
        while True:
            with open(console, "rb") as file:
                file.seek(self._ordeal.console_start)
                if mark.encode() in file.read():
                    return
            now = time.monotonic()
            if now >= next_look:
                if self._recorder.sh(look)[0] == 0:
                    return
                if now >= end:
                    raise Lost(f"the phase was not reached (waited {SECONDS} s)")
                next_look = now + 1
            time.sleep(0.002)

    # --- afterwards

    def calm(self):
        """Whoever was at work when it happened comes to an end."""
        plan, ordeal = self._plan, self._ordeal
        if self._kills:
            ordeal.await_line(f"tail -c +{ordeal.log_start + 1} /var/log/mediad.log | grep -q '^mediad ended: status 137'",
                              "nobody sees that the daemon was killed")
        if plan.tool == "sync":
            ordeal.await_line(f"tail -c +{ordeal.log_start + 1} /var/log/mediad.log | grep -q '^mediad ended: status 0'",
                              "the daemon that was to end does not")
        ordeal.wait_for_daemon()
        if plan.phase == "record":
            status = self._await_take()
            # Nothing happened to the card, and the recording engine says that the clip is recorded.
            if status == 0 and plan.fault in ("kill", "hang", "die"):
                self.sh("sync")
                name = next(iter(self._allowed - set(self._safe)))
                self._safe[name] = digest(ordeal.material)
        elif plan.phase == "firewire":
            self.sh("/usr/libexec/recorder/remote-host release >/dev/null 2>&1 || "
                    "/usr/libexec/recorder/remote-host die >/dev/null 2>&1; killall mediactl 2>/dev/null; "
                    "mediactl set kParamFirewireMode 0")
            ends = ('[ "$(mediactl firewire status)" = idle ]', "FireWire access does not end")
            try:
                ordeal.await_line(*ends, PATIENCE)
            except Lost:
                # An endpoint that was not told to end is left to itself, with its disk; an operator ends it.
                if plan.tool == "pkill" and plan.fault in ("hang", "die"):
                    self.sh(f"{REAL}/pkill endpoint; true")
                ordeal.await_line(*ends)
        elif plan.phase == "format":
            # The command is taken up by a daemon that lives.
            if not self._kills:
                ordeal.wait("the format does not end", progress=0, command=0)
        ordeal.wait_for_daemon()

    def recover(self):
        """A good card that is in its slot is in use again, without anybody's help."""
        plan, ordeal = self._plan, self._ordeal
        if not self._in_slot or self._erased:
            return
        try:
            ordeal.wait_in_use(plan.slot, PATIENCE)
        except Lost:
            # Announcements may have been lost.
            self.sh("for disk in /sys/block/sd*; do [ ! -e $disk/uevent ] || echo add >$disk/uevent; done")
            ordeal.wait_in_use(plan.slot)

    def put_away(self):
        """The card is taken out, and nothing stays behind."""
        plan, ordeal = self._plan, self._ordeal
        if self._in_slot:
            if plan.asked:
                # It may be refused as long as the fault is not over.
                ordeal.await_line('{ [ "$(mediactl get kParamSelectedSlot)" = 0 ] || mediactl slot next >/dev/null 2>&1; }',
                                  "the card is not let go of")
            self._recorder.eject(plan.slot)
            self._in_slot = False
        # Not before: a daemon whose card has gone raises an alarm and ends.
        ordeal.wait("the card is not let go of", NO_MEDIA, status=3, selected=0)
        ordeal.wait_for_daemon()
        if plan.tool:
            self.sh(ordeal.put_back(plan.tool))
        # Again and again: the last of the alarms may come after the operator has taken them back.
        ordeal.wait_idle(RESET)
        if self._erased:
            # A format goes on after a mount that failed, and makes the maker directory where nothing is mounted.
            self.sh("for mount in /mnt/*; do grep -q \" $mount \" /proc/mounts || rm -rf $mount/NEVO*; done")
        ordeal.check_nothing_left(watch=0, open=0)
        ended = [int(number) for number in re.findall(r"mediad ended: status (\d+)", ordeal.said())]
        if [status for status in ended if status != 0] != [137] * self._kills:
            raise Lost(f"the daemon ended with {ended}")
        if not self._erased and plan.condition in ("clean", "dirty"):
            self._check_volume()

    def _check_volume(self):
        """As the recorder would, and then thoroughly."""
        with bench.volume_of(self._image) as volume:
            for options in ([], ["-n", "-f"]):
                result = subprocess.run([bench.FSCK, *options, volume], capture_output=True, text=True, timeout=300)
                if result.returncode != 0:
                    raise Lost(f"fsck.hfsplus {' '.join(options)} ends with status {result.returncode}: "
                               f"{' '.join((result.stdout + result.stderr).split())}")

    def look(self):
        """The card goes in once more: in use within three passes, with everything that was safe."""
        plan, ordeal = self._plan, self._ordeal
        self.sh(bench.TRACE_ON)
        self._insert()
        if self._erased:
            ordeal.await_line(f"[[ $(mediactl get kParamSlotChangeCommand) == {UNUSABLE} || -e /var/www/media ]]",
                          "the card is neither in use nor refused")
            if ordeal.observe()["change"] != 0:
                self._ask_for_format()
            self.sh("cd /sys/kernel/tracing && echo 0 > tracing_on && echo 0 > events/enable")
            ordeal.wait_in_use(plan.slot)
        else:
            ordeal.wait_in_use(plan.slot)
            passes = bench.passes_until_in_use(self.sh(bench.TRACE_OFF))
            if passes > 3:
                raise Lost(f"the card is in use after {passes} passes")
        self._check_clips()
        self.sh("mediactl acquire && mediactl release")
        # The web link and the mount under /mnt are those of a card in use.
        ordeal.check_nothing_left(watch=1, mount=self._usual_mounts() + 1, disk=1)
        self.sh("mediactl slot next")
        self._recorder.eject(plan.slot)
        self._in_slot = False
        # An erased card was refused before its second format, with an alarm that the operator takes back.
        ordeal.wait_idle(RESET if self._erased else "true")
        if not bench.volume_header(self._image)[0]:
            raise Lost("the card was not unmounted in order")
        # Whatever became of the first format, the card has been in use since.
        if self._erased:
            self._check_volume()

    def _usual_mounts(self):
        return sum(count for line, count in self._ordeal.usual.items() if line.startswith("mount "))

    def _check_clips(self):
        lines = self.sh(f"cd {self._maker} && find . -maxdepth 1 -type f -exec md5sum {{}} +").splitlines()
        found = {name: sum_ for sum_, name in (line.split("  ./", 1) for line in lines)}
        for name, sum_ in self._safe.items():
            if name not in found:
                raise Lost(f"{name} is not on the card any more")
            if found[name] != sum_:
                raise Lost(f"{name} is not what it was")
        if not self._erased and set(found) - self._allowed:
            raise Lost(f"on the card, and nobody knows why: {', '.join(sorted(set(found) - self._allowed))}")
        wanted = {name.rpartition(".")[0] for name in self._safe}
        there = {name.rpartition(".")[0] for name in found}
        listed = []

        def complete():
            listed[:] = self._listed()
            return wanted <= set(listed) <= there

        try:
            self._ordeal.until(complete, "the index does not become that of the card", 20, 0.3)
        except Lost as lost:
            raise Lost(f"{lost}: it has {sorted(listed)}, safe are {sorted(wanted)}, there are {sorted(there)}") from None
