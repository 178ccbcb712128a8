"""The Python module against the program: runs in this process and surveys
made from arrays against the command line, matrix files against a reader of
the tests' own, the matrix products against the dense matrix, and an
inversion against the model it started from."""

import os
import re
import runpy
import shutil
import signal
import struct
import subprocess
import time

import numpy as np
import pytest

import quolvent

EXE = os.environ["QUOLVENT_EXE"]
EXAMPLES = os.path.join(os.environ["QUOLVENT_SOURCE_DIR"], "examples")


def control(wavelet, diag=1, weight="VALUE 1.0"):
    return "\n".join([os.path.join(EXAMPLES, "mesh.txt"), os.path.join(EXAMPLES, "obs.mag"),
                      os.path.join(EXAMPLES, "topo.txt"), weight, wavelet, "null", str(diag)]) + "\n"


def records(path):
    """Every record of a matrix file, payloads in order (frames of one part)."""
    data, out, pos = open(path, "rb").read(), [], 0
    while pos < len(data):
        (n,) = struct.unpack_from("<i", data, pos)
        out.append(data[pos + 4:pos + 4 + n])
        assert struct.unpack_from("<i", data, pos + 4 + n)[0] == n
        pos += 8 + n
    return out


def timeless(text):
    text = re.sub(r"cpu time: *[0-9]+:[0-9]{2}:[0-9]{2}\.[0-9]{2}", "cpu time: T", text)
    return re.sub(r"(started|ended) on: .*", r"\1 on: D", text)


@pytest.fixture(scope="module")
def runs(tmp_path_factory):
    """The bundled example, compressed and not, run once each in this process."""
    base = tmp_path_factory.mktemp("runs")
    out = {}
    for name, wavelet in [("comp", "daub2"), ("full", "NONE")]:
        inp = base / f"{name}.inp"
        inp.write_text(control(wavelet, weight="VALUE 2.0"))
        summary = quolvent.run(str(inp), threads=2, outdir=str(base / name))
        out[name] = (base / name, summary, quolvent.read_matrix(base / name / "dulmarok.mtx"))
    return out


def test_summary_and_attributes(runs):
    d, s, m = runs["comp"]
    assert (s.ndata, s.nsurface, s.nborehole, s.nbelow, s.ncells) == (403, 400, 3, 9589, 13500)
    assert dict(s) == s.as_dict() and dict(s)["rows_measured"] == s.rows_measured == 13
    log = open(d / "quolvent.log").read()
    assert f"{s.nnz:10d}" in log and f"{s.row_bound_max:.4E}" in log
    assert f"{s.compression_ratio:.4E}" in log and f"{s.achieved_error:.4E}" in log
    assert set(s.times) == {"init", "sens", "uncompress", "TOTAL"}

    recs = records(d / "dulmarok.mtx")
    ndata, n, ny, nx, nz = struct.unpack("<5i", recs[0])
    assert (m.ndata, m.ncells, m.mesh.nx, m.mesh.ny, m.mesh.nz) == (ndata, n, nx, ny, nz)
    nodes = np.frombuffer(recs[1], "<f8")
    assert np.array_equal(m.mesh.yn, nodes[:ny + 1]) and np.array_equal(m.mesh.xn, nodes[ny + 1:ny + nx + 2])
    assert m.mesh.z0 == nodes[-1] == 100.0
    assert np.array_equal(m.top_index, np.frombuffer(recs[2], "<i4").reshape(nx, ny).T)
    assert np.array_equal(m.weights, np.full(n, 2.0))
    assert np.array_equal(m.squared_sensitivity, np.frombuffer(recs[-1], "<f8"))
    assert (m.compressed, m.wavelet, m.nnz, s.wavelet) == (True, "daub2", s.nnz, "daub2")
    _, sf, mf = runs["full"]
    assert (mf.compressed, mf.wavelet, mf.nnz, sf.nnz) == (False, "NONE", n * ndata, n * ndata)


