"""The life of the process: ways to start, ways to end, exit statuses and the lines on standard error."""

import glob
import os
import resource
import shutil
import signal
import socket
import struct
import subprocess
import unittest

from world import BUILD, DEADLINE, NAME, BOARD, World, eventually, get, mediactl, read, write

START_FAILED = 255


class Start(World):
    def ended(self, *arguments):
        daemon = self.start(*arguments)
        status = daemon.wait()
        return status, daemon.lines()

    def test_missing_specification_is_an_empty_text(self):
        os.unlink("/usr/local/share/specs/0000ec01.specification")
        status, lines = self.ended()
        self.assertEqual(status, START_FAILED)
        self.assertEqual(lines, [NAME + " specification file does not contain a board id.",
                                 NAME + "Failed to parse specification"])

    def test_specification_of_zero_bytes_and_of_one(self):
        for text in ("", " "):
            self.board(text)
            status, lines = self.ended()
            self.assertEqual(status, START_FAILED)
            self.assertEqual(lines, [NAME + " specification file does not contain a board id.",
                                     NAME + "Failed to parse specification"])

    def test_specification_that_is_a_directory(self):
        os.unlink("/usr/local/share/specs/0000ec01.specification")
        os.mkdir("/usr/local/share/specs/0000ec01.specification")
        self.addCleanup(os.rmdir, "/usr/local/share/specs/0000ec01.specification")
        status, lines = self.ended()
        self.assertEqual(status, START_FAILED)
        self.assertEqual(lines, ["::read_file - read failed to read enough data",
                                 NAME + " specification file does not contain a board id.",
                                 NAME + "Failed to parse specification"])

    def test_specification_is_cut_at_a_nul_byte(self):
        # What stands behind the byte would be an error.
        self.board(BOARD.encode() + b"\0 this is no Lua")
        self.start().running()

    def test_specification_too_large_for_memory(self):
        with open("/usr/local/share/specs/0000ec01.specification", "w") as file:
            os.truncate(file.fileno(), 1 << 42)
        status, lines = self.ended()
        self.assertEqual(status, START_FAILED)
        # A sanitizer's allocator adds a line of its own.
        lines = [line for line in lines if not line.startswith("==")]
        self.assertIn(lines[0], ("::read_file - malloc failed", "::read_file - read failed to read enough data"))
        self.assertEqual(lines[-1], NAME + "Failed to parse specification")

    def test_wrong_board_id(self):
        self.board(BOARD.replace("0xec01", "0xec02"))
        status, lines = self.ended()
        self.assertEqual(status, START_FAILED)
        self.assertEqual(lines, [NAME + " board id in spec file, 0x0000ec02, does not match expected board id, 0x0000ec01",
                                 NAME + "Failed to parse specification"])

    def test_store_that_cannot_be_hosted(self):
        write("/run/mediad", "a file where the store's directory belongs")
        status, lines = self.ended()
        self.assertEqual(status, START_FAILED)
        self.assertEqual(lines[-1], NAME + "Failed to create a Config class")

    def test_store_host_that_goes_away_during_the_start(self):
        os.makedirs("/run/mediad", exist_ok=True)
        host = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        host.bind("/run/mediad/store.sock")
        host.listen()
        self.addCleanup(host.close)
        daemon = self.start()
        client, _ = host.accept()
        # Packets: version 1, type, the request's number; then the body.
        hello = struct.unpack("!HHI", client.recv(65536)[:8])
        self.assertEqual(hello[:2], (1, 1))
        client.send(struct.pack("!HHIQI", 1, 32, hello[2], 7, 1))
        subscribe = struct.unpack("!HHI", client.recv(65536)[:8])
        self.assertEqual(subscribe[:2], (1, 5))
        client.send(struct.pack("!HHIi", 1, 33, subscribe[2], 0))
        client.close()
        host.close()
        self.assertEqual(daemon.wait(), START_FAILED)
        # The store's own thread may have its word about the loss before or after.
        self.assertIn(NAME + "Failed to create an Event class", daemon.lines())

    def test_a_listener_without_a_thread_ends_the_start(self):
        with open(BUILD + "/daemon/mediad", "rb") as program:
            if b"__ubsan_" in program.read():
                self.skipTest("the undefined-behaviour sanitizer needs descriptors to look at a type")
        # The board file waits at the gate. Behind it there is one descriptor left, for the socket, and none for what wakes
        # the thread.
        os.mkfifo("/run/world/gate")
        self.board(BOARD + "\nlocal gate = io.open('/run/world/gate') gate:read('*a') gate:close()\n")
        daemon = self.start()
        gate = os.open("/run/world/gate", os.O_WRONLY)
        files = f"/proc/{daemon.process.pid}/fd/"

        def used():
            names = {int(number): os.readlink(files + number) for number in os.listdir(files)}
            return "/run/world/gate" in names.values() and names

        names = eventually(used, "the daemon at the gate")
        left = [number for number in range(len(names) + 2) if names.get(number) in (None, "/run/world/gate")]
        resource.prlimit(daemon.process.pid, resource.RLIMIT_NOFILE, (left[1], 4096))
        os.close(gate)
        self.assertEqual(daemon.wait(), START_FAILED)
        self.assertEqual(daemon.lines()[-1], NAME + "listen: Too many open files")

    def test_without_a_card_the_daemon_runs(self):
        os.unlink("/dev/shm/mediad-card")
        daemon = self.start().running()
        self.assertIn(NAME + "Can't find the card!", daemon.lines())

    def test_a_second_instance_says_so(self):
        self.start().running()
        status, lines = self.ended()
        self.assertEqual(status, START_FAILED)
        self.assertEqual(len(lines), 1, lines)
        self.assertTrue(lines[0].startswith(NAME), lines)
        self.assertEqual(get("kParamMediaDaemonStatus"), "3")

    def test_a_driver_that_never_comes_is_waited_for(self):
        self.board(BOARD.replace("echo driver_scan >> /run/world/journal", "echo driver_scan >> /run/world/journal; false"))
        daemon = self.start()
        eventually(lambda: self.journal().count("driver_scan") >= 4, "the scan to be repeated")
        self.assertEqual([line for line in self.journal() if line.startswith("driver")][:3],
                         ["driver_scan", "driver_load", "driver_scan"])
        self.assertEqual(self.journal().count("driver_load"), 1)
        self.assertEqual(get("kParamMediaDaemonStatus"), "1")
        daemon.process.kill()

    def test_mount_points_have_their_odd_mode(self):
        self.start().running()
        # 777 in decimal.
        self.assertEqual(os.stat("/mnt/S1").st_mode & 0o7777, 0o1411)
        self.assertEqual(os.stat("/mnt/S2").st_mode & 0o7777, 0o1411)


