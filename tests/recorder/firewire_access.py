"""A medium handed to a computer on the FireWire bus and taken back, with a card that is pulled meanwhile and a computer that
does not let go."""

import hashlib
import re

import bench
from bench import COPIES, IDLE, recorder, sh, volume_header
from medium_in_use import CLIPS, MAKER, InUse, clip_names, files

FORCED = "Media ManagerData - FW stopped while media in use by remote host."

# Looks, until its file goes, whether a card is mounted by the recorder and whether an endpoint has a disk open. That both
# were so is said when the card was mounted before and after the look at the endpoint.
WATCH = r"""
mounted() { local line
            while read -r line; do [[ $line != /dev/sd*' /mnt/'* ]] || return 0; done </proc/1/mounts; return 1; }
held() { local pid file; read -r pid </run/firewire/pid || return 1
         for file in /proc/$pid/fd/*; do [[ $(readlink $file) != /dev/sd[a-z] ]] || return 0; done; return 1; } 2>/dev/null
m=0 h=0 both=0
while [ -e /run/watch ]; do
    before=no; ! mounted || { before=yes; m=$((m + 1)); }
    ! held || { h=$((h + 1)); [ $before = no ] || ! mounted || both=$((both + 1)); }
    sleep 0.02
done
echo $m $h $both >/run/watched
"""

# Claims the device that the endpoint has: with a tool that asks for it exclusively, and with a mount. An endpoint that no
# computer uses is started anew every ten seconds, and between two of them the device is free; so the daemon stands still
# meanwhile, and what was claimed from no endpoint, or from one that was just being ended, is claimed again.
CLAIM = r"""
for i in $(seq 100); do
    kill -STOP $(pidof mediad)
    had=$(tail -n 1 /var/log/firewire.log) now=
    case $had in *"endpoint has "*)
        said=$(hold-device true DEVICE 2>&1) && held=yes || held=no
        mount -t hfsplus DEVICE /mnt/S1 2>/dev/null && mounted=yes || mounted=no
        now=$(tail -n 1 /var/log/firewire.log)
        [ $mounted = no ] || umount /mnt/S1 ;;
    esac
    kill -CONT $(pidof mediad)
    [ "$now" != "$had" ] || { echo "$held $mounted $said"; exit; }
    sleep 0.3
done
exit 1
"""


def material(name):
    """A clip for the computer to bring, and the digest of it."""
    path = COPIES / name
    path.write_bytes((bench.FOLDER / "clips" / "Clip_0001.mov").read_bytes())
    return path, hashlib.md5(path.read_bytes()).hexdigest()


