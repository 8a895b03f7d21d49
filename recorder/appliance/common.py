"""What every part of the virtual recorder needs: where things lie, how to fail, how to wait."""

import fcntl
import os
import pathlib
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]

# Shared by all recorders of this source tree: what was downloaded, the kernel, the verdict on KVM.
SHARED = ROOT / "build" / "recorder"


class Failure(Exception):
    """Something that ends the command; its text is the one line that the user reads."""


def run(main, name):
    """Runs a command's main function: its result is the exit status, a Failure is one line and status 1."""
    try:
        sys.exit(main())
    except Failure as failure:
        print(f"{name}: {failure}", file=sys.stderr)
        sys.exit(1)
    except BrokenPipeError:
        sys.exit(1)
    except OSError as failure:
        print(f"{name}: {failure.filename or 'the machine'}: {failure.strerror or failure}", file=sys.stderr)
        sys.exit(1)
    except KeyboardInterrupt:
        sys.exit(130)


def say(text):
    """Progress, for whoever waits."""
    print(text, flush=True)


class Deadline:
    """A point in time by which something must have happened."""

    def __init__(self, seconds):
        self.seconds = seconds
        self._end = time.monotonic() + seconds

    def left(self):
        return max(0.0, self._end - time.monotonic())

    def passed(self):
        return self.left() == 0.0


def wait_until(condition, seconds, what, interval=0.05):
    """Returns what `condition` returns as soon as that is true; fails with `what` after `seconds`."""
    deadline = Deadline(seconds)
    while True:
        result = condition()
        if result:
            return result
        if deadline.passed():
            raise Failure(f"{what} (waited {seconds:g} s)")
        time.sleep(interval)


class Lock:
    """One process at a time; the others wait, but not for ever."""

    def __init__(self, path, seconds, what):
        self._path, self._seconds, self._what = path, seconds, what
        self._file = None

    def __enter__(self):
        self._path.parent.mkdir(parents=True, exist_ok=True)
        self._file = open(self._path, "a")
        wait_until(self._try, self._seconds, f"{self._what} is busy with another command")
        return self

    def _try(self):
        try:
            fcntl.flock(self._file, fcntl.LOCK_EX | fcntl.LOCK_NB)
            return True
        except BlockingIOError:
            return False

    def __exit__(self, *_):
        self._file.close()
        self._file = None


def replace_file(path, content):
    """Writes a file so that readers see the old content or the new, never a part."""
    path.parent.mkdir(parents=True, exist_ok=True)
    temporary = path.with_name(f"{path.name}.{os.getpid()}")
    temporary.write_bytes(content if isinstance(content, bytes) else content.encode())
    temporary.replace(path)
