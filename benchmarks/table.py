#!/usr/bin/env python3
"""Runs what measures and makes the table of it. Called by ./bench, which has built everything."""

import argparse
import json
import os
import pathlib
import re
import shutil
import statistics
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[1]
NATIVE, POWERPC = ROOT / "build" / "native", ROOT / "build" / "powerpc-static"
CLIP = NATIVE / "tests" / "media" / "clips" / "apcn.mov"
PROGRAMS = NATIVE / "benchmarks"
MIB = 1024 * 1024


# --- What is run. Each measurement serves several rows and is made once.

def isolated(*command):
    return output([ROOT / "tests" / "isolated", *command])


def output(command, environment=None):
    result = subprocess.run([str(word) for word in command], cwd=NATIVE, env={**os.environ, **(environment or {})},
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True, timeout=3600)
    if result.returncode != 0:
        raise RuntimeError(f"{command[0]} {command[1] if len(command) > 1 else ''}: status {result.returncode}")
    return result.stdout


def segments():
    document = json.loads(isolated(PROGRAMS / "bench_segments", "--benchmark_format=json", "--benchmark_repetitions=5",
                                   "--benchmark_enable_random_interleaving=true"))
    samples = {}
    for run in document["benchmarks"]:
        if run["run_type"] == "iteration":
            row, way, size = run["name"].split("/")[:3]
            samples.setdefault((row, int(size), way), []).append((run["median_ns"] / 1000, run["hold_ns"] / 1000))
    return {key: tuple(map(statistics.median, zip(*values))) for key, values in samples.items()}


def daemon(what):
    text = output([ROOT / "tests" / "process" / "isolated", "/usr/bin/python3", "-B", ROOT / "benchmarks" / "daemon.py",
                   CLIP, what], {"MEDIAD_BUILD": str(NATIVE)})
    return json.loads(text.splitlines()[-1])[what]


def recorder(card):
    examiner = NATIVE / "benchmarks" / "examine"
    subprocess.run(["strip", "-o", examiner, PROGRAMS / "bench_examine"], check=True)
    state = ROOT / "build" / "bench-recorder"
    text = output(["/usr/bin/python3", "-B", ROOT / "benchmarks" / "recorder.py", NATIVE, state, CLIP, examiner, card])
    return json.loads(text.splitlines()[-1])[card]


def stripped(strip, paths):
    with tempfile.TemporaryDirectory() as folder:
        total = 0
        for number, path in enumerate(paths):
            copy = pathlib.Path(folder) / str(number)
            subprocess.run([strip, "-o", copy, path.resolve()], check=True)
            total += copy.stat().st_size
        return total


def sizes():
    libraries = sorted(NATIVE.glob("platform/*/lib*.so"))
    return {"native": stripped("strip", [NATIVE / "daemon" / "mediad", *libraries]),
            "powerpc": stripped("powerpc-linux-gnu-strip", [POWERPC / "daemon" / "mediad"])}


def private_kib(pid):
    kib, name = 0, ""
    for line in pathlib.Path(f"/proc/{pid}/smaps").read_text(encoding="utf-8").splitlines():
        if re.match(r"[0-9a-f]+-[0-9a-f]+ ", line):
            fields = line.split(None, 5)
            name = fields[5] if len(fields) > 5 else ""
        elif line.startswith(("Private_Clean:", "Private_Dirty:")) and not name.startswith("/dev/shm/"):
            kib += int(line.split()[1])
    return kib


def powerpc_memory():
    """In qemu-user, less what a program has there that does nothing in as many threads."""
    folder = POWERPC / "memory"
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir()
    (folder / "nothing.c").write_text("""
#include <pthread.h>
#include <unistd.h>
static void* stay(void* p) { pause(); return p; }
int main(void) {
    pthread_t thread;
    for (int i = 0; i < 4; ++i) pthread_create(&thread, 0, stay, 0);
    pause();
}
""")
    subprocess.run(["powerpc-linux-gnu-gcc", "-Os", "-static", "-o", folder / "nothing", folder / "nothing.c"], check=True)
    board = (ROOT / "boards" / "0000ec01.specification").read_text(encoding="utf-8")
    (folder / "measure").write_text(f"""import os, subprocess, sys, time
sys.path.insert(0, {str(ROOT / "benchmarks")!r})
os.makedirs("/usr/local/share/specs", exist_ok=True)
open("/etc/board-id", "w").write("0000ec01\\n")
open("/usr/local/share/specs/0000ec01.specification", "w").write({board!r})
os.chmod("/usr/local/share/specs/0000ec01.specification", 0o644)
from table import private_kib
for command in (["{folder}/nothing"], ["{POWERPC}/daemon/mediad", "-d"]):
    process = subprocess.Popen(["qemu-ppc-static", *command], stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL)
    time.sleep(8)
    assert process.poll() is None, command
    print(private_kib(process.pid))
    process.kill()
    process.wait()
""", encoding="utf-8")
    nothing, mediad = map(int, isolated("/usr/bin/python3", "-B", folder / "measure").split())
    return mediad - nothing


