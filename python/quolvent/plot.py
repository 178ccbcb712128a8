"""Pictures of a finished run.

    python3 -m quolvent.plot DIR

draws DIR/sensitivity.png (the average sensitivity of sensitivity.txt in depth
slices and two vertical sections, on a logarithmic colour scale, with the
ground and the data) and, when the run wrote its compression files,
DIR/compression.png (the data of the test model without and with
compression on the survey map, and their relative differences).

Only the files of the run whose log is in DIR are drawn (its log names
them); a file of another run is skipped, with a line that says so.

draw_model(m, values, out) draws any cell values (a recovered model, a row
of G) on the same slices and sections, with their unit on the colour bar.
"""

import os
import re
import sys

import numpy as np

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
from matplotlib.colors import LogNorm  # noqa: E402

from . import read_matrix  # noqa: E402

AIR = 1e-20  # the value sensitivity.txt holds for a cell above the ground


def read_data_file(path):
    """Positions (easting, northing, elevation) and values of a data file."""
    rows = []
    with open(path) as f:
        for k, line in enumerate(f):
            if k < 3:
                continue
            parts = line.split()
            if len(parts) >= 4:
                rows.append([float(parts[0]), float(parts[1]), float(parts[2]), float(parts[-1])])
    a = np.array(rows, dtype=float).reshape(-1, 4)
    return a[:, :3], a[:, 3]


def run_of_log(run_dir):
    """The run whose log is in run_dir: the outputs its log names (none when
    it stopped before they were put in place) and when it started."""
    try:
        with open(os.path.join(run_dir, "quolvent.log")) as f:
            text = f.read()
    except OSError:
        return set(), ""
    outputs = re.search(r"^Outputs written: (.*)$", text, re.M)
    started = re.search(r"started on: +(.*\S)", text)
    return (set(outputs.group(1).split(", ")) if outputs else set(),
            started.group(1) if started else "")


def data_positions(run_dir, outputs):
    """The data positions of the run: from its data files, else from the
    observation file its log names (as the run saw it, from run_dir)."""
    full = os.path.join(run_dir, "data_notcompressed.txt")
    if "data_notcompressed.txt" in outputs:
        return read_data_file(full)[0]
    log = os.path.join(run_dir, "quolvent.log")
    if not os.path.exists(log):
        return np.zeros((0, 3))
    with open(log) as f:
        m = re.search(r"Observations file: (.*)", f.read())
    if not m:
        return np.zeros((0, 3))
    path = m.group(1).strip()
    if not os.path.isabs(path):
        path = os.path.join(run_dir, path)
    try:
        with open(path) as f:
            lines = [ln for ln in f if ln.strip() and not ln.startswith("!")]
        ndata = int(lines[2].split()[0])
        pts = [[float(v) for v in ln.replace(",", " ").split()[:3]] for ln in lines[3:3 + ndata]]
        return np.array(pts, dtype=float).reshape(-1, 3)
    except (OSError, ValueError, IndexError):
        return np.zeros((0, 3))


def sensitivity_grid(run_dir, m):
    """sensitivity.txt as (nz, ny, nx), NaN above the ground."""
    values = np.loadtxt(os.path.join(run_dir, "sensitivity.txt"))
    mesh = m.mesh
    grid = values.reshape(mesh.ny, mesh.nx, mesh.nz).transpose(2, 0, 1).copy()
    grid[grid == AIR] = np.nan
    return grid


def ground_elevation(m):
    """The top of the ground in each column, (ny, nx): the mesh top less the
    air layers."""
    mesh = m.mesh
    return mesh.z0 - mesh.zn[m.top_index]


def ground_slices(grid, count=4):
    """Up to count layers spread over those that hold ground (finite values)."""
    layers = [k for k in range(grid.shape[0]) if np.isfinite(grid[k]).any()] or [0]
    picks = np.linspace(0, len(layers) - 1, min(count, len(layers))).round().astype(int)
    return sorted({layers[i] for i in picks})


