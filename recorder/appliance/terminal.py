"""A person's terminal on the recorder's."""

import os
import re
import select
import shlex
import socket
import termios
import time
import tty

from .common import Failure

LEAVE = b"\x1d"  # Ctrl-]

# The recorder's side frames what a command shows with these; see recorder/guest/on-terminal.
MARK = b"\x1e"

# What its shell asks with; see recorder/guest/terminal.
PROMPT = b"recorder# "


def attach(recorder, line=None):
    """Passes everything through until Ctrl-] or until the recorder is gone. With a command, until that has ended: then
    the result is its exit status."""
    if not recorder.is_on():
        raise Failure("the recorder is off")
    if not os.isatty(0) or not os.isatty(1):
        raise Failure("a terminal is needed; without one, use: virtual-recorder sh COMMAND")
    connection = _connect(recorder.folder)
    before = termios.tcgetattr(0)
    size = os.get_terminal_size(1)
    typed = f" stty rows {size.lines} cols {size.columns}"
    if line is not None:
        typed += f"; exec /usr/libexec/recorder/on-terminal {shlex.quote(line)}"
    else:
        print("the recorder's terminal; Ctrl-] leaves it")
    try:
        tty.setraw(0)
        _wait_for_prompt(connection)
        connection.sendall(f"{typed}\r".encode())
        return _pass_through(connection, line is not None)
    finally:
        termios.tcsetattr(0, termios.TCSADRAIN, before)
        connection.close()
        print()


def _connect(folder):
    descriptor = os.open(folder, os.O_PATH | os.O_DIRECTORY)
    connection = socket.socket(socket.AF_UNIX)
    connection.settimeout(10)
    try:
        connection.connect(f"/proc/self/fd/{descriptor}/terminal.sock")
    except OSError:
        raise Failure("the recorder's terminal does not answer") from None
    finally:
        os.close(descriptor)
    return connection


def _wait_for_prompt(connection):
    """The shell at the other end may only just be starting: what it is sent before it asks for something is lost."""
    seen, end = b"", time.monotonic() + 20
    # Ctrl-C and Ctrl-U take away what somebody may have left running or typed.
    nudge = b"\x03\x15\r"
    while PROMPT not in seen:
        if time.monotonic() > end:
            raise Failure("the recorder's terminal does not answer")
        connection.sendall(nudge)
        nudge = b"\r"
        if select.select([connection], [], [], 0.5)[0]:
            output = connection.recv(1 << 16)
            if not output:
                raise Failure("the recorder's terminal has gone")
            seen += output


def _pass_through(connection, framed):
    held = b""  # of a command's frame: what came before its beginning, or its end as far as it has come
    inside, ending = not framed, False
    while True:
        ready, _, _ = select.select([0, connection], [], [])
        if connection in ready:
            output = connection.recv(1 << 16)
            if not output:
                return 1
            if framed:
                if not inside:
                    held += output
                    _, mark, output = held.partition(MARK)
                    if mark:
                        inside, held = True, b""
                if inside and not ending:
                    output, mark, held = output.partition(MARK)
                    ending = bool(mark)
                elif ending:
                    held += output
                    output = b""
                end = re.match(rb"(\d+)\r?\n", held) if ending else None
                if end:
                    os.write(1, output)
                    return int(end[1])
            if inside:
                os.write(1, output)
        if 0 in ready:
            keys = os.read(0, 1 << 12)
            if not keys or LEAVE in keys:
                if framed:
                    connection.sendall(b"\x03")
                return 0
            connection.sendall(keys)
