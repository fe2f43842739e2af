#!/usr/bin/env python3
"""Fits killed at random moments: the parameter files that they leave are whole, hold the values of one iteration, and restart.

usage: killed_test.py TOLVAN [KILLS [SEED]]
"""
import json
import os
import pathlib
import random
import re
import shutil
import subprocess
import sys
import tempfile
import time

TOLVAN = os.path.abspath(sys.argv[1])
KILLS = int(sys.argv[2]) if len(sys.argv) > 2 else 24
SEED = int(sys.argv[3]) if len(sys.argv) > 3 else 1
# Small steps, so that a fit writes its files often and with other values each time.
OPTIONS = {"maxiterations": 100, "slow": 40, "msv": "kept.msv"}


def request(options):
    return {"data_file": {"name": "plots.csv", "type": "ft_csv", "skip": 1},
            "variables": [{"name": "env", "field_type": "vt_string_factor"}, {"name": "geno", "field_type": "vt_string_factor"},
                          {"name": "y"}],
            "model": {"response": "y", "fixed": "env", "random": "us(env):geno"}, "options": options}


def command(name, folder, *more):
    return [TOLVAN, "fit", name, "--threads", "1", "-q", "-o", folder, *more]


def in_report(folder):
    """the parameters of the iterations that the report of a run tells, four digits each"""
    report = next(pathlib.Path(folder).glob("*.tlv")).read_text()
    return [[float(x) for x in line.split("parameters")[1].split()] for line in report.split("\n") if line.startswith("iteration ")]


def in_file(path):
    lines = path.read_text().split("\n")
    if path.suffix != ".rsv":
        return [float(line.split('"')[2].split(",")[3]) for line in lines if re.match(r' *\d+, "', line)]
    values, k = [], 7
    while len(values) < int(lines[6]):
        values += [float(x) for x in lines[k].split()]
        k += 1
    if not lines[-1] == "" or "RSTRUCTURE" not in "".join(lines[k:]) or len(lines) < k + 10:
        raise ValueError("the file ends early")
    return values


def alike(a, b):
    return len(a) == len(b) and all(abs(x - y) <= 6e-4 * max(1e-3, abs(y)) for x, y in zip(a, b))


def main():
    chance = random.Random(SEED)
    os.chdir(tempfile.mkdtemp())
    rows = ["env,geno,y"]
    for g in range(60):
        common = chance.gauss(0, 1)
        for e in range(3):
            effect = 10 + e + common + 0.7 * chance.gauss(0, 1)
            rows += [f"e{e},g{g},{effect + chance.gauss(0, 1)}" for _ in range(2)]
    pathlib.Path("plots.csv").write_text("\n".join(rows) + "\n")
    pathlib.Path("fit.json").write_text(json.dumps(request(OPTIONS)))
    pathlib.Path("next.json").write_text(json.dumps(request({**OPTIONS, "maxiterations": 101})))
    began = time.time()
    subprocess.run(command("fit.json", "whole"), capture_output=True)
    seconds = time.time() - began
    os.unlink("kept.msv")
    subprocess.run(command("next.json", "next"), capture_output=True)  # knows where the last update leads
    iterations = in_report("next")
    names = sorted(os.listdir("whole"))
    faults = seen = restarts = 0
    left = set()
    for k in range(KILLS):
        if k % 4 == 0:
            shutil.rmtree("out", ignore_errors=True)  # else what was killed before is still there
        pathlib.Path("kept.msv").unlink(missing_ok=True)
        run = subprocess.Popen(command("fit.json", "out"), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(chance.uniform(0.02, seconds))
        run.kill()
        run.wait()
        files = [p for p in [*pathlib.Path("out").glob("*"), *pathlib.Path(".").glob("kept*")]]
        left |= {p.suffix for p in files if re.search(r"\.(part|earlier)", p.name)}
        for path in files:
            if path.suffix not in (".rsv", ".tsv", ".msv"):
                continue
            seen += 1
            try:
                if not any(alike(in_file(path), values) for values in iterations):
                    raise ValueError(f"values of no iteration: {in_file(path)}")
            except (ValueError, IndexError) as fault:
                faults += 1
                print("FAULT", path, fault)
        saved = pathlib.Path("out/fit.rsv")
        if k % 6 == 5 and saved.exists():
            restarts += 1
            shutil.rmtree("again", ignore_errors=True)
            pathlib.Path("again.json").write_text(json.dumps(request({"maxiterations": 1, "continue": str(saved.resolve())})))
            subprocess.run(command("again.json", "again"), capture_output=True)
            if not alike(in_report("again")[0], in_file(saved)):
                faults += 1
                print("FAULT the restart began at", in_report("again")[0], "and not at", in_file(saved))
    pathlib.Path("kept.msv").unlink(missing_ok=True)
    subprocess.run(command("fit.json", "out"), capture_output=True)
    if sorted(os.listdir("out")) != names:
        faults += 1
        print("FAULT a whole run leaves", sorted(os.listdir("out")), "and not", names)
    print(f"{KILLS} fits killed, {seen} parameter files looked at, {restarts} restarts, left beside: {sorted(left)}; {faults} faults")
    return 1 if faults or seen == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
