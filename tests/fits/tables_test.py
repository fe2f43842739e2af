"""All tables of a fit through the exports: their order, names, headings, formats, titles and footnotes against the list of
tables, and identities between them.  Usage: tables_test.py LIBRARY [host's folder] [tables.tsv]"""
import csv
import math
import os
import random
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "reference"))
from host import Host  # noqa: E402

MISSING = -1e-37
CODES = ["code B - fixed at a boundary             F - fixed by user",
         "     ? - liable to change from P to B    P - positive definite",
         "     C - Constrained by user             U - unbounded ",
         "     S - Singular Information matrix"]
ORDER = ["TABLE_DESIGN_MTX", "TABLE_INITVALS", "TABLE_TRACE", "TABLE_VARCOMP", "TABLE_VARVAR", "TABLE_FACTOR_COVCOR",
         "TABLE_FACTOR_EIGEN", "TABLE_FACTOR_COVCOR_2", "TABLE_FACTOR_EIGEN_2", "TABLE_SLN", "TABLE_YHT", "TABLE_CINV_INFO",
         "TABLE_CINV"]
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


def fit(library, options):
    host = Host(library)
    host.initialise()
    names = [("site", 3), ("line", 20), ("env", 3), ("block", 40), ("x", 0), ("y", 0)]
    variables = [{"name": n, "field_type": "vt_integer_factor_1_to_n", "number_of_levels": k} if k else {"name": n} for n, k in names]
    rows = data()
    host.input_info({"dataset": {"name": "d", "number_of_observations": len(rows), "storage_order": "so_row_major",
                                 "variables": variables}})
    host.input_real_2d("d", rows)
    status = host.process('{"model":{"response":"y","fixed":"mu+site+x","random":"us(site):line+corgh(env):block"},"options":%s}' % options)
    check(status <= 0, "status %d: %s" % (status, host.output_json("ERROR_INFORMATION")))
    return host


def full(host, name):
    return host.output_json(name)[name]


def compare_with_list(host, listed):
    available = host.output_json("AVAILABLE_OUTPUT")
    tables = [name for name in available if name.startswith("TABLE_")]
    check(tables == ORDER, "order of tables: %s" % tables)
    check([name for name in available if name.startswith("SCALAR_")] == SCALARS, "order of scalars: %s" % list(available))
    parameters = full(host, "TABLE_INITVALS")["nrows"]
    for name in tables:
        plain = name[:-2] if name.endswith("_2") else name
        expected = [row for row in listed if row["name"] == plain and row["col_present"] != "outlier statistics asked"]
        table = full(host, name)
        columns = table["column_info"]["columns"]
        if "<n>" in expected[-1]["column"] or "<j>" in expected[-1]["column"]:
            last = expected.pop()
            count = parameters if "<n>" in last["column"] else len(columns) - len(expected)
            for n in range(1, count + 1):
                mark = "<n>" if "<n>" in last["column"] else "<j>"
                expected.append({**last, "column": last["column"].replace(mark, str(n)), "heading": last["heading"].replace(mark, str(n))})
        check("ott_type_" + str(table["type"]).replace("ott_type_", "") == expected[0]["table_type"], name + ": type " + str(table["type"]))
        titles = [t["text"] if isinstance(t, dict) else t for t in table.get("titles", [])]
        check((titles[0] if titles else "").startswith(expected[0]["title"]), "%s: titles %s" % (name, titles))
        found = [(c["name"], c["heading"], c["format"], c["type"].replace("ct_", "").replace("ict_", "")) for c in columns]
        wanted = [(r["column"], r["heading"], r["format"], r["col_type"]) for r in expected]
        for f, w in zip(found, wanted):
            check(f[:3] == w[:3] and w[3] in f[3], "%s: column %s, expected %s" % (name, f, w))
        check(len(found) == len(wanted), "%s: %d columns, expected %d" % (name, len(found), len(wanted)))
        footnotes = [t["text"] if isinstance(t, dict) else t for t in table.get("footnotes", [])]
        check(footnotes == (CODES if name == "TABLE_VARCOMP" else []), "%s: footnotes %s" % (name, footnotes))


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
    path = sys.argv[2] if len(sys.argv) > 2 else os.path.join(HERE, "..", "data_files", "tables.tsv")
    with open(path, newline="") as file:
        listed = [row for row in csv.DictReader(file, delimiter="\t", quoting=csv.QUOTE_NONE) if row["kind"] == "table"]
    host = fit(library, '{"design":true,"cinv":1}')
    compare_with_list(host, listed)
    identities(host)
    plain = fit(library, "{}")
    for name in ("TABLE_DESIGN_MTX", "TABLE_CINV", "TABLE_CINV_INFO"):
        check(name not in plain.output_json("AVAILABLE_OUTPUT"), name + " stands unasked")
    for line in failures:
        print("FAILED", line)
    print("%d failures" % len(failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
