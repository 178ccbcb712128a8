"""quolvent: magnetic sensitivity matrices, from Python.

Every number comes from the program's own C++ code:

    import quolvent
    s = quolvent.run("case.inp", threads=2, outdir="out")   # one whole run
    m = quolvent.read_matrix("out/dulmarok.mtx")
    d = m.dot(model)                                         # G @ model

A run that stops raises `quolvent.Stop` with the report as its message; a
matrix file that is cut short or is no matrix file raises `quolvent.FormatError`
naming the record.
"""

from dataclasses import dataclass

import numpy as np

from . import _quolvent
from ._quolvent import FormatError

__all__ = ["run", "read_matrix", "Matrix", "Mesh", "Stop", "FormatError"]


class Stop(RuntimeError):
    """A run that stopped; the message is its report, as the screen shows it."""


@dataclass(frozen=True)
class Mesh:
    """The mesh of a matrix file: counts, origin, cell widths and nodes.

    xn and yn are easting and northing coordinates, zn depths below the mesh
    top z0 (zn[0] = 0); dx, dy, dz the widths in the same order."""

    nx: int
    ny: int
    nz: int
    origin: tuple
    dx: np.ndarray
    dy: np.ndarray
    dz: np.ndarray
    xn: np.ndarray
    yn: np.ndarray
    zn: np.ndarray
    z0: float


class Matrix:
    """A matrix file read back: G, ndata x ncells, the sensitivity of each
    datum to the susceptibility of each cell below the ground, in the cell
    order of the file (northing outermost, then easting, then depth)."""

    def __init__(self, path):
        self._m = _quolvent.Matrix(str(path))
        nx, ny, nz = self._m.mesh_counts
        xn, yn, zn = self._m.xn, self._m.yn, self._m.zn
        self.mesh = Mesh(nx, ny, nz, (float(xn[0]), float(yn[0]), self._m.z0),
                         np.diff(xn), np.diff(yn), np.diff(zn), xn, yn, zn, self._m.z0)
        self.ndata = self._m.ndata
        self.ncells = self._m.ncells
        self.compressed = self._m.compressed
        self.wavelet = self._m.wavelet
        self.top_index = self._m.top_index
        self.weights = self._m.weights
        self.squared_sensitivity = self._m.squared_sensitivity
        self.nnz = self._m.nnz

    def row(self, i):
        """Row i (0-based) of G, decompressed and multiplied back by the weighting."""
        if not 0 <= i < self.ndata:
            raise IndexError(f"datum {i} of {self.ndata}")
        return self._m.row(int(i))

    def dot(self, model):
        """G @ model: the data of a susceptibility model (ncells values)."""
        return self._m.dot(np.ascontiguousarray(model, dtype=np.float64))

    def rdot(self, v):
        """G.T @ v (v: ndata values)."""
        return self._m.rdot(np.ascontiguousarray(v, dtype=np.float64))

    def dense(self):
        """G as an (ndata, ncells) float32 array: for small problems."""
        return self._m.dense()

    def to_grid(self, values):
        """A value per cell below the ground as an (nz, ny, nx) array, NaN above it."""
        return self._m.to_grid(np.ascontiguousarray(values, dtype=np.float64))


def read_matrix(path):
    """The matrix file at path, checked record by record."""
    return Matrix(path)


def run(control_file, threads=None, outdir=".", verbose=False):
    """One whole run of the control file, as the command line runs it.

    Input paths are resolved as the command line resolves them (from the
    current directory); the outputs, the log included, go to outdir, which is
    made when missing. Returns a summary dict: ndata, nsurface, nborehole,
    ncells, nbelow, wavelet, the thresholds, nnz, the compression ratio, the
    achieved error and the phase times (seconds). Nothing goes to standard
    output unless verbose. Raises Stop with the report when the run stops."""
    import os

    os.makedirs(outdir, exist_ok=True)
    args = [str(control_file)]
    if threads is not None:
        args.append(str(int(threads)))
    summary = _quolvent.run(args, str(outdir), bool(verbose))
    if "stop" in summary:
        raise Stop(summary["stop"])
    return summary
