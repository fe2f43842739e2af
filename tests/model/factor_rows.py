"""The rows of the factor table that the names and calls of a model stand for; for derive_model_cases.py."""
import re

from formula_sets import ARGUMENTS, KINDS, ONLY_IN, STRUCTURES, Reader, Refused, arguments_of, number, shown, value_of


class Row:
    def __init__(self, name, levels, **more):
        self.name, self.levels = name, levels
        self.source = self.kind = self.order = self.second = 0
        self.structure = self.matrix = ""
        self.init, self.arguments, self.dist = [], [], []
        self.factor = True
        self.copy = False
        self.variable = ""
        self.__dict__.update(more)

    def text(self, i):
        out = f"{i} {self.name} {self.levels}" + (f"<{self.source}" if self.source else "")
        out += f" kind {self.kind}" if self.kind else ""
        out += f" {self.structure}" if self.structure else ""
        out += f" order {self.order}" if self.order else ""
        out += f" second {self.second}" if self.second else ""
        for key in ("init", "arguments", "dist"):
            values = getattr(self, key)
            out += f" {key} " + ",".join("-" if v is None else shown(v) for v in values) if values else ""
        return out + (f" matrix {self.matrix}" if self.matrix else "")


class Component:
    def __init__(self, row, name, **more):
        self.row, self.name = row, name
        self.structure = self.matrix = ""
        self.init, self.arguments, self.dist, self.order, self.second = [], [], [], 0, 0
        self.__dict__.update(more)


