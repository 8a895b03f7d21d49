"""A medium in use on real HFS+: clips are recorded onto it and deleted from it, playlists come and go, it is formatted.

After each of these the volume is let go of and checked as a whole from outside, and what nobody asked to delete is compared
with what it was.
"""

import json
import subprocess
import time

import bench
from bench import IDLE, Scenario, recorder, sh

CLIPS = ["Clip_0001", "Clip_0002", "Clip_0003", "Clip_0004"]
MAKER = "/mnt/S1/NEVO"


def listed(what):
    return json.loads(sh(f"mediactl {what} --json"))


def clip_names():
    return [clip["name"] for clip in listed("clips")]


def playlists():
    return {playlist["name"]: playlist["text"] for playlist in listed("playlists")}


def files(folder=MAKER):
    """The regular files right in a folder and what they hold; one that goes while it is looked at is not among them."""
    lines = sh(f"cd {folder} && find . -maxdepth 1 -type f -exec md5sum {{}} + || true").splitlines()
    return {name: digest for digest, name in (line.split("  ./", 1) for line in lines)}


def clip_files(names):
    return {f"{name}.mov" for name in names}


class InUse(Scenario):
    def insert(self, name, volume, slot="S1"):
        image = self.medium(name)
        recorder("insert", slot, image)
        self.in_use(slot, volume)
        return image

    def clips_become(self, names):
        self.wait_for(lambda: clip_names() == names, f"the clips do not become {names}")

    def clips_become_in_some_order(self, names):
        """For clips of the same time: one that is examined anew stands behind the others."""
        self.wait_for(lambda: sorted(clip_names()) == names, f"the clips do not become {names}")

    def delete(self, request):
        sh(f"mediactl set kParamClipsToDelete '{request}'")


