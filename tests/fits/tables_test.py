"""All tables of runs through the exports: their order, names, headings, formats, titles and footnotes against the lists
tables.tsv, table_order.tsv and table_notes.tsv, and identities between them.  Usage: tables_test.py LIBRARY [folder of the lists]"""
import csv
import math
import os
import random
import re
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "reference"))
from host import Host  # noqa: E402

MISSING = -1e-37
SCALARS = ["SCALAR_LOGLIK", "SCALAR_SIGMA2", "SCALAR_DF", "SCALAR_AIC", "SCALAR_AIC_NPARAM", "SCALAR_BIC", "SCALAR_DETC",
           "SCALAR_CONVERGENCE_FLG", "SCALAR_FINAL_MESSAGE"]
failures = []


def check(good, what):
    if not good:
        failures.append(what)


def near(a, b, tolerance=1e-6):
    return abs(a - b) <= tolerance * max(1e-8, abs(a), abs(b))


def data(seed=3):
    draw = random.Random(seed)
    sites, lines, envs, blocks = 3, 20, 3, 40
    gen = [[draw.gauss(0, 1) for _ in range(sites)] for _ in range(lines)]
    shared = [draw.gauss(0, 1) for _ in range(blocks)]
    local = [[(0.8 + 0.4 * e) * (0.7 * u + draw.gauss(0, 1)) for e in range(envs)] for u in shared]
    rows = []
    for k in range(360):
        s, g, e = k % sites, (k // sites) % lines, draw.randrange(envs)
        b = draw.randrange(blocks)
        x = draw.random()
        rows.append([s + 1, g + 1, e + 1, b + 1, x, 5 + 2 * x + gen[g][0] + 0.7 * gen[g][s] + local[b][e] + draw.gauss(0, 1)])
    return rows


def fit(library, options, model=None, names=None, rows=None, more=""):
    host = Host(library)
    host.initialise()
    names = names or [("site", 3), ("line", 20), ("env", 3), ("block", 40), ("x", 0), ("y", 0)]
    variables = [{"name": n, "field_type": "vt_integer_factor_1_to_n", "number_of_levels": k} if k else {"name": n} for n, k in names]
    rows = rows or data()
    model = model or '{"response":"y","fixed":"mu+site+x","random":"us(site):line+corgh(env):block"}'
    host.input_info({"dataset": {"name": "d", "number_of_observations": len(rows), "storage_order": "so_row_major",
                                 "variables": variables}})
    host.input_real_2d("d", rows)
    status = host.process('{"model":%s,"options":%s%s}' % (model, options, more))
    check(status <= 0, "status %d: %s" % (status, host.output_json("ERROR_INFORMATION")))
    return host


def field(seed=5):
    """plots of 8 rows and 10 columns, two of them lost"""
    draw = random.Random(seed)
    line = [draw.gauss(0, 1) for _ in range(20)]
    rows = []
    for k in range(80):
        trend = math.sin(0.6 * (k // 10)) + math.cos(0.5 * (k % 10))
        y = 5 + line[(7 * k) % 20] + trend + draw.gauss(0, 0.5)
        rows.append([k // 10 + 1, k % 10 + 1, (7 * k) % 20 + 1, MISSING if k in (13, 57) else y])
    return rows


def full(host, name):
    return host.output_json(name)[name]


def read_list(folder, name):
    with open(os.path.join(folder, name), newline="") as file:
        return list(csv.DictReader((line for line in file if not line.startswith("#")), delimiter="\t", quoting=csv.QUOTE_NONE))


def pattern(text):
    """a text of the lists, in which <...> stands for anything"""
    return "".join(".+" if part.startswith("<") else re.escape(part) for part in re.split(r"(<\w+>)", text)) + "$"


def same_texts(found, wanted, what):
    check(len(found) == len(wanted) and all(re.match(pattern(w), f) for f, w in zip(found, wanted)), "%s: %s" % (what, found))


def plain_name(name):
    return re.sub(r"_\d+$", "", name)


class Lists:
    def __init__(self, folder):
        self.columns = [row for row in read_list(folder, "tables.tsv") if row["kind"] == "table"]
        self.order = read_list(folder, "table_order.tsv")
        self.notes = read_list(folder, "table_notes.tsv")
        self.met = set()

    def compare(self, host, asked, repeats=1):
        """tables and scalars of a run that was asked for these things"""
        available = host.output_json("AVAILABLE_OUTPUT")
        tables = [name for name in available if name.startswith("TABLE_")]
        wanted = []
        for row in self.order:
            if row["asked_by"] not in asked or row["table"] in wanted:
                continue
            group = [row["table"]] + ([row["followed_by"]] if row["followed_by"] else [])
            wanted += group
            wanted += [name + "_%d" % k for k in range(2, repeats + 1) if row["followed_by"] for name in group]
        check(tables == wanted, "order of tables of %s: %s" % (asked, tables))
        if "fit" in asked:
            check([name for name in available if name.startswith("SCALAR_")] == SCALARS, "order of scalars: %s" % list(available))
        for name in tables:
            self.met.add(plain_name(name))
            self.compare_table(host, name, asked)

    def compare_table(self, host, name, asked):
        expected = [row for row in self.columns if row["name"] == plain_name(name)
                    and (row["col_present"] != "outlier statistics asked" or "outlier" in asked)]
        table = full(host, name)
        columns = table["column_info"]["columns"]
        mark = next((m for m in ("<n>", "<j>") if expected and m in expected[-1]["column"]), None)
        if mark:  # one a parameter, or one a level
            last = expected.pop()
            count = full(host, "TABLE_INITVALS")["nrows"] if mark == "<n>" else len(columns) - len(expected)
            for n in range(1, count + 1):
                expected.append({**last, "column": last["column"].replace(mark, str(n)), "heading": last["heading"].replace(mark, str(n))})
        check("ott_type_" + str(table["type"]).replace("ott_type_", "") == expected[0]["table_type"], name + ": type " + str(table["type"]))
        found = [(c["name"], c["format"], c["type"].replace("ct_", "").replace("ict_", "")) for c in columns]
        wanted = [(r["column"], r["format"], r["col_type"]) for r in expected]
        check(found == wanted, "%s: columns %s, expected %s" % (name, found, wanted))
        for c, r in zip(columns, expected):
            check(re.match(pattern(r["heading"]), c["heading"]), "%s: heading of %s: %s" % (name, c["name"], c["heading"]))
        for kind in ("title", "footnote"):
            same_texts([t["text"] for t in table.get(kind + "s", [])],
                       [n["text"] for n in self.notes
                        if n["table"] == plain_name(name) and n["kind"] == kind and (n["when"] == "always" or n["when"] in asked)],
                       "%ss of %s" % (kind, name))


def marker_run(library, lists):
    draw = random.Random(2)
    genotypes = [[draw.randrange(3) for _ in range(30)] for _ in range(15)]
    effect = [draw.gauss(0, 0.4) for _ in range(30)]
    rows = []
    for k in range(45):
        value = sum(u * g for u, g in zip(effect, genotypes[k % 15]))
        rows.append([k % 15 + 1, 10 + value + draw.gauss(0, 1)])
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "geno.mkr")
        with open(path, "w") as file:
            file.write("id " + " ".join("m%d" % (j + 1) for j in range(30)) + "\n")
            file.writelines("%d %s\n" % (i + 1, " ".join(map(str, g))) for i, g in enumerate(genotypes))
        more = ',"marker_file":{"name":"G","file":"%s","markers":30,"header":true,"pev":true,"rtmethod":1,"mdfoffset":0.01}' % path
        host = fit(library, "{}", '{"response":"y","fixed":"mu","random":"vm(line,G)"}', [("line", 15), ("y", 0)], rows, more)
        if host.status <= 0:
            lists.compare(host, {"fit", "markers"})


def identities(host):
    sigma2 = host.output_real_scalar("SCALAR_SIGMA2")
    labels = full(host, "TABLE_VARCOMP")
    label = next(c for c in labels["column_info"]["columns"] if c["name"] == "LABEL")["values"]
    sigma = dict(zip(label, host.output_real("TABLE_VARCOMP:SIGMA")))
    column = [host.output_real("TABLE_FACTOR_COVCOR:COLUMN_%d" % j) for j in (1, 2, 3)]
    v = [[sigma["site:line;site.US_%s_%d_%d" % ("V" if i == j else "C", i, j)] if j <= i else None for j in (1, 2, 3)] for i in (1, 2, 3)]
    for i in range(3):
        for j in range(3):
            expected = v[i][j] if j <= i else v[j][i] / math.sqrt(v[i][i] * v[j][j])
            check(near(column[j][i], expected), "element %d %d of the matrix of site: %g, %g" % (i, j, column[j][i], expected))
    eigen = host.output_real("TABLE_FACTOR_EIGEN:VALUES")
    check(eigen == sorted(eigen, reverse=True) and near(sum(eigen), sum(v[i][i] for i in range(3))), "eigenvalues")
    check(near(sum(host.output_real("TABLE_FACTOR_EIGEN:PERCENT")), 100.0), "their shares")

    effects, se = host.output_real("TABLE_SLN:EFFECT"), host.output_real("TABLE_SLN:SE")
    fitted = [0.0] * 360
    for value, row, col in zip(*(host.output_real("TABLE_DESIGN_MTX:VALUES"), host.output_integer("TABLE_DESIGN_MTX:ROWID"),
                                 host.output_integer("TABLE_DESIGN_MTX:COLID"))):
        fitted[row - 1] += value * effects[col - 1]
    check(all(near(a, b, 1e-7) for a, b in zip(fitted, host.output_real("TABLE_YHT:YHAT"))), "design times effects are the fitted values")

    rows, cols, values = (host.output_integer("TABLE_CINV:ROWID"), host.output_integer("TABLE_CINV:COLID"), host.output_real("TABLE_CINV:VALUES"))
    check(all(c <= r for r, c in zip(rows, cols)) and list(zip(rows, cols)) == sorted(set(zip(rows, cols))), "lower triangle by rows")
    diagonal = {r: value for r, c, value in zip(rows, cols, values) if r == c}
    bad = [e for e in range(2, len(effects)) if not near(math.sqrt(max(0.0, sigma2 * diagonal[e + 1])), se[e], 1e-6)]
    covariate = [e for e in bad if e not in (0, 1)]
    check(not covariate, "standard errors from C-inverse at equations %s" % covariate)
    starts, ends = host.output_integer("TABLE_CINV_INFO:START"), host.output_integer("TABLE_CINV_INFO:END")
    check(starts[0] == 1 and ends[-1] == len(effects) and starts[1:] == [e + 1 for e in ends[:-1]], "equations of the terms")


def main():
    library = sys.argv[1]
    lists = Lists(sys.argv[2] if len(sys.argv) > 2 else os.path.join(HERE, "..", "data_files"))
    host = fit(library, '{"design":true,"cinv":1}')
    lists.compare(host, {"fit", "design", "matrix", "cinv"}, repeats=2)
    identities(host)
    lists.compare(fit(library, "{}"), {"fit", "matrix"}, repeats=2)
    lists.compare(fit(library, '{"process_stage":"preprocess","design":true}'), {"preprocess", "design"})

    plots = [("row", 8), ("column", 10), ("line", 20), ("y", 0)]
    spatial = '{"response":"y","fixed":"mu+mv","random":"line","residual":"ar1(row):ar1(column)"}'
    host = fit(library, '{"outlier":true,"impute":3}', spatial, plots, field())
    lists.compare(host, {"fit", "field", "outlier", "impute"})
    record, row, column = (host.output_integer("TABLE_FIELD:" + name) for name in ("RECORD", "ROW", "COLUMN"))
    check(sorted(record) == list(range(1, 81)), "records of the field")
    check(all(row[i] == (r - 1) // 10 + 1 and column[i] == (r - 1) % 10 + 1 for i, r in enumerate(record)), "places of the field")
    check([c["heading"] for c in full(host, "TABLE_FIELD")["column_info"]["columns"]] == ["Record", "row", "column"], "names of its sides")
    lists.compare(fit(library, '{"kcv":4}', spatial, plots, field()), {"fit", "field", "kcv"})

    # A term with a level for each record can not be told from the residual.
    rows = [[k + 1, k % 20 + 1, r[3]] for k, r in enumerate(field()) if r[3] != MISSING]
    host = fit(library, '{"aisingularities":1}', '{"response":"y","fixed":"mu","random":"plot+line"}', [("plot", 80), ("line", 20), ("y", 0)], rows)
    lists.compare(host, {"fit", "singular"})

    marker_run(library, lists)
    unmet = {row["table"] for row in lists.order} - lists.met
    check(not unmet, "no run left %s" % unmet)
    for line in failures:
        print("FAILED", line)
    print("%d failures" % len(failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
