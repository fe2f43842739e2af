#!/usr/bin/env python3
"""Whole fits of the benchmark workloads: time and memory in all and for each part of an evaluation.

    run.py DRIVER [--sizes s,m,l] [--workload crossed] [--threads 1] [--repeat 3] [--data DIR]

DRIVER is the stand-alone driver `tolvan` of a release build.  Data are generated once into DIR (default: a folder under the
system's temporary one).  Writes DIR/WORKLOAD.csv for ../workloads/growth.py and checks the answers against
../workloads/anchors.json.  Needs numpy for the generator alone.
"""
import argparse
import json
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
WORKLOADS = os.path.join(HERE, "..", "workloads")
TIMINGS = 256  # the bit of debug_level that prints the timing table
ROW = re.compile(r"^(\w[\w/ ]*?)\s+(-?[\d.]+)\s+(\d+) calls\)$")


def run(driver, folder, threads):
    """one fit in a process of its own: wall, processor seconds, peak MB, parts, LogL, iterations"""
    with open(os.path.join(folder, "request.json")) as f:
        request = json.load(f)
    request["api_options"] = {"debug_level": TIMINGS}
    path = os.path.join(folder, "timed.json")
    with open(path, "w") as f:
        json.dump(request, f)
    start = time.monotonic()
    child = subprocess.Popen([driver, "fit", path, "--threads", str(threads), "-q"], stdout=subprocess.PIPE,
                             stderr=subprocess.DEVNULL, text=True)
    out = child.stdout.read()
    _, status, used = os.wait4(child.pid, 0)
    wall = time.monotonic() - start
    parts, logl = {}, None
    for line in out.splitlines():
        m = ROW.match(line.strip())
        if m:
            parts[m.group(1).strip()] = (float(m.group(2)), int(m.group(3)))
        m = re.match(r"\s*LogL\s+(-?[\d.]+)(\s|$)", line)
        if m:
            logl = float(m.group(1))
    return dict(wall=wall, cpu=used.ru_utime + used.ru_stime, mb=used.ru_maxrss / 1024, parts=parts, logl=logl,
                iterations=parts.get("K4MITR", (0, 0))[1], status=os.waitstatus_to_exitcode(status))


def main():
    a = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    a.add_argument("driver")
    a.add_argument("--workload", default="crossed")
    a.add_argument("--sizes", default="s,m,l")
    a.add_argument("--threads", type=int, default=1)
    a.add_argument("--repeat", type=int, default=3)
    a.add_argument("--data", default=os.path.join(tempfile.gettempdir(), "tolvan_bench"))
    o = a.parse_args()
    with open(os.path.join(WORKLOADS, "anchors.json")) as f:
        anchors = {(e["workload"], e["size"]): e for e in json.load(f)["anchors"]}
    lines = []
    for size in o.sizes.split(","):
        folder = os.path.join(o.data, f"{o.workload}-{size}")
        if not os.path.exists(os.path.join(folder, "request.json")):
            os.makedirs(folder, exist_ok=True)
            subprocess.run([sys.executable, os.path.join(WORKLOADS, "gen.py"), o.workload, size, "--out", folder],
                           check=True, stdout=subprocess.DEVNULL)
        runs = [run(o.driver, folder, o.threads) for _ in range(1 if size == "l" else o.repeat)]
        med = {k: statistics.median(r[k] for r in runs) for k in ("wall", "cpu", "mb")}
        last = runs[-1]
        anchor = anchors.get((o.workload, size), {})
        print(f"\n{o.workload} {size}: wall {med['wall']:.2f} s, processor {med['cpu']:.2f} s, peak {med['mb']:.0f} MB, "
              f"{last['iterations']} iterations, LogL {last['logl']}, exit {last['status']}")
        if anchor.get("LogL") is not None:
            off = abs(last["logl"] - anchor["LogL"])
            print(f"  LogL is {off:.5f} from the anchor {anchor['LogL']}" + ("" if off <= 0.02 else "  WRONG"))
        for name in last["parts"]:
            total = statistics.median(r["parts"].get(name, (0.0, 1))[0] for r in runs)
            calls = last["parts"][name][1]
            print(f"  {name:<28}{total:10.3f} s {calls:6d} calls {total / max(1, calls):12.5f} s each")
            if anchor.get("work"):
                lines.append(f"{o.workload}:{name},{size},{anchor['work']},{total / max(1, calls)}")
        if anchor.get("work"):
            lines.append(f"{o.workload}:whole,{size},{anchor['work']},{med['cpu'] / max(1, last['iterations'])}")
    path = os.path.join(o.data, o.workload + ".csv")
    with open(path, "w") as f:
        f.write("\n".join(x for x in lines if float(x.rsplit(",", 1)[1]) > 0) + "\n")
    print("\ngrowth of the time of each part against the factor's flops (" + path + "):", flush=True)
    return subprocess.run([sys.executable, os.path.join(WORKLOADS, "growth.py"), path]).returncode


if __name__ == "__main__":
    sys.exit(main())
