"""What the checks of the tree share: their command line, and the proof that they find what they
are for.

A check is a function that takes the root of a tree and returns its complaints, a text each. Each
script that has one says `sys.dont_write_bytecode = True` before it imports this module, so that
running it leaves nothing in the tree.
"""

import pathlib
import sys
import tempfile


def complaints_about(check, files):
    """What the check says of a tree that holds these files: texts by their paths from the root.
    Scripts can be run."""
    with tempfile.TemporaryDirectory() as folder:
        root = pathlib.Path(folder)
        for name, text in files.items():
            (root / name).parent.mkdir(parents=True, exist_ok=True)
            (root / name).write_text(text, encoding="utf-8")
            if text.startswith("#!"):
                (root / name).chmod(0o755)
        return check(root)


def is_wrong(check, what, files, words):
    """Whether the check says anything but one complaint for each of the words, in their order,
    which holds it; what it said is printed then."""
    complaints = complaints_about(check, files)
    if len(complaints) == len(words) and all(w in c for w, c in zip(words, complaints)):
        return False
    print(f"{what}: expected {words or 'no complaint'}, got {complaints}")
    return True


def run(description, check, self_test, in_order):
    """Runs a script: `SCRIPT ROOT` checks the tree and says `in_order` when it is,
    `SCRIPT --self-test` calls self_test(), which returns how many of its trees went wrong. Does
    not return."""
    if sys.argv[1:] == ["--self-test"]:
        sys.exit(1 if self_test() else 0)
    if len(sys.argv) != 2:
        print(description)
        sys.exit(2)
    complaints = check(pathlib.Path(sys.argv[1]))
    print("\n".join(complaints) if complaints else in_order)
    sys.exit(1 if complaints else 0)