def test_rows_against_the_file_and_the_program_averages(runs):
    # Uncompressed: each row is the stored 32-bit row times the weighting.
    d, _, m = runs["full"]
    recs = records(d / "dulmarok.mtx")
    for i in (0, 200, 402):
        stored = np.frombuffer(recs[6 + i], "<f4").astype(np.float64)
        assert np.array_equal(m.row(i), stored * 2.0)
    # Mean |row| per cell volume: the program's sensitivity.txt, and its uncompress stage's.
    for name, file in [("full", "sensitivity.txt"), ("comp", "sensitivity_compressed.txt")]:
        d, _, m = runs[name]
        mean = np.mean([np.abs(m.row(i)) for i in range(m.ndata)], axis=0)
        grid, mesh = m.to_grid(mean), m.mesh
        volume = mesh.dz[:, None, None] * mesh.dy[None, :, None] * mesh.dx[None, None, :]
        text = np.loadtxt(d / file).reshape(mesh.ny, mesh.nx, mesh.nz).transpose(2, 0, 1)
        below = np.isfinite(grid)
        assert np.count_nonzero(~below) == np.count_nonzero(text == 1e-20)
        np.testing.assert_allclose((grid / volume)[below], text[below], rtol=2e-5, atol=1e-30)
    with pytest.raises(IndexError):
        m.row(m.ndata)


@pytest.mark.parametrize("name", ["comp", "full"])
def test_products_against_the_dense_matrix(runs, name):
    m, rng = runs[name][2], np.random.default_rng(3)
    model, v = rng.random(m.ncells), rng.standard_normal(m.ndata)
    dense = m.dense().astype(np.float64)
    assert dense.shape == m.shape == (m.ndata, m.ncells) and m.dense().dtype == np.float32
    d, g = m @ model, m.T @ v
    np.testing.assert_allclose(d, dense @ model, rtol=1e-6, atol=1e-6 * np.abs(d).max())
    np.testing.assert_allclose(g, dense.T @ v, rtol=1e-6, atol=1e-6 * np.abs(g).max())
    assert abs(v @ d - g @ model) <= 1e-10 * abs(v @ d)
    np.testing.assert_array_equal(v @ m, g)
    # A block of 11 columns (one group of eight and a remainder) against the
    # single products, column by column.
    models, vs = rng.random((m.ncells, 11)), rng.standard_normal((m.ndata, 11))
    block, rblock = m @ models, m.T @ vs
    assert block.shape == (m.ndata, 11) and rblock.shape == (m.ncells, 11)
    for j in range(11):
        np.testing.assert_allclose(block[:, j], m @ models[:, j], rtol=1e-12,
                                   atol=1e-12 * np.abs(block[:, j]).max())
        np.testing.assert_allclose(rblock[:, j], m.T @ vs[:, j], rtol=1e-12,
                                   atol=1e-12 * np.abs(rblock[:, j]).max())
    with pytest.raises(ValueError):
        m @ model[:-1]
    with pytest.raises(ValueError):
        m.T @ models


def test_stops_carry_the_report_of_the_screen_and_a_kind(tmp_path):
    # A stop ends the run, not the process (the runs of the other tests go
    # on in it), with the words of the screen and a kind.
    (tmp_path / "bad.inp").write_text(control("daub9", diag=0))
    with pytest.raises(quolvent.Stop, match=r"ERROR: Invalid daub compression.  daub\[1-6\]") as e:
        quolvent.run(str(tmp_path / "bad.inp"), outdir=str(tmp_path / "bad"))
    assert e.value.kind == "input" and not isinstance(e.value, quolvent.FileError)
    assert "Invalid daub compression" in open(tmp_path / "bad" / "quolvent.log").read()
    (tmp_path / "short.inp").write_text("".join(control("daub2").splitlines(True)[:6]))
    screen = subprocess.run([EXE, str(tmp_path / "short.inp")], cwd=tmp_path, check=True,
                            capture_output=True, text=True).stdout
    with pytest.raises(quolvent.FileError) as e:
        quolvent.run(str(tmp_path / "short.inp"), outdir=str(tmp_path / "short"))
    assert (e.value.kind, str(e.value)) == ("file", screen[screen.index("ERROR"):])
    assert "ERROR reading sensitivity input file " + str(tmp_path / "short.inp") in str(e.value)
    with pytest.raises(quolvent.Stop, match="ERROR: mesh file not found: nowhere") as e:
        quolvent.Mesh.read("nowhere")
    assert isinstance(e.value, quolvent.FileError) and e.value.kind == "file"


