#!/usr/bin/env python3
"""Whole stories on the virtual recorder: media come and go, and everything that the recorder then shows is checked.

  scenarios.py prepare | clean-up | CLASS | CLASS.test

The environment names the folder for the recorder and its media (RECORDER_TEST_FOLDER) and the build whose programs run
(RECORDER_TEST_PROGRAMS).
"""

import re
import sys
import unicodedata
import unittest

sys.dont_write_bytecode = True

import bench  # noqa: E402
from bench import CRITICAL, DAMAGED, IDLE, LOW, REMOVED, UNFORMATTED, Scenario, recorder, sh, volume_header  # noqa: E402
from firewire_access import Firewire  # noqa: E402, F401
from medium_in_use import CLIPS, Deletion, Formatting, Guards, HostileCard, Playlists  # noqa: E402, F401
from medium_in_use import Recording, clip_names  # noqa: E402, F401

README = "This directory contains temporary upload files - DO NOT PUT YOUR FILES INTO THIS FOLDER!!! THEY WILL BE DELETED!!!\n"


def without_device(text):
    """The same disk may come back under another name."""
    return re.sub(r"/dev/sd[a-z]2", "/dev/DISK2", text)


class Use(Scenario):
    """A clean medium goes into use, with everything that belongs to it."""

    def test_a_clean_medium_goes_into_use_within_three_passes(self):
        sh(bench.TRACE_ON)
        recorder("insert", "S1", self.medium("clean"))
        state = self.in_use("S1", "REEL 7", present=["S1"])
        trace = sh(bench.TRACE_OFF)

        self.assertEqual(1, len(state["disks"]))
        self.assertGreater(state["changed"], 1_700_000_000)
        used = int(sh("df | grep /mnt/S1 | awk '{ print $5 }'").strip().rstrip("%"))
        self.wait(capacity=100 - used)
        self.assertEqual(README, sh("cat /mnt/S1/NEVO/.uploads/README.txt"))
        self.assertIn("[none]", sh(f"cat /sys/block/{state['disks'][0]}/queue/scheduler"))
        self.assertIn("noatime", sh("/bin/mount | grep /mnt/S1"))
        self.assertEqual(CLIPS, clip_names())
        self.assertEqual("", self.said())

        self.assertEqual(["1", "0"], self.values("kParamMediaLoadingStatus"))
        self.assertEqual(["1"], self.values("kParamSelectedSlot"))
        self.assertEqual(["REEL 7"], self.values("kParamVolumeName"))
        self.assertEqual(["1"], self.values("0x7b05010a"))
        self.assertEqual([], self.values("0x7b05020a"))
        self.assertEqual([], self.values("kParamAlarms"))

        # One at least: the check and the mount for use are never in the same pass.
        self.assertIn(bench.passes_until_in_use(trace), (1, 2, 3), trace)

    def test_the_other_slot_stays_dark(self):
        recorder("insert", "S2", self.medium("second"))
        self.in_use("S2", "SECOND", present=["S2"])
        self.assertEqual(["1"], self.values("0x7b05020a"))
        self.assertEqual([], self.values("0x7b05010a"))
        self.assertEqual(["Clip_0004"], clip_names())

    def test_names_of_volumes_reach_the_recorder_whole(self):
        # The daemon's line: awk reads the tool's output as fields and as a format.
        line = "volname.hfsplus /run/v | awk -F': ' '{printf $2}'"
        for label in ("untitled", "50% off %s", "No such device", r"tab\t \n", "A  B", "Käse 日本"):
            with self.subTest(label=label):
                sh(f"rm -f /run/v; truncate -s 8M /run/v; mkfs.hfsplus /run/v -v '{label}' >/dev/null")
                self.assertEqual(label, unicodedata.normalize("NFC", sh(line)))
                self.assertNotIn("No such device", sh("volname.hfsplus /run/v 2>&1"))
        sh("rm /run/v")

    def test_no_such_device_is_said_where_there_is_no_volume(self):
        self.assertIn("No such device", sh("volname.hfsplus /dev/sdz2 2>&1; true"))
        self.assertIn("No such device", sh("truncate -s 8M /run/v; volname.hfsplus /run/v 2>&1; rm /run/v"))
        self.assertIn("No such device", sh("truncate -s 100 /run/v; volname.hfsplus /run/v 2>&1; rm /run/v"))


