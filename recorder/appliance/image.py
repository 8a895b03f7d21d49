"""The recorder's image: an initial RAM file system of real tools, the project's programs and a few scripts.

Nothing in it is built here: the programs are what `cmake --install` puts onto a real machine, the tools are this
machine's own, the rest comes from packages.py. It is put together anew whenever any of that has changed.
"""

import hashlib
import os
import pathlib
import re
import shutil
import stat
import subprocess

from . import packages
from .common import ROOT, Failure, replace_file

GUEST = ROOT / "recorder" / "guest"

# Where the daemon expects them; what is not here is a busybox applet. The values are this machine's files: the first
# that exists.
HOST_TOOLS = {
    "/usr/bin/mount": ["/usr/bin/mount", "/bin/mount"],
    "/usr/bin/umount": ["/usr/bin/umount", "/bin/umount"],
    "/usr/bin/df": ["/usr/bin/df", "/bin/df"],
    "/usr/bin/grep": ["/usr/bin/grep", "/bin/grep"],
    "/usr/bin/awk": ["/usr/bin/mawk", "/usr/bin/gawk"],
    "/usr/sbin/parted": ["/usr/sbin/parted", "/sbin/parted"],
    "/usr/sbin/sfdisk": ["/usr/sbin/sfdisk", "/sbin/sfdisk"],
    "/usr/sbin/blkid": ["/usr/sbin/blkid", "/sbin/blkid"],
    "/usr/bin/pgrep": ["/usr/bin/pgrep"],
    "/usr/bin/pkill": ["/usr/bin/pkill"],
}
PACKAGE_OF = {"parted": "parted", "sfdisk": "fdisk", "awk": "mawk", "blkid": "util-linux",
              "pgrep": "procps", "pkill": "procps"}

LIBEXEC = "/usr/libexec/recorder"
BOARD = "0000ec01"

FILES = {
    "/etc/board-id": f"{BOARD}\n",
    "/etc/passwd": "root:x:0:0:root:/root:/bin/bash\nnobody:x:65534:65534:nobody:/:/bin/false\n",
    "/etc/group": "root:x:0:\nmediad:x:990:\nnogroup:x:65534:\n",
    "/etc/hosts": "127.0.0.1 localhost recorder\n",
}
LINKS = {
    "/bin": "usr/bin", "/sbin": "usr/sbin", "/lib": "usr/lib", "/lib64": "usr/lib64",
    "/etc/mtab": "/proc/self/mounts", "/var/run": "/run",
}
FOLDERS = ["/proc", "/sys", "/dev", "/run", "/mnt", "/root", "/var/log", "/var/www", "/usr/lib64"]


def build(folder, programs):
    """Brings FOLDER/initrd up to date with the programs built in the folder `programs`; true when it had to be made.

    With None for the programs it holds what makes media and no more: that needs nothing compiled. Nothing is mounted where
    media are made, so the distribution's own HFS+ tools do.
    """
    packages.ensure()
    tree = Tree()
    for path, target in LINKS.items():
        tree.link(path, target)
    for path in FOLDERS:
        tree.folder(path)
    tree.folder("/tmp", 0o1777)
    tree.node("/dev/console", 5, 1)
    for path, text in FILES.items():
        tree.text(path, text)
    if programs is None:
        tree.file("/usr/local/bin/fdisk.gpt", ROOT / "recorder" / "system" / "fdisk.gpt")
    else:
        _add_programs(tree, folder / "programs", programs)
    _add_tools(tree)
    _add_modules(tree)
    _add_guest(tree)

    stamp = folder / "initrd.stamp"
    digest = tree.digest()
    if (folder / "initrd").exists() and stamp.exists() and stamp.read_text() == digest:
        return False
    stamp.unlink(missing_ok=True)
    replace_file(folder / "initrd", tree.archive())
    replace_file(stamp, digest)
    return True


def _add_programs(tree, staging, programs):
    """What a real machine gets into /usr/local, with the shared libraries that it needs."""
    if not (programs / "cmake_install.cmake").exists():
        raise Failure(f"there are no programs in {programs}; build them first: cmake --preset native -DMEDIAD_TESTS=OFF && "
                      "cmake --build --preset native")
    shutil.rmtree(staging, ignore_errors=True)
    _install(programs, staging, "--prefix", "/usr/local")
    # What plays the hardware around a recorder goes onto no real machine.
    _install(programs, staging, "--prefix", "/usr", "--component", "virtual_recorder")
    for path in sorted(staging.rglob("*")):
        name = "/" + str(path.relative_to(staging))
        if path.is_symlink():
            tree.link(name, os.readlink(path))
        elif path.is_file() and not name.startswith(("/usr/local/include/", "/usr/local/share/man/", "/usr/local/share/doc/")):
            tree.file(name, path)
    for name in ("paramd", "mediad", "mediactl", "uevent-relay", "volname.hfsplus", "hold-device"):
        if not (staging / "usr/local/bin" / name).exists():
            raise Failure(f"the programs in {programs} have no {name}")
    for name in ("usr/local/lib/mediad/clip-probe", "usr/bin/endpoint"):
        if not (staging / name).exists():
            raise Failure(f"the programs in {programs} have no {name.rpartition('/')[2]}")
    if not (staging / f"usr/local/share/specs/{BOARD}.specification").exists():
        raise Failure(f"the board {BOARD} has no specification file among the programs in {programs}")
    for path in [*staging.glob("usr/**/bin/*"), *(staging / "usr/local/lib").glob("*.so*"),
                 staging / "usr/local/lib/mediad/clip-probe"]:
        tree.libraries(path, staging)