def test_hand_made_file_and_format_errors(tmp_path):
    # A matrix file made here: a 2 x 1 x 2 mesh, one air cell, 2 data, uncompressed.
    def rec(fmt, *values):
        size = struct.pack("<i", struct.calcsize(fmt))
        return size + struct.pack(fmt, *values) + size
    body = (rec("<5i", 2, 3, 1, 2, 2) + rec("<9d", 10.0, 20.0, 0.0, 5.0, 7.0, 0.0, 1.0, 3.0, 50.0)
            + rec("<2i", 1, 0) + rec("<i", 0) + rec("<3i", 0, 0, 0) + rec("<i3d", 1, 1.0, 2.0, 4.0)
            + rec("<3f", 1.0, 2.0, 3.0) + rec("<3f", -4.0, 0.5, 0.25) + rec("<3d", 9.0, 8.0, 7.0))
    (tmp_path / "m.mtx").write_bytes(body)
    m = quolvent.read_matrix(tmp_path / "m.mtx")
    assert (m.ndata, m.ncells, m.compressed, m.wavelet, m.nnz) == (2, 3, False, "NONE", 6)
    assert (m.mesh.nx, m.mesh.ny, m.mesh.nz, m.mesh.origin) == (2, 1, 2, (0.0, 10.0, 50.0))
    assert np.array_equal(m.top_index, [[1, 0]])
    assert np.array_equal(m.row(1), [-4.0, 1.0, 1.0])
    grid = m.to_grid([1.0, 2.0, 3.0])
    assert np.isnan(grid[0, 0, 0]) and np.array_equal(grid[1, 0, :], [1.0, 3.0]) and grid[0, 0, 1] == 2.0
    np.testing.assert_array_equal(m.dot([1.0, 1.0, 1.0]), [1 + 4 + 12, -4 + 1 + 1])
    # Cut short, a frame longer than the rest, sizes out of range (a count
    # below zero, more cells than the mesh has, no layers), extra bytes.
    sizes = [rec("<5i", *v) + body[28:] for v in
             [(-1, 3, 1, 2, 2), (2, -1, 1, 2, 2), (2, 3, -1, 2, 2), (2, 3, 1, -1, 2), (2, 3, 1, 2, -1),
              (2, 5, 1, 2, 2), (2, 3, 1, 2, 0)]]
    for bad, record in [(body[:-3], "record 9"), (body[:30], "record 2"), (body[:2], "record 1"),
                        (struct.pack("<i", 200) + body[4:200], "record 1: a frame longer than the rest"),
                        *[(b, "record 1: sizes out of range") for b in sizes],
                        (body + b"x", "after record 9")]:
        (tmp_path / "bad.mtx").write_bytes(bad)
        with pytest.raises(quolvent.FormatError, match=record):
            quolvent.read_matrix(tmp_path / "bad.mtx")
    with pytest.raises(quolvent.FileError, match="not found"):
        quolvent.read_matrix(tmp_path / "none.mtx")


