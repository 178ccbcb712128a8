"""The matrix products of the Python module against numpy's on the same
dense matrix, and a block of columns against single products.

    PYTHONPATH=build/python /usr/bin/python3 bench/bench_python.py [NDX NDY NX NY NZ]

makes a survey with build/make_survey (a regular grid of NDX x NDY data over
an NX x NY x NZ mesh; defaults 30 x 30 data over 48 x 48 x 24 cells), runs it
compressed with daub2 and uncompressed through the module, and times, for
each: m @ x and m.T @ v against numpy's float32 products with m.dense() (the
numbers the file holds), m @ X for X of 8 columns against 8 single products,
and the memory that read_matrix holds. Threads: OMP_NUM_THREADS for the
module, the BLAS's own setting for numpy.
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


def best(*fs, repeat=41):
    """The least time of each of fs, run in turn so that a slow spell of the
    machine falls on all of them alike."""
    times = [[] for _ in fs]
    for _ in range(repeat):
        for f, ts in zip(fs, times):
            t = time.perf_counter()
            f()
            ts.append(time.perf_counter() - t)
    return [min(ts) for ts in times]


def measure(d, wavelet):
    s = quolvent.run("run.inp", outdir=d)
    before = rss_bytes()
    m = quolvent.read_matrix(os.path.join(d, "dulmarok.mtx"))
    held = rss_bytes() - before
    print(f"{wavelet}: {m.ndata} x {m.ncells}, nnz {m.nnz} (ratio {s.compression_ratio:.1f}), "
          f"read_matrix holds {held / 2**20:.1f} MiB")
    rng = np.random.default_rng(1)
    x, v = rng.random(m.ncells), rng.random(m.ndata)
    X = rng.random((m.ncells, 8))
    dense = m.dense()
    x32, v32 = x.astype(np.float32), v.astype(np.float32)
    V = rng.random((m.ndata, 8))
    t_dot, t_block = best(lambda: m @ x, lambda: m @ X)
    t_rdot, t_rblock = best(lambda: m.T @ v, lambda: m.T @ V)
    t_np, t_rnp = best(lambda: dense @ x32, lambda: v32 @ dense, repeat=7)
    single = np.column_stack([m @ X[:, j] for j in range(8)])
    err = np.abs(m @ X - single).max() / np.abs(single).max()
    print(f"  m @ x    {1e3 * t_dot:8.2f} ms   numpy dense @ x  {1e3 * t_np:8.2f} ms   "
          f"ratio {t_dot / t_np:.2f}")
    print(f"  m.T @ v  {1e3 * t_rdot:8.2f} ms   numpy v @ dense  {1e3 * t_rnp:8.2f} ms   "
          f"ratio {t_rdot / t_rnp:.2f}")
    print(f"  m @ X, 8 columns {1e3 * t_block:8.2f} ms = {t_block / t_dot:.2f} single products; "
          f"largest difference from 8 single products {err:.1e} relative")
    print(f"  m.T @ V, 8 columns {1e3 * t_rblock:6.2f} ms = {t_rblock / t_rdot:.2f} single products")


def main(argv):
    ndx, ndy, nx, ny, nz = (int(a) for a in (argv[1:6] if len(argv) > 5 else (30, 30, 48, 48, 24)))
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    make = os.path.join(root, "build", "make_survey")
    print(f"threads: OMP_NUM_THREADS={os.environ.get('OMP_NUM_THREADS', 'default')}")
    for wavelet in ("daub2", "NONE"):
        with tempfile.TemporaryDirectory() as d:
            subprocess.run([make, str(nx), str(ny), str(nz), str(ndx), str(ndy), wavelet, "1"],
                           cwd=d, check=True, stdout=subprocess.DEVNULL)
            os.chdir(d)  # the control file names its inputs from there
            measure(d, wavelet)
            os.chdir(root)


if __name__ == "__main__":
    main(sys.argv)