class Recording(InUse):
    """What the recording engine closes is in the index."""

    TAKES = 20

    def setUp(self):
        super().setUp()
        self.addCleanup(sh, "mediactl set kParamEncodeType 0")
        sh("mediactl set kParamNextTakeNumber 1; mediactl set kParamEncodeType 2")

    def record(self, *options):
        """A recording that goes on beside the test; its output comes line by line."""
        return subprocess.Popen([*bench.RECORD, *options], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True)

    def test_twenty_clips_appear_one_by_one(self):
        image = self.insert("second", "SECOND")
        there = files()
        # The activation has numbered the next take above the clip that is there.
        takes = [f"Clip_{number:04}" for number in range(5, 5 + self.TAKES)]
        begin = time.time()
        with self.record("-n", str(self.TAKES), "--seconds", "0.1") as recording:
            for number, take in enumerate(takes, start=1):
                self.assertEqual(take, recording.stdout.readline().partition(".mov: ")[0])
                names = self.wait_for(lambda: (now := clip_names())[number:] and now, f"{take} does not appear")
                # The engine may be a take ahead by now, but never is one there before those that were closed earlier.
                self.assertEqual(["Clip_0004", *takes][:len(names)], names)
            self.assertEqual(("", "", 0), (*recording.communicate(), recording.returncode))
        self.wait(transport=1, command=0, clip="Clip_0004")

        # The order in the store: each take's index and stamp stand between its acquisition and the next take's release,
        # which is given when the next clip is closed.
        events = self.events("kParamMediaCommand", "kParamNewClipIndex", "kParamMediaChangedTime", "kParamTransportState",
                             "kParamNextTakeNumber")
        acquired = [at for at, event in enumerate(events) if event == ("kParamMediaCommand", "1")]
        released = [at for at, event in enumerate(events) if event == ("kParamMediaCommand", "2")]
        indexed = [at for at, (name, _) in enumerate(events) if name == "kParamNewClipIndex"]
        stamped = [at for at, (name, _) in enumerate(events) if name == "kParamMediaChangedTime"]
        self.assertEqual([self.TAKES] * 3, [len(acquired), len(released), len(indexed)])
        for take in range(self.TAKES):
            self.assertLess(acquired[take], indexed[take])
            self.assertLess(indexed[take], [*released, len(events)][take + 1])
            stamp = next(at for at in stamped if at > indexed[take])
            self.assertLess(stamp, [*indexed, len(events)][take + 1])
            self.assertIn(int(events[stamp][1]), range(int(begin) - 2, int(time.time()) + 3))
        # How many clips there are less one.
        self.assertEqual([str(number) for number in range(1, self.TAKES + 1)], self.values("kParamNewClipIndex"))
        self.assertEqual([str(number) for number in range(6, 6 + self.TAKES)],
                         [value for value in self.values("kParamNextTakeNumber") if value not in ("1", "5")])
        self.assertEqual(["2", "1"] * self.TAKES, self.values("kParamTransportState"))

        clips = listed("clips")
        times = [clip["time"] for clip in clips]
        self.assertEqual(sorted(times), times)
        for clip in clips[1:]:
            self.assertTrue(clip["encode_match"])
            self.assertIn(clip["time"], range(int(begin) - 2, int(time.time()) + 3))
            clock = time.strftime("%H:%M:%S", time.gmtime(clip["time"]))
            timecode = clip["attributes"].pop("Starting TC")
            self.assertEqual(clock, timecode.rpartition(":")[0])
            self.assertEqual({"Audio Chan": "1", "Encode Type": "2", "Format": "180p", "Frame Rate": "25", "Height": "180",
                              "Width": "320"}, clip["attributes"])

        before = files()
        self.assertEqual(clip_files(["Clip_0004", *takes]), set(before))
        self.assertEqual({"Clip_0004.mov": before["Clip_0004.mov"]}, there)
        self.out_and_in_again(image, "S1", "SECOND")
        self.assertEqual(before, files())
        self.assertEqual(["Clip_0004", *takes], clip_names())
        self.assertEqual("", self.said())

    def test_a_recording_that_cannot_be_made_says_so_and_leaves_everything_as_it_was(self):
        def refused(reason):
            status, out, error = bench.record("--seconds", "0.1")
            self.assertEqual((1, "", f"record: {reason}\n"), (status, out, error))
            # Nothing is acquired and nothing is recording: a medium can be let go of.
            self.wait(transport=1, command=0)

        sh("mediactl set kParamTransportState 1")
        refused("no slot is selected")
        image = self.insert("small", "SMALL")
        sh("mediactl set kParamStoragePath ''")
        refused("no storage path is published")
        sh(f"mediactl set kParamStoragePath {MAKER}; head -c 100000000 /dev/zero >{MAKER}/fill 2>/dev/null; sync")
        refused("Clip_0001.mov cannot be written: No space left on device")
        self.assertEqual({"fill"}, set(files()))
        self.assertNotIn(str(2), self.values("kParamNextTakeNumber"))
        sh(f"rm {MAKER}/fill; touch {MAKER}/Clip_0001.mov")
        refused("Clip_0001.mov is on the medium already")
        sh(f"rm {MAKER}/Clip_0001.mov")
        self.out_and_in_again(image, "S1", "SMALL")