class Background(World):
    def start_background(self, *arguments):
        log = open("/run/world/background", "wb")
        done = subprocess.run([BUILD + "/daemon/mediad", *arguments], stderr=log, timeout=DEADLINE)
        self.addCleanup(log.close)
        self.addCleanup(self.stop_background)
        return done.returncode

    def pid(self):
        text = read("/run/mediad.pid").strip()
        return int(text) if text.isdigit() else 0

    def stop_background(self):
        pid = self.pid()
        if pid:
            os.kill(pid, signal.SIGTERM)
            eventually(lambda: not os.path.exists(f"/proc/{pid}") or self.is_zombie(pid), "the daemon's end")

    @staticmethod
    def is_zombie(pid):
        return " Z " in read(f"/proc/{pid}/stat")

    def runs_in_background(self, *arguments):
        self.assertEqual(self.start_background(*arguments), 0)
        eventually(lambda: mediactl("get", "kParamMediaDaemonStatus", check=False).stdout == "3\n", "daemon status 3")
        pid = self.pid()
        self.assertEqual(os.getsid(pid) != os.getsid(0), True)
        self.assertEqual(os.readlink(f"/proc/{pid}/cwd"), "/")
        self.assertEqual(os.readlink(f"/proc/{pid}/fd/0"), "/dev/null")
        self.assertEqual(os.readlink(f"/proc/{pid}/fd/1"), "/dev/null")
        self.assertEqual(os.readlink(f"/proc/{pid}/fd/2"), "/run/world/background")
        self.stop_background()
        self.assertEqual(read("/run/world/background").splitlines()[-1], NAME + " Leaving mediad...")

    def test_no_argument(self):
        self.runs_in_background()

    def test_another_letter(self):
        self.runs_in_background("x")

    def test_d_and_a_second_argument(self):
        self.runs_in_background("-d", "more")

    def test_d_and_more_letters_stays_in_the_foreground(self):
        daemon = self.start("-dx").running()
        self.assertIsNone(daemon.process.poll())
        daemon.process.send_signal(signal.SIGTERM)
        self.assertEqual(daemon.wait(), 0)


