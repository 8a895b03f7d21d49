"""Media for the recorder's slots: GPT, an EFI partition, HFS+ on the second partition, clips in its folder NEVO.

A guest makes them with the tools that the recorder itself uses, for the machine in front of it need not know HFS+.
"""

import base64
import os
import pathlib
import shutil
import struct
import tarfile
import tempfile

from . import image, packages, qemu
from .common import SHARED, Failure, Lock

KINDS = ("clean", "dirty", "journaled", "unformatted", "damaged")
GUEST_SECONDS = 300

# The partitions before the data and the GPT at the end take 22 MB; HFS+ wants a little room of its own.
LEAST_MB = 32


def make(path, megabytes, label, clips=None, kind="clean"):
    path = pathlib.Path(path).absolute()
    if megabytes < LEAST_MB:
        raise Failure(f"a medium has at least {LEAST_MB} MB")
    if not label or len(label) > 255 or "\0" in label:
        raise Failure("a label has 1 to 255 characters")
    files = _clips(clips)
    if kind == "unformatted" and files:
        raise Failure("clips need a formatted medium")

    # It gets its name when it is complete; a medium that was there before stays until then.
    handle, temporary = tempfile.mkstemp(prefix=f".{path.name}.", dir=path.parent)
    os.close(handle)
    temporary = pathlib.Path(temporary)
    try:
        with open(temporary, "r+b") as file:
            file.truncate(megabytes << 20)
        if kind != "unformatted":
            _fill(temporary, label, files, kind)
        temporary.chmod(0o644)
        temporary.replace(path)
    finally:
        temporary.unlink(missing_ok=True)


def _clips(folder):
    if folder is None:
        return []
    folder = pathlib.Path(folder)
    if not folder.is_dir():
        raise Failure(f"there is no folder {folder}")
    return sorted(path for path in folder.iterdir() if path.is_file() and not path.name.startswith("."))


def _fill(path, label, clips, kind):
    maker = SHARED / "maker"
    with Lock(SHARED / "maker.lock", GUEST_SECONDS, "the making of the image that fills media"):
        maker.mkdir(parents=True, exist_ok=True)
        image.build(maker, None)
        accelerator = qemu.accelerator(maker / "initrd")
        # Another command may renew the image as soon as the lock is gone.
        work = pathlib.Path(tempfile.mkdtemp(prefix="medium.", dir=SHARED))
        os.link(maker / "initrd", work / "initrd")
    try:
        archive = work / "clips"
        with tarfile.open(archive, "w", format=tarfile.GNU_FORMAT) as tar:
            for clip in clips:
                tar.add(clip, f"NEVO/{clip.name}", recursive=False)
        word = base64.b64encode(label.encode()).decode()
        output = qemu.run(work, accelerator, {"S1": path, "S2": archive},
                          f"rdinit=/usr/libexec/recorder/make-medium recorder.kind={kind} recorder.label={word}", GUEST_SECONDS)
        words = [line.partition("recorder: ")[2].strip() for line in output.splitlines() if line.startswith("recorder: ")]
        if not words or words[-1] != "made":
            raise Failure(f"the medium cannot be made: {words[-1].removeprefix('failed: ') if words else 'the guest said nothing'}")
    finally:
        shutil.rmtree(work)
    if kind in ("dirty", "damaged"):
        spoil(path, kind)


# The data partition begins after the first partition; see recorder/system/fdisk.gpt.
DATA_START = (2048 + 40960) * 512

HEADER = DATA_START + 1024
ATTRIBUTES, BLOCK_SIZE, FREE_BLOCKS, CATALOG_EXTENTS = 4, 40, 48, 272 + 16
CLEANLY_UNMOUNTED = 1 << 8


def spoil(path, kind):
    """What a power cut leaves behind ("dirty"), or worse ("damaged")."""
    with open(path, "r+b") as file:
        def number(offset, new=None):
            file.seek(HEADER + offset)
            value = struct.unpack(">I", file.read(4))[0]
            if new is not None:
                file.seek(HEADER + offset)
                file.write(struct.pack(">I", new(value)))
            return value

        file.seek(HEADER)
        if file.read(2) != b"H+":
            raise Failure("the medium's volume is not where it should be")
        number(ATTRIBUTES, lambda value: value & ~CLEANLY_UNMOUNTED)
        if kind == "dirty":
            # Blocks that are neither used nor free: the repair has something to repair.
            number(FREE_BLOCKS, lambda value: value - 16)
        else:
            # Without the first node of the catalog nothing on the volume is found again, nor by the repair.
            file.seek(DATA_START + number(CATALOG_EXTENTS) * number(BLOCK_SIZE))
            file.write(b"\xa5" * 8192)
