"""tervane's command-line rules, shared by the Python companions (the names and
defaults come from the transmitter's option table, through tables.py).

Each option is a name followed by a separate value, matched exactly. For a list
option the last occurrence with a valid value wins (an invalid value is ignored);
for any other option the first occurrence that has a value.
"""

import math
import re
import struct
import sys

from .tables import DEFAULTS, NAMES, VERSION


def list_option(argv, name):
    """The index of the list option's value."""
    value, a = DEFAULTS[name], 0
    while a < len(argv):
        if argv[a] == name and a + 1 < len(argv):
            if argv[a + 1] in NAMES[name]:
                value = NAMES[name].index(argv[a + 1])
            a += 1
        a += 1
    return value


def first_value(argv, name):
    """The text after the option's first occurrence that has one, or None."""
    return next((argv[a + 1] for a in range(len(argv) - 1) if argv[a] == name), None)


def c_int(text):
    """strtol-like base-10 value saturated to 32 bits; 0 when there are no digits."""
    m = re.match(r"[ \t\n\v\f\r]*([+-]?[0-9]+)", text)
    v = int(m.group(1)) if m else 0
    return max(-2**31, min(2**31 - 1, v))


def c_real(text):
    """strtod-like: the longest leading number, 0.0 when there is none."""
    t = text.lstrip(" \t\n\v\f\r")
    m = re.match(r"[+-]?0[xX]([0-9a-fA-F]+\.?[0-9a-fA-F]*|\.[0-9a-fA-F]+)([pP][+-]?[0-9]+)?", t)
    if m and re.match(r"[+-]?0[xX]\.?[0-9a-fA-F]", t):
        s = m.group(0)
        return float.fromhex(s if "p" in s.lower() else s + "p0")
    m = re.match(r"[+-]?(infinity|inf|nan)", t, re.IGNORECASE)
    if m:
        return float(m.group(0))
    m = re.match(r"[+-]?([0-9]+\.?[0-9]*|\.[0-9]+)([eE][+-]?[0-9]+)?", t)
    return float(m.group(0)) if m else 0.0


def f32(x):
    """The single-precision value of x, as the transmitter stores its real options."""
    try:
        return struct.unpack("f", struct.pack("f", x))[0]
    except OverflowError:
        return math.copysign(math.inf, x)


def stem_of(out):
    """The stem of every output name of a run with -o out: the name up to the first
    "." of its last path component; "tervane" when none is given."""
    if not out:
        return "tervane"
    dot = out.find(".", out.rfind("/") + 1)
    return out if dot < 0 else out[:dot]


def answered(prog, usage, opts):
    """Prints the usage for -h or the version for -V; whether it did."""
    if opts["-h"]:
        sys.stdout.write(usage)
    elif opts["-V"]:
        print(f"{prog} {VERSION}")
    return bool(opts["-h"] or opts["-V"])
