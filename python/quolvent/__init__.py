"""quolvent: magnetic sensitivity matrices, from Python.

Every number comes from the program's own C++ code:

    import quolvent
    s = quolvent.run("case.inp", threads=2, outdir="out")   # one whole run
    m = quolvent.read_matrix("out/dulmarok.mtx")
    d = m @ model                                            # G @ model, in nT

or, with the survey given as arrays (see `Survey`):

    m, s = quolvent.Survey(mesh, points, field=(75, 25, 50000)).compute()

G, the sensitivity matrix, is ndata x ncells: the datum (in the unit of the
field strength of the observation file, nT in practice) that a unit SI
susceptibility of each cell below the ground gives. Row i is datum i in the
order of the observations; column c is the c-th cell below the ground in the
program's cell order: northing index outermost, then easting, then depth
innermost from the top layer down, cells above the ground left out.

Errors: a run that stops raises `Stop`, its message the report the screen
shows and its `kind` one stable word. Every file problem raises `FileError`
(an OSError): an input of a run missing or unreadable (a `Stop` of kind
"file", both at once), a matrix file that can't be opened, or that is cut
short or no matrix file (`FormatError`, naming the record).
"""

import errno
import os
from dataclasses import dataclass, fields

import numpy as np

from . import _quolvent

__all__ = ["run", "read_matrix", "Matrix", "Mesh", "Survey", "Summary", "Stop", "FileError",
           "FormatError"]


class FileError(OSError):
    """A file problem: a file missing, unreadable, or not as its format says.
    `filename` names the file where it is known."""


class FormatError(FileError, ValueError):
    """A matrix file cut short or foreign; the message names the record
    (1-based, in file order) and what is wrong with it."""


class Stop(Exception):
    """A run that stopped. The message (also `report`) is the report as the
    program's screen shows it; `kind` says what stopped it, one of:

    "file"         an input file missing, or not readable as its format says
                   (a control file cut short, a bad line of the observations);
                   such a Stop is a `FileError` as well
    "input"        inputs read but refused (an unknown wavelet, data on cell
                   edges, topography outside the mesh, an unreachable accuracy)
    "memory"       not enough memory for the run
    "output"       an output that can't be written (exit status 1)
    "interrupted"  a signal stopped the run
    "internal"     a consistency check of the program failed
    "none"         no failure: the usage text or the sample control file

    `status` is the exit status the program would give."""

    def __init__(self, report, kind="input", status=0):
        super().__init__(report)
        self.report, self.kind, self.status = report, kind, status


class _FileStop(Stop, FileError):
    """A stop on an input file: caught as Stop and as FileError alike."""

    def __init__(self, report, kind="file", status=0):
        Stop.__init__(self, report, kind, status)

    def __str__(self):
        return self.report


def _stop(report, kind, status=0):
    return (_FileStop if kind == "file" else Stop)(report, kind, status)


@dataclass(frozen=True)
class Summary:
    """What a run found and made. Attributes, as the log shows them:

    ndata, nsurface, nborehole   the data, and how many are surface and
                                 borehole data
    ncells, nbelow               the cells of the mesh, and those below the
                                 ground (the row length)
    wavelet                      the wavelet of the control file ("NONE": rows
                                 stored whole)
    compressed                   whether the rows are stored compressed
    threshold_surface, threshold_borehole
                                 the relative thresholds (a coefficient is kept
                                 when it reaches threshold x the row's largest)
    nnz, compression_ratio       the values kept, and nbelow * ndata / nnz
    achieved_error               the log's "achieved relative error": the mean
                                 over the data of |d_full - d_comp| / |d_full|,
                                 d the data of a uniform model (0.01 SI) from
                                 the exact and the compressed rows; large where
                                 a datum is a small remainder of contributions
                                 that cancel. It does not bound a row's error.
    row_error_mean, row_error_max
                                 relative Euclidean error of the stored rows
                                 against the exact ones, both divided by the
                                 weighting (the rows the accuracy eps aims at),
                                 over the rows measured
    rows_measured                those rows: one datum in 32, from the first
    row_bound_mean, row_bound_max
                                 a bound on the same error, over every row
    times                        seconds per phase: "init", "sens",
                                 "uncompress" (when made), "TOTAL"

    `dict(summary)` and `summary.as_dict()` give the same as a dict; summary[
    "ndata"] reads an attribute by name."""

    ndata: int
    nsurface: int
    nborehole: int
    ncells: int
    nbelow: int
    wavelet: str
    compressed: bool
    threshold_surface: float
    threshold_borehole: float
    nnz: int
    compression_ratio: float
    achieved_error: float
    row_error_mean: float
    row_error_max: float
    rows_measured: int
    row_bound_mean: float
    row_bound_max: float
    times: dict

    def as_dict(self):
        """The summary as a plain dict, attribute names as keys."""
        return {f.name: getattr(self, f.name) for f in fields(self)}

    def keys(self):
        return [f.name for f in fields(self)]

    def __getitem__(self, name):
        if name not in self.keys():
            raise KeyError(name)
        return getattr(self, name)


