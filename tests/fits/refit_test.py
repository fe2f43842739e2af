"""Cross-validation, imputation and the file of coefficients through the exports, against their definitions.  Usage: refit_test.py LIBRARY"""
import math
import os
import random
import struct
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "reference"))
from host import Host  # noqa: E402

MISSING = -1e-37
ROWS, REPEATS = 24, 3
failures = []


def check(good, what):
    if not good:
        failures.append(what)


def near(a, b, tolerance):
    return abs(a - b) <= tolerance * max(1e-3, abs(a), abs(b))


def strings(host, table, column):
    columns = host.output_json(table)[table]["column_info"]["columns"]
    return next(c for c in columns if c["name"] == column)["values"]


def draw_data(seed=11):
    """24 places in a row with effects alike for neighbours, three records each in two blocks; some responses are missing"""
    draw = random.Random(seed)
    effect = [draw.gauss(0, 1)]
    while len(effect) < ROWS:
        effect.append(0.8 * effect[-1] + 0.6 * draw.gauss(0, 1))
    rows = []
    for k in range(ROWS * REPEATS):
        place, block = k % ROWS, (k // 5) % 2
        y = 10 + 1.5 * block + 2 * effect[place] + draw.gauss(0, 1)
        rows.append([place + 1, block + 1, MISSING if k % 13 == 4 else y])
    return rows


def fit(library, model, options, rows):
    host = Host(library)
    host.initialise()
    names = [("place", ROWS), ("block", 2), ("y", 0)]
    variables = [{"name": n, "field_type": "vt_integer_factor_1_to_n", "number_of_levels": k} if k else {"name": n} for n, k in names]
    host.input_info({"dataset": {"name": "d", "number_of_observations": len(rows), "storage_order": "so_row_major",
                                 "variables": variables}})
    host.input_real_2d("d", rows)
    host.process({"model": model, "options": options})
    return host


def solve(a, b):
    """x of a x = b, a symmetric and positive definite"""
    n = len(a)
    low = [row[:] for row in a]
    for j in range(n):
        low[j][j] = math.sqrt(low[j][j] - sum(low[j][k] ** 2 for k in range(j)))
        for i in range(j + 1, n):
            low[i][j] = (low[i][j] - sum(low[i][k] * low[j][k] for k in range(j))) / low[j][j]
    x = b[:]
    for i in range(n):
        x[i] = (x[i] - sum(low[i][k] * x[k] for k in range(i))) / low[i][i]
    for i in reversed(range(n)):
        x[i] = (x[i] - sum(low[k][i] * x[k] for k in range(i + 1, n))) / low[i][i]
    return x


def dense_effects(rows, variance, correlation, residual):
    """best linear unbiased predictions of the places from their definition: G Z' V^-1 (y - X b)"""
    g = [[variance * correlation ** abs(i - j) for j in range(ROWS)] for i in range(ROWS)]
    place = [int(r[0]) - 1 for r in rows]
    v = [[g[i][j] + (residual if r == s else 0.0) for s, j in enumerate(place)] for r, i in enumerate(place)]
    x = [[1.0, 1.0 if r[1] == 2 else 0.0] for r in rows]
    y = [r[2] for r in rows]
    vx = [solve(v, [row[c] for row in x]) for c in (0, 1)]
    vy = solve(v, y)
    xvx = [[sum(x[k][a] * vx[b][k] for k in range(len(rows))) for b in (0, 1)] for a in (0, 1)]
    beta = solve(xvx, [sum(x[k][a] * vy[k] for k in range(len(rows))) for a in (0, 1)])
    left = [vy[k] - vx[0][k] * beta[0] - vx[1][k] * beta[1] for k in range(len(rows))]
    return [sum(g[i][place[k]] * left[k] for k in range(len(rows))) for i in range(ROWS)]


def cross_validation(library):
    rows = draw_data()
    model = {"response": "y", "fixed": "mu+block", "random": "ar1v(place)"}
    # Of more folds than levels each level is one: the predictions are those without its records.
    host = fit(library, model, {"kcv": 1000}, rows)
    check(host.status <= 0, "leaving one out: %s" % host.output_json("ERROR_INFORMATION"))
    sigma = dict(zip(strings(host, "TABLE_VARCOMP", "LABEL"), host.output_real("TABLE_VARCOMP:SIGMA")))
    correlation = next(v for k, v in sigma.items() if k.startswith("place") and "R" in k)
    variance = next(v for k, v in sigma.items() if k.startswith("place") and "V" in k.split(";")[1].split("_")[-1])
    residual = sigma["units;IDV_V"]
    known = [r for r in rows if r[2] != MISSING]
    cv, standard = host.output_real("TABLE_KCV:CVEFFECT"), host.output_real("TABLE_KCV:STNDEFFECT")
    whole = dense_effects(known, variance, correlation, residual)
    for level in range(ROWS):
        alone = dense_effects([r for r in known if r[0] != level + 1], variance, correlation, residual)
        check(near(cv[level], alone[level], 1e-6), "effect of level %d without it: %g, %g" % (level + 1, cv[level], alone[level]))
        check(near(standard[level], whole[level], 1e-6), "effect of level %d: %g, %g" % (level + 1, standard[level], whole[level]))
    check(strings(host, "TABLE_KCV", "FACTOR1") == [str(k + 1) for k in range(ROWS)], "levels")
    title = host.output_json("TABLE_KCV")["TABLE_KCV"]["titles"][0]["text"]
    mx, my = sum(cv) / ROWS, sum(standard) / ROWS
    r = sum((a - mx) * (b - my) for a, b in zip(cv, standard)) / math.sqrt(
        sum((a - mx) ** 2 for a in cv) * sum((b - my) ** 2 for b in standard))
    name = strings(host, "TABLE_SLN", "LABEL")[-1]
    check(title == "k-fold Cross Validation for %s, correlation: %7.4f based on %d predicted values" % (name, r, ROWS), title)

    # The same with the missing responses kept by mv and a residual that correlates records.
    spatial = {**model, "fixed": "mu+block+mv"}
    kept = fit(library, spatial, {"kcv": 1000}, rows).output_real("TABLE_KCV:CVEFFECT")
    check(all(near(a, b, 1e-4) for a, b in zip(kept, cv)), "with mv: %s" % [(a, b) for a, b in zip(kept, cv)][:3])

    # Seeds, folds of several levels, factors of a term.
    tables = {}
    for seed in (1, 1, 2):
        got = fit(library, model, {"kcv": {"factor": name, "folds": 4, "seed": seed}}, rows).output_real("TABLE_KCV:CVEFFECT")
        check(len(got) == ROWS and tables.setdefault(seed, got) == got, "seed %d" % seed)
    check(tables[1] != tables[2], "seeds deal alike")
    two = {"response": "y", "fixed": "mu", "random": "block:ar1v(place)"}
    host = fit(library, two, {"kcv": {"factor": "place", "folds": 5}}, rows)
    if host.status <= 0:
        check(strings(host, "TABLE_KCV", "FACTOR1") == [str(k % ROWS + 1) for k in range(2 * ROWS)], "levels of the factor that is dealt")
        check(strings(host, "TABLE_KCV", "FACTOR2") == [str(k // ROWS + 1) for k in range(2 * ROWS)], "levels of the other")
    else:
        check(False, "a factor of a term: %s" % host.output_json("ERROR_INFORMATION"))

    # Levels that nothing relates are predicted by nothing.
    host = fit(library, {**model, "random": "place"}, {"kcv": 4}, rows)
    check(all(abs(v) < 1e-9 for v in host.output_real("TABLE_KCV:CVEFFECT")), "unrelated levels")
    check("correlation:      NA based" in host.output_json("TABLE_KCV")["TABLE_KCV"]["titles"][0]["text"], "their correlation")
    for option, words in (({"kcv": 1}, "the option kcv asks for 1 folds, it needs 2 at least"),
                          ({"kcv": "many"}, "invalid value supplied for option kcv"),
                          ({"kcv": {"factor": "block"}}, "the option kcv names block, which is neither a random term nor a factor of one")):
        host = fit(library, model, option, rows)
        check(host.status > 0 and words in str(host.output_json("ERROR_INFORMATION")), "%s: %s" % (option, host.output_json("ERROR_INFORMATION")))
    host = fit(library, {"response": "y", "fixed": "mu"}, {"kcv": 2}, rows)
    check("needs a random term" in str(host.output_json("ERROR_INFORMATION")), "no random term")


def imputation(library):
    rows = draw_data()
    held = {"response": "y", "fixed": "mu+block+mv", "random": "idv(place,2.0)", "residual": "idv(units,1.0)"}
    plain = fit(library, held, {"varscale": 1, "hold": [1, 2]}, rows)
    check(plain.status <= 0, "held: %s" % plain.output_json("ERROR_INFORMATION"))
    rounds = 400
    host = fit(library, held, {"varscale": 1, "hold": [1, 2], "impute": rounds}, rows)
    check(host.status <= 0, "imputed: %s" % host.output_json("ERROR_INFORMATION"))
    check(host.output_real("TABLE_VPARSUM:MEAN") == [2.0, 1.0] and host.output_real("TABLE_VPARSUM:STNDDEVN") == [0.0, 0.0], "held parameters")
    check(host.output_integer("TABLE_VPARSUM:ITERATIONS") == [rounds] * 2 and host.output_integer("TABLE_VPARSUM:ID") == [1, 2], "their rows")
    table = host.output_json("TABLE_VPARSUM")["TABLE_VPARSUM"]
    check(table["titles"][0]["text"] == "Variance parameter summary from %d iterations" % rounds, "title")
    check(table["footnotes"][0]["text"] == "reported solutions are averages of %d rounds of imputation with SE based on sampling variance" % rounds,
          "footnote")
    check(host.output_json("TABLE_VARCOMP")["TABLE_VARCOMP"]["footnotes"][0]["text"] == "The components reported above are the RBG averages", "mark")
    check("RBG run finished" in str(host.output_json("SCALAR_FINAL_MESSAGE")), "status")
    # Averages go to the predictions from the known responses, and mean PEV plus variance between rounds to their PEV.  Within
    # five standard errors of the simulation (of a mean, se / sqrt(n); of a variance, about sqrt(2/n)).
    effects = zip(plain.output_real("TABLE_SLN:EFFECT"), host.output_real("TABLE_SLN:EFFECT"), plain.output_real("TABLE_SLN:SE"),
                  host.output_real("TABLE_SLN:SE"))
    worst_mean, worst_variance = 0.0, 0.0
    for a, b, se, other in effects:
        if se == 0.0:
            check(b == 0.0 and other == 0.0, "a singular equation")
            continue
        worst_mean = max(worst_mean, abs(a - b) / (se / math.sqrt(rounds)))
        worst_variance = max(worst_variance, abs(other ** 2 / se ** 2 - 1) / math.sqrt(2 / rounds))
    check(worst_mean < 5 and worst_variance < 5, "deviations from the known: %g, %g" % (worst_mean, worst_variance))
    check(max(worst_mean, worst_variance) > 0.01, "nothing was drawn")
    mv = [k for k, label in enumerate(strings(host, "TABLE_SLN", "LABEL")) if label == "mv_estimates"]
    check(len(mv) == 6, "estimates of missing responses")
    residual = host.output_real("TABLE_YHT:RESID")
    fitted = host.output_real("TABLE_YHT:YHAT")
    check(all(near(y[2], f + e, 1e-9) for y, f, e in zip(rows, fitted, residual) if y[2] != MISSING), "fitted and residual make the response")

    # Estimated parameters vary between rounds about the estimates.
    free = {"response": "y", "fixed": "mu+block+mv", "random": "place"}
    plain, host = fit(library, free, {}, rows), fit(library, free, {"impute": 100}, rows)
    estimate, se = plain.output_real("TABLE_VARCOMP:SIGMA"), plain.output_real("TABLE_VARCOMP:SE")
    for k, (mean, sd) in enumerate(zip(host.output_real("TABLE_VPARSUM:MEAN"), host.output_real("TABLE_VPARSUM:STNDDEVN"))):
        check(0 < sd < se[k] and abs(mean - estimate[k]) < se[k], "parameter %d: %g (%g), %g (%g)" % (k + 1, mean, sd, estimate[k], se[k]))
    check(host.output_real("TABLE_VARCOMP:SIGMA") == host.output_real("TABLE_VPARSUM:MEAN"), "averages in the components")
    again = fit(library, free, {"impute": 100}, rows)
    check(again.output_real("TABLE_SLN:EFFECT") == host.output_real("TABLE_SLN:EFFECT"), "the same run twice")

    # Without missing responses there is nothing to impute.
    none = {"response": "y", "fixed": "mu+block", "random": "place"}
    host = fit(library, none, {"impute": 5}, rows)
    check("nothing is imputed" in str(host.output_json("ERROR_INFORMATION")) and host.output_json("OPTIONAL:TABLE_VPARSUM") is None, "no mv")
    check("LogL Converged" in str(host.output_json("SCALAR_FINAL_MESSAGE")), "its status")


def coefficients(library):
    """the matrix C in its file: its inverse is what the table of C-inverse has"""
    rows = draw_data()
    with tempfile.TemporaryDirectory() as folder:
        host = fit(library, {"response": "y", "fixed": "mu+mv", "random": "ar1v(place)"}, {"cmat": True, "debug": 1, "cinv": 1, "outfolder": folder},
                   rows)
        check(host.status <= 0, "cmat: %s" % host.output_json("ERROR_INFORMATION"))
        with open(os.path.join(folder, "CMAT.bin"), "rb") as file:
            data = file.read()
        with open(os.path.join(folder, "cmat.rcv")) as file:
            lines = [line.split() for line in file]
        with open(os.path.join(folder, "wvar.rcv")) as file:
            working = file.read().split("\n")
    gammas = host.output_real("TABLE_VARCOMP:GAMMA")
    records = len(host.output_real("TABLE_YHT:YHAT"))
    check(working[0] == "   ROW  VPAR  Working_Variable" and len(working) == 2 + records * len(gammas), "wvar.rcv")
    mu = host.output_real("TABLE_SLN:EFFECT")[0]
    for record, number, value in (line.split() for line in working[1:-1]):
        y = rows[int(record) - 1][2]
        if int(number) == len(gammas) and y != MISSING:  # of the variance that all are ratios to: y less what is fixed in it
            check(near(float(value), y - mu, 1e-6), "working variable of record %s: %s, %g" % (record, value, y - mu))
    mark, n, count = struct.unpack_from("<8sqq", data)
    check(mark == b"TLVCMAT1" and n == len(host.output_real("TABLE_SLN:EFFECT")) and len(data) == 24 + 24 * count, "head of the file")
    c = [[0.0] * n for _ in range(n)]
    for k in range(count):
        row, column, value = struct.unpack_from("<qqd", data, 24 + 24 * k)
        check(1 <= column <= row <= n, "element %d %d" % (row, column))
        check(k < len(lines) and [float(x) for x in lines[k]] == [row, column, value], "line %d of cmat.rcv" % (k + 1))
        c[row - 1][column - 1] = c[column - 1][row - 1] = value
    columns = {}
    for i, j, v in zip(host.output_integer("TABLE_CINV:ROWID"), host.output_integer("TABLE_CINV:COLID"), host.output_real("TABLE_CINV:VALUES")):
        if j not in columns:
            columns[j] = solve(c, [1.0 if k == j - 1 else 0.0 for k in range(n)])
        check(near(columns[j][i - 1], v, 1e-6), "inverse at %d %d: %g, %g" % (i, j, columns[j][i - 1], v))


def main():
    cross_validation(sys.argv[1])
    imputation(sys.argv[1])
    coefficients(sys.argv[1])
    for line in failures:
        print("FAILED", line)
    print("%d failures" % len(failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
