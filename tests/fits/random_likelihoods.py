#!/usr/bin/env python3
"""Random models through the exports: the LogL of every iteration against the dense likelihood at the same parameters.

    random_likelihoods.py LIBRARY [models] [first seed]

Terms are products of one to three components in any structure, in any order, under at() or times a covariate; the residual
is one section, two of different sizes, or weighted; records are shuffled, and some have no response.  The covariance
matrices are made here from their definitions, by numpy.  Ends with 77 (skipped) where numpy is missing.
"""
import os
import random
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "reference"))
from host import Host  # noqa: E402

try:
    import numpy as np
except ImportError:
    sys.exit(77)

FIELDS = ["site", "row", "col", "line", "env", "x", "w", "y"]
LEVELS = {"site": 2, "row": 4, "col": 6, "line": 6, "env": 4}


def toeplitz(rho, n):
    rho = (list(rho) + [0.0] * n)[:n]
    return np.array([[rho[abs(i - j)] for j in range(n)] for i in range(n)])


def series(phi, n):
    """correlations of an autoregression, from the Yule-Walker equations"""
    p = len(phi)
    a, b = np.eye(p), np.array(phi)
    for k in range(1, p + 1):
        for j in range(1, p + 1):
            if k != j:
                a[k - 1, abs(k - j) - 1] -= phi[j - 1]
    rho = [1.0] + list(np.linalg.solve(a, b))
    while len(rho) < n:
        rho.append(sum(phi[j] * rho[-1 - j] for j in range(p)))
    return toeplitz(rho[:n], n)


def general(t, n):
    m = np.eye(n)
    m[np.tril_indices(n, -1)] = t
    return m + np.tril(m, -1).T


def distance(n):
    return np.abs(np.subtract.outer(np.arange(n), np.arange(n))).astype(float)


def arma(t, n):
    first = (t[0] - t[1]) * (1 - t[0] * t[1]) / (1 + t[1] ** 2 - 2 * t[0] * t[1])
    return toeplitz([1.0] + [first * t[0] ** k for k in range(n - 1)], n)