class Conditions(Scenario):
    """Media that are not as they should be."""

    def test_a_dirty_medium_is_repaired_and_goes_into_use(self):
        image = self.medium("dirty")
        clean, free = volume_header(image)
        self.assertFalse(clean)
        recorder("insert", "S1", image)
        self.in_use("S1", "DIRTY")
        self.assertEqual(["Clip_0004"], clip_names())
        self.assertEqual("", self.said())
        # Let go of in order, the volume shows what the repair did: sixteen lost blocks are free again. The folder for
        # uploads and its file have taken one of them.
        sh("mediactl slot next")
        self.wait(selected=0, mounts={}, disks=[])
        recorder("eject", "S1")
        clean, free_now = volume_header(image)
        self.assertTrue(clean)
        self.assertGreater(free_now, free)

    def test_an_unformatted_medium_gives_10_and_its_alarm_and_stays_selected(self):
        recorder("insert", "S1", self.medium("unformatted"))
        wanted = {**IDLE, "selected": 1, "change": 10, "alarms": UNFORMATTED, "volume": "N/A", "invalid": 1, "loading": 0,
                  "present": ["S1"]}
        self.wait(**wanted)
        # It stays so however often the loop tries.
        tries = lambda: without_device(self.said()).count("Could not repair /dev/DISK2, result:0x8\n")
        seen = tries()
        self.wait_for(lambda: tries() >= seen + 2, "the loop does not go on")
        self.wait(**wanted)
        self.assertEqual(["1"], self.values("kParamSelectedSlot"))
        # Between the daemon's own lines stand those of its tools.
        own = [line for line in without_device(self.said()).splitlines() if line.startswith("Media")]
        self.assertEqual({"MediaManager::fsckSlot: Could not repair /dev/DISK2, result:0x8",
                          "Media Managerfailure repairing slot for /mnt/S1"}, set(own))

        sh("mediactl slot next")
        self.wait(**{**IDLE, "invalid": 1}, volume="N/A", disks=[], present=["S1"])

    def test_a_damaged_medium_gives_11_and_no_name(self):
        recorder("insert", "S1", self.medium("damaged"))
        wanted = {**IDLE, "selected": 1, "change": 11, "alarms": DAMAGED, "volume": "N/A", "invalid": 1, "loading": 0,
                  "present": ["S1"]}
        self.wait(**wanted)
        # Two attempts, each with one repair, before it is given up.
        code = self.events().index(("kParamSlotChangeCommand", "11"))
        self.assertEqual(2, self.events()[:code].count(("kParamInvalidMediaAlert", "1")))
        lines = [line for line in without_device(self.said()).splitlines() if "fsckSlot" in line or "failure" in line]
        self.assertEqual(["MediaManager::fsckSlot: Could not repair /dev/DISK2, result:0x8",
                          "Media Managerfailure repairing slot for /mnt/S1"] * 2, lines[:4])

        sh("mediactl slot next")
        self.wait(**{**IDLE, "invalid": 1}, volume="N/A", disks=[], present=["S1"])

    def test_a_journaled_medium_is_mounted_read_only_and_raises_the_alert(self):
        recorder("insert", "S1", self.medium("journaled"))
        # Mounted anew in every pass, for reading only, and so never in use.
        self.wait(selected=1, change=0, alarms=0, invalid=1, volume="JOURNAL", path="", loading=0, mounts={"/mnt/S1": "ro"},
                  led1=1, panel1=1)
        self.assertRegex(self.said(), r"Media Managermount failed or read-only mount for: /dev/sd[a-z]2 on /mnt/S1 "
                                      r"output was: /dev/sd[a-z]2 on /mnt/S1 type hfsplus \(ro,")
        self.assertLessEqual(set(self.values("kParamStoragePath")), {""})
        self.assertEqual({"1"}, set(self.values("kParamInvalidMediaAlert")))
        self.assertEqual(["Clip_0004"], clip_names())
        self.assertNotEqual(0, bench.command("sh", "ls -d /mnt/S1/NEVO/.uploads 2>/dev/null")[0])


