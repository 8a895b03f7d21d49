"""A person's terminal on the recorder's."""

import os
import select
import socket
import sys
import termios
import tty

from .common import Failure

LEAVE = b"\x1d"  # Ctrl-]


def attach(recorder):
    """Passes everything through until Ctrl-] or until the recorder is gone."""
    if not recorder.is_on():
        raise Failure("the recorder is off")
    if not os.isatty(0):
        raise Failure("a terminal is needed; without one, use: virtual-recorder sh COMMAND")
    folder = os.open(recorder.folder, os.O_PATH | os.O_DIRECTORY)
    connection = socket.socket(socket.AF_UNIX)
    connection.settimeout(10)
    try:
        connection.connect(f"/proc/self/fd/{folder}/terminal.sock")
    except OSError:
        raise Failure("the recorder's terminal does not answer") from None
    before = termios.tcgetattr(0)
    size = os.get_terminal_size(0)
    print("the recorder's terminal; Ctrl-] leaves it\r")
    try:
        tty.setraw(0)
        connection.sendall(f"\x15 stty rows {size.lines} cols {size.columns}\r".encode())
        while True:
            ready, _, _ = select.select([0, connection], [], [])
            if connection in ready:
                output = connection.recv(1 << 16)
                if not output:
                    return 0
                os.write(1, output)
            if 0 in ready:
                keys = os.read(0, 1 << 12)
                if not keys or LEAVE in keys:
                    return 0
                connection.sendall(keys)
    finally:
        termios.tcsetattr(0, termios.TCSADRAIN, before)
        connection.close()
        print(file=sys.stderr)