def draw_panels(axes, grid, mesh, ground, pts, slices, norm, cmap):
    """Depth slices (the layers of slices) and two sections through the
    middle of the mesh, along easting and along northing, of one (nz, ny, nx)
    grid, on the axes of one row (len(slices) + 2 of them). Returns the last
    image, for a colour bar."""
    elev = mesh.z0 - mesh.zn  # layer boundaries as elevations
    image = None
    for a, k in zip(axes, slices):
        image = a.pcolormesh(mesh.xn, mesh.yn, grid[k], norm=norm, cmap=cmap, shading="flat")
        if len(pts):
            a.plot(pts[:, 0], pts[:, 1], "k.", ms=2)
        a.set_title(f"depth {mesh.zn[k]:g} to {mesh.zn[k + 1]:g}", fontsize=10)
        a.set_aspect("equal")
        a.set_xlabel("easting")
        a.set_ylabel("northing")
    iy, ix = mesh.ny // 2, mesh.nx // 2
    xc = 0.5 * (mesh.xn[:-1] + mesh.xn[1:])
    yc = 0.5 * (mesh.yn[:-1] + mesh.yn[1:])
    for a, (h, section, top, name, cut) in zip(
        axes[len(slices):],
        [(mesh.xn, grid[:, iy, :], ground[iy, :], "easting", f"northing {yc[iy]:g}"),
         (mesh.yn, grid[:, :, ix], ground[:, ix], "northing", f"easting {xc[ix]:g}")]):
        image = a.pcolormesh(h, elev[::-1], section[::-1], norm=norm, cmap=cmap, shading="flat")
        a.step(h, np.append(top, top[-1]), where="post", color="saddlebrown", lw=1.5, label="ground")
        if len(pts):
            a.plot(pts[:, 0 if name == "easting" else 1], pts[:, 2], "k.", ms=2, label="data")
        a.set_title(f"section at {cut}", fontsize=10)
        a.set_xlabel(name)
        a.set_ylabel("elevation")
        a.legend(loc="lower right", fontsize=7)
    return image


def draw_sensitivity(run_dir, m, out, outputs, started):
    mesh = m.mesh
    grid = np.abs(sensitivity_grid(run_dir, m))
    grid[grid == 0] = np.nan
    finite = grid[np.isfinite(grid)]
    if finite.size == 0:
        finite = np.array([1.0])
    norm = LogNorm(vmin=max(finite.min(), finite.max() * 1e-6), vmax=finite.max())
    slices = ground_slices(grid)
    fig, axes = plt.subplots(1, len(slices) + 2, figsize=(3.6 * (len(slices) + 2) + 1.5, 4.2),
                             squeeze=False, constrained_layout=True)
    image = draw_panels(axes[0], grid, mesh, ground_elevation(m), data_positions(run_dir, outputs),
                        slices, norm, "viridis")
    fig.colorbar(image, ax=axes, shrink=0.8,
                 label="average |sensitivity| per unit volume (nT per SI, per cubic length unit)")
    fig.suptitle(f"Average sensitivity (sensitivity.txt of the run started {started})")
    fig.savefig(out, dpi=110, bbox_inches="tight")
    plt.close(fig)


def value_scale(grids, log):
    """A colour scale over the finite values of the grids."""
    finite = np.concatenate([g[np.isfinite(g)] for g in grids])
    if log:
        finite = finite[finite > 0]
        top = finite.max() if finite.size else 1.0
        return LogNorm(vmin=max(finite.min() if finite.size else 1e-6, top * 1e-6), vmax=top)
    low, high = (finite.min(), finite.max()) if finite.size else (0.0, 1.0)
    return plt.Normalize(vmin=low, vmax=high if high > low else low + 1.0)