MADE = {}


def made(function, *arguments):
    key = (function.__name__, *arguments)
    if key not in MADE:
        print(f"bench: measuring {' '.join(key)}", file=sys.stderr, flush=True)
        MADE[key] = function(*arguments)
    return MADE[key]


# --- The rows.

def row(name, value, unit, against, ratio=None, most=None, least=None):
    """The bounds are the ratio's where there is one, the value's otherwise."""
    judged = value if ratio is None else ratio
    sign = " x" if ratio is not None else ""
    to_reach = f"<= {most}{sign}" if most is not None else f">= {least}{sign}" if least is not None else None
    met = None if to_reach is None else (judged <= most if most is not None else judged >= least)
    return {"row": name, "value": value, "unit": unit, "baseline": against, "ratio": ratio, "to_reach": to_reach, "met": met}


def segment_rows(name, title, size, faster=None):
    values = made(segments)
    (whole, whole_hold), (place, place_hold), (limit, _) = (values[name, size, way] for way in ("whole", "place", "limit"))
    plain = f"plain C {limit:.1f} us"
    yield row(f"{title}: times faster than", place, "us", f"the whole table {whole:.1f} us", whole / place, least=faster)
    yield row(f"{title}: against", place, "us", plain, place / limit, most=1.5)
    against = f"{plain} (whole table: {whole_hold:.1f} us)"
    yield row(f"{title}: longest hold", place_hold, "us", against, place_hold / limit, most=1.2)


def add_rows():
    for size in (1, 256, 1024, 4096):
        yield from segment_rows("add_newest", f"add a clip, {size} cached, newest last", size, 10 if size == 4096 else None)
        yield from segment_rows("add_earliest", f"add a clip, {size} cached, earliest first", size)


def remove_rows():
    yield from segment_rows("remove_first", "remove a clip, first of 4096", 4096)
    yield from segment_rows("remove_last", "remove a clip, last of 4096", 4096)


def playlist_rows():
    yield from segment_rows("add_playlist", "add a playlist, 1024 cached", 1024)


def scan_rows():
    result = json.loads(isolated(PROGRAMS / "bench_scan", CLIP, 4096, 256))
    limit, each, scan = result["limit_s"], result["process_a_clip_s"], result["scan_s"]
    yield row("scan of 4096 clips: times faster than", scan, "s", f"a process a clip {each:.1f} s", each / scan)
    against = f"open and header read, one thread {limit:.3f} s"
    yield row("scan of 4096 clips: against", scan, "s", against, scan / limit, most=1.3)
    # The clips' segment and the playlists', each written in one go.
    yield row("scan of 4096 clips: visits of segments", result["segment_visits"], "visits", "one for each segment", most=2)


def pass_rows():
    result = made(daemon, "passes")
    idle, used = result["idle"]["calls"], result["in_use"]
    share = 100 * used["usual_share"]
    named = ", ".join(f"{name} {count}" for name, count in sorted(idle.items(), key=lambda item: -item[1]))
    yield row("idle pass: system calls in 100 passes", sum(idle.values()), "calls", named, most=200)
    yield row("idle pass: page faults in some 20 passes", result["idle_faults_in_20_passes"], "faults", "", most=0)
    yield row("pass with a medium in use: system calls", len(used["usual"]), "calls",
              f"{', '.join(used['usual'])}: {share:.0f} % of the passes; the others look at the capacity")


def instruction_rows():
    result = made(daemon, "instructions")
    idle, used = result["idle"], result["in_use"]
    yield row("idle pass: instructions", idle["instructions_a_pass"], "", "")
    yield row("idle pass: heap allocations", idle["allocations"], "", f"in {idle['passes']} passes", most=0)
    yield row("pass with a medium in use: instructions", used["instructions_a_pass"], "", "")
    yield row("pass with a medium in use: heap allocations", used["allocations"], "",
              f"in {used['passes']} passes: the line that asks for the capacity, every five seconds")


def memory_rows():
    result = made(daemon, "memory")
    for key, title in (("idle", "idle"), ("in_use", "in use"), ("clips_4096", "with 4096 clips")):
        yield row(f"private memory, {title}", result[f"{key}_kib"] / 1024, "MiB", "the shared segments apart", most=8)
    against = "in qemu-user, less a program that does nothing"
    yield row("private memory, idle, PowerPC", powerpc_memory() / 1024, "MiB", against, most=8)


def storm_rows():
    result = json.loads(isolated(PROGRAMS / "bench_storm"))
    sent = f"sent every {result['ns_a_send']} ns"
    yield row("uevent storm: lost of 100000", result["sent"] - result["received"], "datagrams", sent, most=0)
    yield row("uevent storm: each", result["ns_a_datagram"], "ns", sent)


def burst_rows():
    result = made(daemon, "burst")
    small, large = result["seconds_1024"], result["seconds_4096"]
    against = f"1024 clips {small:.2f} s"
    yield row("burst of 4096 clips, until all are in the index", large, "s", against, large / small, most=6)


