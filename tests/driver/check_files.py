#!/usr/bin/env python3
"""check_files.py TOLVAN FOLDER: runs the fit of an example of files and compares what it writes with what the folder keeps.

Numbers may differ by 2 in their last digit; the timing of a report and the page's figures are not compared.
"""
import pathlib
import shutil
import subprocess
import sys
import tempfile

from check_example import same

NOT_COMPARED = {".csv", ".json", ".html", ".veo"}


def lines_of(path):
    lines = [line for line in path.read_text().splitlines() if "processor threads" not in line]
    return lines[:lines.index("END OF AIDATA_BODY")] if "END OF AIDATA_BODY" in lines else lines


def main():
    tolvan, folder = pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2])
    with tempfile.TemporaryDirectory() as scratch:
        work = pathlib.Path(scratch)
        for path in folder.glob("*.*"):
            if path.suffix in (".csv", ".json"):
                shutil.copy(path, work)
        request = next(work.glob("*.json")).name
        run = subprocess.run([tolvan, "fit", request, "-o", "."], cwd=work, capture_output=True, text=True)
        if run.returncode != 0:
            print("the fit ended with", run.returncode, run.stderr)
            return 1
        failures = 0
        for kept in sorted(folder.glob("*.*")):
            if kept.suffix in NOT_COMPARED:
                continue
            got, expected = lines_of(work / kept.name), lines_of(kept)
            if len(got) != len(expected):
                print("%s has %d lines, kept are %d" % (kept.name, len(got), len(expected)))
                failures += 1
            for k, (a, b) in enumerate(zip(got, expected), 1):
                if not same(a, b):
                    print("%s, line %d:\n  written %s\n  kept    %s" % (kept.name, k, a, b))
                    failures += 1
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