class Selection(Scenario):
    """Two slots, one medium in use."""

    def second_beside_first(self):
        first, second = self.medium("clean"), self.medium("second")
        recorder("insert", "S1", first)
        disks = self.in_use("S1", "REEL 7")["disks"]
        recorder("insert", "S2", second)
        # The kernel forgets the second one as soon as the loop has seen it.
        self.in_use("S1", "REEL 7", disks=disks, present=["S1", "S2"])
        return first, second

    def test_a_second_medium_is_put_off_the_bus(self):
        _, second = self.second_beside_first()
        # It can be taken out and put in as if nothing had happened.
        for way in ("eject", "yank"):
            with self.subTest(way=way):
                recorder(way, "S2")
                disks = self.in_use("S1", "REEL 7", present=["S1"])["disks"]
                recorder("insert", "S2", second)
                self.in_use("S1", "REEL 7", disks=disks, present=["S1", "S2"])
        self.assertEqual(1, len(disks))
        self.assertEqual([], self.values("0x7b05020a"))
        self.assertEqual(["1"], self.values("kParamSelectedSlot"))
        self.assertEqual([], self.values("kParamAlarms"))
        self.assertEqual("", self.said())

    def test_a_slot_change_releases_the_medium_and_a_second_one_takes_the_next(self):
        first, _ = self.second_beside_first()
        sh("mediactl slot next")
        self.wait(**IDLE, volume="N/A", disks=[], link=None, present=["S1", "S2"])
        self.assertTrue(volume_header(first)[0])
        self.assertEqual("1 0", " ".join(self.values("0x7b05010a")[:2]))
        sh("mediactl slot next")
        state = self.in_use("S2", "SECOND", present=["S1", "S2"])
        self.assertEqual(1, len(state["disks"]))
        self.assertEqual(["Clip_0004"], clip_names())
        # And around.
        sh("mediactl slot next")
        self.wait(**IDLE, volume="N/A", disks=[])
        sh("mediactl slot next")
        self.in_use("S1", "REEL 7")
        self.assertEqual(CLIPS, clip_names())
        self.assertEqual("", self.said())

    def test_a_medium_that_another_process_uses_is_kept(self):
        self.second_beside_first()
        sh("mediactl acquire")
        self.wait(command=0)
        status, _, error = bench.command("sh", "mediactl slot next")
        self.assertEqual(1, status)
        self.assertEqual(1, len(error.splitlines()), error)
        self.in_use("S1", "REEL 7", change=15)
        # The selection is said once more, so that whoever asked sees it.
        self.assertEqual(["1", "1"], self.values("kParamSelectedSlot"))
        sh("mediactl release")
        self.wait(command=0)
        sh("mediactl slot next")
        self.wait(**IDLE)
        self.assertEqual("", self.said())


class Capacity(Scenario):
    """A medium that fills up."""

    def fill(self, percent):
        """Leaves about so much of the medium; returns what remains by the reckoning of df."""
        sh(f"set -- $(df -k | grep /mnt/S1); head -c $((($4 - ($3 + $4) * {percent} / 100) * 1024)) /dev/zero "
           f"> /mnt/S1/fill-{percent} && sync")
        return 100 - int(sh("df | grep /mnt/S1 | awk '{ print $5 }'").strip().rstrip("%"))

    def alarm_words(self):
        """What the alarms became, without the moment between the change of one bit and that of the next."""
        values = self.values("kParamAlarms")
        return [value for i, value in enumerate(values) if value != "0" or i == len(values) - 1]

    def test_low_and_critical_come_and_go_with_the_space(self):
        recorder("insert", "S1", self.medium("small"))
        self.in_use("S1", "SMALL")
        remaining = self.fill(13)
        self.assertIn(remaining, range(11, 16))
        self.in_use("S1", "SMALL", capacity=remaining, alarms=LOW)
        remaining = self.fill(7)
        self.assertIn(remaining, range(1, 11))
        self.in_use("S1", "SMALL", capacity=remaining, alarms=CRITICAL)
        sh("rm /mnt/S1/fill-*; sync")
        self.assertGreater(self.in_use("S1", "SMALL", alarms=0)["capacity"], 15)
        self.assertEqual([str(LOW), str(CRITICAL), "0"], self.alarm_words())

    def test_letting_go_of_a_full_medium_clears_its_alarm(self):
        recorder("insert", "S1", self.medium("small"))
        self.in_use("S1", "SMALL")
        self.fill(7)
        self.in_use("S1", "SMALL", alarms=CRITICAL)
        sh("mediactl slot next")
        self.wait(**IDLE)


class Removal(Scenario):
    """The medium in use is taken out."""

    def remove(self, way):
        image = self.medium("clean")
        recorder("insert", "S1", image)
        self.in_use("S1", "REEL 7")
        recorder(way, "S1")
        self.assert_ended_and_came_back()
        # The alarm stays; code and lights are those of a daemon that has just started.
        self.wait(**{**IDLE, "alarms": REMOVED}, loading=0, disks=[], present=[])
        # What the one that left had shown: alarm, code, light.
        events = self.events("kParamAlarms", "kParamSlotChangeCommand", "0x7b05010a", "kParamMediaDaemonStatus")
        code = events.index(("kParamSlotChangeCommand", "14"))
        self.assertEqual([("kParamAlarms", str(REMOVED)), ("kParamSlotChangeCommand", "14"), ("0x7b05010a", "0"),
                          ("kParamMediaDaemonStatus", "5")], events[code - 1:code + 3])
        return image

    def put_back(self, image):
        recorder("insert", "S1", image)
        self.in_use("S1", "REEL 7", alarms=REMOVED)
        self.assertEqual(CLIPS, clip_names())

    def test_eject_and_return(self):
        image = self.remove("eject")
        # The recorder noticed while the disk was still there: nothing was lost.
        self.assertTrue(volume_header(image)[0])
        self.put_back(image)

    def test_yank_and_return(self):
        image = self.remove("yank")
        # Nobody could unmount it: it needs the repair that it gets when it returns.
        self.assertFalse(volume_header(image)[0])
        self.put_back(image)


