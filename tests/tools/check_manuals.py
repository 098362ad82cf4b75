#!/usr/bin/env python3
"""Proves that the manual pages name every command and every option, and no other, and that the
README counts the commands.

    check_manuals.py ROOT         checks the pages in ROOT/man and ROOT/README.md
    check_manuals.py --self-test  shows that the check finds what it is for

What there is to name is read from the tables in the sources. A page names a command with a line
".It Ic NAME" and an option with a line ".It Fl a ... , Fl -addr ...".
"""

import collections
import re
import sys

sys.dont_write_bytecode = True
from checking import is_wrong, run

COMMANDS = "proto/command.cpp"
OPTIONS = "core/options.cpp"
CLIENT = "ctl/tessctl.cpp"

# The page, what its entries are, where the names stand, and the expression whose group holds them.
TABLES = [
    ("tessard.7", "command", COMMANDS, r"command_table\[COMMANDS\] = \{(.*?)\n\};"),
    ("tessard.8", "option", OPTIONS, r'SHORT_OPTIONS\[\] = "([^"]*)"'),
    ("tessard.8", "long option", OPTIONS, r"long_options\[\] = \{(.*?)\n\};"),
    ("tessctl.1", "command", CLIENT, r"SUBCOMMANDS\[\] = \{(.*?)\n\};"),
    ("tessctl.1", "option", CLIENT, r'getopt_long\(argc, argv, "([^"]*)"'),
    ("tessctl.1", "long option", CLIENT, r"LONG_OPTIONS\[\] = \{(.*?)\n *\};"),
]

# What the README says of the commands.
README = "README.md"
COUNT = r"\b(\d+) commands\b"

SECTIONS = ["NAME", "DESCRIPTION"]
PROGRAM_SECTIONS = ["SYNOPSIS"]  # of pages of sections 1 and 8
PROGRAM_SUFFIXES = (".1", ".8")


def names_of_table(kind, source, table):
    """The names in a table of the sources; none when the table is not there."""
    match = re.search(table, source, re.DOTALL)
    if not match:
        return []
    return re.findall(r"[A-Za-z]" if kind == "option" else r'\{"([^"]+)"', match[1])


def names_of_page(kind, page):
    """The names that the items of a page have."""
    if kind == "command":
        return re.findall(r"^\.It Ic (\S+)", page, re.MULTILINE)
    names = []
    for item in re.findall(r"^\.It (Fl .*)", page, re.MULTILINE):
        names += re.findall(r"\bFl -(\S+)" if kind == "long option" else r"\bFl ([^-\s]\S*)", item)
    return names


def compare(page, kind, wanted, found):
    """The complaints about one kind of names on a page."""
    counts = collections.Counter(found)
    missing = [name for name in wanted if name not in found]
    unknown = sorted(set(found) - set(wanted))
    doubled = [name for name in wanted if counts[name] > 1]
    return ([f"{page}: no entry for the {kind} {name}" for name in missing] +
            [f"{page}: an entry for {name}, which is no {kind}" for name in unknown] +
            [f"{page}: two entries for the {kind} {name}" for name in doubled])


def check_sections(path, page):
    found = re.findall(r"^\.Sh (.*)", page, re.MULTILINE)
    wanted = SECTIONS + (PROGRAM_SECTIONS if path.suffix in PROGRAM_SUFFIXES else [])
    return [f"{path.name}: no section {section}" for section in wanted if section not in found]


def check_count(root, commands):
    counts = re.findall(COUNT, (root / README).read_text(encoding="utf-8"))
    if not counts:
        return [f"{README}: does not say how many commands there are"]
    return [f"{README}: {count} commands instead of {len(commands)}"
            for count in counts if int(count) != len(commands)]


def check(root):
    """The complaints about a tree."""
    paths = sorted((root / "man").glob("*.[1-9]"))
    pages = {path.name: path.read_text(encoding="utf-8") for path in paths}
    complaints = []
    for path in paths:
        complaints += check_sections(path, pages[path.name])
    for page in sorted({page for page, *_ in TABLES} - pages.keys()):
        complaints.append(f"no page {page}")
    for page, kind, source, table in TABLES:
        wanted = names_of_table(kind, (root / source).read_text(encoding="utf-8"), table)
        if not wanted:
            complaints.append(f"{source}: no table of what {page} has an entry for: {kind}")
        elif page in pages:
            complaints += compare(page, kind, wanted, names_of_page(kind, pages[page]))
        if source == COMMANDS:
            complaints += check_count(root, wanted)
    return complaints