class Deletion(InUse):
    """What is asked to be deleted goes, and nothing else."""

    def test_named_clips_go_and_their_neighbours_stay(self):
        image = self.insert("clean", "REEL 7")
        # The index finds a clip by a name that occurs in a path: that of the first of these occurs in those of the others.
        sh(f"cd {MAKER} && for number in 1 10 11; do cp Clip_0004.mov Clip_$number.mov; done")
        self.clips_become([*CLIPS, "Clip_1", "Clip_10", "Clip_11"])
        self.wait(clip="Clip_0001")
        before = files()

        self.delete("Clip_0001.mov|Clip_0003.mov|Clip_10.mov")
        rest = ["Clip_0002", "Clip_0004", "Clip_1", "Clip_11"]
        self.clips_become_in_some_order(rest)
        self.wait(clip="Clip_0002")
        self.assertEqual(["Clip_0002"], self.values("kParamDeleteClipsStatus"))
        self.out_and_in_again(image, "S1", "REEL 7")
        kept = {name: digest for name, digest in before.items() if name in clip_files(rest)}
        self.assertEqual(kept, files())
        self.assertEqual(rest, clip_names())
        self.wait(clip="Clip_0002")

        # A name that is not there: the deletion is carried out before the medium is let go of.
        self.delete("Nothing.mov")
        self.out_and_in_again(image, "S1", "REEL 7")
        self.assertEqual(kept, files())
        self.assertEqual(rest, clip_names())
        self.wait(clip="Clip_0002")
        self.assertEqual(["Clip_0002"], self.values("kParamDeleteClipsStatus"))
        self.assertEqual("", self.said())

    def test_everything_means_the_files_that_a_shell_takes_for_it(self):
        image = self.insert("clean", "REEL 7")
        sh(f"cd {MAKER} && mkdir folder && cp Clip_0001.mov folder && "
           "for name in ./-r './-rf x' ./-f ./.hidden 'Take 1.mov'; do cp Clip_0001.mov \"$name\"; done")
        self.clips_become(["Clip_0001", "Take 1", *CLIPS[1:]])
        self.wait(clip="Clip_0001")
        digest = files()[".hidden"]

        self.delete("*")
        self.wait_for(lambda: files() == {".hidden": digest}, "the files do not go")
        self.clips_become([])
        self.wait(clip="N/A")
        self.assertEqual(["N/A"], self.values("kParamDeleteClipsStatus"))
        self.out_and_in_again(image, "S1", "REEL 7")
        self.assertEqual({".hidden": digest}, files())
        self.assertEqual({"Clip_0001.mov": digest}, files(f"{MAKER}/folder"))
        self.assertEqual({"README.txt"}, set(files(f"{MAKER}/.uploads")))
        self.assertEqual([], clip_names())

    def test_without_the_directory_nothing_is_deleted(self):
        image = self.insert("clean", "REEL 7")
        # It is for the lack of a directory that the files survive, and not because nobody asked.
        here = "ls -a / /root /proc/$(pidof mediad)/cwd/"
        before, around = files(), sh(here)
        sh(f"mv {MAKER} /mnt/S1/AWAY")
        self.delete("*|Clip_0001.mov")
        self.wait_for(lambda: "pushd: /mnt/S1/NEVO/: No such file or directory" in self.said(), "nothing is deleted")
        self.assertEqual(around, sh(here))
        self.out_and_in_again(image, "S1", "REEL 7")
        self.assertEqual(before, files("/mnt/S1/AWAY"))
        sh(f"rm -r {MAKER}; mv /mnt/S1/AWAY {MAKER}")
        self.out_and_in_again(image, "S1", "REEL 7")
        self.assertEqual(before, files())
        self.assertEqual(CLIPS, clip_names())


class Playlists(InUse):
    """Playlists are in the index as they stand on the medium."""

    @staticmethod
    def text(name, *clips):
        return json.dumps({"name": name, "cliplist": clips})

    def write(self, file, text):
        sh(f"printf %s '{text}' >{MAKER}/{file}")

    def playlists_become(self, wanted):
        self.wait_for(lambda: playlists() == wanted, f"the playlists do not become {wanted}")

    def test_they_are_added_changed_and_deleted(self):
        image = self.insert("clean", "REEL 7")
        before = files()
        first, second = self.text("Day", "Clip_0003"), self.text("Night")
        changed = self.text("Day", "Clip_0002", "Clip_0004")
        for file, text, wanted in [("day.playlist", first, {"day": first}),
                                   ("night.playlist", second, {"day": first, "night": second}),
                                   ("day.playlist", changed, {"day": changed, "night": second})]:
            stamps = len(self.values("kParamMediaChangedTime"))
            self.write(file, text)
            self.playlists_become(wanted)
            self.wait_for(lambda: len(self.values("kParamMediaChangedTime")) > stamps, "the change is not stamped")
        # A selected playlist decides which clip is current.
        self.addCleanup(sh, "mediactl set kParamClipListMode 0; mediactl set kParamPlaylistName ''")
        self.wait(clip="Clip_0001")
        sh("mediactl set kParamPlaylistName day; mediactl set kParamClipListMode 2")
        self.wait(clip="Clip_0002")
        sh("mediactl set kParamClipListMode 0; mediactl set kParamPlaylistName ''")

        sh(f"rm {MAKER}/night.playlist")
        self.playlists_become({"day": changed})
        self.out_and_in_again(image, "S1", "REEL 7")
        self.assertEqual({"day": changed}, playlists())
        sh(f"rm {MAKER}/day.playlist")
        self.playlists_become({})
        self.assertEqual(before, files())
        self.assertEqual(CLIPS, clip_names())
        self.assertEqual("", self.said())

    def test_one_that_is_no_file_does_not_stop_the_recorder(self):
        image = self.insert("clean", "REEL 7")
        # Nobody will ever write into it. That it was opened for writing is told as with any other file.
        sh(f"cd {MAKER} && mkfifo x.playlist y.mov && exec 3<>x.playlist 4<>y.mov")
        text = self.text("Day", "Clip_0001")
        self.write("day.playlist", text)
        self.playlists_become({"day": text})
        # Nor when the medium is examined as a whole.
        self.out_and_in_again(image, "S1", "REEL 7")
        self.assertEqual({"day": text}, playlists())
        self.assertEqual(CLIPS, clip_names())


