#!/usr/bin/env python3
"""Fits stopped in every way at every iteration: the tables must agree with each other and with the undisturbed fit.

usage: stops_test.py LIBRARY
A monitor that aborts or asks to finish, and the marker files ABORTTLV.NOW and FINALTLV.NOW, laid down while an iteration ends.
"""
import json
import os
import shutil
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "reference"))
from host import Host  # noqa: E402
from run_cases import read_csv  # noqa: E402

CASES = os.path.join(HERE, "..", "reference", "cases")
MARKERS = {"abort file": "ABORTTLV.NOW", "finish file": "FINALTLV.NOW"}
faults = 0


def complain(where, *words):
    global faults
    faults += 1
    print("FAULT", *where, *words)


def fit(library, request, matrices, way=None, at=0):
    host = Host(library)
    host.initialise()
    host.input_info(json.dumps(request))
    for name, rows in matrices.items():
        host.input_real_2d(name, rows)
    seen = []

    def monitor(text):
        seen.append(json.loads(text))
        if len(seen) != at:
            return 0
        if way in MARKERS:
            open(MARKERS[way], "w").close()
        return {"monitor abort": 1, "monitor finish": -1}.get(way, 0)

    host.register_monitor(monitor)
    host.process("")
    status = host.status
    messages = [m["message"] for m in host.errors().get("error_information", {}).get("messages", []) if m["etype"] != 9999]
    final = host.output_json("OPTIONAL:SCALAR_FINAL_MESSAGE")
    found = dict(status=status, seen=seen, messages=messages,
                 final=final["SCALAR_FINAL_MESSAGE"]["value"] if final else None,
                 flag=host.output_integer_scalar("SCALAR_CONVERGENCE_FLG"),
                 logl=host.output_real_scalar("SCALAR_LOGLIK"),
                 trace=host.output_real("TABLE_TRACE:LOGL"), iterations=host.output_integer("TABLE_TRACE:ITER"),
                 gamma=host.output_real("TABLE_VARCOMP:GAMMA"), effects=host.output_real("TABLE_SLN:EFFECT"),
                 fitted=host.output_real("TABLE_YHT:YHAT"), gammas=[])
    for k in range(1, len(seen[0]["gammas"]) + 1 if seen else 1):
        found["gammas"].append(host.output_real(f"TABLE_TRACE:gammas_{k}"))
    host.cleanup()
    return found


def check(where, found, whole, way, at):
    rows, last = found["trace"], len(whole["seen"])
    if rows != [m["logl"] for m in found["seen"]] or len(found["iterations"]) != len(rows):
        complain(where, "the trace is not what the monitor was told")
    for k, column in enumerate(found["gammas"]):
        if column != [m["gammas"][k] for m in found["seen"]]:
            complain(where, "parameter", k + 1, "of the trace")
    if rows[:at] != whole["trace"][:at]:
        complain(where, "the iterations up to the stop are others")
    for message in found["messages"]:
        if found["messages"].count(message) > 1:
            complain(where, "told twice:", message)
    for name in MARKERS.values():
        if os.path.exists(name):
            os.unlink(name)
            if at < last:
                complain(where, "left", name)
    if "abort" in way:
        # A file that comes at the end of the last iteration is too late.
        late = way == "abort file" and at == last
        if len(rows) > at + (way == "abort file"):
            complain(where, "went on to", len(rows))
        if not late and (found["flag"] != 1 or found["final"] != "Terminated early" or found["status"] <= 0 or found["logl"] is not None):
            complain(where, "ended as", found["flag"], found["final"], found["status"], found["logl"])
        return
    if len(rows) > at + 2:
        complain(where, "went on to", len(rows))
    if found["status"] > 0 or found["logl"] is None or not found["effects"] or not found["fitted"]:
        return complain(where, "no results", found["final"])
    words = ("LogL Converged", "Warning: LogL Converged") if found["flag"] == 0 else ("JOB INTERUPTED by USER", " Warning: LogL not")
    if not found["final"].startswith(words):
        complain(where, "ended as", found["flag"], repr(found["final"]))
    reported = [k for k, logl in enumerate(rows) if abs(logl - found["logl"]) <= 1e-9 * abs(logl)]
    if not reported:
        return complain(where, "LogL", found["logl"], "is in no row of the trace")
    for value, column in zip(found["gamma"], found["gammas"]):
        if abs(value - column[reported[-1]]) > 1e-9 * max(1.0, abs(value)):
            complain(where, "reports a parameter of", value, "beside", column[reported[-1]])


def main():
    library = os.path.abspath(sys.argv[1])
    runs = 0
    usual, long = {"maxiterations": 30}, {"maxiterations": 30, "extra": 2, "outlier": True}
    for name, options in (("oats/case", usual), ("met/fa", usual), ("repeated/us", usual), ("oats/case", long)):
        path = os.path.join(CASES, name + ".json")
        with open(path, encoding="utf-8") as file:
            case = json.load(file)
        request = {k: v for k, v in case["request"].items() if k not in ("predict", "wald", "vpredict")}
        request["options"] = options
        matrices = {k: read_csv(os.path.join(os.path.dirname(path), m["file"])) for k, m in case["matrices"].items()}
        folder = tempfile.mkdtemp()
        os.chdir(folder)
        whole = fit(library, request, matrices)
        for way in ("monitor abort", "monitor finish", "abort file", "finish file"):
            for at in range(1, len(whole["seen"]) + 1):
                check((name, way, at), fit(library, request, matrices, way, at), whole, way, at)
                runs += 1
        os.chdir("/")
        shutil.rmtree(folder)
    print(f"{runs} stopped fits, {faults} faults")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
