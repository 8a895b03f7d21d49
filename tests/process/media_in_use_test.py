"""What changes on the medium in use: real inotify, real clips, real shared memory, and the real shell for deletions."""

import os
import shutil
import struct
import time
import unittest

from world import BUILD, World, eventually, get, mediactl, read, write

MAKER = "/mnt/S1/NEVO"
CLIPS = BUILD + "/tests/media/clips"
CLIP_RECORDS, CLIP_STRIDE = 19, 6536
PLAYLIST_RECORDS, PLAYLIST_STRIDE = 23, 8196


def text(field):
    return field.split(b"\0", 1)[0].decode()


def segment(name, magic, records, stride):
    """The first field of every record. Without the mutex: a test asks again until it sees what it wants to see."""
    with open("/dev/shm/" + name, "rb") as file:
        content = file.read()
    if not content.startswith(magic):
        return None
    count, = struct.unpack_from("=I", content, len(magic))
    return [text(content[at:at + 4096]) for at in range(records, records + stride * count, stride)]


def clips():
    return segment("NewCacheSharedClipCache_shm", b"SharedClipCache", CLIP_RECORDS, CLIP_STRIDE)


def playlists():
    return segment("NewCacheSharedPlaylistCache_shm", b"SharedPlaylistCache", PLAYLIST_RECORDS, PLAYLIST_STRIDE)


def maker(name):
    return MAKER + "/" + name