def _install(programs, staging, *options):
    try:
        result = subprocess.run(["cmake", "--install", programs, "--strip", *options], text=True,
                                env={**os.environ, "DESTDIR": str(staging)}, capture_output=True, timeout=120)
    except subprocess.TimeoutExpired:
        raise Failure("cmake --install did not end within 120 s") from None
    if result.returncode != 0:
        reason = (result.stderr.strip() or result.stdout.strip()).splitlines()
        raise Failure(f"the programs in {programs} cannot be installed; are they built? " + " ".join(reason[:3]))


def _add_tools(tree):
    for name, places in HOST_TOOLS.items():
        source = next((pathlib.Path(place) for place in places if os.path.exists(place)), None)
        if source is None:
            tool = name.rpartition("/")[2]
            raise Failure(f"this machine has no {tool}; install the package {PACKAGE_OF.get(tool, tool)}")
        tree.file(name, source.resolve())
        tree.libraries(source)
    for name in ("fsck.hfsplus", "mkfs.hfsplus", "qemu-ga"):
        tree.file(f"/usr/sbin/{name}", packages.PARTS / name)
        tree.libraries(packages.PARTS / name)
    tree.file("/usr/bin/bash", packages.PARTS / "bash-static")
    busybox = packages.PARTS / "busybox"
    tree.file("/usr/bin/busybox", busybox)
    for applet in subprocess.run([busybox, "--list-full"], capture_output=True, text=True, check=True).stdout.split():
        # busybox lists an applet where it belongs: "sbin/modprobe", "usr/bin/cut".
        folder, _, name = applet.rpartition("/")
        path = f"/usr/{'sbin' if folder.endswith('sbin') else 'bin'}/{name}"
        if not tree.has(path):
            tree.link(path, "/usr/bin/busybox")
    if not tree.has("/usr/bin/sh"):
        tree.link("/usr/bin/sh", "busybox")


def _add_modules(tree):
    release = (packages.PARTS / "release").read_text()
    for path in sorted((packages.PARTS / "modules").iterdir()):
        tree.file(f"/usr/lib/modules/{release}/{path.name}", path)
    tree.text("/usr/lib/modules/recorder", "\n".join(packages.MODULES) + "\n")


def _add_guest(tree):
    for path in sorted(GUEST.iterdir()):
        if path.name == "inittab":
            tree.file("/etc/inittab", path)
        elif path.name == "init":
            tree.file("/init", path)
        elif path.name == "fwreset.sh":
            tree.file("/usr/local/bin/fwreset.sh", path)
        else:
            tree.file(f"{LIBEXEC}/{path.name}", path)


class Tree:
    """A file system in the making."""

    def __init__(self):
        self._entries = {}  # path: (mode, content or source file, device number)

    def has(self, path):
        return path in self._entries

    def folder(self, path, mode=0o755):
        self._entries.setdefault(path, (stat.S_IFDIR | mode, b"", (0, 0)))

    def node(self, path, major, minor):
        self._add(path, stat.S_IFCHR | 0o600, b"", (major, minor))

    def link(self, path, target):
        self._add(path, stat.S_IFLNK | 0o777, target.encode())

    def text(self, path, text):
        self._add(path, stat.S_IFREG | 0o644, text.encode())

    def file(self, path, source):
        self._add(path, stat.S_IFREG | (0o755 if os.access(source, os.X_OK) else 0o644), pathlib.Path(source))

    def _add(self, path, mode, content, device=(0, 0)):
        folder = os.path.dirname(path)
        while folder != "/" and folder not in self._entries:
            self.folder(folder)
            folder = os.path.dirname(folder)
        self._entries[path] = (mode, content, device)

    def libraries(self, program, staging=None):
        """Adds the shared libraries that a program needs, but those that it brings along from `staging`."""
        with open(program, "rb") as file:
            if file.read(4) != b"\x7fELF":
                return
        result = subprocess.run(["ldd", program], capture_output=True, text=True, timeout=30)
        if result.returncode != 0:
            return  # it needs none
        for line in result.stdout.splitlines():
            missing = re.match(r"\s*(\S+) => not found", line)
            if missing:
                raise Failure(f"{program} needs the library {missing[1]}, which this machine does not have")
            found = re.search(r"(/\S+) \(0x", line)
            if not found or (staging and pathlib.Path(found[1]).is_relative_to(staging)):
                continue
            path = found[1] if found[1].startswith("/usr/") else "/usr" + found[1]
            if not self.has(path):
                self.file(path, pathlib.Path(found[1]).resolve())

    def digest(self):
        """Differs whenever the image would."""
        digest = hashlib.sha256()
        for path, (mode, content, device) in sorted(self._entries.items()):
            if isinstance(content, pathlib.Path):
                status = content.stat()
                # What was just installed has a new time stamp each time.
                content = (content.read_bytes() if status.st_size < 1 << 23
                           else f"{content} {status.st_size} {status.st_mtime_ns}".encode())
            digest.update(f"{path}\0{mode}\0{device}\0{len(content)}\0".encode())
            digest.update(content)
        return digest.hexdigest()

    def archive(self):
        """The tree in the kernel's format, not packed: the guest would take longer to unpack it than to read it."""
        parts = []
        entries = [*sorted(self._entries.items()), ("/TRAILER!!!", (0, b"", (0, 0)))]
        for inode, (path, (mode, content, device)) in enumerate(entries, start=1):
            if isinstance(content, pathlib.Path):
                content = content.read_bytes()
            name = path[1:].encode() + b"\0"
            fields = [inode, mode, 0, 0, 1, 0, len(content), 0, 0, *device, len(name), 0]
            header = b"070701" + b"".join(b"%08x" % field for field in fields)
            for part in (header + name, content):
                parts.append(part)
                parts.append(b"\0" * (-len(part) % 4))
        return b"".join(parts)
