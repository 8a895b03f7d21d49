"""Media that come and go: real netlink datagrams, real registers, real shared memory; only the tools pretend."""

import os
import signal
import struct
import subprocess
import unittest

from world import BOARD, NAME, World, eventually, get, mediactl, read, write

ALARMS = {"removed": 0x10000, "unformatted": 0x800000, "damaged": 0x1000000, "low": 0x2000, "critical": 0x4000}
LED_PARAMETER = "0x50000001"


def alarm(name):
    return int(get("kParamAlarms")) & ALARMS[name] != 0


def led(slot):
    return mediactl("card", "read", "62", "--mask", hex(1 << slot), "--shift", str(slot))


class Media(World):
    def setUp(self):
        super().setUp()
        self.daemon = self.start().running()

    def test_inserted_medium_goes_into_use(self):
        self.insert(0, "sdb")
        self.in_use()
        node = "/dev/sdb2"
        self.assertEqual(get("kParamSelectedSlot"), "1")
        self.assertEqual(get("kParamVolumeName"), "DAY 1")
        self.assertEqual(get("kParamMediaLoadingStatus"), "0")
        eventually(lambda: led(0) in ("1", "0x1", "0x00000001"), "the LED")
        eventually(lambda: get(LED_PARAMETER) == "1", "the LED parameter")
        self.assertEqual(os.readlink("/var/www/media"), "/mnt/S1/NEVO")
        self.assertTrue(os.path.isfile("/mnt/S1/NEVO/.uploads/README.txt"))
        self.assertEqual(read("/run/world/mounts"), f"{node} on /mnt/S1 type hfsplus (rw,noatime)\n")
        # Three checks and mounts: tried, scanned, in use.
        calls = [line for line in self.journal() if line.startswith(("fsck.hfsplus", "mount -o", "umount"))]
        check, mount = f"fsck.hfsplus -q {node}", f"mount -onoatime {node} /mnt/S1"
        self.assertEqual(calls, [check, mount, "umount -l /mnt/S1", check, mount, "umount /mnt/S1", check, mount])

    def test_mounted_medium_is_guarded(self):
        self.insert(0, "sdb")
        self.in_use()
        mounts = [line.split() for line in read("/proc/self/mounts").splitlines()]
        flags = [options.split(",") for _, point, _, options, *_ in mounts if point == "/mnt/S1"]
        self.assertEqual(len(flags), 1)
        for flag in ("nosymfollow", "nodev", "nosuid", "noexec"):
            self.assertIn(flag, flags[0])
        self.assertEqual(self.daemon.lines(), [NAME + "starting MediaManager"])

    def test_maker_directory_that_is_a_link_is_left_alone(self):
        os.makedirs("/run/world/elsewhere", exist_ok=True)
        os.makedirs("/mnt/S1", exist_ok=True)
        subprocess.run(["rm", "-rf", "/mnt/S1/NEVO"], check=True)
        os.symlink("/run/world/elsewhere", "/mnt/S1/NEVO")
        self.addCleanup(os.unlink, "/mnt/S1/NEVO")
        self.insert(0, "sdb")
        eventually(lambda: get("kParamSlotChangeCommand") == "11", "answer 11")
        self.assertTrue(alarm("damaged"))
        self.assertEqual(get("kParamInvalidMediaAlert"), "1")
        self.assertEqual(get("kParamSelectedSlot"), "1")
        mediactl("delete", "--yes", "--timeout", "1", "a.mov", check=False)
        self.assertEqual(os.listdir("/run/world/elsewhere"), [])
        self.assertEqual(get("kParamStoragePath"), "")
        self.assertIn(NAME + "refused a symbolic link on the medium: /mnt/S1/NEVO", self.daemon.lines())

    def test_full_shared_memory_is_one_line_and_no_crash(self):
        self.daemon.stop()
        subprocess.run(["real-mount", "-t", "tmpfs", "-o", "size=1m,mode=1777", "shm", "/dev/shm"], check=True)
        self.addCleanup(subprocess.run, ["real-umount", "-l", "/dev/shm"], check=True)
        mediactl("card", "create")
        self.daemon = self.start().running()
        self.insert(0, "sdb")
        self.in_use()
        self.assertIn(NAME + "activateSlot: the shared clip cache cannot be used: No space left on device", self.daemon.lines())
        # Whoever looks does not crash either.
        answer = mediactl("clips", check=False)
        self.assertEqual((answer.returncode, answer.stderr), (0, "mediactl: no medium cache yet\n"))

    def test_dirty_medium_is_repaired(self):
        self.insert(0, "sdb", "dirty")
        self.in_use()
        self.assertIn("fsck.hfsplus /dev/sdb2", self.journal())

    def test_unformatted_medium_stays_selected_with_its_alarm(self):
        self.insert(0, "sdb", "unformatted")
        eventually(lambda: get("kParamSlotChangeCommand") == "10", "answer 10")
        self.assertTrue(alarm("unformatted"))
        self.assertEqual(get("kParamSelectedSlot"), "1")
        self.assertEqual(get("kParamStoragePath"), "")

    def test_damaged_medium(self):
        self.insert(0, "sdb", "damaged")
        eventually(lambda: get("kParamSlotChangeCommand") == "11", "answer 11")
        self.assertTrue(alarm("damaged"))
        self.assertEqual(get("kParamVolumeName"), "N/A")
        self.assertEqual(get("kParamSelectedSlot"), "1")
        self.assertEqual(get("kParamInvalidMediaAlert"), "1")
        self.assertIn("MediaManager::fsckSlot: Could not repair /dev/sdb2, result:0x8", self.daemon.lines())
        self.assertIn(NAME + "failure repairing slot for /mnt/S1", self.daemon.lines())

    def test_read_only_medium(self):
        self.insert(0, "sdb", "readonly")
        eventually(lambda: get("kParamInvalidMediaAlert") == "1", "the alert")
        eventually(lambda: get("kParamSelectedSlot") == "1", "the selection")
        self.assertEqual(get("kParamStoragePath"), "")
        self.assertTrue(any(line.startswith(NAME + "mount failed or read-only mount for: /dev/sdb2 on /mnt/S1 output was: ")
                            for line in self.daemon.lines()))

    def test_second_medium_is_put_off_the_bus(self):
        self.insert(0, "sdb")
        self.in_use()
        self.insert(1, "sdc")
        eventually(lambda: read("/sys/block/sdc/device/delete") == "1", "the second disk to be deleted")
        self.assertEqual(get("kParamSelectedSlot"), "1")

    def test_slot_change_releases_and_takes_the_next(self):
        self.insert(0, "sdb")
        self.in_use()
        mediactl("slot", "next")
        eventually(lambda: get("kParamSelectedSlot") == "0", "the release")
        self.assertEqual(get("kParamVolumeName"), "N/A")
        self.assertEqual(read("/sys/block/sdb/device/delete"), "1")
        self.uevents.send("remove", "sdb", 0)
        self.insert(1, "sdc", label="DAY 2")
        self.in_use("S2")
        self.assertEqual(get("kParamVolumeName"), "DAY 2")

    def test_acquired_storage_keeps_its_slot(self):
        self.insert(0, "sdb")
        self.in_use()
        mediactl("acquire")
        answer = mediactl("slot", "next", check=False)
        self.assertEqual(answer.returncode, 1)
        self.assertEqual(get("kParamSlotChangeCommand"), "15")
        self.assertEqual(get("kParamSelectedSlot"), "1")
        mediactl("release")
        mediactl("slot", "next")
        eventually(lambda: get("kParamSelectedSlot") == "0", "the release")

    def test_spurious_release(self):
        mediactl("release")
        eventually(lambda: NAME + "spurious release storage message!" in self.daemon.lines(), "the message")

    def test_capacity_alarms(self):
        write("/run/world/used", "85")
        self.insert(0, "sdb")
        self.in_use()
        eventually(lambda: get("kParamCapacityRemaining") == "15" and alarm("low"), "capacity low")
        write("/run/world/used", "90")
        eventually(lambda: get("kParamCapacityRemaining") == "10" and alarm("critical"), "capacity critical")
        self.assertFalse(alarm("low"))
        write("/run/world/used", "50")
        eventually(lambda: get("kParamCapacityRemaining") == "50" and not alarm("critical"), "the end of the alarms")

    def gone(self):
        self.assertEqual(self.daemon.wait(), 0)
        lines = self.daemon.lines()
        self.assertEqual(lines[-2:], [NAME + " Cleaning up...", NAME + " Leaving mediad..."])

    def with_paramd(self):
        """Values are looked at after the daemon has gone, so somebody else must hold them."""
        from world import BUILD
        self.daemon.stop()
        host = subprocess.Popen([BUILD + "/platform/parameter_store/paramd"], stderr=subprocess.DEVNULL)
        self.addCleanup(host.wait)
        self.addCleanup(host.kill)
        eventually(lambda: mediactl("get", "kParamReelNumber", check=False).returncode == 0, "paramd")
        self.daemon = self.start().running()

    def pulled(self, pin_first):
        self.with_paramd()
        mediactl("set", "kParamAlarms", "0x40000000")  # somebody else's bit
        self.insert(0, "sdb")
        self.in_use()
        if pin_first:
            self.pin(0, False)
        self.uevents.send("remove", "sdb", 0)
        self.pin(0, False)
        self.gone()
        self.assertTrue(alarm("removed"))
        self.assertTrue(int(get("kParamAlarms")) & 0x40000000)
        self.assertEqual(get("kParamSlotChangeCommand"), "14")
        self.assertEqual(int(led(0), 0), 0)
        self.assertEqual(get(LED_PARAMETER), "0")
        self.assertEqual(get("kParamMediaDaemonStatus"), "6")
        # Started again, it takes the medium back when it returns.
        self.daemon = self.start().running()
        self.insert(0, "sdb")
        self.in_use()

    def test_ejected_medium_ends_the_daemon_in_order(self):
        self.pulled(pin_first=True)

    def test_yanked_medium_ends_the_daemon_in_order(self):
        self.pulled(pin_first=False)

    def test_medium_in_the_slot_at_power_on(self):
        self.daemon.stop()
        self.disk("sdb", label="EARLY")
        self.pin(0, True)
        # The driver's scan makes the kernel repeat its announcements; here the scan of the slot's bus does.
        self.daemon = self.start()
        eventually(lambda: read("/run/world/scan0") == "0 0 0\n", "the probe of the slot's bus")
        self.uevents.send("add", "sdb", 0)
        self.in_use()
        self.assertEqual(get("kParamVolumeName"), "EARLY")
        self.assertEqual(get("kParamMediaLoadingStatus"), "0")

    def test_termination_unmounts(self):
        self.insert(0, "sdb")
        self.in_use()
        self.daemon.process.send_signal(signal.SIGTERM)
        self.gone()
        self.assertEqual(read("/run/world/mounts"), "")
        self.assertFalse(os.path.lexists("/var/www/media"))

    def test_swapped_medium_is_taken_anew(self):
        self.insert(0, "sdb")
        self.in_use()
        # Out and in again under another name, too fast for the pin.
        self.uevents.send("remove", "sdb", 0)
        self.insert(0, "sdc", label="OTHER")
        eventually(lambda: get("kParamVolumeName") == "OTHER", "the other medium")
        self.in_use()
        self.assertIn("mount -onoatime /dev/sdc2 /mnt/S1", self.journal())

    def test_hostile_device_name_never_reaches_a_command(self):
        self.pin(0, True)
        self.uevents.send("add", "sdb;touch${IFS}/run/world/owned", 0)
        self.insert(0, "sdb")
        self.in_use()
        self.assertFalse(os.path.exists("/run/world/owned"))

    def test_remount_command(self):
        self.insert(0, "sdb")
        self.in_use()
        write("/run/world/label/sdb", "RENAMED")
        mediactl("remount")
        # The release puts the disk off the bus; asked for again, it is announced anew.
        eventually(lambda: read("/run/world/scan0") == "0 0 0\n" or get("kParamVolumeName") == "RENAMED", "the remount")
        self.uevents.send("add", "sdb", 0)
        eventually(lambda: get("kParamVolumeName") == "RENAMED", "the new name")

    def test_no_descriptor_and_no_signal_mask_reaches_a_tool(self):
        self.daemon.stop()
        self.board(BOARD.replace("echo driver_scan >> /run/world/journal",
                                 "ls /proc/self/fd > /run/world/fds; grep Sig /proc/self/status > /run/world/signals; umask > /run/world/umask"))
        self.daemon = self.start().running()
        self.assertEqual(read("/run/world/umask").strip(), "0022")
        # 0, 1, 2 and the one that ls itself opens.
        self.assertLessEqual(len(read("/run/world/fds").split()), 5)
        self.assertIn("SigBlk:\t0000000000000000", read("/run/world/signals"))

    def test_segments_can_be_read_by_everybody(self):
        self.insert(0, "sdb")
        self.in_use()
        for name in ("NewCacheSharedClipCache_shm", "NewCacheSharedPlaylistCache_shm",
                     "sem.NewCacheSharedClipCache_mutex", "sem.NewCacheSharedPlaylistCache_mutex"):
            self.assertEqual(os.stat("/dev/shm/" + name).st_mode & 0o777, 0o777, name)
        with open("/dev/shm/NewCacheSharedClipCache_shm", "rb") as segment:
            head = segment.read(19)
            self.assertEqual(head[:15], b"SharedClipCache")
            self.assertEqual(struct.unpack("=I", head[15:])[0], 0)


if __name__ == "__main__":
    unittest.main(verbosity=2)
