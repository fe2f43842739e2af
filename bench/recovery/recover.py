"""Recovery of variance parameters: simulated data, 50 seeds a structure, means of the estimates against what was simulated.

    python3 bench/recovery/recover.py LIBRARY [--seeds 50] [--first 1] [--only TEXT,TEXT] [--all]

Needs numpy.  Prints, for every structure, its parameters, the largest bias in standard errors of the mean, how many runs said
"converged" without a reservation, ended with some parameter at a bound or without information, or failed; with --all every
parameter with the value simulated and the mean of the estimates.  A failed run fails the script.  Estimates of runs at a bound are
in the mean: leaving them out would bias it.  Parameters that a rotation or a factorisation leaves open are compared by the
covariance matrix that they give.
"""
import argparse
import json
import os
import sys

import numpy as np

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tests", "reference"))
from host import Host  # noqa: E402


def ar1(n, rho):
    return rho ** np.abs(np.subtract.outer(np.arange(n), np.arange(n)))


def time_series(phi, theta, n):
    """Autocorrelations of an ARMA process from its moving-average form."""
    psi = [1.0]
    for k in range(1, 4000):
        value = sum(p * psi[k - 1 - i] for i, p in enumerate(phi) if k - 1 - i >= 0)
        psi.append(value - (theta[k - 1] if k <= len(theta) else 0.0))
    psi = np.array(psi)
    gamma = np.array([psi[: len(psi) - k] @ psi[k:] for k in range(n)])
    return (gamma / gamma[0])[np.abs(np.subtract.outer(np.arange(n), np.arange(n)))]


def draw(rng, *factors):
    """A draw from N(0, A x B x ...), first factor slowest."""
    x = rng.standard_normal([len(f) for f in factors])
    for axis, f in enumerate(factors):
        x = np.moveaxis(np.tensordot(np.linalg.cholesky(f), x, axes=(1, axis)), 0, axis)
    return x.ravel()


def levels(*sizes):
    return [a.ravel() + 1.0 for a in np.indices(sizes)]


def factor(name, n):
    return {"name": name, "field_type": "vt_integer_factor_1_to_n", "number_of_levels": int(n)}


def variate(name):
    return {"name": name, "field_type": "vt_variate"}


def repeated(structure, covariance):
    """Subjects by times, residual id(subject):structure(time)."""
    def make(rng):
        subjects, times = 120, len(covariance)
        s, t = levels(subjects, times)
        y = 10 + 0.5 * t + draw(rng, np.eye(subjects), covariance)
        model = {"response": "y", "fixed": "time", "residual": "id(subject):" + structure}
        return [factor("subject", subjects), factor("time", times), variate("y")], np.column_stack([s, t, y]), model
    return make