@dataclass(frozen=True)
class Mesh:
    """A rectilinear mesh: counts, origin, cell widths and nodes.

    origin is (easting, northing, elevation of the mesh top); dx, dy, dz the
    cell widths along easting, northing and down from the top (dz[0] the top
    layer), in the length unit of the survey (metres in practice). xn and yn
    are node coordinates, zn node depths below the top z0 (zn[0] = 0).
    Make one with `Mesh.from_widths` or `Mesh.read`."""

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

    @classmethod
    def from_widths(cls, origin, dx, dy, dz):
        """A mesh from its origin (easting, northing, top elevation) and its
        widths; nodes are summed from the origin one width at a time, as the
        program sums them."""
        dx, dy, dz = (np.array(w, dtype=np.float64).reshape(-1) for w in (dx, dy, dz))
        if min(len(dx), len(dy), len(dz)) < 1:
            raise ValueError("a mesh needs at least one cell along each axis")
        for w in (dx, dy, dz):
            if not np.all(np.isfinite(w) & (w > 0)):
                raise ValueError("cell widths must be positive and finite")
        x0, y0, z0 = (float(v) for v in origin)
        if not all(np.isfinite([x0, y0, z0])):
            raise ValueError("the origin must be finite")

        def nodes(first, widths):
            n = [first]
            for w in widths:
                n.append(n[-1] + float(w))
            return np.array(n)

        return cls(len(dx), len(dy), len(dz), (x0, y0, z0), dx, dy, dz, nodes(x0, dx),
                   nodes(y0, dy), nodes(0.0, dz), z0)

    @classmethod
    def read(cls, path):
        """The mesh file at path, read by the program's own reader. A file
        missing or not a mesh file raises Stop (kind "file") with the
        program's report."""
        result = _quolvent.read_mesh(str(path))
        if result[0] == "stop":
            raise _stop(result[1][1], result[1][0])
        _, origin, dx, dy, dz = result
        return cls.from_widths(origin, dx, dy, dz)

    @property
    def ncells(self):
        """nx * ny * nz, every cell, above the ground too."""
        return self.nx * self.ny * self.nz

    @property
    def cell_centres(self):
        """(ncells, 3): easting, northing and elevation of every cell's centre,
        in the cell order (northing index outermost, easting, then depth from
        the top layer down)."""
        xc = 0.5 * (self.xn[:-1] + self.xn[1:])
        yc = 0.5 * (self.yn[:-1] + self.yn[1:])
        zc = self.z0 - 0.5 * (self.zn[:-1] + self.zn[1:])
        y, x, z = np.meshgrid(yc, xc, zc, indexing="ij")
        return np.column_stack([x.ravel(), y.ravel(), z.ravel()])

    def below(self, top_index):
        """(ncells,) booleans, in the cell order: the cells below the ground of
        top_index ((ny, nx): the layers above the ground in each column)."""
        top = np.asarray(top_index).reshape(self.ny, self.nx)
        return (np.arange(self.nz)[None, None, :] >= top[:, :, None]).ravel()

    def write(self, path):
        """The mesh in the program's mesh file format, every value written so
        that it reads back to the same 64-bit float."""
        with open(path, "w") as f:
            f.write(f"{self.nx} {self.ny} {self.nz}\n")
            f.write(" ".join(repr(float(v)) for v in self.origin) + "\n")
            for w in (self.dx, self.dy, self.dz):
                f.write(" ".join(repr(float(v)) for v in w) + "\n")


