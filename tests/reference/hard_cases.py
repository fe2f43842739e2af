#!/usr/bin/env python3
"""Fits that are asked for in awkward ways and must end where the plain ones do.

    hard_cases.py LIB CASES_DIR [--only NAME]

Each case of the tables below is fitted with its response in units a million times smaller and larger, with its records
shuffled, its levels renumbered, and from starting values a hundred times too large and too small, one parameter at a time
(correlations: 0.95 and 0.01).  LogL in the response's own units must be the plain fit's; in another order the estimates, too.
Standard library only.
"""
import argparse
import copy
import csv
import json
import math
import os
import random
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from host import Host  # noqa: E402

SCALES = (1e-6, 1e6)
FACTORS = (100.0, 0.01)
LOGL = 1e-4       # of fits from other starting values and in other units
SAME = 1e-8       # of the same fit in another order: LogL and estimates, relative

# cases with a single response that a data matrix holds
UNITS = ["oats/case.json", "unbalanced/weights.json", "repeated/us.json", "repeated/ar1h.json", "repeated/corh.json",
         "repeated/ante1.json", "repeated/chol1.json", "repeated/facv1.json", "repeated/idh.json", "sections/case.json",
         "met/fa.json", "met/sections.json", "field/case.json", "animal_ainv/case.json", "sire_h2/case.json"]
# the same with its records shuffled alone
SHUFFLED = ["points/sph.json", "points_mtrn/mtrn_nu.json", "points_smooth/agau.json", "met_two/fa2.json", "field_nugget_mv/case.json",
            "bivariate/case.json", "polynomials/leg_random.json", "spline/case.json", "splitplot_lost/case.json"]
# cases whose factors may be numbered in any way: the parameters may change places
LEVELS = ["oats/case.json", "sire_h2/case.json", "unbalanced/weights.json", "met/us.json", "met/diag.json",
          "polynomials/leg_random.json", "splitplot_lost/case.json"]
# Left out: coefficients of ante() whose first LogL is so low
# that all of the fit is reported relative to a base.
STARTS = {"oats/case.json": (), "sire_h2/case.json": (), "animal_ainv/case.json": (),
          "repeated/us.json": (), "repeated/ar1h.json": (), "repeated/corh.json": (), "repeated/facv1.json": (),
          "repeated/ante1.json": ("C_2_1", "C_3_2", "C_4_3"), "repeated/idh.json": (), "repeated/ar1v.json": (), "bivariate/case.json": (),
          "trivariate/case.json": (), "sections/case.json": (), "field/case.json": (), "met/us.json": (),
          "met/fa.json": (), "met_two/fa2.json": (), "met/facv.json": (), "met/sfa.json": (), "random_ar1v/case.json": (), "sleepstudy/case.json": (),
          "field_nugget_mv/case.json": (),
          "points/sph.json": (), "points/mtrn05.json": (), "points_aniso/mtrn_aniso.json": (),
          "points_mtrn/mtrn_nu.json": (), "points_smooth/agau.json": (), "points_smooth/igau.json": (), "repeated/lvr.json": ()}
SIGMA = ["met/sfa.json", "random_ar1v/case.json", "field_nugget_mv/case.json", "repeated/lvr.json", "oats/case.json", "met/us.json"]


def read_csv(path):
    with open(path) as f:
        return [[None if v in ("NA", "") else float(v) for v in row] for row in list(csv.reader(f))[1:]]


class Fit:
    """one run of a request with its matrices"""

    def __init__(self, lib, request, matrices):
        h = Host(lib)
        h.initialise()
        h.input_info(json.dumps(request))
        for name, rows in matrices.items():
            h.input_real_2d(name, rows)
        h.process("")
        self.errors = [m.get("message", "") for m in h.errors()["error_information"]["messages"] if m.get("etype") == 4]
        self.logl = h.output_real_scalar("SCALAR_LOGLIK")
        self.df = h.output_integer_scalar("SCALAR_DF")
        self.sigma = h.output_real("TABLE_VARCOMP:SIGMA") or []
        table = h.output_json("OPTIONAL:TABLE_VARCOMP") or {}
        self.labels = column(table, "LABEL")
        self.flags = column(table, "BOUND")
        h.cleanup()


def column(tree, name):
    """the texts of a column, anywhere in a table's JSON"""
    if isinstance(tree, dict):
        if str(tree.get("name", "")).upper() == name:
            return next((v for v in tree.values() if isinstance(v, list)), [])
        tree = list(tree.values())
    for v in tree if isinstance(tree, list) else []:
        found = column(v, name)
        if found:
            return found
    return []


def request_of(case):
    request = copy.deepcopy(case["request"])
    for key in ("predict", "wald", "vpredict"):
        request.pop(key, None)
    request["options"] = {"extra": 5, "maxiterations": 60}
    return request


def judge(what, fit, want, tolerance, shift, bad):
    if fit.logl is None or fit.df is None:
        bad.append(f"{what}: no LogL ({'; '.join(fit.errors)})")
    elif not abs(fit.logl + shift(fit.df) - want) <= tolerance:
        bad.append(f"{what}: LogL {fit.logl + shift(fit.df):.8f} not {want:.8f}")


