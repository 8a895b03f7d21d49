#!/usr/bin/env python3
"""What the built daemon costs as a whole, in the world of the process tests: one JSON document.

daemon.py CLIP MEASUREMENT...     start, passes, instructions, memory, burst; to be run as benchmarks/table.py runs it.
"""

import json
import os
import pathlib
import re
import resource
import select
import shutil
import struct
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "process"))
import world as process_world  # noqa: E402
from world import BUILD, Daemon, World, eventually, mediactl, write  # noqa: E402

SEGMENT = "/dev/shm/NewCacheSharedClipCache_shm"
MAKER = "/mnt/S1/NEVO"
PASSES = 100
PASS = "MediaManager::pass()"

CLIP = pathlib.Path(sys.argv[1]).read_bytes()


def clip(number):
    """The clip, made at another second."""
    at = CLIP.index(b"mvhd") + 8
    return CLIP[:at] + struct.pack(">I", 2082844800 + 1000000 + number) + CLIP[at + 4:]


def clip_count():
    try:
        with open(SEGMENT, "rb") as file:
            front = file.read(19)
    except FileNotFoundError:
        return 0
    return struct.unpack("=I", front[15:])[0] if front.startswith(b"SharedClipCache") and len(front) == 19 else 0


class Recorder:
    """A daemon in a fresh world; `command` is put in front of its command line."""

    def __init__(self, command=()):
        self.world = World()
        self.world.setUp()
        shutil.rmtree(MAKER, ignore_errors=True)
        os.makedirs(MAKER)
        self.command = command
        self.daemon = None

    def __enter__(self):
        if self.command:
            self.daemon = Daemon.__new__(Daemon)
            self.daemon.log_path = "/run/world/stderr"
            self.daemon.log_file = open(self.daemon.log_path, "wb")
            self.daemon.process = subprocess.Popen([*self.command, BUILD + "/daemon/mediad", "-d"], stdin=subprocess.DEVNULL,
                                                   stdout=subprocess.DEVNULL, stderr=self.daemon.log_file)
        else:
            self.daemon = self.world.start()
        return self

    def __exit__(self, *_):
        self.daemon.stop()
        self.world.uevents.socket.close()

    @property
    def pid(self):
        return self.daemon.process.pid

    def use(self):
        self.world.insert(0, "sdb")
        self.world.in_use()
        # The change that the activation stamped is followed up on the next pass.
        time.sleep(2)


def loop_thread(pid):
    """The thread that sleeps between the passes: of those that sleep by the clock the only one."""
    def found():
        for thread in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{thread}/wchan") as file:
                if "nanosleep" in file.read():
                    return thread
        return None
    return eventually(found, "the loop's sleep")