def test_pictures_show_the_models_slices(tmp_path, monkeypatch, capsys):
    # The pictures written, and the arrays drawn on a mesh of three sizes against sensitivity.txt
    # taken here cell by cell (y outermost, then x, z innermost) where each plot's title says.
    from quolvent import plot
    import matplotlib.figure
    nx, ny, nz = 7, 5, 3
    (tmp_path / "mesh.txt").write_text(f"{nx} {ny} {nz}\n0 0 0\n{nx}*10\n{ny}*10\n{nz}*5\n")
    obs = "".join(f"{70 * (i * 0.618 % 1):.3f} {50 * (i * 0.414 % 1):.3f} 2.0\n" for i in range(9))
    (tmp_path / "obs.mag").write_text("65 20 50000\n65 20 1\n9\n" + obs)
    (tmp_path / "run.inp").write_text(f"{tmp_path}/mesh.txt\n{tmp_path}/obs.mag\nnull\nVALUE 1.0\ndaub2\nnull\n1\n")
    quolvent.run(str(tmp_path / "run.inp"), threads=1, outdir=str(tmp_path / "out"))
    text = np.abs(np.loadtxt(tmp_path / "out" / "sensitivity.txt"))
    cell = lambda iz, iy, ix: text[(iy * nx + ix) * nz + iz]  # noqa: E731
    figures, save = [], matplotlib.figure.Figure.savefig
    monkeypatch.setattr(matplotlib.figure.Figure, "savefig",
                        lambda fig, *a, **k: (figures.append(fig), save(fig, *a, **k)))
    written = plot.draw(str(tmp_path / "out"))
    assert [os.path.basename(f) for f in written] == ["sensitivity.png", "compression.png"]
    assert all(open(f, "rb").read(8) == b"\x89PNG\r\n\x1a\n" for f in written)
    drawn = {a.get_title(): (np.ma.filled(q.get_array(), np.nan), q.get_coordinates())
             for a in figures[0].axes for q in a.collections
             if a.get_title() and isinstance(q, matplotlib.collections.QuadMesh)}
    assert len(drawn) == nz + 2
    for title, (values, nodes) in drawn.items():
        words = title.split()  # "depth 5 to 10", "section at northing 25" (bottom layer first)
        at = int(float(words[-1]) // 10)
        want = np.array([[cell(int(float(words[1]) / 5), iy, ix) for ix in range(nx)] for iy in range(ny)]
                        if words[0] == "depth" else
                        [[cell(iz, at, ix) for ix in range(nx)] for iz in reversed(range(nz))]
                        if words[2] == "northing" else
                        [[cell(iz, iy, at) for iy in range(ny)] for iz in reversed(range(nz))])
        want[want == 0] = np.nan
        assert np.array_equal(values.reshape(want.shape), want, equal_nan=True), title
        assert np.array_equal(nodes[0, :, 0], 10 * np.arange(want.shape[1] + 1)), title
    # Any model on the same slices: the values drawn are the model's grid, the unit on the bar.
    m, values = quolvent.read_matrix(tmp_path / "out" / "dulmarok.mtx"), np.arange(1.0, 106.0)
    figures.clear()
    plot.draw_model(m, values, str(tmp_path / "model.png"))
    shown = [(a, q) for a in figures[0].axes for q in a.collections
             if a.get_title().startswith("depth") and isinstance(q, matplotlib.collections.QuadMesh)]
    assert len(shown) == nz and "(SI susceptibility)" in [a.get_ylabel() for a in figures[0].axes]
    for a, q in shown:
        k = int(float(a.get_title().split()[1]) / 5)
        assert np.array_equal(np.ma.filled(q.get_array(), np.nan).reshape(ny, nx), m.to_grid(values)[k])
    # Data files that the run of the log did not write: not drawn, and said so.
    stale = shutil.copytree(tmp_path / "out", tmp_path / "stale")
    log = (stale / "quolvent.log").read_text()
    (stale / "quolvent.log").write_text(
        re.sub(r"Outputs written: .*", "Outputs written: sensitivity.txt, dulmarok.mtx", log))
    assert [os.path.basename(f) for f in plot.draw(str(stale))] == ["sensitivity.png"]
    assert "skipped data_compressed.txt: not written by the run of quolvent.log" in capsys.readouterr().err


def test_second_run_in_a_folder_stops_at_once(tmp_path):
    # The program holds the folder (stopped once it has made its log); a run
    # in this process stops with the folder's name and touches nothing there.
    (tmp_path / "run.inp").write_text(control("daub2", diag=0))
    first = subprocess.Popen([EXE, "run.inp", "1"], cwd=tmp_path, stdout=subprocess.DEVNULL)
    while not (tmp_path / "quolvent.log").exists() and first.poll() is None:
        time.sleep(0.001)
    os.kill(first.pid, signal.SIGSTOP)

    def state():
        with open(f"/proc/{first.pid}/stat") as f:
            return f.read().rsplit(")", 1)[1].split()[0]
    try:
        while state() not in "TZ":  # the stop takes effect
            time.sleep(0.001)
        assert state() == "T"
        log = (tmp_path / "quolvent.log").read_bytes()
        with pytest.raises(quolvent.Stop, match="another run is writing its outputs in "
                           + re.escape(str(tmp_path.resolve()))):
            quolvent.run(str(tmp_path / "run.inp"), outdir=str(tmp_path))
        assert (tmp_path / "quolvent.log").read_bytes() == log
    finally:
        os.kill(first.pid, signal.SIGCONT)
    assert first.wait() == 0


def example_survey():
    """The bundled example as arrays: its mesh file, its topography and data
    points read here, a weighting per cell."""
    mesh = quolvent.Mesh.read(os.path.join(EXAMPLES, "mesh.txt"))

    def rows(name):
        lines = [ln.split("!")[0].split() for ln in open(os.path.join(EXAMPLES, name))
                 if not ln.startswith("!") and ln.strip()]
        return lines

    topo = np.array(rows("topo.txt")[1:], dtype=float)
    obs = rows("obs.mag")
    points = np.array([ln[:3] for ln in obs[3:]], dtype=float)
    return quolvent.Survey(mesh, points, field=[float(v) for v in obs[0]], topography=topo,
                           weights=np.full(mesh.ncells, 2.0))


def test_survey_from_arrays_against_the_files_and_the_command_line(runs, tmp_path):
    # The same numbers as the bundled files give the same matrix as a run on
    # those files; the files written run on the command line to the same bytes.
    survey = example_survey()
    m, s = survey.compute(tmp_path / "arrays", wavelet="daub2", threads=2, diagnostics=True)
    d, s_files, m_files = runs["comp"]
    for f in ("dulmarok.mtx", "sensitivity.txt", "sensitivity_compressed.txt"):
        assert open(tmp_path / "arrays" / f, "rb").read() == open(d / f, "rb").read(), f
    assert np.array_equal(survey.top_index, m.top_index)
    assert len(survey.cell_centres) == m.ncells and survey.below.sum() == s.nbelow
    assert np.array_equal(survey.cell_centres, m.cell_centres)
    subprocess.run([EXE, str(tmp_path / "arrays" / "quolvent.inp"), "2"], cwd=tmp_path, check=True,
                   stdout=subprocess.DEVNULL)
    for f in os.listdir(tmp_path / "arrays"):
        if f.endswith((".txt", ".mtx", ".log")) and f not in ("mesh.txt", "topo.txt", "weights.txt"):
            a, b = open(tmp_path / "arrays" / f, "rb").read(), open(tmp_path / f, "rb").read()
            if f == "quolvent.log":
                a, b = timeless(a.decode()), timeless(b.decode())
            assert a == b, f
    # A temporary folder, a component measured per datum: the run sees them.
    one = quolvent.Survey(survey.mesh, survey.points[:4], field=(75, 25, 50000),
                          direction=[[90, 0]] * 4, weights=survey.weights)
    m1, s1 = one.compute(wavelet="NONE")
    assert s1.nsurface == 4 and not m1.compressed and np.all(m1.weights == 2.0)


def test_inversion_example_finds_the_block(tmp_path):
    # The example at a smaller size: the cells of the recovered model above
    # 70 % of its largest value centre within a cell of the block's centre,
    # and lie over the block's plan widened by one cell.
    example = runpy.run_path(os.path.join(EXAMPLES, "invert_block.py"))
    survey, m, _, true, recovered = example["main"](str(tmp_path / "inv.png"), n=16, nz=8)
    assert open(tmp_path / "inv.png", "rb").read(8) == b"\x89PNG\r\n\x1a\n"
    c, block = survey.cell_centres, true > 0
    strong = recovered > 0.7 * recovered.max()
    centre = (c[strong] * recovered[strong, None]).sum(0) / recovered[strong].sum()
    assert np.all(np.abs(centre - c[block].mean(0)) < 50.0)
    lo, hi = c[block].min(0) - 50.0, c[block].max(0) + 50.0
    assert np.all((c[strong, :2] >= lo[:2]) & (c[strong, :2] <= hi[:2]))
    assert np.mean(block[strong]) > 0.4