class End(World):
    ORDERLY = [NAME + " Cleaning up...", NAME + " Leaving mediad..."]

    def test_termination_signals(self):
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            daemon = self.start().running()
            daemon.process.send_signal(number)
            self.assertEqual(daemon.wait(), 0)
            self.assertEqual(daemon.lines()[-3:],
                             [NAME + "Alarm handleTermOrKillSignal: Syncing drives...", *self.ORDERLY])
            self.assertFalse(os.path.exists("/run/mediad.pid"))

    def test_shutdown_command(self):
        daemon = self.start().running()
        mediactl("set", "kParamSystemCommand", "8")
        self.assertEqual(daemon.wait(), 0)
        self.assertEqual(daemon.lines()[-2:], self.ORDERLY)

    def test_shutdown_command_while_the_transport_is_active(self):
        daemon = self.start().running()
        mediactl("set", "kParamTransportState", "5")
        mediactl("set", "kParamSystemCommand", "8")
        self.assertEqual(daemon.wait(), 0)

    def test_status_follows_the_life(self):
        daemon = self.start().running()
        watch = subprocess.Popen([BUILD + "/tools/mediactl", "watch", "kParamMediaDaemonStatus"], stdout=subprocess.PIPE,
                                 stderr=subprocess.DEVNULL, text=True)
        self.addCleanup(watch.wait)
        self.addCleanup(watch.stdout.close)
        self.addCleanup(watch.kill)
        # The watcher is there once it tells of a change.
        def watching():
            mediactl("set", "kParamMediaDaemonStatus", "3")
            os.set_blocking(watch.stdout.fileno(), False)
            return watch.stdout.readline()
        eventually(watching, "the watcher")
        os.set_blocking(watch.stdout.fileno(), True)
        daemon.process.send_signal(signal.SIGTERM)
        seen = []
        for line in watch.stdout:
            if not line.endswith(" 3\n"):
                seen.append(line)
            if line.endswith(" 6\n"):
                break
        self.assertEqual(seen, ["0x7d07000a kParamMediaDaemonStatus 5\n", "0x7d07000a kParamMediaDaemonStatus 6\n"])
        self.assertEqual(daemon.wait(), 0)

    def test_killed_and_started_again_keeps_the_values(self):
        daemon = self.start().running()
        mediactl("set", "kParamReelNumber", "42")
        mediactl("set", "kParamClipListMode", "2")
        mediactl("set", "kParamSlotRemountCommand", "7")
        daemon.process.kill()
        daemon.wait()
        self.assertEqual(mediactl("get", "kParamReelNumber", check=False).returncode, 3)
        self.start().running()
        self.assertEqual(get("kParamReelNumber"), "42")
        self.assertEqual(get("kParamClipListMode"), "2")
        # A command must not fire twice.
        self.assertEqual(get("kParamSlotRemountCommand"), "0")

    def test_paramd_outlives_the_daemon(self):
        host = subprocess.Popen([BUILD + "/platform/parameter_store/paramd"], stderr=subprocess.DEVNULL)
        self.addCleanup(host.wait)
        self.addCleanup(host.kill)
        eventually(lambda: mediactl("get", "kParamReelNumber", check=False).returncode == 0, "paramd")
        daemon = self.start().running()
        mediactl("set", "kParamSystemCommand", "8")
        self.assertEqual(daemon.wait(), 0)
        self.assertEqual(get("kParamMediaDaemonStatus"), "6")


if __name__ == "__main__":
    unittest.main(verbosity=2)
