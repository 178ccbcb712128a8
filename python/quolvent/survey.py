"""A survey given as arrays: the program's input files written from them,
and one run of the program on those files."""

import os
import tempfile

import numpy as np

from . import Matrix, _quolvent, _stop, run

WAVELETS = ("daub1", "daub2", "daub3", "daub4", "daub5", "daub6", "symm4", "symm5", "symm6",
            "NONE")


def _number(v):
    """v written so that the program reads back the same 64-bit float."""
    v = float(v)
    if not np.isfinite(v):
        raise ValueError(f"{v} can't go into an input file")
    return repr(v)


class Survey:
    """A magnetic survey over a mesh, given as arrays.

    mesh        a `Mesh` (`Mesh.from_widths(origin, dx, dy, dz)` or
                `Mesh.read(path)`)
    points      (ndata, 3): easting, northing, elevation of each datum, in the
                mesh's length unit. A point above the ground of its column is a
                surface datum, one in the ground a borehole datum.
    field       (inclination, declination, strength) of the inducing field:
                degrees, degrees, nT. G's entries are in the unit of the
                strength, per SI unit of susceptibility.
    direction   what each datum measures: None for the field's own direction
                (the total-field anomaly); (inclination, declination) in degrees
                for one component for all data; or (ndata, 2) for each datum
                its own
    topography  None (flat ground at the mesh top), or (m, 3): easting,
                northing, elevation of points of the ground, triangulated by
                the program
    weights     the cell weighting: a number for every cell, or ncells values
                (every cell of the mesh, above the ground too, in the cell
                order: northing outermost, easting, then depth from the top)
                or an (nz, ny, nx) grid. Rows are stored divided by it, and the
                accuracy of a compressed run applies to those weighted rows.

    `top_index` ((ny, nx): the layers above the ground in each column),
    `below` (the active-cell mask, (ncells,) in the cell order),
    `cell_centres` (of the cells below the ground, in the order of a row's
    columns) describe the model a matrix of this survey acts on.
    `compute()` makes the matrix."""

    def __init__(self, mesh, points, field, direction=None, topography=None, weights=1.0):
        self.mesh = mesh
        self.points = np.array(points, dtype=np.float64).reshape(-1, 3)
        if len(self.points) < 1:
            raise ValueError("a survey needs at least one datum")
        self.field = tuple(float(v) for v in field)
        if len(self.field) != 3:
            raise ValueError("field is (inclination, declination, strength)")
        if direction is None:
            direction = self.field[:2]
        direction = np.array(direction, dtype=np.float64)
        if direction.shape not in [(2,), (len(self.points), 2)]:
            raise ValueError("direction is (inclination, declination), or one pair per datum")
        self.direction = direction
        self.topography = None if topography is None else np.array(
            topography, dtype=np.float64).reshape(-1, 3)
        if np.ndim(weights) == 0:
            self.weights = float(weights)
        else:
            w = np.array(weights, dtype=np.float64)
            if w.shape == (mesh.nz, mesh.ny, mesh.nx):
                w = w.transpose(1, 2, 0)
            if w.size != mesh.ncells:
                raise ValueError(f"weights: one per cell of the mesh, {mesh.ncells}")
            self.weights = w.reshape(-1)
        self._top = None

    @property
    def top_index(self):
        """(ny, nx): the layers above the ground in each column, as a run
        finds them. Topography the program refuses raises Stop."""
        if self._top is None:
            m = self.mesh
            if self.topography is None:
                self._top = np.zeros((m.ny, m.nx), dtype=np.int32)
            else:
                top = _quolvent.column_tops(m.origin, m.dx, m.dy, m.dz, self.topography)
                if isinstance(top, tuple):
                    raise _stop(top[1][1], top[1][0])
                self._top = top
        return self._top

    @property
    def below(self):
        """(ncells,) booleans in the cell order: the cells below the ground,
        those a row of the matrix holds."""
        return self.mesh.below(self.top_index)

    @property
    def cell_centres(self):
        """(nbelow, 3): easting, northing, elevation of the centres of the
        cells below the ground, in the order of a row's columns."""
        return self.mesh.cell_centres[self.below]

    def write(self, folder, wavelet="daub2", accuracy=None, threshold=None, diagnostics=False):
        """Writes the program's input files into folder (made when missing):
        mesh.txt, obs.mag, topo.txt (with topography), weights.txt (with
        weights per cell) and the control file quolvent.inp, which names them
        by absolute paths. Returns the control file's path; the command line
        `quolvent quolvent.inp` runs the same run from any directory.

        wavelet: "daub1".."daub6", "symm4".."symm6", or "NONE" (rows stored
        whole). accuracy: the relative accuracy eps (itol 1): each kind of
        datum gets the threshold at which its sample row, divided by the
        weighting, loses eps of its Euclidean norm; other rows come out near
        eps, not under a bound. threshold: a relative threshold instead (itol
        2). Neither: the program's default. diagnostics: the compression's
        text files and sensitivity_compressed.txt too."""
        if wavelet not in WAVELETS:
            raise ValueError(f"wavelet: one of {', '.join(WAVELETS)}")
        if accuracy is not None and threshold is not None:
            raise ValueError("give an accuracy or a threshold, not both")
        folder = os.path.abspath(str(folder))
        os.makedirs(folder, exist_ok=True)
        path = lambda name: os.path.join(folder, name)  # noqa: E731
        self.mesh.write(path("mesh.txt"))

        per_datum = self.direction.ndim == 2
        with open(path("obs.mag"), "w") as f:
            f.write(" ".join(_number(v) for v in self.field) + "\n")
            common = self.direction if not per_datum else self.field[:2]
            f.write(f"{_number(common[0])} {_number(common[1])} {0 if per_datum else 1}\n")
            f.write(f"{len(self.points)}\n")
            for i, p in enumerate(self.points):
                values = list(p) + (list(self.direction[i]) if per_datum else [])
                f.write(" ".join(_number(v) for v in values) + "\n")

        topo = "null"
        if self.topography is not None:
            topo = path("topo.txt")
            with open(topo, "w") as f:
                f.write(f"{len(self.topography)}\n")
                for p in self.topography:
                    f.write(" ".join(_number(v) for v in p) + "\n")

        if isinstance(self.weights, float):
            weight = "VALUE " + _number(self.weights)
        else:
            weight = path("weights.txt")
            with open(weight, "w") as f:
                f.write("\n".join(_number(v) for v in self.weights) + "\n")

        if accuracy is not None:
            eps = f"1 {_number(accuracy)}"
        elif threshold is not None:
            eps = f"2 {_number(threshold)}"
        else:
            eps = "null"
        lines = [path("mesh.txt"), path("obs.mag"), topo, weight, wavelet, eps,
                 "1" if diagnostics else "0"]
        for line in lines:
            if len(line) > 500 or "!" in line:
                raise ValueError(f"a control file line can't hold {line!r}")
        with open(path("quolvent.inp"), "w") as f:
            f.write("\n".join(lines) + "\n")
        return path("quolvent.inp")

    def compute(self, folder=None, wavelet="daub2", accuracy=None, threshold=None, threads=None,
                diagnostics=False, verbose=False):
        """The sensitivity matrix of the survey: writes the input files (see
        `write`) and runs the program on them in folder, the outputs there too
        (None: a temporary folder, removed afterwards). The files are those a
        command-line run of the control file writes, to the byte (but for the
        log's clock lines). threads: the threads of the row loops (None: the
        OpenMP default). Returns (Matrix, Summary); a stop raises Stop."""
        if folder is None:
            with tempfile.TemporaryDirectory(prefix="quolvent-") as d:
                return self.compute(d, wavelet, accuracy, threshold, threads, diagnostics, verbose)
        control = self.write(folder, wavelet, accuracy, threshold, diagnostics)
        summary = run(control, threads=threads, outdir=folder, verbose=verbose)
        return Matrix(os.path.join(os.path.abspath(str(folder)), "dulmarok.mtx")), summary


__all__ = ["Survey"]
