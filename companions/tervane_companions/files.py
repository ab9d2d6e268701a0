"""What every Python companion does with its files and its errors: the one-line
error with status 1, the checks of an input of samples, and outputs that never
overwrite an input."""

import os
import signal
import sys


class Fail(Exception):
    """A condition that ends the program with a one-line message and status 1."""


def start():
    """A file-size limit makes a write fail with its error instead of ending the process."""
    signal.signal(signal.SIGXFSZ, signal.SIG_IGN)


def report(prog, error):
    """The one line of a failure on standard error; returns the exit status, 1."""
    print(f"{prog}: {error}", file=sys.stderr)
    return 1


def sample_file(name):
    """The size of a std-format sample file, which must hold whole samples."""
    if not os.path.exists(name):
        raise Fail(f"can't read \"{name}\": no such file")
    if not os.path.isfile(name):
        raise Fail(f"\"{name}\" is not a regular file")
    size = os.path.getsize(name)
    if size % 8:
        raise Fail(f"\"{name}\" is not a whole number of 8-byte samples ({size} bytes)")
    if size == 0:
        raise Fail(f"\"{name}\" holds no samples")
    return size


def is_input(name, inputs):
    """Whether the file name is one of the inputs (the same file, under any name)."""
    return os.path.exists(name) and any(
        src and os.path.exists(src) and os.path.samefile(src, name) for src in inputs)


def write_file(name, data):
    """Writes the bytes to the file; a failure (a full disk, say) names the file."""
    try:
        with open(name, "wb") as f:
            f.write(data)
    except OSError as e:
        raise Fail(f"writing {name} failed: {e.strerror or e}") from e
