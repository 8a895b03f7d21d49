#!/usr/bin/env python3
"""Reads the shared clip and playlist segments byte by byte, as a program of another maker would, and compares them with
what the test's clips are known to hold."""

import argparse
import calendar
import os
import stat
import sys

CLIP_SEGMENT_SIZE = 26_771_475
PLAYLIST_SEGMENT_SIZE = 8_392_727
CLIP_STRIDE = 6536

# name: hour and minute of 2026-11-20, frames, timecode, height and scan, width, rate, encode type, audio channels
CLIPS = {
    "apco": ((10, 0), 10, "10:00:00:00", 48, "p", 64, "25", 4, 2),
    "apcs": ((10, 5), 12, "01:02:03;04", 64, "p", 96, "29.97", 3, 4),
    "apcn": ((9, 0), 5, "23:59:59:10", 48, "p", 64, "23.98", 2, 0),
    "apch": ((11, 0), 7, "", 48, "p", 64, "50", 1, 0),
    "ap4h": ((8, 0), 3, "00:00:00:00", 48, "p", 64, "60", 5, 0),
    "interlaced": ((12, 0), 4, "", 48, "i", 64, "25", 2, 0),
    "AVdn": ((7, 30), 2, "10:00:00:00", 1080, "p", 1920, "25", 6, 4),
}

failures = []


def check(what, found, expected):
    if found != expected:
        failures.append(f"{what}: {found!r}, should be {expected!r}")


def read(name, size):
    path = os.path.join("/dev/shm", name)
    status = os.stat(path)
    check(f"mode of {name}", stat.S_IMODE(status.st_mode), 0o777)
    check(f"size of {name}", status.st_size, size)
    with open(path, "rb") as segment:
        return segment.read()


def text(field):
    return field.split(b"\0", 1)[0].decode("ascii")


def codec(encode_type):
    return "ProRes" if 1 <= encode_type <= 5 else "DNxHD" if encode_type == 6 else None


def attribute_map(block):
    """Name and value lines in turn; empty lines do not count."""
    lines = [line for line in text(block).split("\n") if line]
    return dict(zip(lines[0::2], lines[1::2]))


def check_clip(record, name, options):
    (hour, minute), frames, timecode, height, scan, width, rate, encode_type, channels = CLIPS[name]
    made = calendar.timegm((2026, 11, 20, hour, minute, 0))
    order = options.byte_order
    check(f"{name}: name", text(record[0:4096]), name)
    check(f"{name}: time", int.from_bytes(record[4096:4100], order, signed=True), made)
    check(f"{name}: frames", int.from_bytes(record[4100:4104], order), frames)
    check(f"{name}: starting timecode", text(record[4104:4132]), timecode)
    same = codec(encode_type) is not None and codec(encode_type) == codec(options.encode_type)
    check(f"{name}: codec flag", record[4132], 1 if same else 0)
    expected = {
        "Format": f"{height}{scan}",
        "Height": str(height),
        "Width": str(width),
        "Frame Rate": rate,
        "Encode Type": str(encode_type),
        "Audio Chan": str(channels),
    }
    if timecode:
        expected["Starting TC"] = timecode
    check(f"{name}: attributes", attribute_map(record[4133:6533]), expected)
    check(f"{name}: padding", record[6533:6536], b"\0\0\0")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--byte-order", choices=["big", "little"], required=True)
    parser.add_argument("--encode-type", type=int, required=True, help="the encode type in use")
    parser.add_argument("--clips", nargs="*", required=True, help="the clips in segment order")
    parser.add_argument("--stale", nargs="*", default=[], help="what stands behind the count")
    parser.add_argument("--playlists", choices=["unwritten", "empty"], required=True)
    options = parser.parse_args()

    segment = read("NewCacheSharedClipCache_shm", CLIP_SEGMENT_SIZE)
    check("magic", segment[0:15], b"SharedClipCache")
    check("count", int.from_bytes(segment[15:19], options.byte_order), len(options.clips))
    there = options.clips + options.stale
    for i, name in enumerate(there):
        start = 19 + CLIP_STRIDE * i
        check_clip(segment[start:start + CLIP_STRIDE], name, options)
    check("bytes behind the records", segment[19 + CLIP_STRIDE * len(there):].count(0),
          CLIP_STRIDE * (4096 - len(there)))

    segment = read("NewCacheSharedPlaylistCache_shm", PLAYLIST_SEGMENT_SIZE)
    magic = b"SharedPlaylistCache" if options.playlists == "empty" else bytes(19)
    check("playlist magic and count", segment[0:23], magic + bytes(4))
    check("bytes behind them", segment[23:].count(0), 8196 * 1024)

    for name in ("NewCacheSharedClipCache_mutex", "NewCacheSharedPlaylistCache_mutex"):
        check(f"mode of {name}", stat.S_IMODE(os.stat(f"/dev/shm/sem.{name}").st_mode), 0o777)

    for failure in failures:
        print(failure, file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