class Formatting(InUse):
    """Whatever state a card is in, it ends formatted and in use."""

    def setUp(self):
        super().setUp()
        self.addCleanup(sh, "mediactl set kParamReelNumber 0")

    def format(self, reel):
        sh(f"mediactl set kParamReelNumber {reel}; mediactl set kParamMediaCommand 4")

    def assert_formatted(self, image, slot, volume):
        self.in_use(slot, volume, progress=0, command=0, clip="N/A")
        self.assertEqual(["4", "0"], self.values("kParamMediaCommand"))
        self.assertEqual([{"S1": "3", "S2": "4"}[slot], "0"], self.values("kParamProgressStatus"))
        self.assertEqual([], clip_names())
        self.assertEqual([".uploads", ".uploads/README.txt"],
                         sorted(sh(f"cd /mnt/{slot}/NEVO && find . -mindepth 1").replace("./", "", 1).replace("\n./", "\n")
                                .splitlines()))
        self.assertRegex(sh(f"/bin/mount | grep /mnt/{slot}"), r"\(rw,.*\bnoatime\b")
        # As a medium does that was formatted elsewhere, it takes clips and keeps them.
        sh(f"head -c 1000000 /dev/urandom >/mnt/{slot}/NEVO/material && sync")
        kept = files(f"/mnt/{slot}/NEVO")
        self.out_and_in_again(image, slot, volume)
        self.assertEqual(kept, files(f"/mnt/{slot}/NEVO"))

    def test_one_that_is_mounted(self):
        image = self.insert("clean", "REEL 7")
        self.assertEqual(CLIPS, clip_names())
        self.format(7)
        self.assert_formatted(image, "S1", "007")

    def test_one_that_cannot_be_mounted(self):
        image = self.medium("damaged")
        recorder("insert", "S2", image)
        self.wait(selected=2, change=11, alarms=bench.DAMAGED, mounts={})
        self.format(42)
        self.assert_formatted_after_trouble(image, "S2", "042")

    def test_one_that_is_mounted_for_reading_only(self):
        image = self.medium("journaled")
        recorder("insert", "S1", image)
        self.wait(selected=1, volume="JOURNAL", mounts={"/mnt/S1": "ro"})
        self.format(123)
        self.assert_formatted_after_trouble(image, "S1", "123")

    def test_one_that_is_not_formatted(self):
        image = self.medium("unformatted")
        recorder("insert", "S1", image)
        self.wait(selected=1, change=10, alarms=bench.UNFORMATTED)
        self.format(8)
        self.assert_formatted_after_trouble(image, "S1", "008")

    def assert_formatted_after_trouble(self, image, slot, volume):
        # The code of the failed selection and the alert stand until somebody takes them back.
        state = self.wait(volume=volume, path=f"/mnt/{slot}/NEVO", mounts={f"/mnt/{slot}": "rw"}, progress=0, alarms=0)
        sh("mediactl set kParamSlotChangeCommand 0; mediactl set kParamInvalidMediaAlert 0")
        self.assertEqual(int(slot[1]), state["selected"])
        self.assert_formatted(image, slot, volume)

    def test_a_file_system_that_cannot_be_made_ends_the_progress_and_is_said(self):
        image = self.insert("clean", "REEL 7")
        before = files()
        tool = "/usr/local/bin/mkfs.hfsplus"
        self.addCleanup(sh, f"[ ! -e {tool}.kept ] || mv {tool}.kept {tool}")
        sh(f"mv {tool} {tool}.kept && printf '#!/bin/sh\\nexit 1\\n' >{tool} && chmod +x {tool}")
        self.format(7)
        self.wait_for(lambda: self.values("kParamProgressStatus") == ["3", "0"], "the progress does not end")
        # The tool has touched nothing, so the next pass has the old volume in use again.
        self.wait(selected=1, volume="REEL 7", path=MAKER, mounts={"/mnt/S1": "rw"}, command=0, clip="N/A")
        self.assertEqual(before, files())
        self.assertRegex(self.said(), r"(?m)^mkfs\.hfsplus failed when formatting sd[a-z]2$")
        # It is not repeated by itself; a second request succeeds.
        sh(f"mv {tool}.kept {tool}")
        sh("mediactl set kParamReelNumber 9; mediactl set kParamMediaCommand 4")
        self.wait(volume="009", path=MAKER, mounts={"/mnt/S1": "rw"}, progress=0)
        self.assertEqual(["3", "0"] * 2, self.values("kParamProgressStatus"))
        sh("mediactl set kParamInvalidMediaAlert 0")
        self.out_and_in_again(image, "S1", "009")


