"""tervane's name tables and command-line rules, shared by the Python companions.

Each option is a name followed by a separate value, matched exactly. For a list
option the last occurrence with a valid value wins (an invalid value is ignored);
for any other option the first occurrence that has a value.
"""

# An option value is accepted only when it is one of these.
NAMES = {
    "-m": ["2k", "4k", "8k"],
    "-M": ["4", "16", "64"],
    "-a": ["NH", "1", "2", "4"],
    "-D": ["1/4", "1/8", "1/16", "1/32"],
    "-p": ["1/2", "2/3", "3/4", "5/6", "7/8"],
    "-php": ["1/2", "2/3", "3/4", "5/6", "7/8"],
    "-plp": ["1/2", "2/3", "3/4", "5/6", "7/8"],
    "-b": ["5", "6", "7", "8"],
    "-c": ["0", "rand"],
    "-f": ["0", "BB", "INV"],
    "-I": ["1x", "2x", "4x"],
    "-F": ["std", "agi", "agiold"],
}
DEFAULTS = {"-m": 0, "-M": 0, "-a": 0, "-D": 3, "-p": 0, "-php": 0, "-plp": 0,
            "-b": 3, "-c": 1, "-f": 0, "-I": 0, "-F": 0}


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
