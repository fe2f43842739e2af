"""Recovery of variance parameters: simulated data, 50 seeds a structure, means of the estimates against what was simulated.

    python3 bench/recovery/recover.py LIBRARY [--seeds 50] [--only TEXT]

Needs numpy.  Prints, for every parameter, the value simulated, the mean of the estimates, the bias in standard errors of that
mean; a run that fails is counted and fails the script.  Estimates of runs at a bound are in the mean: leaving them out would
bias it.
"""
import argparse
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


V4 = [0.8, 1.0, 1.3, 1.7]
L4 = np.array([0.9, 0.7, 0.5, 0.8])
PSI4 = np.array([0.3, 0.4, 0.2, 0.5])
US3 = np.array([[1.0, 0.5, 0.3], [0.5, 0.8, 0.2], [0.3, 0.2, 0.6]])


def banded(n, values):
    return np.array([[1.0 if i == j else (values[abs(i - j) - 1] if abs(i - j) <= len(values) else 0.0) for j in range(n)]
                     for i in range(n)])


def packed(a):
    return [float(a[i, j]) for i in range(len(a)) for j in range(i + 1)]


# name: maker, true values on the Sigma scale in the order of the components table, options
STRUCTURES = {
    "ar1": (repeated("ar1(time)", 2.0 * ar1(6, 0.6)), [0.6, 2.0], {}),
    "ar1h": (repeated("ar1h(time)", scaled(ar1(4, 0.5), V4)), [0.5] + V4, {"varscale": 1}),
    "ar2": (repeated("ar2(time)", 1.5 * time_series([0.5, 0.2], [], 7)), [0.5, 0.2, 1.5], {}),
    "ma1": (repeated("ma1(time)", time_series([], [0.4], 7)), [0.4, 1.0], {}),
    "cor": (repeated("cor(time)", 1.5 * (0.4 * np.ones((5, 5)) + 0.6 * np.eye(5))), [0.4, 1.5], {}),
    "corh": (repeated("corh(time)", scaled(0.4 * np.ones((4, 4)) + 0.6 * np.eye(4), V4)), [0.4] + V4, {"varscale": 1}),
    "corb": (repeated("corb(time,1)", 1.2 * banded(5, [0.35])), [0.35, 1.2], {}),
    "us": (repeated("us(time)", US3), packed(US3), {"varscale": 1}),
    "diag": (repeated("diag(time)", np.diag(V4)), V4, {"varscale": 1}),
    "exp": (repeated("exp(time)", 1.4 * ar1(6, 0.7)), [0.7, 1.4], {}),
    "ar1xar1": (trial(False), [0.5, 0.4, 0.7, 1.0], {}),
    "ar1xar1 and nugget": (trial(True), [0.5, 0.4, 0.4, 0.7, 1.0], {}),
    "sections": (sections, [0.3, 1.0, 0.6, 0.4, 1.5, 0.6, 0.5, 2.0, 0.6], {}),
    "us environments": (environments("us(env)", US3), packed(US3) + [1.0], {}),
    "diag environments": (environments("diag(env)", np.diag([0.5, 1.0, 1.5])), [0.5, 1.0, 1.5, 1.0], {}),
    "corh environments": (environments("corh(env)", scaled(0.5 * np.ones((3, 3)) + 0.5 * np.eye(3), [0.5, 1.0, 1.5])),
                          [0.5, 0.5, 1.0, 1.5, 1.0], {}),
    "fa(1) environments": (environments("fa(env,1)", np.outer(L4, L4) + np.diag(PSI4)), list(PSI4) + list(L4) + [1.0], {}),
    "facv(1) environments": (environments("facv(env,1)", np.outer(L4, L4) + np.diag(PSI4)), list(L4) + list(PSI4) + [1.0], {}),
    "two traits": (two_traits, [0.5, 0.2, 0.4, 1.0, 0.3, 1.5], {}),
    "random regression": (regression, [1.0, 0.3, 0.4, 1.0], {}),
}


def fit(library, variables, data, model, options):
    """Estimates and the convergence flag of one run; None for one that failed."""
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
        return None if sigma is None else (list(sigma), host.output_integer_scalar("SCALAR_CONVERGENCE_FLG"))
    finally:
        host.cleanup()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("library")
    parser.add_argument("--seeds", type=int, default=50)
    parser.add_argument("--only", default="")
    args = parser.parse_args()
    bad = 0
    print("| structure | parameter | simulated | mean | bias/se | converged | failed |")
    print("|---|---|---|---|---|---|---|")
    for name, (make, truth, options) in STRUCTURES.items():
        if args.only not in name:
            continue
        estimates, failed, converged = [], 0, 0
        for seed in range(1, args.seeds + 1):
            variables, data, model = make(np.random.default_rng([seed, len(name)]))
            answer = fit(args.library, variables, data, model, options)
            if answer is None or len(answer[0]) != len(truth):
                failed += 1
                continue
            estimate = np.array(answer[0])
            if name.startswith(("fa(", "facv(")):  # loadings are determined but for their sign
                loadings = slice(len(PSI4), 2 * len(PSI4)) if name.startswith("fa(") else slice(0, len(PSI4))
                estimate[loadings] *= np.sign(estimate[loadings].sum())
            estimates.append(estimate)
            converged += answer[1] in (0, [0])
        bad += failed
        if not estimates:
            print("| %s | | | | | 0 | %d |" % (name, failed))
            continue
        e = np.array(estimates)
        mean, se = e.mean(axis=0), e.std(axis=0, ddof=1) / np.sqrt(len(e))
        for k, value in enumerate(truth):
            print("| %s | %d | %.4g | %.4g | %+.2f | %s | %s |" % (name if k == 0 else "", k + 1, value, mean[k],
                                                                  (mean[k] - value) / se[k], converged if k == 0 else "",
                                                                  failed if k == 0 else ""), flush=True)
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