class Firewire(InUse):
    """One owner at a time, and the card always comes back."""

    def setUp(self):
        super().setUp()
        self.addCleanup(sh, "rm -f /run/watch; killall -CONT keep-mediad; mediactl firewire off")
        sh("rm -f /var/log/firewire.log")

    # --- what is done

    def on(self):
        # AV/C has paused already, so nobody waits for it.
        sh("mediactl set kParamFirewireAVCPause 1; mediactl firewire on")

    def off(self):
        sh("mediactl firewire off")

    def host(self, *words):
        self.assertEqual((0, "", ""), bench.host(*words))

    def use(self):
        """The computer takes the disk, brings a clip and lets the disk go; the digest of the clip."""
        path, digest = material("From_Host.mov")
        self.host("take")
        self.host("write", path)
        self.host("release")
        return digest

    # --- what is seen

    def state(self):
        return sh("mediactl firewire status").strip()

    def log(self):
        """What happened on the bus: (time, what)."""
        lines = sh("cat /var/log/firewire.log 2>/dev/null; true").splitlines()
        return [(float(time), what) for time, what in (line.split(" ", 1) for line in lines)]

    def happened(self):
        return [re.sub(r"\bsd[a-z]\b", "DISK", what) for _, what in self.log()]

    def assert_back_with(self, digest, image):
        names = sorted([*CLIPS, "From_Host"])
        self.in_use("S1", "REEL 7")
        self.wait_for(lambda: sorted(clip_names()) == names, "the clip that the computer brought is not there")
        self.out_and_in_again(image, "S1", "REEL 7")
        self.assertEqual(digest, files()["From_Host.mov"])
        self.assertEqual(names, sorted(clip_names()))

    RESET = "reset 0xc1701 0x123456 0x"
    OFFERED = [RESET + "2", RESET + "2", "endpoint starts", "endpoint has DISK"]
    ENDED = ["endpoint ends", RESET + "1"]

    # --- the stories

    def test_a_computer_brings_a_clip(self):
        image = self.insert("clean", "REEL 7")
        self.assertEqual("idle", self.state())
        sh(f"touch /run/watch; cat >/run/watch.sh <<'END'\n{WATCH}\nEND\n"
           "setsid bash /run/watch.sh </dev/null >/dev/null 2>&1 &")
        self.on()
        self.assertEqual("offered", self.state())
        self.wait(**IDLE, volume="N/A", link=None, present=["S1"])
        self.assertEqual(self.OFFERED, self.happened())
        device = sh("cd /etc; for f in endpoint.conf.*; do echo $f; done").strip()
        self.assertEqual(sh(f"cat /etc/{device}"), sh("cat /etc/endpoint.conf"))
        # The device is the endpoint's alone.
        claimed = sh(CLAIM.replace("DEVICE", f"/dev/{device.rpartition('.')[2]}2"))
        self.assertRegex(claimed, "no no .* is in use")

        path, digest = material("From_Host.mov")
        self.host("take")
        self.assertEqual("in use by host", self.state())
        self.wait(**{**IDLE, "led1": 1, "panel1": 1})
        self.host("write", path)
        self.assertEqual("", sh("ls /mnt/S1"))
        self.host("release")
        self.assertEqual("offered", self.state())
        self.wait(**IDLE)

        self.off()
        self.assertEqual("idle", self.state())
        self.in_use("S1", "REEL 7")
        sh("rm /run/watch; for i in $(seq 100); do [ ! -e /run/watched ] || exit 0; sleep 0.1; done; exit 1")
        mounted, held, both = map(int, sh("cat /run/watched; rm /run/watched").split())
        self.assertGreater(mounted, 0)
        self.assertGreater(held, 0)
        self.assertEqual(0, both)
        self.assertEqual([*self.OFFERED, "endpoint serves DISK", "endpoint is asked to stop",
                          "endpoint serves no more: logout", *self.ENDED],
                         # A slow machine needs more than ten seconds without a computer.
                         without_restarts(self.happened()))
        self.assertEqual(["2", "0"], self.values("kParamFirewireMode"))
        self.assert_back_with(digest, image)
        self.assertEqual("", self.said())

    def test_a_volume_that_the_computer_left_dirty_is_repaired(self):
        image = self.insert("clean", "REEL 7")
        self.on()
        path, digest = material("From_Host.mov")
        self.host("take")
        self.host("write", path)
        self.host("die")
        self.assertEqual("offered", self.state())
        self.assertFalse(volume_header(image)[0])
        self.off()
        self.assert_back_with(digest, image)

    def test_a_computer_that_holds_on_is_forced_off(self):
        image = self.insert("clean", "REEL 7")
        before = files()
        self.on()
        self.host("hold")
        self.assertEqual("in use by host", self.state())
        self.assertEqual((1, "", "host: the host still uses the disk"),
                         (lambda status, out, error: (status, out, error[:34]))(*bench.host("release")))
        self.assertEqual("/run/endpointdiskstop\n", sh("ls /run/endpoint*"))
        self.off()
        self.assertEqual("idle", self.state())
        self.in_use("S1", "REEL 7")
        self.assertEqual([FORCED], self.said().splitlines())
        self.assertEqual("/run/endpointdisknotinuse\n", sh("ls /run/endpoint*"))
        self.assertEqual((1, "", "host: the host does not have the disk\n"), bench.host("release"))
        self.assertEqual(["endpoint serves no more: ends", *self.ENDED], self.happened()[-3:])
        self.out_and_in_again(image, "S1", "REEL 7")
        self.assertEqual(before, files())

    def test_a_pulled_card_pauses_access_and_its_return_resumes_it(self):
        image = self.insert("clean", "REEL 7")
        self.on()
        recorder("yank", "S1")
        self.wait_for(lambda: self.state() == "paused", "access is not paused")
        # The reset of a pause is followed by no endpoint but by the reset for the next one.
        log = self.wait_for(self.pause, "the bus is not reset for a pause")
        pulled, paused = log
        self.assertGreater(paused - pulled, 12)
        # Time enough for it to do harm: an endpoint that waits for its disk is started all the same.
        starts = self.happened().count("endpoint starts")
        self.wait_for(lambda: self.happened().count("endpoint starts") > starts, "no endpoint is started while paused")
        self.wait(selected=0, mounts={}, disks=[], status=3, present=[])

        recorder("insert", "S1", image)
        self.wait_for(lambda: self.state() == "offered", "access is not resumed")
        self.wait(selected=0, mounts={}, path="", present=["S1"])
        digest = self.use()
        self.off()
        self.assert_back_with(digest, image)
        # The daemon has never ended, and nothing was wrong with the card.
        self.assertEqual([], self.values("kParamMediaDaemonStatus"))
        self.assertEqual([], self.values("kParamInvalidMediaAlert"))
        self.assertEqual([], self.values("kParamAlarms"))
        self.assertEqual([], [line for line in self.said().splitlines() if line.startswith("Media")])

    def pause(self):
        """When the card was missed on the bus, and when the bus was reset for the pause; nothing before both."""
        log = self.log()
        lost = next((at for at, (_, what) in enumerate(log) if what.startswith("endpoint lost")), len(log))
        resets = [at for at in range(lost, len(log) - 1)
                  if log[at][1].startswith("reset") and log[at + 1][1].startswith("reset")]
        return (log[lost][0], log[resets[0]][0]) if resets else None

    def test_a_card_pulled_from_a_computer_pauses_access_at_once(self):
        image = self.insert("clean", "REEL 7")
        self.on()
        self.host("take")
        recorder("yank", "S1")
        self.wait_for(lambda: self.state() == "paused", "access is not paused")
        self.assertIn("/run/endpointdiskunavailable", sh("ls /run/endpoint*"))
        self.assertEqual((1, "", "host: the host does not have the disk\n"), bench.host("release"))
        recorder("insert", "S1", image)
        self.wait_for(lambda: self.state() == "offered", "access is not resumed")
        self.assertNotIn("/run/endpointdiskunavailable", sh("ls /run/endpoint*"))
        self.off()
        self.in_use("S1", "REEL 7")
        self.out_and_in_again(image, "S1", "REEL 7")
        self.assertEqual(CLIPS, clip_names())

    def test_access_is_refused_while_the_storage_is_acquired(self):
        self.insert("clean", "REEL 7")
        sh("rm -f /etc/endpoint.conf; mediactl acquire")
        self.addCleanup(sh, "mediactl release")
        before = self.in_use("S1", "REEL 7", command=0)
        status, out, error = bench.command("sh", "mediactl firewire on")
        self.assertEqual((1, "", "mediactl: FireWire access was refused: the storage is in use\n"), (status, out, error))
        after = self.in_use("S1", "REEL 7", change=15)
        self.assertEqual({**before, "change": 15}, after)
        self.assertEqual(["2", "0"], self.values("kParamFirewireMode"))
        self.assertEqual("idle", self.state())
        self.assertEqual([], self.log())
        self.assertNotEqual(0, bench.command("sh", "ls /etc/endpoint.conf")[0])
        self.assertEqual(["Media ManagerstartFirewireAccess: The recorder could not let go of the medium."],
                         self.said().splitlines())
        self.assertEqual(MAKER, before["path"])

    def test_the_daemons_end_is_the_end_of_access(self):
        image = self.insert("clean", "REEL 7")
        self.on()
        self.host("take")
        sh("killall -STOP keep-mediad; kill -TERM $(pidof mediad)")
        self.wait(status=6)
        self.assertEqual("", sh("pgrep endpoint; true"))
        self.assertEqual(["endpoint serves no more: ends", "endpoint ends"], self.happened()[-2:])
        self.wait(mounts={}, selected=0, led1=1)
        self.assertEqual("idle", self.state())
        ended = len(self.happened())
        sh("killall -CONT keep-mediad")
        # The mode that stands is no request: the card is the recorder's.
        self.in_use("S1", "REEL 7")
        self.assertEqual(["2"], self.values("kParamFirewireMode"))
        self.assertEqual("idle", self.state())
        self.assertEqual(ended, len(self.happened()))
        self.out_and_in_again(image, "S1", "REEL 7")
        self.assertEqual(CLIPS, clip_names())


def without_restarts(happened):
    """Without the endpoints that nobody used in ten seconds, a login that fell into the end of one included."""
    again = ["endpoint ends", Firewire.RESET + "2", "endpoint starts", "endpoint has DISK"]
    kept = []
    for what in happened:
        kept.append(what)
        if kept[-4:] == again:
            del kept[-4:]
            if kept[-2:] == ["endpoint serves DISK", "endpoint serves no more: ends"]:
                del kept[-2:]
    return kept