class HostileCard(InUse):
    """What stands on a card leads nowhere else."""

    ELSEWHERE = "/run/elsewhere"

    def setUp(self):
        super().setUp()
        sh(f"rm -rf {self.ELSEWHERE} && mkdir -p {self.ELSEWHERE}/uploads && echo kept >{self.ELSEWHERE}/file")

    def assert_nothing_was_written(self):
        self.assertEqual(f"{self.ELSEWHERE}\n{self.ELSEWHERE}/file\n{self.ELSEWHERE}/uploads\n",
                         sh(f"find {self.ELSEWHERE} | sort"))
        self.assertEqual("kept\n", sh(f"cat {self.ELSEWHERE}/file"))

    def assert_guarded(self, access):
        line = sh("/bin/mount | grep ' on /mnt/S1 '")
        self.assertRegex(line, rf"\({access},")
        for flag in ("nosymfollow", "nodev", "nosuid", "noexec", "noatime"):
            self.assertRegex(line, rf"\b{flag}\b")

    def spoil(self, line):
        """Does that on the medium in use and takes it out and in again."""
        sh(f"cd /mnt/S1 && {line}")
        sh("mediactl slot next")
        self.wait(**IDLE, disks=[])
        sh("mediactl slot next")

    def test_every_mount_is_guarded(self):
        self.insert("second", "SECOND")
        self.assert_guarded("rw")
        self.assertEqual("", self.said())
        # Nobody follows a link on it, whoever makes it.
        sh(f"ln -s {self.ELSEWHERE} {MAKER}/link && ! echo x >{MAKER}/link/new && cp /bin/busybox {MAKER}/tool && ! {MAKER}/tool true")
        self.assert_nothing_was_written()

    def test_a_medium_that_can_only_be_read_is_guarded_too(self):
        recorder("insert", "S1", self.medium("journaled"))
        self.wait(selected=1, invalid=1, mounts={"/mnt/S1": "ro"})
        # Between two tries it is not mounted for a moment.
        self.wait_for(lambda: "nosymfollow" in sh("/bin/mount | grep ' on /mnt/S1 '; true"), "the medium is not guarded")
        sh("killall -STOP mediad")
        self.addCleanup(sh, "killall -CONT mediad")
        if sh("/bin/mount | grep ' on /mnt/S1 '; true"):
            self.assert_guarded("ro")

    def test_a_maker_directory_that_is_a_link(self):
        self.insert("second", "SECOND")
        self.spoil(f"mv NEVO KEPT && ln -s {self.ELSEWHERE} NEVO")
        self.wait(selected=1, change=11, alarms=bench.DAMAGED, invalid=1, path="", volume="N/A", link=None, mounts={})
        self.assertIn("refused a symbolic link on the medium: /mnt/S1/NEVO\n", self.said())
        sh("mediactl set kParamClipsToDelete file")
        self.assertEqual([], clip_names())
        self.assert_nothing_was_written()
        # Formatted, it is a medium like any other.
        self.addCleanup(sh, "mediactl set kParamReelNumber 0")
        sh("mediactl set kParamReelNumber 5; mediactl set kParamMediaCommand 4")
        self.wait(volume="005", path="/mnt/S1/NEVO", mounts={"/mnt/S1": "rw"}, progress=0, alarms=0)
        # The code of the failed selection and the alert stand until somebody takes them back.
        sh("mediactl set kParamSlotChangeCommand 0; mediactl set kParamInvalidMediaAlert 0")
        self.in_use("S1", "005", progress=0, command=0)
        self.assert_nothing_was_written()

    def test_an_upload_folder_and_a_note_that_are_links(self):
        self.insert("second", "SECOND")
        for line, refused in ((f"rm NEVO/.uploads/README.txt && ln -s {self.ELSEWHERE}/file NEVO/.uploads/README.txt",
                               "/mnt/S1/NEVO/.uploads/README.txt"),
                              (f"rm -r NEVO/.uploads && ln -s {self.ELSEWHERE}/uploads NEVO/.uploads", "/mnt/S1/NEVO/.uploads")):
            self.spoil(line)
            self.in_use("S1", "SECOND")
            self.assertIn(f"refused a symbolic link on the medium: {refused}\n", self.said())
            self.assertEqual(["Clip_0004"], clip_names())
            self.assert_nothing_was_written()