# name: arguments behind the factor, count of parameters at n levels, matrix; v and h forms are made of these
CORRELATIONS = {
    "ar1": ("", lambda n: 1, lambda t, n: series(t, n)), "ar2": ("", lambda n: 2, lambda t, n: series(t, n)),
    "ar3": ("", lambda n: 3, lambda t, n: series(t, n)),
    "sar": ("", lambda n: 1, lambda t, n: series([t[0], -t[0] ** 2 / 4], n)),
    "sar2": (",[0.2,0.1]", lambda n: 2,
             lambda t, n: series([t[0] + 2 * t[1], -t[1] * (2 * t[0] + t[1]), t[0] * t[1] ** 2], n)),
    "ma1": ("", lambda n: 1, lambda t, n: toeplitz([1.0, -t[0] / (1 + t[0] ** 2)], n)),
    "ma2": ("", lambda n: 2, lambda t, n: toeplitz([1.0, -t[0] * (1 - t[1]) / (1 + t[0] ** 2 + t[1] ** 2),
                                                    -t[1] / (1 + t[0] ** 2 + t[1] ** 2)], n)),
    "arma": (",[0.3,0.1]", lambda n: 2, arma),
    "cor": ("", lambda n: 1, lambda t, n: toeplitz([1.0] + [t[0]] * n, n)),
    "corb": (",1", lambda n: n - 1, lambda t, n: toeplitz([1.0] + list(t), n)),
    "corg": ("", lambda n: n * (n - 1) // 2, general),
    "exp": ("", lambda n: 1, lambda t, n: t[0] ** distance(n)),
    "gau": ("", lambda n: 1, lambda t, n: t[0] ** distance(n) ** 2),
    "lvr": (",3.5", lambda n: 1, lambda t, n: np.maximum(1 - distance(n) / t[0], 0.0)),
}


def triangle(t, n):
    """unit triangle and diagonal, from elements by rows"""
    m = np.zeros((n, n))
    m[np.tril_indices(n)] = t
    return np.tril(m, -1) + np.eye(n), np.diag(m)


def unstructured(t, n):
    low, diagonal = triangle(t, n)
    return low + low.T - 2 * np.eye(n) + np.diag(diagonal)


def cholesky(t, n):
    low, d = triangle(t, n)
    return low * d @ low.T


def antedependence(t, n):
    low, d = triangle(t, n)
    return np.linalg.inv(low.T * d @ low)


def factors(loadings, specifics):
    return loadings @ loadings.T + np.diag(specifics)


def loadings(t, n):
    return np.asarray(t).reshape(-1, n).T


def scaled_factors(t, n):
    m = loadings(t[:-n], n) @ loadings(t[:-n], n).T
    np.fill_diagonal(m, 1.0)
    return m * np.sqrt(np.outer(t[-n:], t[-n:]))


# with variances: by the count of factors or bands, k
VARIANCES = {
    "idv": ("", lambda n, k: 1, lambda t, n: t[0] * np.eye(n)), "idh": ("", lambda n, k: n, lambda t, n: np.diag(t)),
    "diag": ("", lambda n, k: n, lambda t, n: np.diag(t)),
    "us": ("", lambda n, k: n * (n + 1) // 2, unstructured), "chol": ("k", lambda n, k: n * (n + 1) // 2, cholesky),
    "ante": ("k", lambda n, k: n * (n + 1) // 2, antedependence),
    "sfa": ("k", lambda n, k: n * (min(k, n - 1) + 1), scaled_factors),
    "facv": ("k", lambda n, k: n * (min(k, n - 1) + 1), lambda t, n: factors(loadings(t[:-n], n), t[-n:])),
    "fa": ("k", lambda n, k: n * (k + 1), lambda t, n: factors(loadings(t[n:], n), t[:n])),
    "rr": ("k", lambda n, k: n * (k + 1), lambda t, n: factors(loadings(t[n:], n), t[:n])),
}


def component(draw, factor, n, kind):
    """request text, count of parameters and matrix of a component: identity, correlation or variance"""
    if kind == "id":
        return f"id({factor})", 0, lambda t: np.eye(n)
    if kind == "variance" and draw.random() < 0.5:
        name = draw.choice(list(VARIANCES))
        more, count, matrix = VARIANCES[name]
        k = draw.randint(1, min(2, n - 1))
        return f"{name}({factor}{f',{k}' if more else ''})", count(n, k), lambda t: matrix(t, n)
    name = draw.choice([c for c in CORRELATIONS if kind == "correlation" or c not in ("sar2", "arma", "lvr")])
    more, count, matrix = CORRELATIONS[name]
    own = count(n)
    if kind == "correlation":
        return f"{name}({factor}{more})", own, lambda t: matrix(t, n)
    if draw.random() < 0.5:
        return f"{name}v({factor}{more})", own + 1, lambda t: t[own] * matrix(t[:own], n)
    return f"{name}h({factor}{more})", own + n, lambda t: matrix(t[:own], n) * np.sqrt(np.outer(t[own:], t[own:]))


def product(parts):
    counts = [c for _, c, _ in parts]

    def matrix(t):
        out, at = np.eye(1), 0
        for _, c, each in parts:
            out, at = np.kron(out, each(t[at:at + c])), at + c
        return out
    return ":".join(p[0] for p in parts), sum(counts), matrix


def design(data, names):
    out = np.ones((len(data), 1))
    for name in names:
        cells = np.eye(LEVELS[name])[data[:, FIELDS.index(name)].astype(int) - 1]
        out = (out[:, :, None] * cells[:, None, :]).reshape(len(data), -1)
    return out


def term(draw, data, used):
    while True:
        names = draw.sample(["line", "env", "row", "site"], draw.choice([1, 1, 2, 2, 3]))
        if frozenset(names) not in used:
            break
    used.add(frozenset(names))
    z = design(data, names)
    if draw.random() < 0.15:
        return ":".join(names), 1, lambda t: t[0] * np.eye(z.shape[1]), z
    scaled = draw.randrange(len(names))
    parts = [component(draw, name, LEVELS[name], "variance" if i == scaled else draw.choice(["id", "id", "correlation"]))
             for i, name in enumerate(names)]
    extended = parts[scaled][0].startswith(("fa(", "rr("))
    if extended and len(names) > 2:  # not among three components
        parts[scaled] = f"idv({names[scaled]})", 1, lambda t: t[0] * np.eye(LEVELS[names[scaled]])
    call, count, matrix = product(parts)
    if draw.random() < 0.2 and "site" not in names:
        return f"at(site,2):{call}", count, matrix, z * (data[:, [0]] == 2)
    if draw.random() < 0.2 and not extended:
        return f"{call}:x", count, matrix, z * data[:, [5]]
    return call, count, matrix, z


def residual(draw, sections):
    """request text, sections as (records, count of parameters, matrix), and whether values are absolute"""
    if len(sections) == 1:
        kinds = draw.choice([("id", "correlation"), ("correlation", "correlation"), None])
        if kinds is None:
            return "", [(None, 0, lambda t: np.eye(24))], False
        call, count, matrix = product([component(draw, "row", 4, kinds[0]), component(draw, "col", 6, kinds[1])])
        return call, [(None, count, matrix)], False
    name = draw.choice(["ar1", "ar2", "ma1", "cor", "exp"])
    count, matrix = CORRELATIONS[name][1](9), CORRELATIONS[name][2]
    out, at = [], 0
    for rows, cols in sections:
        out.append((np.arange(at, at + rows * cols), count + 1,
                    lambda t, r=rows, c=cols: t[-1] * np.kron(matrix(t[:-1], r), np.eye(c))))
        at += rows * cols
    return f"dsum({name}(row):id(col)|site)", out, True


def loglik(y, x, v, profiled):
    """-1/2 (log|V| + log|X'V^-1 X| + y'Py), at the best scale of V where it is profiled; x of full rank"""
    vx, vy = np.linalg.solve(v, x), np.linalg.solve(v, y)
    xvx = x.T @ vx
    ypy = y @ vy - vx.T @ y @ np.linalg.solve(xvx, vx.T @ y)
    both = np.linalg.slogdet(v)[1] + np.linalg.slogdet(xvx)[1]
    nu = len(y) - x.shape[1]
    return -0.5 * (both + nu + nu * np.log(ypy / nu)) if profiled else -0.5 * (both + ypy)


def run(library, seed):
    draw, numbers = random.Random(seed), np.random.default_rng(seed)
    sections = [(4, 6)] if draw.random() < 0.6 else [(4, 6), (3, 5)]
    data = np.array([[s + 1, i + 1, j + 1, draw.randint(1, 6), draw.randint(1, 4), round(draw.gauss(1, 1), 2),
                      round(draw.uniform(0.5, 3), 2), 0.0]
                     for s, (rows, cols) in enumerate(sections) for i in range(rows) for j in range(cols)])
    effects = [numbers.standard_normal(7) for _ in range(3)]
    data[:, 7] = 10 + sum(e[data[:, c].astype(int)] for e, c in zip(effects, (3, 4, 1))) + numbers.standard_normal(len(data))
    used = set()
    terms = [term(draw, data, used) for _ in range(draw.choice([1, 1, 2, 3]))]
    fixed = draw.random() < 0.5
    call, parts, absolute = residual(draw, sections)
    weighted = not call and draw.random() < 0.4
    lost = set(draw.sample(range(len(data)), 3)) if not call and len(sections) == 1 and draw.random() < 0.5 else set()
    model = {"response": "y", "random": " + ".join(t[0] for t in terms)}
    model.update({"residual": call} if call else {}, **({"fixed": "x"} if fixed else {}))
    model.update({"weights": "w"} if weighted else {})

    order = list(range(len(data)))
    draw.shuffle(order)
    rows = [[None if c == 7 and i in lost else v for c, v in enumerate(data[i])] for i in order]
    h = Host(library)
    h.initialise()
    h.input_info({"dataset": [{"name": "d", "number_of_observations": len(rows), "storage_order": "so_row_major", "variables": [
        {"name": f, **({"field_type": "vt_integer_factor_1_to_n", "number_of_levels": LEVELS[f]} if f in LEVELS else {})}
        for f in FIELDS]}], "options": {"maxiterations": 6}})
    h.input_real_2d("d", rows)
    h.process({"model": model})
    logs = h.output_real("TABLE_TRACE:LOGL")
    count = sum(t[1] for t in terms) + sum(p[1] for p in parts)
    gammas = [h.output_real(f"TABLE_TRACE:gammas_{k + 1}") for k in range(count)]
    said = h.errors()
    h.cleanup()
    if not logs or any(g is None for g in gammas):
        return [f"seed {seed}: no iterations of {model}: {said}"]

    keep = [i for i in range(len(data)) if i not in lost]
    x = np.column_stack([np.ones(len(keep))] + ([data[keep, 5]] if fixed else []))
    for iteration, found in enumerate(logs):
        theta, at = np.array([g[iteration] for g in gammas]), 0
        v, worst = np.zeros((len(data), len(data))), 1.0
        for name, n, matrix, z in terms:
            g, at = matrix(theta[at:at + n]), at + n
            v += z @ g @ z.T
            worst = max(worst, 1.0 if "rr(" in name else np.linalg.cond(g))  # rr() is singular and has no inverse to lose
        for where, n, matrix in parts:
            where = np.arange(len(data)) if where is None else where
            v[np.ix_(where, where)] += matrix(theta[at:at + n])[:len(where), :len(where)] / (
                np.sqrt(np.outer(data[where, 6], data[where, 6])) if weighted else 1.0)
            at += n
        v = v[np.ix_(keep, keep)]
        if worst > 1e11 or np.linalg.cond(v) > 1e7:  # then rounding leaves too little, in the engine or here
            continue
        expected = loglik(data[keep, 7], x, v, not absolute)
        if not abs(expected - found) <= 1e-6 * (1 + abs(expected)) + 1e-15 * worst:
            return [f"seed {seed}, iteration {iteration + 1}: LogL {found}, by its definition {expected}, of {model}"]
    return []


def main():
    library = sys.argv[1]
    models = int(sys.argv[2]) if len(sys.argv) > 2 else 60
    first = int(sys.argv[3]) if len(sys.argv) > 3 else 1
    wrong = [line for seed in range(first, first + models) for line in run(library, seed)]
    print("\n".join(wrong) if wrong else f"{models} models agree")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
