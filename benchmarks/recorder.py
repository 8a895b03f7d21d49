#!/usr/bin/env python3
"""How long a card takes from its announcement to its being in use, on the virtual recorder: one JSON document.

recorder.py PROGRAMS STATE CLIP EXAMINER [CARD...]      cards: clean, dirty, clips; check: the quick check alone

The same command lines, run one after the other by a script of the same shell in the same recorder, are what it is measured
against: the daemon stands still meanwhile. A card is as fresh for the one as for the other.
"""

import json
import pathlib
import re
import statistics
import struct
import subprocess
import sys
import time

sys.dont_write_bytecode = True
ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "recorder"))
from appliance.machine import Recorder  # noqa: E402

ROUNDS = 3
CHECKS = 9
CLIPS = 1000
LOOP_PERIOD = 0.25  # seconds
EXAMINER = "/run/examine"

# What the daemon runs for a card that it takes into use, in its order: the name is shown, the card tested for a file
# system; mounted for a first look; mounted, scanned and unmounted; mounted for use. {repair} stands where a dirty card is
# repaired, {examine} where clips are looked into. The web link that is there before goes unmeasured: the daemon unlinks it
# by itself.
MOUNT = """/usr/local/bin/fsck.hfsplus -q $node 2>&1 | grep FILESYSTEM
/bin/mount -onoatime $node /mnt/S1 2>&1
/bin/echo noop > /sys/block/$disk/queue/scheduler
/bin/mount | grep $node
"""
LINES = f"""/usr/local/bin/volname.hfsplus $node | awk -F': ' '{{{{printf $2}}}}'
/usr/local/bin/volname.hfsplus $node 2>&1
/bin/mount | grep /mnt/S1
{MOUNT.replace("FILESYSTEM", "FILESYSTEM {repair}", 1)}/bin/mount | grep /mnt/S1
/bin/umount -l /mnt/S1
/bin/mount | grep $node
{MOUNT}/bin/mkdir -p /mnt/S1/NEVO/.uploads/
echo 'This directory contains temporary upload files - DO NOT PUT YOUR FILES INTO THIS FOLDER!!! THEY WILL BE DELETED!!!' \
> /mnt/S1/NEVO/.uploads/README.txt
{{examine}}
/bin/mount | grep /mnt/S1
/bin/umount  /mnt/S1
/bin/mount | grep $node
/bin/mount | grep /mnt/S1
{MOUNT}ln -s /mnt/S1/NEVO /var/www/media
"""

programs, state, clip, examiner = map(pathlib.Path, sys.argv[1:5])
recorder = Recorder(state, programs)


def sh(line, seconds=120):
    status, out, error = recorder.sh(line, seconds)
    if status != 0:
        raise SystemExit(f"recorder.py: {line}: {status} {error.decode()}{out.decode()}")
    return out.decode()


def wait(line, what, interval=0.2):
    end = time.monotonic() + 120
    while recorder.sh(line)[0] != 0:
        if time.monotonic() > end:
            raise SystemExit(f"recorder.py: waited too long for {what}: {recorder.log()[-1000:]}")
        time.sleep(interval)


def make_card(path, *options):
    subprocess.run([ROOT / "recorder" / "make-medium", path, "--size", "96", "--label", "BENCH", *options],
                   check=True, timeout=600, stdout=subprocess.DEVNULL)


def make_clips(folder):
    data = clip.read_bytes()
    at = data.index(b"mvhd") + 8
    folder.mkdir(exist_ok=True)
    for number in range(CLIPS):
        made = struct.pack(">I", 2082844800 + 1000000 + number)  # seconds since 1904
        (folder / f"Clip_{number:04}.mov").write_bytes(data[:at] + made + data[at + 4:])
    return folder


def fresh(card):
    copy = state / "card.img"
    subprocess.run(["cp", "--sparse=always", card, copy], check=True)
    return copy


def empty():
    """No card, and the daemon knows it."""
    if recorder._media().get("S1"):
        recorder.eject("S1")
    wait('[ "$(mediactl get kParamSelectedSlot)" = 0 ] && [ "$(mediactl get kParamMediaDaemonStatus)" = 3 ] && '
         '! grep -q " /mnt/S1 " /proc/mounts && ! ls /sys/block | grep -q ^sd', "an idle recorder")


def by_script(card, repair, examine):
    """Seconds of the command lines; of the same with a shell for each, on the card that is clean by then; and of the clips'
    examination among them."""
    sh("killall -STOP mediad")
    recorder.insert("S1", fresh(card))
    wait("ls /dev/sd?2", "the disk")
    lines = LINES.format(repair="| grep CLEAN || /usr/local/bin/fsck.hfsplus $node" if repair else "",
                         examine=f"{EXAMINER} /mnt/S1/NEVO > /run/examined" if examine else "")
    sh(f"""cat > /run/lines <<'END'
{lines}END
disk=$(ls /sys/block | grep ^sd); export disk node=/dev/${{disk}}2; echo 0 0 > /run/examined
rm -f /var/www/media
bash -c 'begin=$EPOCHREALTIME; bash /run/lines >/dev/null 2>&1; echo $begin $EPOCHREALTIME' > /run/times
grep -q " /mnt/S1 hfsplus rw" /proc/mounts && umount /mnt/S1
rm -f /var/www/media
bash -c 'begin=$EPOCHREALTIME; while IFS= read -r line; do bash --noprofile --norc -c "$line" </dev/null >/dev/null 2>&1
done </run/lines; echo $begin $EPOCHREALTIME' > /run/own-times
umount /mnt/S1""")
    begin, end = map(float, sh("cat /run/times").split())
    own_begin, own_end = map(float, sh("cat /run/own-times").split())
    seconds, clips = sh("cat /run/examined").split()
    if examine and int(clips) != CLIPS:
        raise SystemExit(f"recorder.py: {clips} clips examined")
    recorder.eject("S1")
    sh("killall -CONT mediad")
    empty()
    return end - begin, own_end - own_begin, float(seconds)


