"""Pieces of distribution packages that the recorder needs but this machine need not have installed.

They are downloaded with apt (which checks them), opened and never installed: a guest's kernel and guest agent have no
business among the host's programs, and the HFS+ tools come from a component that most machines leave out.
"""

import lzma
import shutil
import subprocess
import tarfile

from .common import ROOT, SHARED, Failure, Lock, replace_file, say

# The driver modules of the recorder, in the order in which they are loaded; what they depend on comes with them.
# The two checksum modules are asked for by the disk driver at run time, so no dependency names them.
MODULES = ["crct10dif_generic", "crc64_rocksoft_generic", "virtio_pci", "virtio_rng", "virtio_console", "sd_mod",
           "virtio_scsi", "hfsplus", "nls_utf8", "loop"]

# Where they and what they depend on can be; the whole of the modules would be 300 MB to hold.
MODULE_FOLDERS = ["crypto", "lib", "fs/hfsplus", "fs/nls", "block", "drivers/virtio", "drivers/scsi", "drivers/char",
                  "drivers/cdrom", "drivers/block"]

TOOLS = {
    # Every command line of the daemon starts a shell. Most of what that takes is the dynamic linker's time.
    "bash-static": ["bin/bash-static"],
    "busybox-static": ["bin/busybox"],
    "hfsprogs": ["sbin/fsck.hfsplus", "sbin/mkfs.hfsplus"],
    "qemu-guest-agent": ["usr/sbin/qemu-ga"],
}

PARTS = SHARED / "parts"
KERNEL = PARTS / "vmlinux"

# Raise it when what is taken out of the packages changes.
RECIPE = "3 " + " ".join(MODULES)


def ensure():
    """Brings the parts into build/recorder/parts, unless they are there already."""
    with Lock(SHARED / "parts.lock", 600, "the download of the recorder's parts"):
        stamp = PARTS / "stamp"
        if stamp.exists() and stamp.read_text() == RECIPE:
            return
        say("fetching the recorder's kernel and tools")
        PARTS.mkdir(parents=True, exist_ok=True)
        downloads = SHARED / "packages"
        shutil.rmtree(downloads, ignore_errors=True)
        downloads.mkdir(parents=True)
        kernel = _kernel_package()
        _download([kernel, *TOOLS], downloads)
        for package, files in TOOLS.items():
            _extract_tools(_archive(downloads, package), files)
        _extract_kernel(_archive(downloads, kernel))
        shutil.rmtree(downloads)
        replace_file(stamp, RECIPE)


def _apt(tool, *arguments, cwd=ROOT):
    try:
        result = subprocess.run([ROOT / "packaging" / "private-apt", tool, *arguments], cwd=cwd, capture_output=True,
                                text=True, timeout=300, stdin=subprocess.DEVNULL)
    except subprocess.TimeoutExpired:
        raise Failure(f"{tool} did not answer within 300 s") from None
    if result.returncode != 0:
        reason = (result.stderr.strip() or result.stdout.strip() or "no reason given").splitlines()[-1]
        raise Failure(f"{tool} {' '.join(arguments)} failed: {reason}")
    return result.stdout


def _kernel_package():
    for line in _apt("apt-cache", "depends", "--important", "linux-image-amd64").splitlines():
        name = line.partition("Depends:")[2].strip()
        if name.startswith("linux-image-"):
            return name
    raise Failure("the distribution's kernel package names no kernel")


def _download(names, folder):
    _apt("apt-get", "-q", "download", *names, cwd=folder)


def _archive(folder, package):
    found = sorted(folder.glob(f"{package}_*.deb"))
    if not found:
        raise Failure(f"the package {package} was not downloaded")
    return found[-1]


def _members(archive):
    """The package's files as a tar stream, read from front to back."""
    process = subprocess.Popen(["dpkg-deb", "--fsys-tarfile", archive], stdout=subprocess.PIPE)
    with tarfile.open(fileobj=process.stdout, mode="r|") as tar:
        for member in tar:
            yield tar, member, member.name.removeprefix("./")
    process.stdout.close()
    if process.wait() != 0:
        raise Failure(f"{archive.name} cannot be opened")


def _extract_tools(archive, wanted):
    missing = set(wanted)
    for tar, member, name in _members(archive):
        if name in missing:
            path = PARTS / name.rpartition("/")[2]
            path.write_bytes(tar.extractfile(member).read())
            path.chmod(0o755)
            missing.discard(name)
    if missing:
        raise Failure(f"{archive.name} does not hold {', '.join(sorted(missing))}")


def _extract_kernel(archive):
    """Keeps the unpacked kernel and, of its modules, the wanted ones with everything that they depend on."""
    modules = {}  # name: (path in the package, content)
    release = None
    for tar, member, name in _members(archive):
        if name.startswith("boot/vmlinuz-"):
            release = name.removeprefix("boot/vmlinuz-")
            replace_file(KERNEL, _unpacked(tar.extractfile(member).read()))
        elif name.endswith(".ko") and any(f"/kernel/{folder}/" in name for folder in MODULE_FOLDERS):
            modules[name.rpartition("/")[2].removesuffix(".ko").replace("-", "_")] = (name, tar.extractfile(member).read())
    if not release:
        raise Failure(f"{archive.name} holds no kernel")

    folder = PARTS / "modules"
    shutil.rmtree(folder, ignore_errors=True)
    lines = {}

    def add(name):
        """The module's files in the order in which they are loaded, itself last."""
        if name not in modules:
            raise Failure(f"{archive.name} does not hold the driver {name} where it is looked for")
        path, content = modules[name]
        order = []
        for dependency in _depends(content):
            order += [file for file in add(dependency) if file not in order]
        file = path.rpartition("/")[2]
        replace_file(folder / file, content)
        # The loader starts with the last.
        lines[file] = list(reversed(order))
        return [*order, file]

    for name in MODULES:
        add(name)
    replace_file(folder / "modules.dep", "".join(f"{file}: {' '.join(needed)}\n" for file, needed in lines.items()))
    replace_file(PARTS / "release", release)


def _depends(module):
    """The modules that a module's own description names."""
    start = module.find(b"\0depends=")
    if start < 0:
        return []
    text = module[start + 9:module.index(b"\0", start + 9)].decode()
    return [name.replace("-", "_") for name in text.split(",") if name]


def _unpacked(image):
    """The kernel inside its self-extracting image: it boots in half the time when nothing has to be unpacked."""
    position = image.find(b"\xfd7zXZ\0")
    while position >= 0:
        try:
            kernel = lzma.LZMADecompressor(lzma.FORMAT_XZ).decompress(image[position:])
            if kernel.startswith(b"\x7fELF"):
                return kernel
        except lzma.LZMAError:
            pass
        position = image.find(b"\xfd7zXZ\0", position + 1)
    raise Failure("the kernel is packed in a way that is not known here")
