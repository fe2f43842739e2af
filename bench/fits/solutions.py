#!/usr/bin/env python3
"""Solutions at given parameters: those of an iteration beside those of the factor, with time and memory.

    solutions.py DRIVER FOLDER [--modes 2,4,18] [--threads 1]

FOLDER holds a workload as ../workloads/gen.py writes it.  The first mode is the yardstick of the differences, which are told in
standard deviations of the solutions.
"""
import argparse
import json
import os
import re
import subprocess
import sys
import time


def column(tables, table, name):
    for c in tables[table]["column_info"]["columns"]:
        if c["name"] == name:
            return [float(x) for x in c["values"]]
    raise KeyError(name)


def solve(driver, folder, mode, threads):
    with open(os.path.join(folder, "request.json")) as f:
        request = json.load(f)
    request["options"]["blup"] = mode
    request["api_options"] = {"debug_level": 256}
    with open(os.path.join(folder, "solutions.json"), "w") as f:
        json.dump(request, f)
    output = os.path.join(folder, "solutions.out")
    start = time.monotonic()
    with open(output, "w") as out:
        child = subprocess.Popen([driver, "fit", "solutions.json", "--threads", str(threads), "--json", "-q"], stdout=out,
                                 stderr=subprocess.DEVNULL, cwd=folder)
        _, status, used = os.wait4(child.pid, 0)
    with open(output) as f:
        text = f.read()
    os.remove(output)
    document = json.loads(text[text.index('{"status"'):])
    words = " ".join(str(m["message"]) for m in document["error_information"]["messages"])
    rounds = re.search(r"in (\d+) rounds", words)
    parts = dict(re.findall(r"^(\w+)\s+([\d.]+)\s+\d+ calls", text, re.M))
    return dict(status=os.waitstatus_to_exitcode(status), wall=time.monotonic() - start, cpu=used.ru_utime + used.ru_stime,
                mb=used.ru_maxrss / 1024, rounds=rounds.group(1) if rounds else "-", parts=parts,
                effect=column(document["tables"], "TABLE_SLN", "EFFECT"), fitted=column(document["tables"], "TABLE_YHT", "YHAT"))


def largest_difference(a, b):
    mean = sum(a) / len(a)
    deviation = (sum((x - mean) ** 2 for x in a) / len(a)) ** 0.5
    return max(abs(x - y) for x, y in zip(a, b)) / deviation


def main():
    a = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    a.add_argument("driver")
    a.add_argument("folder")
    a.add_argument("--modes", default="2,4,18")
    a.add_argument("--threads", type=int, default=1)
    o = a.parse_args()
    first = None
    for mode in o.modes.split(","):
        r = solve(os.path.abspath(o.driver), o.folder, int(mode), o.threads)
        first = first or r
        print(f"blup {mode:>2}: exit {r['status']}, wall {r['wall']:.2f} s, processor {r['cpu']:.2f} s, peak {r['mb']:.0f} MB, rounds "
              f"{r['rounds']}, evaluation {r['parts'].get('K4MITR')} s, effects off by {largest_difference(first['effect'], r['effect']):.1e}, "
              f"fitted values by {largest_difference(first['fitted'], r['fitted']):.1e}", flush=True)


if __name__ == "__main__":
    sys.exit(main())