def start():
    times = []
    for _ in range(9):
        world = World()
        world.setUp()
        host = subprocess.Popen([BUILD + "/platform/parameter_store/paramd"])
        eventually(lambda: mediactl("get", "kParamSystemState", check=False).returncode == 0, "the store")
        watch = subprocess.Popen([BUILD + "/tools/mediactl", "watch"], stdout=subprocess.PIPE, text=True)
        # Watched is what comes after the first line.
        while not select.select([watch.stdout], [], [], 0.05)[0]:
            mediactl("set", "kParamSystemState", "1")
        begin = time.monotonic()
        daemon = Daemon()
        for line in watch.stdout:
            if line.split()[1:] == ["kParamMediaDaemonStatus", "3"]:
                break
        times.append(time.monotonic() - begin)
        daemon.stop()
        watch.kill()
        watch.wait()
        host.terminate()
        host.wait()
        world.uevents.socket.close()
    return {"seconds": sorted(times)[len(times) // 2]}


def strace(pid, sleep):
    """The system calls of PASSES passes by name, without those of commands that the loop runs."""
    path = "/tmp/strace.out"
    tracer = subprocess.Popen(["strace", "-qq", "-o", path, "-p", sleep], stderr=subprocess.DEVNULL)
    wanted = PASSES + 2

    def lines():
        return process_world.read(path).splitlines()
    eventually(lambda: sum("clock_nanosleep(" in line for line in lines()) >= wanted, "passes", 120)
    tracer.terminate()
    tracer.wait()
    text = lines()
    sleeps = [at for at, line in enumerate(text) if "clock_nanosleep(" in line]
    counts = {}
    for line in text[sleeps[1]:sleeps[1 + PASSES]]:
        found = re.match(r"(\w+)\(", line)
        if found:
            counts[found[1]] = counts.get(found[1], 0) + 1
    # What one ordinary pass looks like: the most frequent sequence.
    sequences = [tuple(text[begin:end]) for begin, end in zip(sleeps[1:], sleeps[2:])]
    names = [tuple(re.findall(r"^(\w+)\(", "\n".join(sequence), re.M)) for sequence in sequences]
    usual = max(set(names), key=names.count)
    return {"calls": counts, "passes": PASSES, "usual": list(usual), "usual_share": names.count(usual) / len(names)}


def faults(pid, thread):
    with open(f"/proc/{pid}/task/{thread}/stat") as file:
        return int(file.read().rpartition(")")[2].split()[7])


def passes():
    result = {}
    with Recorder() as recorder:
        recorder.daemon.running()
        time.sleep(2)
        thread = loop_thread(recorder.pid)
        before = faults(recorder.pid, thread)
        time.sleep(5)
        result["idle_faults_in_20_passes"] = faults(recorder.pid, thread) - before
        result["idle"] = strace(recorder.pid, thread)
        recorder.use()
        result["in_use"] = strace(recorder.pid, loop_thread(recorder.pid))
    return result


def read_callgrind(path):
    """Instructions of PASS with all that it calls, the number of passes, and the calls into the allocator among them."""
    names = {}
    totals = passes = allocations = 0
    called = None
    events = 0
    for line in open(path, encoding="utf-8"):
        if line.startswith("fn="):
            resolve(names, line[3:])
        elif line.startswith("cfn="):
            called = resolve(names, line[4:])
        elif line.startswith("calls="):
            count = int(line[6:].split()[0])
            if called == PASS:
                passes += count
            elif re.match(r"(operator new|malloc$|calloc$|realloc$)", called or ""):
                allocations += count
        elif line.startswith("totals:"):
            totals = int(line.split()[1])
        elif line.startswith("summary:"):
            events = int(line.split()[1])
    return totals or events, passes, allocations


def resolve(names, text):
    found = re.match(r"\((\d+)\)(?: (.*))?", text.strip())
    if not found:
        return text.strip()
    if found[2]:
        names[found[1]] = found[2]
    return names.get(found[1], "")


def instructions():
    """Under callgrind, which collects inside of a pass only. A pass comes every 250 ms, whatever it takes."""
    result = {}
    command = ("valgrind", "-q", "--tool=callgrind", "--callgrind-out-file=/tmp/callgrind.out", "--collect-atstart=no",
               f"--toggle-collect={PASS}", "--vgdb-prefix=/tmp/vgdb")

    def measure(recorder, what):
        for old in pathlib.Path("/tmp").glob("callgrind.out*"):
            old.unlink()
        control = ["callgrind_control", "--vgdb-prefix=/tmp/vgdb"]
        subprocess.run([*control, "--zero", str(recorder.pid)], check=True, stdout=subprocess.DEVNULL)
        # Longer than the five seconds after which the capacity is looked at.
        time.sleep(12)
        subprocess.run([*control, "--dump", str(recorder.pid)], check=True, stdout=subprocess.DEVNULL)
        dump = eventually(lambda: sorted(pathlib.Path("/tmp").glob("callgrind.out*.*")), "callgrind's dump")[0]
        eventually(lambda: "totals:" in process_world.read(dump) or "summary:" in process_world.read(dump), "the dump's end")
        total, _, allocations = read_callgrind(dump)
        # The toggling function's own calls are not recorded: its sleeps tell how many passes there were.
        count = calls_to(dump, "OperatingSystem::sleep(ThreadSleep&, long)")
        result[what] = {"instructions_a_pass": total / max(count, 1), "passes": count, "allocations": allocations}

    with Recorder(command) as recorder:
        process_world.DEADLINE = 120
        recorder.daemon.running()
        time.sleep(3)
        measure(recorder, "idle")
        recorder.use()
        measure(recorder, "in_use")
    return result


def calls_to(path, wanted):
    names, called, count = {}, None, 0
    for line in open(path, encoding="utf-8"):
        if line.startswith("fn="):
            resolve(names, line[3:])
        elif line.startswith("cfn="):
            called = resolve(names, line[4:])
        elif line.startswith("calls=") and called == wanted:
            count += int(line[6:].split()[0])
    return count


def private_kib(pid):
    """Memory that nobody else has, the shared segments apart: they are nobody's in particular."""
    total = 0
    name = ""
    with open(f"/proc/{pid}/smaps", encoding="utf-8") as file:
        for line in file:
            if re.match(r"[0-9a-f]+-[0-9a-f]+ ", line):
                name = line.split(None, 5)[5].strip() if len(line.split(None, 5)) > 5 else ""
            elif line.startswith(("Private_Clean:", "Private_Dirty:")) and not name.startswith("/dev/shm/"):
                total += int(line.split()[1])
    return total


def memory():
    result = {}
    with Recorder() as recorder:
        recorder.daemon.running()
        time.sleep(2)
        result["idle_kib"] = private_kib(recorder.pid)
        recorder.use()
        result["in_use_kib"] = private_kib(recorder.pid)
    with Recorder() as recorder:
        for number in range(4096):
            write(f"{MAKER}/Clip_{number:05}.mov", clip(number))
        recorder.daemon.running()
        recorder.use()
        eventually(lambda: clip_count() == 4096, "4,096 clips", 120)
        mediactl("set", "kParamMediaChangedTime", str(int(time.time())))
        time.sleep(3)
        result["clips_4096_kib"] = private_kib(recorder.pid)
        with open(f"/proc/{recorder.pid}/status") as file:
            result["clips_4096_peak_rss_kib"] = int(re.search(r"VmHWM:\s+(\d+)", file.read())[1])
    return result


def burst():
    """Clips that are all closed at once on the watched directory, until the index has every one."""
    result = {}
    resource.setrlimit(resource.RLIMIT_NOFILE, (8192, 8192))
    for count in (1024, 4096):
        times = []
        for _ in range(3):
            with Recorder() as recorder:
                # Not for the daemon, whose command lines close what they inherit.
                recorder.daemon.running()
                recorder.use()
                files = []
                for number in range(count):
                    file = os.open(f"{MAKER}/Clip_{number:05}.mov", os.O_WRONLY | os.O_CREAT | os.O_CLOEXEC, 0o644)
                    os.write(file, clip(number))
                    files.append(file)
                begin = time.monotonic()
                for file in files:
                    os.close(file)
                eventually(lambda: clip_count() == count, f"{count} clips in the index", 300)
                times.append(time.monotonic() - begin)
        result[f"seconds_{count}"] = sorted(times)[1]
    return result


MEASUREMENTS = {"start": start, "passes": passes, "instructions": instructions, "memory": memory, "burst": burst}

if __name__ == "__main__":
    print(json.dumps({name: MEASUREMENTS[name]() for name in sys.argv[2:]}))