def judge_order(what, fit, plain, bad):
    judge(what, fit, plain.logl, SAME * max(1.0, abs(plain.logl)), lambda df: 0.0, bad)
    if fit.labels != plain.labels:
        bad.append(f"{what}: other parameters")
        return
    least = 1e-6 * max(abs(v) for v in plain.sigma)   # what is smaller has settled at zero
    ordered = (lambda values: values) if what.startswith("records") else sorted
    for label, got, want in zip(plain.labels, ordered(fit.sigma), ordered(plain.sigma)):
        if abs(got - want) > SAME * max(abs(want), least):
            bad.append(f"{what}: {label} {got:.10g} not {want:.10g}")


def shuffled(lib, case, matrices, plain, name, bad):
    rows = list(matrices[name])
    random.Random(1).shuffle(rows)
    judge_order("records shuffled", Fit(lib, request_of(case), {**matrices, name: rows}), plain, bad)


def in_other_units(lib, case, matrices, plain, bad):
    response = case["request"]["model"]["response"]
    for name, info in case["matrices"].items():
        if response not in info["columns"]:
            continue
        y = info["columns"].index(response)
        for scale in SCALES:
            rows = [[v * scale if i == y and v is not None else v for i, v in enumerate(row)] for row in matrices[name]]
            fit = Fit(lib, request_of(case), {**matrices, name: rows})
            judge(f"response times {scale:g}", fit, plain.logl, LOGL, lambda df: df * math.log(scale), bad)
        shuffled(lib, case, matrices, plain, name, bad)


def with_other_codes(lib, case, matrices, plain, bad):
    request = request_of(case)
    entries = request["dataset"] if isinstance(request["dataset"], list) else [request["dataset"]]
    for name, info in case["matrices"].items():
        described = {v["name"]: v for e in entries if e["name"] == name for v in e.get("variables", [])}
        rows = [list(row) for row in matrices[name]]
        for at, column_name in enumerate(info["columns"]):
            levels = described.get(column_name, {}).get("number_of_levels")
            if not levels:
                continue
            codes = list(range(1, levels + 1))
            random.Random(levels).shuffle(codes)
            for row in rows:
                row[at] = None if row[at] is None else codes[int(row[at]) - 1]
        judge_order("levels renumbered", Fit(lib, request, {**matrices, name: rows}), plain, bad)


def from_bad_starts(lib, case, matrices, plain, name, bad):
    left_out = STARTS[name]
    if not plain.labels or len(plain.labels) != len(plain.sigma):
        bad.append("no labels to start from")
    for label, value, flag in zip(plain.labels, plain.sigma, plain.flags):
        kind = label.rsplit(";", 1)[-1]
        profiled = label == plain.labels[-1] and kind == "IDV_V"
        if value == 0 or flag.strip() in ("F", "C") or profiled or any(kind.endswith(k) for k in left_out):
            continue
        correlation = "_R" in kind
        for factor in FACTORS:
            start = math.copysign(0.95 if factor > 1 else 0.01, value) if correlation else value * factor
            request = request_of(case)
            request.setdefault("initial_values", []).append({"term": label, "value": start})
            judge(f"{label} from {start:.4g}", Fit(lib, request, matrices), plain.logl, LOGL, lambda df: 0.0, bad)
    # the residual's own variance has a start on the sigma scale alone
    for factor in FACTORS if plain.labels and plain.labels[-1].endswith("IDV_V") and name in SIGMA else ():
        request = request_of(case)
        request["options"]["varscale"] = 1
        request.setdefault("initial_values", []).append({"term": plain.labels[-1], "value": plain.sigma[-1] * factor})
        judge(f"residual from {factor:g} times itself", Fit(lib, request, matrices), plain.logl, LOGL, lambda df: 0.0, bad)


def main():
    a = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    a.add_argument("lib")
    a.add_argument("cases")
    a.add_argument("--only", default="")
    o = a.parse_args()
    lib, failed = os.path.abspath(o.lib), 0
    for name in sorted(set(UNITS) | set(SHUFFLED) | set(LEVELS) | set(STARTS)):
        if o.only not in name:
            continue
        folder = os.path.join(o.cases, os.path.dirname(name))
        with open(os.path.join(o.cases, name)) as f:
            case = json.load(f)
        matrices = {n: read_csv(os.path.join(folder, m["file"])) for n, m in case["matrices"].items()}
        plain, bad = Fit(lib, request_of(case), matrices), []
        judge("as given", plain, case["expected"]["loglik"], LOGL, lambda df: 0.0, bad)
        if not bad and name in UNITS:
            in_other_units(lib, case, matrices, plain, bad)
        if not bad and name in SHUFFLED:
            shuffled(lib, case, matrices, plain, "data", bad)
        if not bad and name in LEVELS:
            with_other_codes(lib, case, matrices, plain, bad)
        if not bad and name in STARTS:
            from_bad_starts(lib, case, matrices, plain, name, bad)
        failed += bool(bad)
        print(name, "ok" if not bad else "\n   " + "\n   ".join(bad), flush=True)
    print("all ended where they should" if not failed else f"{failed} cases failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