TREE = {
    README: "All 3 commands of it.\n",
    COMMANDS: '''
const command command_table[COMMANDS] = {
    {"get", cmd_get, RULE_ONE}, {"set", cmd_set, RULE_TWO},
    {"hgetall", cmd_hgetall, RULE_ONE},
};
{"rpop", cmd_pop_destroy},
''',
    OPTIONS: '''
const char SHORT_OPTIONS[] = "va:";
const option long_options[] = {
    {"version", no_argument}, {"addr", optional_argument},
    {nullptr, 0},
};
''',
    CLIENT: '''
constexpr subcommand SUBCOMMANDS[] = {
    {"top", ctl_top},
};
    static const option LONG_OPTIONS[] = {
        {"raw", no_argument},
    };
    getopt_long(argc, argv, "+a:h", LONG_OPTIONS, nullptr)
''',
    "man/tessard.5": """
.Sh NAME
.Sh DESCRIPTION
""",
    "man/tessard.7": """
.Sh NAME
.Sh DESCRIPTION
.It Ic get Ar key
.It Ic set Ar key value
.It Ic hgetall Ar key
""",
    "man/tessard.8": """
.Sh NAME
.Sh SYNOPSIS
.Fl x
.Sh DESCRIPTION
.It Fl a Ar path , Fl -addr Ns = Ns Ar path
.It Fl v , Fl -version
.It Ic hostmon --showg
""",
    "man/tessctl.1": """
.Sh NAME
.Sh SYNOPSIS
.Sh DESCRIPTION
.It Fl a Ar path
.It Fl h
.It Fl -raw
.It Ic top
""",
}


def self_test():
    seven, eight, one = "man/tessard.7", "man/tessard.8", "man/tessctl.1"
    changes = [
        # what is changed, the file, the text that goes, the one that comes, words of each complaint
        ("nothing", "man/tessard.5", "", ""),
        ("a command without entry", seven, ".It Ic set Ar key value\n", "",
         "no entry for the command set"),
        ("an entry in the text alone", seven, ".It Ic get Ar key", ".Ic get",
         "no entry for the command get"),
        ("a part of a name", seven, "Ic hgetall", "Ic hget",
         "no entry for the command hgetall", "for hget"),
        ("an entry without command", seven, ".It Ic set", ".It Ic rpop\n.It Ic set",
         "for rpop, which is no"),
        ("an entry twice", seven, ".It Ic set", ".It Ic get\n.It Ic set",
         "two entries for the command get"),
        ("a command of the client", one, ".It Ic top\n", "", "no entry for the command top"),
        ("an option of the daemon", eight, "Fl v , ", "",
         "tessard.8: no entry for the option v"),
        ("a long option", eight, " , Fl -addr Ns = Ns Ar path", "",
         "no entry for the long option addr"),
        ("an option of the client", one, ".It Fl h\n", "",
         "tessctl.1: no entry for the option h"),
        ("an option unknown", one, ".It Fl h\n", ".It Fl h\n.It Fl q\n",
         "for q, which is no option"),
        ("a long option unknown", one, "Fl -raw", "Fl -raw , Fl -boiled",
         "for boiled, which is no long"),
        ("a section of all pages", "man/tessard.5", ".Sh DESCRIPTION\n", "",
         "tessard.5: no section DESCRIPTION"),
        ("a section of programs", eight, ".Sh SYNOPSIS\n", "",
         "tessard.8: no section SYNOPSIS"),
        ("a table that moved", CLIENT, "SUBCOMMANDS[]", "OWN[]", "no table of what tessctl.1"),
        ("a count too low", README, "3", "2", "2 commands instead of 3"),
        ("no count", README, "3", "many", "does not say how many"),
        ("a page that is gone", seven, None, None, "no page tessard.7"),
    ]
    wrong = 0
    for what, name, gone, come, *words in changes:
        files = dict(TREE)
        if gone is None:
            del files[name]
        else:
            assert gone in files[name], f"{what}: {name} does not hold the text that goes"
            files[name] = files[name].replace(gone, come)
        wrong += is_wrong(check, what, files, words)
    return wrong


run(__doc__, check, self_test, "manuals and README know every command and option")