class Guards(InUse):
    """The tools that destroy a volume when it is mounted refuse to."""

    def refused(self, line, reason):
        status, out, error = bench.command("sh", line)
        self.assertNotEqual(0, status)
        self.assertEqual("", out)
        self.assertEqual([reason], error.splitlines())

    def test_a_mounted_volume_is_neither_checked_nor_formatted_nor_repartitioned(self):
        image = self.insert("clean", "REEL 7")
        disk = "/dev/" + self.wait()["disks"][0]
        node, before = f"{disk}2", files()
        busy = "is in use; it has to be unmounted first"
        for line, who in [(f"mkfs.hfsplus {node} -v LOST", "hold-device"), (f"fsck.hfsplus -q {node}", "fsck.hfsplus"),
                          (f"fsck.hfsplus {node}", "fsck.hfsplus")]:
            with self.subTest(line=line):
                self.refused(line, f"{who}: {node} {busy}")
        self.refused(f"mkfs.hfsplus {disk}", f"hold-device: {disk} {busy}")
        self.refused(f"fdisk.gpt {disk}", f"fdisk.gpt: {disk} is mounted read-write; it has to be unmounted first")
        # What is mounted read-only in one place is not, as long as something can still be written.
        sh(f"mkdir -p '/run/a %s b' && mount --bind /mnt/S1 '/run/a %s b' && mount -o remount,bind,ro '/run/a %s b'")
        self.refused(f"fdisk.gpt {disk}", f"fdisk.gpt: {disk} is mounted read-write; it has to be unmounted first")
        sh("umount '/run/a %s b'")
        self.out_and_in_again(image, "S1", "REEL 7")
        self.assertEqual(before, files())

    def test_a_disk_that_is_only_read_is_let_go_of_and_its_new_partition_waited_for(self):
        image = self.insert("clean", "REEL 7")
        disk = "/dev/" + self.wait()["disks"][0]
        node = f"{disk}2"
        # Nobody but this test works with the disk for a while.
        self.addCleanup(sh, f"mount {node} /mnt/S1; killall -CONT mediad")
        sh(f"killall -STOP mediad; umount /mnt/S1; mkdir -p '/run/a %s b'; mount -o ro {node} /mnt/S1; "
           f"mount -o ro {node} '/run/a %s b'")
        before = files()
        # In use by somebody: what is mounted cannot be let go of.
        self.refused(f"exec 3</mnt/S1/NEVO/Clip_0001.mov; fdisk.gpt {disk}",
                     f"fdisk.gpt: {disk} is mounted and cannot be unmounted")
        sh("/bin/mount | grep -q ' /mnt/S1 '")
        self.assertEqual(before, files())
        sh(f"mount -o ro {node} '/run/a %s b'")
        # The node of the new partition comes late, as it does where a daemon makes it.
        sh("mkdir -p /run/late && printf '%s\\n' '#!/bin/bash' '/usr/sbin/sfdisk \"$@\" || exit' "
           f"'rm {node}; ( sleep 1; mknod {node} b $(tr : \" \" </sys/class/block/{node[5:]}/dev) ) >/dev/null 2>&1 &' "
           ">/run/late/sfdisk && chmod +x /run/late/sfdisk")
        self.assertEqual("there\n", sh(f"PATH=/run/late:$PATH fdisk.gpt {disk} && [ -b {node} ] && echo there"))
        self.assertNotIn(f"{node} ", sh("/bin/mount"))
        sh(f"rmdir '/run/a %s b'; rm -r /run/late; mkfs.hfsplus {node} -v NEW >/dev/null; fsck.hfsplus -q {node} 2>/dev/null")
        self.assertEqual("NEW", sh(f"volname.hfsplus {node} | awk -F': ' '{{printf $2}}'"))
        bench.check_volume(image)