def store_rows():
    runs = [json.loads(isolated(PROGRAMS / "bench_store")) for _ in range(3)]

    def middle(which, part):
        return statistics.median(run[which][part] for run in runs)
    for part in ("p50", "p99"):
        event, bare, listener = (middle(which, f"{part}_us") for which in ("event", "bare", "listener"))
        against = f"bare SEQPACKET round trip {bare:.1f} us"
        yield row(f"parameter set to change event, {part}", event, "us", against, event / bare, most=1.5)
        against += "; two threads more"
        yield row(f"parameter set to a listener's call, {part}", listener, "us", against, listener / bare)
    yield row("get in the hosting process", statistics.median(run["get_ns"] for run in runs), "ns", "")
    yield row("get in the hosting process: heap allocations", runs[0]["get_allocations"], "", "in 200000 gets", most=0)


def card_row(card, title):
    result = made(recorder, card)
    script, limit = result["script_s"], result["limit_s"]
    own = f" ({result['examiner_s']:.2f} s of it the clips)" if card == "clips" else ""
    against = f"script {script:.2f} s{own} + two periods: {limit:.2f} s"
    yield row(f"card inserted to in use, {title}", result["daemon_s"], "s", against, result["daemon_s"] / limit, most=1.15)
    shells = result["shells_s"] + limit - script
    yield row(f"card inserted to in use, {title}: a shell a line", result["daemon_s"], "s",
              f"each line in a bash of its own + two periods: {shells:.2f} s", result["daemon_s"] / shells)


def check_rows():
    result = made(recorder, "check")
    installed, small, plain = (result[f"{name}_ms"] for name in ("installed", "small", "plain"))
    against = f"the tool's own cache {plain:.0f} ms"
    yield row("quick check as installed: times faster than", installed, "ms", against, plain / installed)
    yield row("quick check as installed: against", installed, "ms", f"-c 1m {small:.0f} ms", installed / small, most=1.15)


def start_rows():
    yield row("start of the daemon to status 3", made(daemon, "start")["seconds"] * 1000, "ms", "")


def size_rows():
    result = sizes()
    yield row("stripped size, x86-64, with its libraries", result["native"] / MIB, "MiB", "C and C++ libraries apart")
    yield row("stripped size, PowerPC, static", result["powerpc"] / MIB, "MiB", "all in it but the clip examiner", most=3)


GROUPS = {
    "add": add_rows, "remove": remove_rows, "playlist": playlist_rows, "scan": scan_rows, "pass": pass_rows,
    "instructions": instruction_rows, "memory": memory_rows, "storm": storm_rows, "burst": burst_rows, "store": store_rows,
    "card-clean": lambda: card_row("clean", "small clean card"), "card-dirty": lambda: card_row("dirty", "dirty card"),
    "card-clips": lambda: card_row("clips", "1000 clips"), "check": check_rows, "start": start_rows, "size": size_rows,
}


def number(value):
    if isinstance(value, float):
        return f"{value:.2f}" if value < 100 else f"{value:.0f}"
    return str(value)


def print_table(rows):
    head = ["row", "measured", "against", "ratio", "to reach", ""]
    cells = [[each["row"], f"{number(each['value'])} {each['unit']}", each["baseline"],
              "" if each["ratio"] is None else f"{each['ratio']:.2f} x", each["to_reach"] or "reported",
              {True: "met", False: "SHORT", None: ""}[each["met"]]] for each in rows]
    widths = [max(len(line[column]) for line in [head, *cells]) for column in range(len(head))]
    for line in [head, ["-" * width for width in widths], *cells]:
        print("  ".join(text.ljust(width) for text, width in zip(line, widths)).rstrip())


def main():
    parser = argparse.ArgumentParser(prog="bench", description="What mediad costs; docs/performance.md explains the rows.",
                                     epilog="Rows: " + " ".join(GROUPS))
    parser.add_argument("--json", action="store_true", help="one JSON document instead of the table")
    parser.add_argument("--rows", metavar="REGEX", default="", help="only the rows whose group's name matches")
    options = parser.parse_args()
    chosen = {name: rows for name, rows in GROUPS.items() if re.search(options.rows, name)}
    if not chosen:
        parser.error(f"no row matches; there are {' '.join(GROUPS)}")
    load = os.getloadavg()[0]
    rows, failed = [], []
    for name, make in chosen.items():
        try:
            rows.extend({"group": name, **each} for each in make())
        except (RuntimeError, subprocess.SubprocessError, OSError, ValueError, KeyError) as failure:
            failed.append(f"{name}: {failure}")
    machine = {"processors": os.cpu_count(), "load_before": load, "load_after": os.getloadavg()[0]}
    if options.json:
        print(json.dumps({"machine": machine, "rows": rows, "failed": failed}, indent=2))
    else:
        print_table(rows)
        print(f"\n{machine['processors']} processors; load average {load:.1f} before, {machine['load_after']:.1f} after")
        for line in failed:
            print(f"not measured: {line}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