class Rows:
    """What a model of some variables has in its factor table; filled term by term."""

    def add(self, row):
        if not row.copy and row.kind != 15:
            for i, r in enumerate(self.rows):
                if not r.copy and r.kind == row.kind and r.kind != 15 and r.name == row.name:
                    return i + 1
        self.rows.append(row)
        return len(self.rows)

    def row(self, i):
        return self.rows[i - 1]

    def plain(self, name):
        """The row of a plain name."""
        if name in self.variables:
            return self.variables[name]["row"]
        if name == "mu":
            return self.mu
        if name == "units":
            return self.units
        if name == "trait" and self.trait:
            return self.trait
        if name in ("Zero", "Zero_", "zero", "zero_"):
            return self.add(Row(name, 1, kind=49, arguments=[1]))
        raise Refused(name)

    def levels_asked(self, call):
        given, _ = arguments_of(call)
        if "lvls" not in given:
            return None
        v = value_of(given["lvls"])
        quoted = given["lvls"].strip()[:1] in "'\""
        return v if isinstance(v, list) else [str(v) if quoted else v]

    def conditions(self, call, part):
        """A row for each level of at() or sat()."""
        given, written = arguments_of(call)
        asked = self.levels_asked(call)
        single = "lvls" in given and not isinstance(value_of(given["lvls"]), list)
        source = self.factor_argument(given["variable_name"], part).row
        base = self.row(source)
        of_data = self.variables.get(base.variable) if base.kind == 0 else None
        labels = of_data["labels"] if of_data else self.trait_labels if source == self.trait else []
        bound = base.levels if base.factor and (base.kind == 0) else None
        if asked is None:
            if bound is None:
                raise Refused("levels")
            asked = list(range(1, bound + 1))
        out = []
        for level in asked:
            if isinstance(level, str):
                if level in labels:
                    level = labels.index(level) + 1
                elif of_data and not labels and of_data["levels"] and number(level) is not None:
                    level = number(level)
                else:
                    raise Refused(level)
            if not isinstance(level, int) and of_data:
                raise Refused("level")
            if bound is not None and not 1 <= level <= bound:
                raise Refused("level")
            label = labels[level - 1] if labels else shown(level)
            name = written if single else f"{call.name}({base.name},{label})"
            row = self.add(Row(name, 1, kind=16 if part == "residual" else 47, source=source, arguments=[level],
                               variable=base.variable, factor=False))
            out.append(Component(row, name))
        return out

    def factor_argument(self, text, part):
        both = self.factor_arguments(text, part)
        if len(both) != 1:
            raise Refused("several")
        return both[0]

    def factor_arguments(self, text, part):
        if number(text) is not None or text.startswith("["):
            raise Refused(text)
        factors = Reader(text).sum()
        if len(factors) != 1 or len(factors[0][1]) != 1:
            raise Refused(text)
        only = factors[0][1][0]
        found = [Component(self.plain(only), only)] if isinstance(only, str) else self.components(only, part)
        if any(c.structure for c in found):
            raise Refused(text)
        return found

    def scalar(self, i):
        """One number or one level says all of its design."""
        return self.row(i).kind in (0, 1, 6, 10, 11, 31, 47) and i not in (self.mu, self.mv)

    def design(self, call, part):
        given, written = arguments_of(call)
        f = call.name
        if f == "zero":
            k = number(given.get("k"))
            if not isinstance(k, int) or k < 1:
                raise Refused("zero")
            return Component(self.add(Row(written, k, kind=49, arguments=[k])), written)
        if f in ("grp", "vect"):
            v = self.variables.get(given["variable_name"])
            if v is None:
                raise Refused("group")
            name = f"vect({given['variable_name']})"
            return Component(self.add(Row(name, v["levels"] or 1, kind=33, arguments=[v["row"]])), written)
        first = given.get("x" if f == "fac" else "variable_name")
        if first is None:
            raise Refused(f)
        defaults = dict(pow=[("p", 1), ("offset", 0)], pol=[("t", 1)], leg=[("t", 1)], spl=[("k", 0)], uni=[("k", 0), ("n", 0)])
        defaults["and"] = [("times", 1)]
        numbers = []
        for key, default in defaults.get(f, []):
            v = value_of(given[key]) if key in given else default
            if not isinstance(v, (int, float)) or (f != "pow" and f != "and" and not isinstance(v, int)):
                raise Refused(key)
            numbers.append(v)
        if f == "spl" and numbers[0] not in (0,) and numbers[0] < 3:
            raise Refused("knots")
        source = self.factor_argument(first, part).row
        base = self.row(source)
        if f == "and":
            return Component(self.add(Row(written, base.levels, kind=13, source=source, arguments=numbers, factor=base.factor)), written)
        if not self.scalar(source) or (f == "con" and not base.factor):
            raise Refused(f)
        second = self.factor_argument(given["y"], part).row if "y" in given else 0
        if f == "fac":
            return Component(self.distinct(source, second), written)
        if f == "uni" and base.kind == 0 and base.variable and base.factor and numbers[0] > base.levels:
            raise Refused("level")
        levels = {"lin": 1, "pow": 1, "con": base.levels - 1, "pol": 0, "leg": 0}.get(f, 0)
        if f in ("pol", "leg"):
            levels = -numbers[0] if numbers[0] < 0 else numbers[0] + 1
        row = self.add(Row(written, levels, kind=KINDS[f], source=source, arguments=numbers, factor=f not in ("lin", "pow"),
                           variable=base.variable))
        component = Component(row, written)
        if f == "dev" and part == "random" and "init" in given:
            component.structure, component.init = "idv", self.numbers(given["init"])
        return component

    def distinct(self, x, y=0):
        name = f"fac({self.row(x).name}{',' + self.row(y).name if y else ''})"
        return self.add(Row(name, 0, kind=6, source=x, second=y, variable=self.row(x).variable))

    @staticmethod
    def numbers(text):
        v = value_of(text)
        v = v if isinstance(v, list) else [v]
        if any(isinstance(e, str) for e in v):
            raise Refused("numbers")
        return v

    def structure(self, call, part):
        given, written = arguments_of(call)
        f = call.name
        asked = dict(structure=f)
        for key in ("k", "b"):
            if key in ARGUMENTS[f]:
                order = value_of(given[key]) if key in given else 1
                if not isinstance(order, int) or order < 1 or (f in ("fa", "rr") and key not in given):
                    raise Refused("order")
                asked["order"] = order
        for key in ("init", "dist"):
            if key in given:
                asked[key] = self.numbers(given[key])
        if f.startswith("mtrn"):
            asked["arguments"] = [value_of(given[k]) if k in given else None for k in ("phi", "nu", "delta", "alpha", "lambda")]
            if any(isinstance(v, (str, list)) for v in asked["arguments"]):
                raise Refused("mtrn")
        if f in ("vm", "ide", "ric"):
            if "source" not in given:
                raise Refused("source")
            asked["matrix"] = given["source"].strip("'\"")
        read = self.factor_arguments(given.get(ARGUMENTS[f][0], "0"), part)
        second = self.factor_argument(given["y"], part).row if "y" in given else 0
        out = []
        for factor in read:
            c = Component(factor.row, written if len(read) == 1 else f"{f}({factor.name})", **asked)
            if "y" in ARGUMENTS[f] and "y" not in given:
                c.second = self.row(c.row).second
                if not c.second:
                    raise Refused("y")
            elif "y" in given or ("dist" in ARGUMENTS[f] and not self.row(c.row).factor):
                c.row, c.second = self.distinct(c.row, second), second
            if c.matrix and not self.row(c.row).factor:
                raise Refused("matrix")
            if part in ("fixed", "sparse"):
                c.structure = ""
            out.append(c)
        if f == "ric" and part == "random":
            init = asked.get("init", [0.2, 0.1])
            if len(init) != 2:
                raise Refused("init")
            name = self.row(out[0].row).name
            return [Component(out[0].row, f"{s}({name},{out[0].matrix})", structure=s, matrix=out[0].matrix, init=[v])
                    for s, v in zip(("vm", "ide"), init)]
        return out

    def components(self, factor, part):
        if isinstance(factor, str):
            if factor == "mv":
                raise Refused("mv")
            c = Component(self.plain(factor), factor)
            if part == "random" and self.variables.get(factor, {}).get("pedigree"):
                c.structure = "nrm"
            return [c]
        f = factor.name
        if f not in ARGUMENTS or part not in ONLY_IN.get(f, [part]) or f in ("str", "dsum", "offset"):
            raise Refused(f)
        if f in ("at", "sat"):
            return self.conditions(factor, part)
        if f in STRUCTURES or f == "ric":
            return self.structure(factor, part)
        return [self.design(factor, part)]
