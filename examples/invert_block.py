"""An inversion with the module: the data of a buried block, noise, and the
block found again.

    PYTHONPATH=build/python /usr/bin/python3 examples/invert_block.py [OUT.png]

A mesh of 50 m cells, 24 x 24 x 12; a block of 0.05 SI susceptibility, four
cells wide and three deep, its top 150 m down; a grid of data 20 m above the
ground, in an inducing field of 50000 nT at 70 degrees. The matrix is built
from arrays, compressed with daub2 at an accuracy of 0.01 on the weighted
rows, and the cell weighting is a depth weighting w = (depth + z0)^-1.2,
which keeps the recovered body from crowding under the data (a smallest
model places a body well in plan, its depth only roughly: the weighting's
power sets where it goes). Noise of 1 % of
the largest datum is added, and the model is found by scipy's lsqr on
G diag(1/w), damped, the damping picked so that the misfit matches the noise.
True and recovered models are drawn on the same slices and sections, each
on a colour scale of its own (a smallest model spreads the block's
susceptibility over a larger volume).
"""

import sys

import numpy as np

import quolvent
from quolvent import plot


def block_survey(n=24, nz=12, width=50.0, spacing=2):
    """The survey and the true model: a mesh of n x n x nz cells, data over
    every spacing-th cell centre, the block in the middle."""
    mesh = quolvent.Mesh.from_widths((0.0, 0.0, 0.0), [width] * n, [width] * n, [width] * nz)
    centres = 0.5 * (mesh.xn[:-1] + mesh.xn[1:])
    grid = centres[spacing // 2::spacing]
    x, y = np.meshgrid(grid, grid)
    points = np.column_stack([x.ravel(), y.ravel(), np.full(x.size, 20.0)])
    depth = -mesh.cell_centres[:, 2]
    weights = (depth + 0.5 * width + 20.0) ** -1.2
    survey = quolvent.Survey(mesh, points, field=(70.0, 10.0, 50000.0),
                             weights=weights / weights.max())
    c = survey.cell_centres
    half = 2 * width
    middle = 0.5 * (mesh.xn[0] + mesh.xn[-1])
    inside = ((np.abs(c[:, 0] - middle) < half) & (np.abs(c[:, 1] - middle) < half)
              & (c[:, 2] < -3 * width) & (c[:, 2] > -6 * width))
    return survey, np.where(inside, 0.05, 0.0)


def invert(m, d, sigma, weights):
    """The model of least weighted norm ||w m|| whose data fit d to the noise
    sigma: lsqr on G diag(1/w), the damping lowered until the misfit reaches
    the number of data."""
    from scipy.sparse.linalg import LinearOperator, lsqr

    scaled = LinearOperator(m.shape, matvec=lambda u: m @ (u / weights),
                            rmatvec=lambda v: (m.T @ v) / weights, dtype=np.float64)
    scale = np.linalg.norm(m.T @ d) / np.linalg.norm(d)
    model = None
    for damp in scale * np.logspace(-1, -4, 13):
        u = lsqr(scaled, d, damp=damp, atol=1e-6, btol=1e-6, iter_lim=400)[0]
        model = u / weights
        misfit = np.sum(((m @ model) - d) ** 2) / sigma**2
        if misfit <= len(d):
            break
    return model


def main(out="invert_block.png", n=24, nz=12, spacing=2, seed=7):
    survey, true = block_survey(n, nz, spacing=spacing)
    m, summary = survey.compute(wavelet="daub2", accuracy=0.01)
    clean = m @ true
    sigma = 0.01 * np.abs(clean).max()
    d = clean + np.random.default_rng(seed).normal(0.0, sigma, len(clean))
    recovered = invert(m, d, sigma, m.weights)
    if out:
        plot.draw_model(m, {"true model": true, "recovered model": recovered}, out,
                        unit="SI susceptibility", points=survey.points, same_scale=False)
    return survey, m, summary, true, recovered


if __name__ == "__main__":
    survey, m, summary, true, recovered = main(*sys.argv[1:2])
    print(f"{m.ndata} data, {m.ncells} cells, compression ratio {summary.compression_ratio:.1f}, "
          f"largest recovered susceptibility {recovered.max():.4f} SI")