def by_daemon(card, quiet):
    """Seconds from the kernel's announcement of the disk until the card is in use. For the first `quiet` seconds nobody
    asks: every question costs the small machine what is measured."""
    sh(f"""cat > /run/watch <<'END'
mediactl watch kParamSelectedSlot kParamStoragePath kParamSystemState | while read -r number name value; do
    echo "$EPOCHREALTIME $name $value"
    [ "$name $value" != "kParamSelectedSlot 1" ] || selected=yes
    [ "$name $value $selected" != "kParamStoragePath /mnt/S1/NEVO yes" ] || touch /run/in-use
done > /run/watched
END
killall mediactl 2>/dev/null; rm -f /run/watched /run/in-use; setsid bash /run/watch 2>/dev/null </dev/null >/dev/null &
for i in $(seq 200); do mediactl set kParamSystemState 1; [ -s /run/watched ] && exit 0; sleep 0.05; done; exit 1""")
    # The kernel's clock and the shell's, side by side.
    sh("""bash -c 'echo "bench-clock $EPOCHREALTIME" > /dev/kmsg'""")
    recorder.insert("S1", fresh(card))
    time.sleep(quiet)
    wait("test -e /run/in-use", "the card to be in use", 2)
    time.sleep(1)
    kernel = sh("dmesg")
    mark = re.findall(r"\[\s*([\d.]+)\] bench-clock ([\d.]+)", kernel)[-1]
    disk = re.findall(r"\[\s*([\d.]+)\] sd \S+ \[sd\w\] Attached SCSI", kernel)[-1]
    announced = float(disk) - float(mark[0]) + float(mark[1])
    selected = False
    for line in sh("cat /run/watched").splitlines():
        at, name, value = (line.split(" ", 2) + ["", ""])[:3]
        if name == "kParamSelectedSlot" and value == "1":
            selected = True
        elif selected and name == "kParamStoragePath" and value == "/mnt/S1/NEVO":
            break
    else:
        raise SystemExit("recorder.py: the path was not published: " + sh("cat /run/watched"))
    empty()
    return float(at) - announced


def measure(card, repair=False, examine=False):
    daemon, script, shells, examined = [], [], [], []
    for _ in range(ROUNDS):
        for times, seconds in zip((script, shells, examined), by_script(card, repair, examine)):
            times.append(seconds)
        daemon.append(by_daemon(card, 1.2 * script[-1] + 2 * LOOP_PERIOD))
    # The script's time has the examiner's own in it.
    limit = statistics.median(script) + 2 * LOOP_PERIOD
    return {"daemon_s": statistics.median(daemon), "script_s": statistics.median(script), "limit_s": limit,
            "shells_s": statistics.median(shells),
            "examiner_s": statistics.median(examined), "daemon_all": daemon, "script_all": script}


def check(card):
    """Milliseconds of one quick check: as installed, with the tool's own cache, with a small one."""
    sh("killall -STOP mediad")
    recorder.insert("S1", fresh(card))
    wait("ls /dev/sd?2", "the disk")
    sh(f"""cat > /run/check <<'END'
node=$(ls /dev/sd?2)
run() {{ local begin=$EPOCHREALTIME; "$@" >/dev/null 2>&1 || exit 1; echo "$begin $EPOCHREALTIME $name"; }}
for i in $(seq {CHECKS}); do
    name=installed run /usr/local/bin/fsck.hfsplus -q $node
    name=plain run /sbin/fsck.hfsplus -q $node
    name=small run /sbin/fsck.hfsplus -q -c 1m $node
done
END
bash /run/check > /run/checks""")
    times = {}
    for line in sh("cat /run/checks").splitlines():
        begin, end, name = line.split()
        times.setdefault(name, []).append(1000 * (float(end) - float(begin)))
    recorder.eject("S1")
    sh("killall -CONT mediad")
    empty()
    return {f"{name}_ms": statistics.median(values) for name, values in times.items()}


def main():
    state.mkdir(parents=True, exist_ok=True)
    cards = sys.argv[5:] or ["clean", "dirty", "clips", "check"]
    folder = state / "bench-media"
    folder.mkdir(exist_ok=True)
    make_card(folder / "clean.img")
    if "dirty" in cards:
        make_card(folder / "dirty.img", "--dirty")
    if "clips" in cards:
        make_card(folder / "clips.img", "--clips", make_clips(folder / "clips"))
    recorder.down()
    (state / "slots.json").unlink(missing_ok=True)
    recorder.up()
    result = {}
    try:
        recorder.send(examiner, EXAMINER)
        sh(f"chmod +x {EXAMINER}")
        empty()
        for card in cards:
            if card == "check":
                result[card] = check(folder / "clean.img")
            else:
                result[card] = measure(folder / f"{card}.img", repair=card == "dirty", examine=card == "clips")
    finally:
        recorder.down()
    print(json.dumps(result))


main()
