#!/usr/bin/env python3
"""check_example.py TOLVAN FOLDER [README]: runs an example and compares its report with expected.txt.

Numbers may differ by 2 in their last digit (another machine's mathematical library); all else is compared exactly.
arguments.txt, where there is one, holds what follows the request on the command line. A README named last has to show
the expected report as it stands.
"""
import decimal
import pathlib
import re
import subprocess
import sys

NUMBER = re.compile(r"-?\d+(?:\.\d+)?")


def same(got, expected):
    if NUMBER.sub("#", got) != NUMBER.sub("#", expected):
        return False
    for a, b in zip(NUMBER.findall(got), NUMBER.findall(expected)):
        a, b = decimal.Decimal(a), decimal.Decimal(b)
        if a.as_tuple().exponent != b.as_tuple().exponent:
            return False
        unit = decimal.Decimal(1).scaleb(b.as_tuple().exponent)
        if abs(a - b) > (2 * unit if unit < 1 else 0):
            return False
    return True


def main():
    tolvan, folder = sys.argv[1], pathlib.Path(sys.argv[2])
    extra = folder / "arguments.txt"
    arguments = extra.read_text().split() if extra.exists() else []
    run = subprocess.run([tolvan, "fit", "request.json", *arguments], cwd=folder, capture_output=True, text=True)
    got, expected = run.stdout.splitlines(), (folder / "expected.txt").read_text().splitlines()
    if run.returncode != 0:
        print(run.stderr)
        print("exit code", run.returncode)
        return 1
    wrong = [(a, b) for a, b in zip(got, expected) if not same(a, b)]
    for a, b in wrong:
        print("got     ", a, "\nexpected", b)
    if len(got) != len(expected):
        print(len(got), "lines instead of", len(expected))
    stale = len(sys.argv) > 3 and "```\n" + "\n".join(expected) + "\n```" not in pathlib.Path(sys.argv[3]).read_text()
    if stale:
        print(sys.argv[3], "shows another report")
    return 1 if wrong or stale or len(got) != len(expected) else 0


if __name__ == "__main__":
    sys.exit(main())
