#!/usr/bin/env python3
"""Random models through the exports, with the terms and sizes that derive_model_cases.py gives them.

    python3 random_models.py LIBRARY [SEED [COUNT]]

Each model goes through a run that stops ahead of the fit; the table of terms must be the derived one, and what the rules
refuse must be refused.  Models are drawn from what the data can not refuse later on: known matrices, and() and residuals
other than units are left out.
"""
import json
import pathlib
import random
import sys

from derive_model_cases import Model, variables_of
from formula_sets import Refused

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "reference"))
from host import Host  # noqa: E402

VARIABLES = variables_of("site:3[north,east,south] row:4 col:5 geno:6 block:2 x z y y2")
LEVELS = {name: levels for name, levels, _, _ in VARIABLES if levels}
RECORDS = 60
BY_DATA = (4, 6, 10, 11)  # kinds whose levels only the data tell


class Grammar:
    def __init__(self, seed):
        self.r = random.Random(seed)

    def factor(self):
        return self.r.choice(list(LEVELS))

    def name(self):
        if self.r.random() < 0.1:
            return self.r.choice(["units", "mu", "trait", "zz", "mv"])
        return self.r.choice(list(LEVELS) * 2 + ["x", "z"])

    def condition(self):
        f = self.factor()
        levels = LEVELS[f] + (self.r.random() < 0.1)
        asked = self.r.choice(["", f",{self.r.randint(1, levels)}",
                               ",[" + ",".join(str(self.r.randint(1, levels)) for _ in range(self.r.randint(1, 3))) + "]"])
        if f == "site" and self.r.random() < 0.5:
            asked = self.r.choice([",'east'", ",[north,'south']", ",'west'"])
        return f"{self.r.choice(['at', 'sat'])}({f}{asked})"

    def structure(self, depth):
        f = self.r.choice("id idv idh ar1 ar1v ar1h ar2 ma1 cor corv corh corg us diag ante chol sfa facv fa rr corb exp gau lvr".split())
        more = ""
        if f in ("fa", "rr"):
            more = f",{self.r.choice([0, 1, 2])}"
        elif f in ("ante", "chol", "corb") and self.r.random() < 0.5:
            more = f",{self.r.choice([1, 2])}"
        elif f != "id" and self.r.random() < 0.3:
            more = ",init=0.2" if f in ("ante", "chol", "sfa", "facv", "corb") else ",[0.1,0.2]"
        return f"{f}({self.name() if depth == 0 or self.r.random() < 0.85 else self.call(depth - 1)}{more})"

    def call(self, depth=1):
        kind = self.r.random()
        if kind < 0.25:
            return self.condition()
        if kind < 0.55:
            return self.structure(depth)
        if kind < 0.6:
            return self.r.choice(["iexp", "mtrn", "sph"]) + self.r.choice(["(x,z)", "(fac(x,z))", "(x,row)"])
        inner = self.name() if depth == 0 or self.r.random() < 0.8 else self.call(depth - 1)
        return self.r.choice([f"lin({inner})", f"con({inner})", f"pol(x,{self.r.choice([1, 2, -1])})", f"leg({inner},1)",
                              f"pow({inner},2)", f"zero({self.r.choice([1, 3, 0])})", f"fac({inner})", "spl(x)", f"dev({inner})",
                              f"uni({self.factor()},{self.r.choice([0, 1, 2])})"])

    def operand(self):
        return self.name() if self.r.random() < 0.55 else self.call()

    def term(self, part):
        kind = self.r.random()
        if part == "random" and kind < 0.08:
            f = self.factor()
            return f"str({f}+{f}:x,us(2):id({self.r.choice([LEVELS[f], f, 7])}))"
        product = ":".join(self.operand() for _ in range(self.r.choice([1, 1, 1, 2, 2, 3])))
        if kind < 0.18:
            return f"({product}+{self.operand()}):{self.factor()}"
        if kind < 0.26:
            return f"{self.factor()}{self.r.choice('*/')}{self.factor()}"
        return product

    def model(self):
        model = {"response": self.r.choice(["y"] * 5 + ["y+y2", "y+at(site,2)", "at(row,[1,2])"])}
        for part in ("fixed", "random", "sparse"):
            if self.r.random() < 0.6:
                out = self.term(part)
                for _ in range(self.r.choice([0, 1, 1, 2])):
                    out += self.r.choice([" + "] * 7 + [" - "]) + self.term(part)
                model[part] = out
        if model["response"] != "y":
            model["residual"] = "units:us(trait)"
        elif self.r.random() < 0.2:
            model["residual"] = self.r.choice(["units", "idv(units)", "dsum(idv(units)|site)", "sat(block):units"])
        return model


def described():
    out = []
    for name, levels, labels, _ in VARIABLES:
        each = {"name": name}
        if labels:
            each.update(field_type="vt_string_factor", factor_labels=labels)
        elif levels:
            each.update(field_type="vt_integer_factor_1_to_n", number_of_levels=levels)
        out.append(each)
    return {"dataset": {"name": "d", "storage_order": "so_row_major", "number_of_observations": RECORDS, "variables": out}}


def records():
    r = random.Random(5)
    return [[(k % n + 1 if k < 6 else r.randint(1, n)) if n else r.gauss(0, 1) for _, n, _, _ in VARIABLES] for k in range(RECORDS)]


def derived(model):
    """(name, equations) of each term, None in the place of what the data tell; None for a model that is refused."""
    try:
        m = Model(VARIABLES, RECORDS, model)
    except Refused:
        return None

    def known(code):
        rows = m.span(code)
        while any(m.row(i).source for i in rows):
            if any(m.row(i).kind in BY_DATA for i in rows):
                return False
            rows = [m.row(i).source for i in rows if m.row(i).source]
        return not any(m.row(i).kind in BY_DATA for i in rows)
    return [(t[0], m.equations(t) if known(t[1]) else None) for t in m.terms]


def found(library, model, data):
    """The same from the engine, and its status and messages."""
    host = Host(library)
    host.initialise()
    host.input_info(json.dumps(described()))
    host.input_real_2d("d", data)
    status = host.process(json.dumps({"model": model, "options": {"process_stage": "preprocess"}}))
    table = host.output_json("TABLE_TERMS") if status <= 0 else None
    messages = json.dumps(host.errors())
    host.cleanup()
    if table is None:
        return None, status, messages
    columns = {c["name"]: c["values"] for c in table["TABLE_TERMS"]["column_info"]["columns"]}
    return list(zip((t.strip() for t in columns["TERM"]), columns["EQUATIONS"])), status, messages


def main(library, seed=1, count=300):
    grammar, data, accepted, wrong = Grammar(int(seed)), records(), 0, 0
    for _ in range(int(count)):
        model = grammar.model()
        expected = derived(model)
        terms, status, messages = found(library, model, data)
        if expected is None or terms is None:
            same = expected is None and terms is None and status != 999
        else:
            same = len(terms) == len(expected) and all(a[0] == b[0] and b[1] in (None, a[1]) for a, b in zip(terms, expected))
            accepted += 1
        if not same and "distinct values" not in messages:
            wrong += 1
            print(f"{json.dumps(model)}\n  derived {expected}\n  found   {terms if terms else messages[:600]}")
    print(f"{count} models, {accepted} accepted, {wrong} differ")
    return 1 if wrong or accepted < int(count) // 5 else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
