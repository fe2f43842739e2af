#!/usr/bin/env python3
"""A host that has numpy, and so a BLAS of its own, loaded first: neither disturbs the other.

    numpy_host.py LIBRARY

Checked: numpy's products and its BLAS's thread count are the same before and after a fit, and the fit gives the same bits
as in a process without numpy.  Ends with 77 (skipped) where numpy is missing.
"""
import ctypes
import json
import os
import random
import subprocess
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "reference"))
from host import Host  # noqa: E402


def fit(library):
    """bits of the components and effects of a crossed model with 400 by 300 levels"""
    draw = random.Random(5)
    rows = []
    a, b = [draw.gauss(0, 1) for _ in range(400)], [draw.gauss(0, 1) for _ in range(300)]
    for _ in range(6000):
        i, j = draw.randrange(400), draw.randrange(300)
        rows.append([i + 1, j + 1, 5 + a[i] + b[j] + draw.gauss(0, 1)])
    h = Host(library)
    h.initialise()
    h.input_info({"dataset": [{"name": "d", "number_of_observations": len(rows), "storage_order": "so_row_major", "variables": [
        {"name": "a", "field_type": "vt_integer_factor_1_to_n", "number_of_levels": 400},
        {"name": "b", "field_type": "vt_integer_factor_1_to_n", "number_of_levels": 300}, {"name": "y"}]}]})
    h.input_real_2d("d", rows)
    assert h.process({"model": {"response": "y", "random": "a + b"}}) <= 0, h.errors()
    out = [v.hex() for name in ("TABLE_VARCOMP:SIGMA", "TABLE_VARCOMP:SE", "TABLE_SLN:EFFECT", "TABLE_SLN:SE")
           for v in h.output_real(name)]
    h.cleanup()
    return out


def blas_threads():
    """thread counts of the BLAS libraries that this process has loaded from shared files, by path"""
    with open("/proc/self/maps") as f:
        paths = {line.split()[-1] for line in f if "blas" in line and line.rstrip().endswith((".so.0", ".so.3", ".so"))}
    out = {}
    for path in paths:
        try:
            out[path] = ctypes.CDLL(path).openblas_get_num_threads()
        except (OSError, AttributeError):
            pass
    return out


def main():
    library = sys.argv[1]
    if len(sys.argv) > 2:  # the child without numpy
        print(json.dumps(fit(library)))
        return 0
    try:
        import numpy
    except ImportError:
        return 77
    draw = numpy.random.default_rng(1)
    x = draw.normal(size=(300, 300))
    before = (x @ x).tobytes(), numpy.linalg.inv(x).tobytes(), blas_threads()
    mine = fit(library)
    after = (x @ x).tobytes(), numpy.linalg.inv(x).tobytes(), blas_threads()
    assert before == after, "numpy's results or threads changed"
    alone = json.loads(subprocess.run([sys.executable, os.path.abspath(__file__), library, "alone"], check=True,
                                      capture_output=True, text=True).stdout.splitlines()[-1])
    assert mine == alone, "the fit differs beside numpy"
    return 0


if __name__ == "__main__":
    sys.exit(main())