class Power(Scenario):
    """The daemon's and the recorder's beginning and end."""

    SYNC = "Media ManagerAlarm handleTermOrKillSignal: Syncing drives..."

    def end(self, ending, *messages):
        """Ends the daemon while nobody starts it again: what it leaves behind, and the same medium afterwards."""
        image = self.medium("clean")
        recorder("insert", "S1", image)
        self.in_use("S1", "REEL 7")
        sh("killall -STOP keep-mediad")
        sh(ending)
        # Its keeper is stopped and cannot bury it.
        self.wait_for(lambda: sh("grep -l '^State:.Z' $(pidof mediad | sed 's|[0-9]*|/proc/&/status|') /dev/null; true"),
                      "mediad does not end")
        self.wait(mounts={}, disks=[], path="", status=6, link=None, led1=0, panel1=0)
        self.assertTrue(volume_header(image)[0])
        sh("killall -CONT keep-mediad")
        self.assert_ended_and_came_back(*messages)
        # The medium is still in its slot, and what was selected is preferred.
        self.in_use("S1", "REEL 7", system=0)

    def test_a_termination_signal_unmounts_and_leaves_with_0(self):
        self.end("kill -TERM $(pidof mediad)", self.SYNC)

    def test_system_command_8_unmounts_and_leaves_with_0(self):
        self.end("mediactl set kParamSystemCommand 8")
        # Before it is started again the command is taken back, or it would end the new one.
        self.assertEqual(["8", "0"], self.values("kParamSystemCommand"))

    def test_power_on_with_a_medium_in_a_slot_ends_with_it_in_use(self):
        image = self.medium("second")
        recorder("down")
        recorder("insert", "S2", image)
        self.assertEqual((1, "", "virtual-recorder: the recorder is off\n"), bench.command("sh", "true"))
        recorder("up")
        self._log_start = 0
        self.in_use("S2", "SECOND", present=["S2"])
        self.assertEqual(["Clip_0004"], clip_names())
        self.assertEqual("Media Managerstarting MediaManager\n", self.said())
        # Off in order: unmounted first.
        recorder("down")
        self.assertTrue(volume_header(image)[0])
        # The watch of the medium went with its mount.
        said = re.sub(r"_fd \d+, _wd \d+", "_fd N, _wd N", self.said())
        self.assertEqual(["Media Managerstarting MediaManager", self.SYNC, "Media Manager Cleaning up...",
                          "inotify_rm_watch failed for _fd N, _wd N, Invalid argument", "Media Manager Leaving mediad...",
                          "mediad ended: status 0"], said.splitlines())


class Commands(Scenario):
    """The virtual recorder's own commands."""

    def test_what_cannot_be_done_is_said_in_one_line(self):
        image = self.medium("clean")
        recorder("insert", "S2", image)
        for words, reason in [(("insert", "S3", image), "there is no slot S3"),
                              (("insert", "S1", bench.FOLDER / "nothing.img"), "there is no medium"),
                              (("insert", "S2", image), "slot S2 holds a medium already"),
                              (("insert", "S1", image), "is in the other slot"),
                              (("eject", "S1"), "slot S1 is empty"),
                              (("yank", "S1"), "slot S1 is empty"),
                              (("sh", "--timeout", "1", "sleep 1000"), "did not end within 1 s"),
                              (("terminal",), "a terminal is needed")]:
            with self.subTest(words=words):
                status, out, error = bench.command(*words)
                self.assertEqual((1, ""), (status, out))
                self.assertEqual(1, len(error.splitlines()), error)
                self.assertIn(reason, error)
        self.assertEqual(2, bench.command("fly")[0])
        self.assertEqual("", sh("ps | grep 'sleep [1]000'; true"))

    def test_output_and_exit_status_come_back(self):
        self.assertEqual((3, "out\n", "err\n"), bench.command("sh", "echo out; echo err >&2; exit 3"))
        self.assertEqual((137, "", ""), bench.command("sh", "kill -KILL $$"))
        self.assertEqual((0, "", ""), bench.command("sh", "cat"))  # nobody types


def main():
    match sys.argv[1:]:
        case ["prepare"]:
            bench.prepare()
        case ["clean-up"]:
            recorder("down")
        case [name]:
            suite = unittest.defaultTestLoader.loadTestsFromName(name, sys.modules[__name__])
            sys.exit(not unittest.TextTestRunner(verbosity=2).run(suite).wasSuccessful())
        case _:
            print(__doc__.strip(), file=sys.stderr)
            sys.exit(2)


main()
