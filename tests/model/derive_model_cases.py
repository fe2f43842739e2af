#!/usr/bin/env python3
"""Derives the terms and factor rows of model_cases.tsv from the rules of the model language, and compares.

Nothing is shared with the engine: formulas are read by recursive descent with set algebra, terms are numbered by
the rules told in model/term_table.h and model/factor_table.h.  Refused models are told apart from accepted ones,
their words are not derived.

    python3 derive_model_cases.py tests/data_files/model_cases.tsv
"""
import json
import re
import sys

from factor_rows import Component, Row, Rows
from formula_sets import STRUCTURES, Call, Reader, Refused, arguments_of, number, value_of


class Model(Rows):
    def __init__(self, variables, records, model):
        self.rows, self.terms = [], []
        self.records, self.model = records, model
        self.variables = {}
        for k, (name, levels, labels, pedigree) in enumerate(variables):
            self.rows.append(Row(name, levels or 1, factor=bool(levels), variable=name))
            self.variables[name] = dict(row=k + 1, levels=levels, labels=labels, pedigree=pedigree)
        self.parts = {p: self.read_part(p) for p in ("response", "fixed", "random", "sparse", "residual")}
        given = model.get("fixed")
        whole = isinstance(given, dict) and isinstance(given.get("terms"), list)  # a list of terms is kept as it is
        if not whole and not any(f == ["mu"] for _, f in self.parts["fixed"]):
            self.parts["fixed"].insert(0, (False, ["mu"]))
        for p in ("fixed", "random", "sparse", "residual"):
            self.parts[p] = self.write_sections_out(self.parts[p])
            given = len(self.parts[p])
            self.parts[p] = self.drop_repeats(self.parts[p])
            if given and not self.parts[p]:
                raise Refused(p)
        traits = sum(len(self.levels_asked(f[0])) if isinstance(f[0], Call) else 1 for _, f in self.parts["response"])
        self.mu = self.add(Row("mu", 1, factor=False))
        self.units = self.add(Row("units", records))
        self.trait = self.add(Row("trait", traits)) if traits > 1 else 0
        has_mv = any(f == ["mv"] for p in ("fixed", "random", "sparse") for _, f in self.parts[p])
        self.mv = self.add(Row("mv", 0)) if has_mv else 0
        self.trait_labels = []
        self.read_responses()
        for p in ("fixed", "random", "sparse"):
            first = len(self.terms)
            for drop, factors in self.parts[p]:
                before = len(self.terms)
                if factors != ["mv"]:
                    self.read_term(p, factors)
                if drop:
                    self.drop(first, before)
        self.read_residual()
        if has_mv:
            self.terms.append(["mv_estimates", self.mv, "s", ""])

    # -- the request

    def read_part(self, part):
        given = self.model.get(part)
        if given is None:
            return []
        if isinstance(given, list):
            return [t for g in given for t in self.from_json(g)]
        return self.from_json(given)

    def from_json(self, node):
        if isinstance(node, str):
            terms = Reader(node).sum()
            if any(isinstance(f, str) and number(f) is not None for _, fs in terms for f in fs):
                terms = [(d, ["mu"] if fs == ["1"] else fs) for d, fs in terms]
                if any(number(f) is not None for _, fs in terms for f in fs if isinstance(f, str)):
                    raise Refused("a number")
            return terms
        if isinstance(node, list):
            return [t for n in node for t in self.from_json(n)]
        drop = bool(node.get("drop"))
        if "terms" in node:
            return self.from_json(node["terms"])
        if "term_name" in node:
            return [(drop, [node["term_name"]])]
        if "interaction" in node:
            return [(drop, [f for n in node["interaction"] for _, fs in self.from_json(n) for f in fs])]
        if "function" in node and node.get("linked", True):
            arguments, named = [], {}
            for a in node["function"]["arguments"]:
                value = a.get("value", a) if isinstance(a, dict) else a
                if isinstance(value, dict):
                    value = value["term_name"]
                text = {True: "true", False: "false"}.get(value, value) if isinstance(value, bool) else value
                text = text if isinstance(text, str) else json.dumps(text)
                if isinstance(a, dict) and "name" in a:
                    named[a["name"]] = text
                else:
                    arguments.append(text)
            return [(drop, [Call(node["function"]["name"], arguments, named)])]
        raise Refused("form of a term")

    def name(self, factor):
        return arguments_of(factor)[1] if isinstance(factor, Call) else factor

    def term_name(self, factors):
        return ":".join(self.name(f) for f in factors)

    def drop_repeats(self, terms):
        """A dropped term takes equal earlier ones with it; of equal ones the first stays."""
        out = []
        for drop, factors in terms:
            key = self.term_name(factors)
            equal = [t for t in out if not t[0] and self.term_name(t[1]) == key]
            conditional = "at(" in key  # sat( too: told apart when the levels are
            if drop and equal:
                out.remove(equal[0])
            elif drop and conditional:
                out.append((drop, factors))
            elif not drop and not equal:
                out.append((drop, factors))
        return out if any(not d for d, _ in out) else []

    def write_sections_out(self, terms):
        out = []
        for drop, factors in terms:
            sums = [f for f in factors if isinstance(f, Call) and f.name == "dsum"]
            if not sums:
                out.append((drop, factors))
                continue
            given, _ = arguments_of(sums[0])
            inner = Reader(given["model"]).sum()
            levels = value_of(given["levels"]) if "levels" in given else None
            if levels is not None and not isinstance(levels, list):
                raise Refused("levels")
            apart = levels is not None and any(isinstance(v, list) for v in levels)
            if apart and len(levels) != len(inner):
                raise Refused("levels")
            for k, (_, fs) in enumerate(inner):
                own = levels[k] if apart else levels
                sat = Call("sat", [given["cond"]] + ([json.dumps(own)] if own is not None else []), {})
                out.append((drop, [g for f in factors for g in ([sat] + fs if f is sums[0] else [f])]))
        return out

    # -- terms

    def copies(self, components):
        if len(components) == 1 and not components[0].structure:
            return components[0].row
        first = len(self.rows) + 1
        for c in components:
            base = self.row(c.row)
            copy = Row(c.name, base.levels, source=c.row, kind=base.kind, second=base.second, arguments=base.arguments,
                       structure=c.structure, init=c.init, order=c.order, dist=c.dist, matrix=c.matrix, factor=base.factor,
                       variable=base.variable, copy=True)
            copy.arguments = c.arguments or base.arguments
            copy.second = c.second or base.second
            if c.structure in ("fa", "rr"):
                copy.levels += c.order + (base.levels if c.structure == "rr" else 0)
            self.rows.append(copy)
        return 10000 * len(components) + first

    def alternatives(self, factors, part):
        if len(factors) > 1 and any(isinstance(f, str) and f == "mv" for f in factors):
            raise Refused("mv")
        read = [self.components(f, part) for f in factors]
        columns = [r for r in read if self.row(r[0].row).kind in (4, 8, 14)]
        several = [r for r in read if len(r) > 1]
        if len(columns) > 1 or len(several) > 1:
            raise Refused("expanding functions")
        count = max(len(r) for r in read)
        return [[r[t if len(r) > 1 else 0] for r in read] for t in range(count)]

    def read_responses(self):
        seen = []
        for _, factors in self.parts["response"]:
            if len(factors) > 1:
                raise Refused("response")
            f = factors[0]
            found = self.conditions(f, "response") if isinstance(f, Call) else [Component(self.variables[f]["row"], f)] \
                if f in self.variables else []
            if not found:
                raise Refused("response")
            for c in found:
                if c.row in seen:
                    raise Refused("response twice")
                seen.append(c.row)
                self.trait_labels.append(c.name)
                self.terms.append([c.name, c.row, "y", ""])
        family = self.model.get("family")
        if isinstance(family, list) and len(family) not in (1, len(seen)):
            raise Refused("family")
        weights = self.model.get("weights")
        if weights is not None and (weights not in self.variables or self.variables[weights]["levels"]):
            raise Refused("weights")
        offsets = [f[0] for d, f in self.parts["fixed"] if isinstance(f[0], Call) and f[0].name == "offset"]
        self.parts["fixed"] = [t for t in self.parts["fixed"] if not (isinstance(t[1][0], Call) and t[1][0].name == "offset")]
        for o in offsets:
            variable = self.variables.get(arguments_of(o)[0]["variable_name"])
            if len(offsets) > 1 or variable is None or variable["levels"]:
                raise Refused("offset")

    def read_term(self, part, factors):
        if isinstance(factors[0], Call) and factors[0].name == "str" and len(factors) == 1:
            self.read_linked(part, factors[0])
            return
        if len(factors) == 1 and isinstance(factors[0], Call) and factors[0].name == "grp":
            factors = [arguments_of(factors[0])[0]["variable_name"]]
        for components in self.alternatives(factors, part):
            name = ":".join(c.name for c in components)
            self.terms.append([name, self.copies(components), part[0], ""])

    def read_linked(self, part, call):
        given, _ = arguments_of(call)
        if part != "random" or "vmodel" not in given:
            raise Refused("str")
        head = len(self.terms)
        for _, factors in Reader(given["form"]).sum():
            self.read_term(part, factors)
        if any(t[3] or any(self.row(i).structure for i in self.span(t[1])) for t in self.terms[head:]):
            raise Refused("own structure")
        product = Reader(given["vmodel"]).sum()
        if len(product) != 1:
            raise Refused("a sum")
        rows = []
        for f in product[0][1]:
            if isinstance(f, str):
                if f not in self.variables or not self.variables[f]["levels"]:
                    raise Refused(f)
                row = Row(f, self.variables[f]["levels"], structure="id", source=self.variables[f]["row"])
            else:
                if f.name not in STRUCTURES or not f.arguments:
                    raise Refused(f.name)
                own, name = arguments_of(f)
                size = value_of(f.arguments[0])
                if not isinstance(size, int) and size not in self.variables:
                    raise Refused(size)
                if isinstance(size, int) and size < 1:
                    raise Refused("size")
                c = self.structure(Call(f.name, ["units" if isinstance(size, int) else size] + f.arguments[1:], f.named), part)[0]
                source = 0 if isinstance(size, int) else c.row
                row = Row(name, size if isinstance(size, int) else self.row(c.row).levels, structure=f.name, source=source, init=c.init,
                          arguments=c.arguments, order=c.order, second=c.second, dist=c.dist, matrix=c.matrix)
            row.kind, row.copy = 15, row.source > 0
            rows.append(row)
        first = len(self.rows) + 1
        self.rows += rows
        levels = 1
        for r in rows:
            levels *= r.levels
        if levels != sum(self.equations(t) for t in self.terms[head:]):
            raise Refused("sizes")
        for t in self.terms[head:]:
            t[3] = f" with {head} {first}-{len(self.rows)}"

    def read_residual(self):
        first = len(self.terms)
        for drop, factors in self.parts["residual"]:
            if factors == ["mv"] or any(isinstance(f, Call) and f.name == "str" for f in factors):
                raise Refused("residual")
            before = len(self.terms)
            for components in self.alternatives(factors, "residual"):
                conditions = [c for c in components if self.row(c.row).kind == 16]
                rest = [c for c in components if self.row(c.row).kind != 16]
                if len(conditions) > 1 or not rest or any(c.row == self.mu for c in rest):
                    raise Refused("section")
                name = ":".join(c.name for c in components)
                self.terms.append([name, self.copies(rest), "e", f" if {conditions[0].row}" if conditions else ""])
            if drop:
                self.drop(first, before)
        if self.parts["residual"] and len(self.terms) == first:
            raise Refused("no section")
        sections = [t[3] for t in self.terms[first:]]
        if len(sections) > 1:
            keys = [(self.row(int(s.split()[1])).source, tuple(self.row(int(s.split()[1])).arguments)) if s else None for s in sections]
            if None in keys or len(set(keys)) < len(keys):
                raise Refused("sections")

    def span(self, code):
        if code <= 10000:
            return [code]
        return list(range(code % 10000, code % 10000 + code // 10000))

    def same(self, a, b):
        def meaning(i):
            r = self.row(i)
            base = i
            while self.row(base).copy:
                base = self.row(base).source
            o = self.row(base)
            return (r.structure, (o.kind, o.source, tuple(o.arguments)) if o.kind in (16, 47) else base)
        condition = [meaning(int(t[3].split()[1])) if t[3].startswith(" if") else None for t in (a, b)]
        return condition[0] == condition[1] and [meaning(i) for i in self.span(a[1])] == [meaning(i) for i in self.span(b[1])]

    def drop(self, first, before):
        dropped, self.terms = self.terms[before:], self.terms[:before]
        for d in dropped:
            for k in range(first, len(self.terms)):
                if not self.same(self.terms[k], d):
                    continue
                if self.terms[k][3].startswith(" with"):
                    raise Refused("shared")
                del self.terms[k]
                break

    def equations(self, term):
        name, code, block, _ = term
        if block in "ye" or name == "mv_estimates":
            return 0
        n = 1
        for i in self.span(code):
            base = i
            while self.row(base).copy:
                base = self.row(base).source
            if self.row(base).kind == 13:
                return 0  # and(): onto the equations of another
            n *= self.row(i).levels
        return n

    def text(self):
        terms = "; ".join(f"{t[0]} {t[1]} {self.equations(t)} {t[2]}{t[3]}" for t in self.terms)
        rows = "; ".join(r.text(i + 1) for i, r in enumerate(self.rows) if r.source or r.kind)
        return terms, rows


def variables_of(text):
    out = []
    for each in text.split(" "):
        name, _, rest = each.partition(":")
        m = re.match(r"(\d+)(?:\[(.*)\])?(p?)$", rest) if rest else None
        out.append((name, int(m.group(1)) if m else 0, m.group(2).split(",") if m and m.group(2) else [], bool(m and m.group(3))))
    return out


def main(path):
    cases = wrong = 0
    for line in open(path, encoding="utf-8"):
        if line.startswith("#") or not line.strip():
            continue
        name, records, variables, model, terms, rows = line.rstrip("\n").split("\t")
        cases += 1
        try:
            found = Model(variables_of(variables), int(records), json.loads("{" + model + "}")).text()
        except Refused as why:
            found = ("! " + str(why), "")
        same = found[0].startswith("!") and terms.startswith("!") or found == (terms, rows)
        if not same:
            wrong += 1
            print(f"{name}: {model}\n  table    {terms}\n           {rows}\n  derived  {found[0]}\n           {found[1]}")
    print(f"{cases} models, {wrong} differ")
    return 1 if wrong or not cases else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