def draw_model(m, models, out, unit="SI susceptibility", points=None, log=False, cmap="viridis",
               same_scale=True):
    """Draws cell values on the depth slices and sections the run's pictures
    use, into the PNG out; returns out.

    m       the Matrix (or its run folder) whose mesh and ground place the cells
    models  the values of the cells below the ground (m.ncells, in column
            order, as a model or a row of G), or a dict {title: values} of
            several, one row of pictures each (a true and a recovered model)
    unit    the values' unit, for the colour bar
    points  (ndata, 3) data positions to mark, or None
    log     a logarithmic colour scale of |values|
    same_scale  one colour scale for all rows; False: a scale for each"""
    if isinstance(m, (str, os.PathLike)):
        m = read_matrix(os.path.join(m, "dulmarok.mtx"))
    if not isinstance(models, dict):
        models = {"": models}
    grids = {}
    for title, values in models.items():
        values = np.asarray(values, dtype=float).reshape(-1)
        if values.size != m.ncells:
            raise ValueError(f"{title or 'values'}: {values.size} values for {m.ncells} cells")
        grids[title] = np.abs(m.to_grid(values)) if log else m.to_grid(values)
    norm = value_scale(grids.values(), log)
    slices = ground_slices(next(iter(grids.values())))
    pts = np.zeros((0, 3)) if points is None else np.asarray(points, dtype=float).reshape(-1, 3)
    ncol = len(slices) + 2
    fig, axes = plt.subplots(len(grids), ncol, figsize=(3.4 * ncol + 1.5, 3.9 * len(grids)),
                             squeeze=False, constrained_layout=True)
    label = ("|value| " if log else "") + f"({unit})"
    for row, (title, grid) in zip(axes, grids.items()):
        scale = norm if same_scale else value_scale([grid], log)
        image = draw_panels(row, grid, m.mesh, ground_elevation(m), pts, slices, scale, cmap)
        if title:
            row[0].annotate(title, (0, 1.18), xycoords="axes fraction", fontsize=12,
                            fontweight="bold")
        if not same_scale:
            fig.colorbar(image, ax=row, shrink=0.9, label=label)
    if same_scale:
        fig.colorbar(image, ax=axes, shrink=0.8, label=label)
    fig.savefig(out, dpi=100, bbox_inches="tight")
    plt.close(fig)
    return out


def draw_compression(run_dir, out, started):
    pos, full = read_data_file(os.path.join(run_dir, "data_notcompressed.txt"))
    _, comp = read_data_file(os.path.join(run_dir, "data_compressed.txt"))
    scale = np.max(np.abs(full)) if full.size else 1.0
    rel = (comp - full) / (scale if scale > 0 else 1.0)
    fig, axes = plt.subplots(1, 3, figsize=(15, 4.6), constrained_layout=True)
    lim = np.max(np.abs(np.concatenate([full, comp]))) if full.size else 1.0
    for a, v, title in [(axes[0], full, "without compression"), (axes[1], comp, "with compression")]:
        s = a.scatter(pos[:, 0], pos[:, 1], c=v, cmap="RdBu_r", vmin=-lim, vmax=lim, s=18)
        a.set_title(f"test model's data, {title}", fontsize=10)
        fig.colorbar(s, ax=a, label="datum (nT)")
    r = np.max(np.abs(rel)) if rel.size else 1.0
    s = axes[2].scatter(pos[:, 0], pos[:, 1], c=rel, cmap="PuOr", vmin=-r, vmax=r, s=18)
    axes[2].set_title("(with - without) / largest |datum|", fontsize=10)
    fig.colorbar(s, ax=axes[2], label="relative difference (no unit)")
    for a in axes:
        a.set_aspect("equal")
        a.set_xlabel("easting")
        a.set_ylabel("northing")
    fig.suptitle(f"Data files of the run started {started}")
    fig.savefig(out, dpi=110, bbox_inches="tight")
    plt.close(fig)


def draw(run_dir):
    """Draws the pictures of the run whose log is in run_dir; returns the
    files written. A file there of another run is skipped, with a line on
    standard error."""
    outputs, started = run_of_log(run_dir)

    def of_the_run(*names):
        for name in names:
            if name not in outputs and os.path.exists(os.path.join(run_dir, name)):
                print(f"skipped {name}: not written by the run of quolvent.log in {run_dir}",
                      file=sys.stderr)
        return all(name in outputs for name in names)

    written = []
    if of_the_run("dulmarok.mtx", "sensitivity.txt"):
        written.append(os.path.join(run_dir, "sensitivity.png"))
        m = read_matrix(os.path.join(run_dir, "dulmarok.mtx"))
        draw_sensitivity(run_dir, m, written[-1], outputs, started)
    if of_the_run("data_notcompressed.txt", "data_compressed.txt"):
        written.append(os.path.join(run_dir, "compression.png"))
        draw_compression(run_dir, written[-1], started)
    return written


def main(argv):
    if len(argv) != 2:
        print("usage: python3 -m quolvent.plot DIR", file=sys.stderr)
        return 2
    for f in draw(argv[1]):
        print(f)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
