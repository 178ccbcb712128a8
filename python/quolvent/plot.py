"""Pictures of a finished run.

    python3 -m quolvent.plot DIR

draws DIR/sensitivity.png (the average sensitivity of sensitivity.txt in depth
slices and two vertical sections, on a logarithmic colour scale, with the
ground and the data) and, when the run wrote its compression files,
DIR/compression.png (the data of the test model without and with
compression on the survey map, and their relative differences).

Only the files of the run whose log is in DIR are drawn (its log names
them); a file of another run is skipped, with a line that says so.
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


def draw_sensitivity(run_dir, m, out, outputs, started):
    mesh = m.mesh
    grid = np.abs(sensitivity_grid(run_dir, m))
    grid[grid == 0] = np.nan
    finite = grid[np.isfinite(grid)]
    if finite.size == 0:
        finite = np.array([1.0])
    norm = LogNorm(vmin=max(finite.min(), finite.max() * 1e-6), vmax=finite.max())
    pts = data_positions(run_dir, outputs)
    ground = ground_elevation(m)
    elev = mesh.z0 - mesh.zn  # layer boundaries as elevations

    # Depth slices spread over the layers that hold ground.
    ground_layers = [k for k in range(mesh.nz) if np.isfinite(grid[k]).any()] or [0]
    picks = np.linspace(0, len(ground_layers) - 1, min(4, len(ground_layers))).round().astype(int)
    slices = sorted({ground_layers[i] for i in picks})
    ncol = max(len(slices), 2)
    fig, axes = plt.subplots(2, ncol, figsize=(3.6 * ncol + 1.5, 7.6), squeeze=False,
                             constrained_layout=True)
    image = None
    for a, k in zip(axes[0], slices):
        image = a.pcolormesh(mesh.xn, mesh.yn, grid[k], norm=norm, cmap="viridis", shading="flat")
        if len(pts):
            a.plot(pts[:, 0], pts[:, 1], "k.", ms=2)
        a.set_title(f"depth {mesh.zn[k]:g} to {mesh.zn[k + 1]:g}", fontsize=10)
        a.set_aspect("equal")
        a.set_xlabel("easting")
        a.set_ylabel("northing")
    for a in axes[0][len(slices):]:
        a.axis("off")

    # Sections through the middle of the mesh: along easting and along northing.
    iy, ix = mesh.ny // 2, mesh.nx // 2
    xc = 0.5 * (mesh.xn[:-1] + mesh.xn[1:])
    yc = 0.5 * (mesh.yn[:-1] + mesh.yn[1:])
    for a, (h, section, top, name, cut) in zip(
        axes[1],
        [(mesh.xn, grid[:, iy, :], ground[iy, :], "easting", f"northing {yc[iy]:g}"),
         (mesh.yn, grid[:, :, ix], ground[:, ix], "northing", f"easting {xc[ix]:g}")]):
        image = a.pcolormesh(h, elev[::-1], section[::-1], norm=norm, cmap="viridis", shading="flat")
        a.step(h, np.append(top, top[-1]), where="post", color="saddlebrown", lw=1.5, label="ground")
        if len(pts):
            a.plot(pts[:, 0 if name == "easting" else 1], pts[:, 2], "k.", ms=2, label="data")
        a.set_title(f"section at {cut}", fontsize=10)
        a.set_xlabel(name)
        a.set_ylabel("elevation")
        a.legend(loc="lower right", fontsize=7)
    for a in axes[1][2:]:
        a.axis("off")
    fig.colorbar(image, ax=axes, shrink=0.7, label="average |sensitivity| per unit volume")
    fig.suptitle(f"Average sensitivity (sensitivity.txt of the run started {started})")
    fig.savefig(out, dpi=110)
    plt.close(fig)


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
        fig.colorbar(s, ax=a)
    r = np.max(np.abs(rel)) if rel.size else 1.0
    s = axes[2].scatter(pos[:, 0], pos[:, 1], c=rel, cmap="PuOr", vmin=-r, vmax=r, s=18)
    axes[2].set_title("(with - without) / largest |datum|", fontsize=10)
    fig.colorbar(s, ax=axes[2])
    for a in axes:
        a.set_aspect("equal")
        a.set_xlabel("easting")
        a.set_ylabel("northing")
    fig.suptitle(f"Data files of the run started {started}")
    fig.savefig(out, dpi=110)
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