class Matrix:
    """A matrix file read back: G, ndata x ncells, a linear operator.

    Entries are in nT (the unit of the field strength of the observation
    file) per SI unit of susceptibility; `m @ model` gives the data of a
    susceptibility model (ncells values, SI) in nT. Columns are the cells
    below the ground in the cell order (northing outermost, then easting,
    then depth from the top down); `cell_centres` and `mesh.below(top_index)`
    place them. The file keeps each row divided by the cell weights and, when
    compressed, as the kept coefficients of its wavelet transform: products
    are exact for the stored rows, which differ from the exact rows by the
    compression (see `Summary`). Products run in C++ on all threads of the
    process's OpenMP runtime, a block of k vectors eight at a time, each
    eight in one pass over the rows; a block's columns are their single
    products (to the last bit, but for the uncompressed G @ X: to about 1e-14
    relative), whatever the number of threads.

    shape, dtype (float64), ndim; `m @ x` (x: ncells, or ncells x k), `v @ m`,
    `m.T @ v` (v: ndata, or ndata x k); matvec, rmatvec, matmat, rmatmat;
    `aslinearoperator()` for scipy."""

    dtype = np.dtype(np.float64)
    ndim = 2
    __array_ufunc__ = None  # numpy leaves v @ m to __rmatmul__

    def __init__(self, path):
        path = str(path)
        if not os.path.isfile(path):
            raise FileError(errno.ENOENT, "matrix file not found", path)
        try:
            self._m = _quolvent.Matrix(path)
        except _quolvent.FormatError as e:
            raise FormatError(f"{path}: {e}") from None
        nx, ny, nz = self._m.mesh_counts
        xn, yn, zn = self._m.xn, self._m.yn, self._m.zn
        self.mesh = Mesh(nx, ny, nz, (float(xn[0]), float(yn[0]), self._m.z0),
                         np.diff(xn), np.diff(yn), np.diff(zn), xn, yn, zn, self._m.z0)
        self.ndata = self._m.ndata
        self.ncells = self._m.ncells
        self.shape = (self.ndata, self.ncells)
        self.compressed = self._m.compressed
        self.wavelet = self._m.wavelet
        self.top_index = self._m.top_index
        self.weights = self._m.weights
        self.squared_sensitivity = self._m.squared_sensitivity
        self.nnz = self._m.nnz

    @property
    def cell_centres(self):
        """(ncells, 3): easting, northing, elevation of the centre of each
        column's cell, in column order."""
        return self.mesh.cell_centres[self.mesh.below(self.top_index)]

    def row(self, i):
        """Row i (0-based) of G, decompressed and multiplied back by the
        weighting: nT per SI susceptibility, one value per cell below ground."""
        if not 0 <= i < self.ndata:
            raise IndexError(f"datum {i} of {self.ndata}")
        return self._m.row(int(i))

    def matvec(self, model):
        """G @ model: the data (nT) of a susceptibility model (ncells values, SI)."""
        return self._m.dot(np.ascontiguousarray(model, dtype=np.float64).reshape(-1))

    def rmatvec(self, v):
        """G.T @ v (v: ndata values; the result in nT per SI times v's unit)."""
        return self._m.rdot(np.ascontiguousarray(v, dtype=np.float64).reshape(-1))

    def matmat(self, models):
        """G @ X for X of ncells x k: eight models at a time, one pass over the rows."""
        return self._m.dot_block(np.ascontiguousarray(models, dtype=np.float64))

    def rmatmat(self, v):
        """G.T @ V for V of ndata x k."""
        return self._m.rdot_block(np.ascontiguousarray(v, dtype=np.float64))

    dot = matvec
    rdot = rmatvec

    def __matmul__(self, x):
        x = np.asarray(x)
        if x.ndim == 1:
            return self.matvec(x)
        if x.ndim == 2:
            return self.matmat(x) if x.shape[1] != 1 else self.matvec(x[:, 0])[:, None]
        return NotImplemented

    def __rmatmul__(self, v):
        v = np.asarray(v)
        if v.ndim == 1:
            return self.rmatvec(v)
        if v.ndim == 2:
            return self.rmatmat(v.T).T
        return NotImplemented

    @property
    def T(self):
        """G.T, as an operator of shape (ncells, ndata)."""
        return _Transposed(self)

    def aslinearoperator(self):
        """G as a scipy.sparse.linalg.LinearOperator (needs scipy), for lsqr,
        cg and the like: matvec, rmatvec, matmat and rmatmat go to C++."""
        from scipy.sparse.linalg import LinearOperator

        return LinearOperator(self.shape, matvec=self.matvec, rmatvec=self.rmatvec,
                              matmat=self.matmat, rmatmat=self.rmatmat, dtype=self.dtype)

    def dense(self):
        """G as an (ndata, ncells) float32 array, nT per SI: for small problems."""
        return self._m.dense()

    def to_grid(self, values):
        """Values of the cells below the ground (ncells, in column order) as an
        (nz, ny, nx) array over the whole mesh, NaN above the ground."""
        return self._m.to_grid(np.ascontiguousarray(values, dtype=np.float64))


class _Transposed:
    """G.T of a Matrix: shape (ncells, ndata)."""

    dtype = Matrix.dtype
    ndim = 2

    def __init__(self, m):
        self._g = m
        self.shape = (m.ncells, m.ndata)

    @property
    def T(self):
        return self._g

    def __matmul__(self, v):
        v = np.asarray(v)
        if v.ndim == 1:
            return self._g.rmatvec(v)
        if v.ndim == 2:
            return self._g.rmatmat(v)
        return NotImplemented


def read_matrix(path):
    """The matrix file at path, checked record by record. A missing file
    raises FileError; a file cut short or foreign raises FormatError."""
    return Matrix(path)


def _summary(d):
    return Summary(**{f.name: d[f.name] for f in fields(Summary)})


def run(control_file, threads=None, outdir=".", verbose=False):
    """One whole run of the control file, as the command line runs it.

    Input paths are opened as the command line opens them: as the control
    file names them, relative ones from the current directory (use absolute
    names, or `Survey`, to run from anywhere). The outputs, the log included,
    go to outdir, which is made when missing. threads: the threads of the row
    loops (None: the OpenMP default). Returns a `Summary`. Nothing goes to
    standard output unless verbose. A run that stops raises `Stop` with the
    report and its kind; the process goes on."""
    os.makedirs(outdir, exist_ok=True)
    args = [str(control_file)]
    if threads is not None:
        args.append(str(int(threads)))
    summary = _quolvent.run(args, str(outdir), bool(verbose))
    if "stop" in summary:
        raise _stop(summary["stop"], summary["kind"], summary["status"])
    return _summary(summary)


from .survey import Survey  # noqa: E402