class MediaInUse(World):
    def setUp(self):
        super().setUp()
        shutil.rmtree("/mnt/S1", ignore_errors=True)
        self.daemon = self.start().running()
        self.insert(0, "sdb")
        self.in_use()
        mediactl("set", "kParamTransportState", "1")
        self.forget_stamp()

    def forget_stamp(self):
        """Before a change: stamps are seconds, and the daemon, which looks at them once a pass, sees no change in two
        that are the same. So the last one's second has to be over."""
        last = int(get("kParamMediaChangedTime"))
        eventually(lambda: int(time.time()) > last, "the next second")
        self.stamp = getattr(self, "stamp", 0) + 1
        mediactl("set", "kParamMediaChangedTime", str(self.stamp))
        self.since = int(time.time())

    def assertStamped(self):
        eventually(lambda: get("kParamMediaChangedTime") != str(self.stamp), "the stamp")
        self.assertLessEqual(self.since, int(get("kParamMediaChangedTime")))
        self.assertLessEqual(int(get("kParamMediaChangedTime")), int(time.time()))

    def record(self, name, source):
        shutil.copyfile(f"{CLIPS}/{source}.mov", maker(name))

    def assertClips(self, *names):
        eventually(lambda: clips() == list(names), f"the clips {names}, not {clips()}")

    def assertPlaylists(self, *paths):
        eventually(lambda: playlists() == list(paths), f"the playlists {paths}, not {playlists()}")

    def test_clip_appears_when_its_writer_closes_it(self):
        with open(maker("take_1.mov"), "wb") as file:
            with open(CLIPS + "/apcn.mov", "rb") as source:
                file.write(source.read())
            file.flush()
            # Another clip is seen meanwhile, so this one would have been, too.
            self.record("take_2.mov", "apch")
            self.assertClips("take_2")
            self.assertStamped()
            self.assertEqual(get("kParamNewClipIndex"), "0")
            mediactl("set", "kParamNewClipIndex", "77")
            self.forget_stamp()
        self.assertClips("take_1", "take_2")
        self.assertStamped()
        # The number of clips less one, although the clip is the earlier one.
        self.assertEqual(get("kParamNewClipIndex"), "1")
        eventually(lambda: get("kParamClipName") == "take_1", "the current clip")

    def test_clip_that_is_moved_in_and_deleted(self):
        shutil.copyfile(CLIPS + "/apco.mov", "/mnt/S1/upload")
        os.rename("/mnt/S1/upload", maker("moved.MOV"))
        self.assertClips("moved")
        self.assertStamped()
        self.forget_stamp()
        self.record("second.mov", "AVdn")
        self.assertClips("second", "moved")
        self.assertStamped()
        self.forget_stamp()
        os.unlink(maker("second.mov"))
        self.assertClips("moved")
        self.assertStamped()
        eventually(lambda: get("kParamClipName") == "moved", "the current clip")

    def test_new_clip_index_stays_in_playlist_mode(self):
        mediactl("set", "kParamClipListMode", "2")
        mediactl("set", "kParamNewClipIndex", "77")
        self.record("a.mov", "apcn")
        self.assertClips("a")
        self.assertStamped()
        self.assertEqual(get("kParamNewClipIndex"), "77")

    def test_clips_are_indexed_while_the_recorder_records(self):
        mediactl("set", "kParamTransportState", "2")
        mediactl("set", "kParamClipName", "being recorded")
        # Each in a pass of its own: whatever the first one brings has happened when the last one is there.
        names = []
        for name, source in (("a", "AVdn"), ("b", "ap4h"), ("c", "apcn")):
            self.forget_stamp()
            self.record(name + ".mov", source)
            names.append(name)
            self.assertClips(*names)
            self.assertStamped()
        self.assertEqual(get("kParamClipName"), "being recorded")

    def test_playlists_come_change_and_go(self):
        write(maker("late.playlist"), '{"name": "Late", "cliplist": []}')
        self.assertPlaylists(maker("late.playlist"))
        self.assertStamped()
        self.forget_stamp()
        write("/mnt/S1/upload", '{"name": "Early", "cliplist": ["a"]}')
        os.rename("/mnt/S1/upload", maker("early.playlist"))
        self.assertPlaylists(maker("early.playlist"), maker("late.playlist"))
        self.assertStamped()
        self.forget_stamp()
        write(maker("late.playlist"), '{"name": "Late", "cliplist": ["b", "c"]}')
        self.assertStamped()
        with open("/dev/shm/NewCacheSharedPlaylistCache_shm", "rb") as file:
            second = file.read()[PLAYLIST_RECORDS + PLAYLIST_STRIDE:]
        self.assertEqual(text(second[4096:8192]), '{"name": "Late", "cliplist": ["b", "c"]}')
        self.forget_stamp()
        os.unlink(maker("early.playlist"))
        self.assertPlaylists(maker("late.playlist"))
        self.assertStamped()
        self.forget_stamp()
        os.unlink(maker("late.playlist"))
        self.assertPlaylists()
        self.assertStamped()

    def test_requested_deletion_of_two_clips(self):
        for name, source in (("a.mov", "AVdn"), ("b c.mov", "ap4h"), ("-r", "apcn"), ("keep.mov", "apch")):
            self.record(name, source)
        os.mkdir(maker("folder"))
        self.assertClips("a", "b c", "keep")
        eventually(lambda: get("kParamClipName") == "a", "the current clip")
        mediactl("set", "kParamClipsToDelete", "a.mov|b c.mov|missing.mov")
        self.assertClips("keep")
        eventually(lambda: get("kParamClipName") == "keep", "the current clip")
        self.assertEqual(get("kParamDeleteClipsStatus"), "keep")
        self.assertEqual(sorted(os.listdir(MAKER)), ["-r", ".uploads", "folder", "keep.mov"])
        self.assertEqual(os.stat(maker("keep.mov")).st_size, os.stat(CLIPS + "/apch.mov").st_size)

    def test_requested_deletion_of_every_clip(self):
        for name, source in (("a.mov", "AVdn"), ("b.mov", "ap4h"), (".hidden", "apcn"), ("-r", "apcn"), ("-rf x", "apcn")):
            self.record(name, source)
        write(maker("folder/inside"), "kept")
        self.assertClips("a", "b")
        eventually(lambda: get("kParamClipName") == "a", "the current clip")
        mediactl("set", "kParamClipsToDelete", "*")
        self.assertClips()
        eventually(lambda: get("kParamClipName") == "N/A", "no current clip")
        self.assertEqual(get("kParamDeleteClipsStatus"), "N/A")
        self.assertEqual(sorted(os.listdir(MAKER)), [".hidden", ".uploads", "folder"])
        self.assertEqual(read(maker("folder/inside")), "kept")


if __name__ == "__main__":
    unittest.main(verbosity=2)
