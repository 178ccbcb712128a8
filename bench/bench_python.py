"""The matrix products of the Python module against the dense product.

    PYTHONPATH=build/python /usr/bin/python3 bench/bench_python.py [NDX NDY NX NY NZ]

makes a survey with build/make_survey (a regular grid of NDX x NDY data over
an NX x NY x NZ mesh; defaults 40 x 25 data over 100 x 100 x 10 cells), runs
it compressed with daub2 and the default accuracy through the module, then
times m.dot and m.rdot against the product of the dense matrix, and reports
the memory that read_matrix holds against the kept coefficients.
"""

import os
import subprocess
import sys
import tempfile
import time

import numpy as np

import quolvent


def rss_bytes():
    with open("/proc/self/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) * 1024
    return 0


def best(f, repeat=5):
    times = []
    for _ in range(repeat):
        t = time.perf_counter()
        f()
        times.append(time.perf_counter() - t)
    return min(times)


def main(argv):
    ndx, ndy, nx, ny, nz = (int(a) for a in (argv[1:6] if len(argv) > 5 else (40, 25, 100, 100, 10)))
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    make = os.path.join(root, "build", "make_survey")
    with tempfile.TemporaryDirectory() as d:
        subprocess.run([make, str(nx), str(ny), str(nz), str(ndx), str(ndy), "daub2", "0"], cwd=d,
                       check=True)
        os.chdir(d)  # the control file names its inputs from there
        s = quolvent.run("run.inp", outdir=d)
        before = rss_bytes()
        m = quolvent.read_matrix(os.path.join(d, "dulmarok.mtx"))
        held = rss_bytes() - before
        print(f"matrix: {m.ndata} x {m.ncells}, nnz {m.nnz} (ratio {s['compression_ratio']:.1f}), "
              f"file {os.path.getsize(os.path.join(d, 'dulmarok.mtx')) / 2**20:.1f} MiB")
        print(f"read_matrix holds {held / 2**20:.1f} MiB; the kept coefficients are "
              f"{8 * m.nnz / 2**20:.1f} MiB")
        model = np.random.default_rng(1).random(m.ncells)
        v = np.random.default_rng(2).random(m.ndata)
        t_dot = best(lambda: m.dot(model))
        t_rdot = best(lambda: m.rdot(v))
        t = time.perf_counter()
        dense = m.dense()
        t_dense = time.perf_counter() - t
        t_mat = best(lambda: dense @ model.astype(np.float32))
        t_tmat = best(lambda: v.astype(np.float32) @ dense)
        print(f"m.dot  {1e3 * t_dot:8.1f} ms   dense @ model  {1e3 * t_mat:8.1f} ms")
        print(f"m.rdot {1e3 * t_rdot:8.1f} ms   v @ dense      {1e3 * t_tmat:8.1f} ms")
        print(f"m.dense() {t_dense:.2f} s, {dense.nbytes / 2**20:.0f} MiB")


if __name__ == "__main__":
    main(sys.argv)