def trial(nugget):
    def make(rng):
        rows, columns, varieties = 24, 20, 60
        c, r = levels(columns, rows)
        v = rng.permutation(np.repeat(np.arange(varieties), rows * columns // varieties)) + 1.0
        y = 20 + np.sqrt(0.5) * rng.standard_normal(varieties)[v.astype(int) - 1] + draw(rng, ar1(columns, 0.4), ar1(rows, 0.7))
        random = "variety"
        if nugget:
            y = y + np.sqrt(0.4) * rng.standard_normal(len(y))
            random += "+units"
        model = {"response": "y", "random": random, "residual": "ar1(column):ar1(row)"}
        return [factor("column", columns), factor("row", rows), factor("variety", varieties), variate("y")], \
            np.column_stack([c, r, v, y]), model
    return make


def environments(structure, covariance):
    """Genotypes in environments, random structure(env):id(geno), two plots a cell."""
    def make(rng):
        env, geno, plots = len(covariance), 150, 2
        e, g, _ = levels(env, geno, plots)
        u = draw(rng, covariance, np.eye(geno)).reshape(env, geno)
        y = 5 + e + u[e.astype(int) - 1, g.astype(int) - 1] + rng.standard_normal(len(e))
        model = {"response": "y", "fixed": "env", "random": structure + ":id(geno)"}
        return [factor("env", env), factor("geno", geno), variate("y")], np.column_stack([e, g, y]), model
    return make


def two_traits(rng):
    sires, daughters = 150, 8
    g = np.array([[0.5, 0.2], [0.2, 0.4]])
    r = np.array([[1.0, 0.3], [0.3, 1.5]])
    s, _ = levels(sires, daughters)
    u = rng.standard_normal((sires, 2)) @ np.linalg.cholesky(g).T
    y = 3 + u[s.astype(int) - 1] + rng.standard_normal((len(s), 2)) @ np.linalg.cholesky(r).T
    model = {"response": "y1+y2", "fixed": "trait", "random": "us(trait):id(sire)", "residual": "id(units):us(trait)"}
    return [factor("sire", sires), variate("y1"), variate("y2")], np.column_stack([s, y]), model


def sections(rng):
    sizes, columns = [(12, 20), (16, 15), (10, 24)], []
    for k, (rows, cols) in enumerate(sizes):
        c, r = levels(cols, rows)
        e = np.sqrt(1.0 + 0.5 * k) * draw(rng, ar1(cols, 0.3 + 0.1 * k), ar1(rows, 0.6))
        columns.append(np.column_stack([np.full(len(c), k + 1.0), c, r, 10.0 + k + e]))
    model = {"response": "y", "fixed": "site", "residual": "dsum(ar1v(column):ar1(row)|site)"}
    return [factor("site", 3), factor("column", 24), factor("row", 20), variate("y")], np.vstack(columns), model


def regression(rng):
    subjects, times = 200, 6
    s, t = levels(subjects, times)
    x = t - 3.5
    g = np.array([[1.0, 0.3], [0.3, 0.4]])
    u = rng.standard_normal((subjects, 2)) @ np.linalg.cholesky(g).T
    i = s.astype(int) - 1
    y = 7 + 0.5 * x + u[i, 0] + u[i, 1] * x + rng.standard_normal(len(s))
    model = {"response": "y", "fixed": "x", "random": "str(subject+subject:x,us(2):id(%d))" % subjects}
    return [factor("subject", subjects), variate("x"), variate("y")], np.column_stack([s, x, y]), model


def scaled(r, variances):
    d = np.sqrt(np.asarray(variances))
    return r * np.outer(d, d)


def spatial(structure, correlation):
    """Repeats of 49 points in the plane, residual id(rep):structure(x,y)."""
    def make(rng):
        reps, side = 20, 7
        x, y = (c.ravel() + rng.uniform(-0.2, 0.2, side * side) for c in np.meshgrid(np.arange(side), np.arange(side)))
        r = correlation(np.hypot(np.subtract.outer(x, x), np.subtract.outer(y, y)))
        e = draw(rng, np.eye(reps), 1.3 * r)
        rep = np.repeat(np.arange(reps) + 1.0, side * side)
        data = np.column_stack([rep, np.tile(x, reps), np.tile(y, reps), 4 + e])
        return [factor("rep", reps), variate("px"), variate("py"), variate("z")], data, \
            {"response": "z", "residual": "id(rep):" + structure}
    return make


def pedigree_sires(rng):
    """An identity over sires beside blocks: two plain variances."""
    sires, blocks, each = 100, 30, 6
    s = np.repeat(np.arange(sires), each)
    b = rng.integers(0, blocks, len(s))
    y = 5 + np.sqrt(0.25) * rng.standard_normal(sires)[s] + np.sqrt(0.5) * rng.standard_normal(blocks)[b] + rng.standard_normal(len(s))
    return [factor("sire", sires), factor("block", blocks), variate("y")], np.column_stack([s + 1.0, b + 1.0, y]), \
        {"response": "y", "random": "sire+block"}


def loadings_matrix(n, k, psi_first, ratio=True):
    """V of factors from specifics and loadings; what stands behind them (the residual) is kept."""
    def transform(e):
        psi, load = (e[:n], e[n:n + n * k]) if psi_first else (e[n * k:n * k + n], e[:n * k])
        lam = load.reshape(k, n).T
        return packed(lam @ lam.T + np.diag(psi)) + list(e[n * (k + 1):])
    return transform


def correlation_factors(n, k):
    """V of factors on the correlation scale, loadings then variances."""
    def transform(e):
        lam, d = e[:n * k].reshape(k, n).T, np.sqrt(e[n * k:n * k + n])
        c = lam @ lam.T
        np.fill_diagonal(c, 1.0)
        return packed(c * np.outer(d, d)) + list(e[n * (k + 1):])
    return transform


def triangle(e, n):
    a = np.zeros((n, n))
    a[np.tril_indices(n)] = e[:n * (n + 1) // 2]
    return a


def from_cholesky(n):
    def transform(e):
        a = triangle(e, n)
        low = np.tril(a, -1) + np.eye(n)
        return packed(low @ np.diag(np.diag(a)) @ low.T) + list(e[n * (n + 1) // 2:])
    return transform


def from_antedependence(n):
    def transform(e):
        a = triangle(e, n)
        up = np.tril(a, -1).T + np.eye(n)
        return packed(np.linalg.inv(up @ np.diag(np.diag(a)) @ up.T)) + list(e[n * (n + 1) // 2:])
    return transform


def first_order(n, rho, variances):
    return scaled(ar1(n, rho), variances)


def spherical(a):
    return lambda d: np.where(d < a, 1 - 1.5 * d / a + 0.5 * (d / a) ** 3, 0.0)


V4 = [0.8, 1.0, 1.3, 1.7]
L4 = np.array([0.9, 0.7, 0.5, 0.8])
PSI4 = np.array([0.3, 0.4, 0.2, 0.5])
US3 = np.array([[1.0, 0.5, 0.3], [0.5, 0.8, 0.2], [0.3, 0.2, 0.6]])


def banded(n, values):
    return np.array([[1.0 if i == j else (values[abs(i - j) - 1] if abs(i - j) <= len(values) else 0.0) for j in range(n)]
                     for i in range(n)])


def packed(a):
    return [float(a[i, j]) for i in range(len(a)) for j in range(i + 1)]


FA2 = np.column_stack([[0.9, 0.7, 0.5, 0.8, 0.6], [0.0, 0.5, -0.6, 0.3, -0.4]])
FA2_V = FA2 @ FA2.T + np.diag([0.3, 0.4, 0.2, 0.5, 0.3])
RR_V = np.outer(L4, L4)
FA1_V = RR_V + np.diag(PSI4)
CORG4 = np.array([[1.0, 0.5, 0.3, 0.1], [0.5, 1.0, 0.4, 0.2], [0.3, 0.4, 1.0, 0.6], [0.1, 0.2, 0.6, 1.0]])
ANTE4 = first_order(4, 0.6, V4)
BAND4 = np.eye(4) + 0.6 * np.eye(4, k=-1)
CHOL4 = BAND4 @ np.diag([1.0, 0.7, 0.8, 0.6]) @ BAND4.T

# name: maker, true values on the Sigma scale in the order of the components table (or of the transform), options, transform
STRUCTURES = {
    "sires and blocks": (pedigree_sires, [0.25, 0.5, 1.0], {}),
    "ar1": (repeated("ar1(time)", 2.0 * ar1(6, 0.6)), [0.6, 2.0], {}),
    "ar1h": (repeated("ar1h(time)", scaled(ar1(4, 0.5), V4)), [0.5] + V4, {"varscale": 1}),
    "ar2": (repeated("ar2(time)", 1.5 * time_series([0.5, 0.2], [], 7)), [0.5, 0.2, 1.5], {}),
    "ar3": (repeated("ar3(time)", 1.5 * time_series([0.4, 0.2, 0.1], [], 9)), [0.4, 0.2, 0.1, 1.5], {}),
    "sar": (repeated("sar(time)", 1.5 * time_series([0.6, -0.09], [], 7)), [0.6, 1.5], {}),
    "ma1": (repeated("ma1(time)", time_series([], [0.4], 7)), [0.4, 1.0], {}),
    "ma2": (repeated("ma2(time)", time_series([], [0.4, 0.2], 8)), [0.4, 0.2, 1.0], {}),
    "arma": (repeated("arma(time)", time_series([0.7], [0.3], 8)), [0.7, 0.3, 1.0], {}),
    "cor": (repeated("cor(time)", 1.5 * (0.4 * np.ones((5, 5)) + 0.6 * np.eye(5))), [0.4, 1.5], {}),
    "corh": (repeated("corh(time)", scaled(0.4 * np.ones((4, 4)) + 0.6 * np.eye(4), V4)), [0.4] + V4, {"varscale": 1}),
    "corb": (repeated("corb(time,1)", 1.2 * banded(5, [0.35])), [0.35, 1.2], {}),
    "corg": (repeated("corg(time)", 1.2 * CORG4), [CORG4[a, b] for a in range(4) for b in range(a)] + [1.2], {}),
    "us": (repeated("us(time)", US3), packed(US3), {"varscale": 1}),
    "diag": (repeated("diag(time)", np.diag(V4)), V4, {"varscale": 1}),
    "chol": (repeated("chol(time,1)", CHOL4), packed(CHOL4), {"varscale": 1}, from_cholesky(4)),
    "ante": (repeated("ante(time,1)", ANTE4), packed(ANTE4), {"varscale": 1}, from_antedependence(4)),
    "exp": (repeated("exp(time)", 1.4 * ar1(6, 0.7)), [0.7, 1.4], {}),
    "gau": (repeated("gau(time)", 1.4 * 0.5 ** np.subtract.outer(np.arange(5), np.arange(5)) ** 2), [0.5, 1.4], {}),
    "ieuc": (spatial("ieuc(px,py)", lambda d: 0.5 ** d), [0.5, 1.3], {}),
    "sph": (spatial("sph(px,py,2.5)", spherical(3.0)), [3.0, 1.3], {}),
    "mtrn": (spatial("mtrn(px,py,0.8)", lambda d: np.exp(-d / 1.2)), [1.2, 1.3], {}),
    "ar1xar1": (trial(False), [0.5, 0.4, 0.7, 1.0], {}),
    "ar1xar1 and nugget": (trial(True), [0.5, 0.4, 0.4, 0.7, 1.0], {}),
    "sections": (sections, [0.3, 1.0, 0.6, 0.4, 1.5, 0.6, 0.5, 2.0, 0.6], {}),
    "us environments": (environments("us(env)", US3), packed(US3) + [1.0], {}),
    "diag environments": (environments("diag(env)", np.diag([0.5, 1.0, 1.5])), [0.5, 1.0, 1.5, 1.0], {}),
    "corh environments": (environments("corh(env)", scaled(0.5 * np.ones((3, 3)) + 0.5 * np.eye(3), [0.5, 1.0, 1.5])),
                          [0.5, 0.5, 1.0, 1.5, 1.0], {}),
    "chol environments": (environments("chol(env,1)", CHOL4), packed(CHOL4) + [1.0], {}, from_cholesky(4)),
    "ante environments": (environments("ante(env,1)", ANTE4), packed(ANTE4) + [1.0], {}, from_antedependence(4)),
    "fa(1) environments": (environments("fa(env,1)", FA1_V), packed(FA1_V) + [1.0], {}, loadings_matrix(4, 1, True)),
    "facv(1) environments": (environments("facv(env,1)", FA1_V), packed(FA1_V) + [1.0], {}, loadings_matrix(4, 1, False)),
    "sfa(1) environments": (environments("sfa(env,1)", FA1_V), packed(FA1_V) + [1.0], {}, correlation_factors(4, 1)),
    "fa(2) environments": (environments("fa(env,2)", FA2_V), packed(FA2_V) + [1.0], {}, loadings_matrix(5, 2, True)),
    "rr(1) environments": (environments("rr(env,1)", RR_V + 1e-12 * np.eye(4)), packed(RR_V) + [1.0], {}, loadings_matrix(4, 1, True)),
    "two traits": (two_traits, [0.5, 0.2, 0.4, 1.0, 0.3, 1.5], {}),
    "random regression": (regression, [1.0, 0.3, 0.4, 1.0], {}),
}


def fit(library, variables, data, model, options):
    """Estimates, constraint letters and the status text of one run; None for one that failed."""
    request = {"dataset": [{"name": "data", "storage_order": "so_row_major", "number_of_observations": len(data),
                            "variables": variables}],
               "model": model, "options": {"maxiterations": 60, **options}}
    host = Host(library)
    host.initialise()
    try:
        host.input_info(request)
        host.input_real_2d("data", data.tolist())
        if host.process() > 0:
            return None
        sigma = host.output_real("TABLE_VARCOMP:SIGMA")
        table = host.output_json("TABLE_VARCOMP", raw=True)
        if sigma is None or table is None:
            return None
        return np.array(sigma), letters(table), host.output_integer_scalar("SCALAR_CONVERGENCE_FLG") in (0, [0])
    finally:
        host.cleanup()


def letters(table):
    """The column of constraint letters, wherever the table's JSON holds it."""
    found = []

    def walk(node):
        if isinstance(node, dict):
            if node.get("name") == "BOUND":
                for value in node.values():
                    if isinstance(value, list):
                        found.extend(str(v).strip() for v in value)
            for value in node.values():
                walk(value)
        elif isinstance(node, list):
            for value in node:
                walk(value)
    walk(json.loads(table) if isinstance(table, str) else table)
    return found


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("library")
    parser.add_argument("--seeds", type=int, default=50)
    parser.add_argument("--first", type=int, default=1, help="the first seed")
    parser.add_argument("--only", default="", help="structures whose names hold one of these texts, between commas")
    parser.add_argument("--all", action="store_true")
    args = parser.parse_args()
    bad = tested = beyond2 = beyond3 = 0
    print("| structure | parameters | largest bias/se | beyond 2 | converged | at a bound | failed |")
    print("|---|---|---|---|---|---|---|")
    for position, (name, (make, truth, options, *transform)) in enumerate(STRUCTURES.items()):
        if not any(text in name for text in args.only.split(",")):
            continue
        estimates, failed, converged, bound = [], 0, 0, 0
        for seed in range(args.first, args.first + args.seeds):
            variables, data, model = make(np.random.default_rng([seed, position]))
            answer = fit(args.library, variables, data, model, options)
            if answer is None:
                failed += 1
                continue
            estimate, codes, good = answer
            fixed = np.array([c == "F" for c in codes])  # a zero outside a band, what mtrn() leaves at its default
            estimate = np.array(transform[0](estimate)) if transform else estimate[~fixed]
            if len(estimate) != len(truth):
                failed += 1
                continue
            estimates.append(estimate)
            converged += good
            bound += any(c in ("B", "S", "?") for c in codes)
        bad += failed
        if not estimates:
            print("| %s | %d | | | 0 | | %d |" % (name, len(truth), failed))
            continue
        e = np.array(estimates)
        mean, se = e.mean(axis=0), e.std(axis=0, ddof=1) / np.sqrt(len(e))
        z = np.where(se > 0, (mean - truth) / np.where(se > 0, se, 1), 0.0)
        tested, beyond2, beyond3 = tested + len(z), beyond2 + int((abs(z) > 2).sum()), beyond3 + int((abs(z) > 3).sum())
        print("| %s | %d | %+.2f | %d | %d | %d | %d |" % (name, len(truth), z[np.argmax(abs(z))], (abs(z) > 2).sum(), converged, bound,
                                                         failed), flush=True)
        for k, value in enumerate(truth if args.all else []):
            print("|   %d | %.4g | %.4g | %+.2f |" % (k + 1, value, mean[k], z[k]))
    print("\n%d parameters: %d beyond 2 standard errors (%.1f expected), %d beyond 3 (%.1f expected)"
          % (tested, beyond2, 0.0455 * tested, beyond3, 0.0027 * tested))
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
