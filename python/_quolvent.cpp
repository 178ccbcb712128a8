// The Python module's native part: runs and matrix files through the
// program's own code.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "base/channels.hpp"
#include "output/matrix_reader.hpp"
#include "model/mesh.hpp"
#include "run/run_driver.hpp"
#include "topo/ground.hpp"
#include "topo/topo_reader.hpp"
#include "wavelet/wavelet_filters.hpp"

namespace py = pybind11;
using quolvent::stored_matrix;

namespace {

using py_vector = py::array_t<double, py::array::c_style | py::array::forcecast>;

template <typename T>
py::array_t<T> to_array(const std::vector<T>& v) {
  py::array_t<T> a(static_cast<py::ssize_t>(v.size()));
  std::copy(v.begin(), v.end(), a.mutable_data());
  return a;
}

// released: f() with the interpreter free for other threads meanwhile, its
// vector as an array.
template <typename F>
py::array_t<double> released(F f) {
  std::vector<double> v;
  {
    py::gil_scoped_release free;
    v = f();
  }
  return to_array(v);
}

std::vector<double> to_vector(const py_vector& a,
                              std::size_t expected, const char* what) {
  if (a.ndim() != 1 || static_cast<std::size_t>(a.shape(0)) != expected)
    throw py::value_error(std::string(what) + " must be a 1-D array of " +
                          std::to_string(expected) + " values");
  return std::vector<double>(a.data(), a.data() + expected);
}

// check_block: a 2-D array of rows x k values, rows must match.
void check_block(const py_vector& a, std::size_t rows, const char* what) {
  if (a.ndim() != 2 || static_cast<std::size_t>(a.shape(0)) != rows || a.shape(1) < 1)
    throw py::value_error(std::string(what) + " must be a 2-D array of " + std::to_string(rows) +
                          " rows and at least one column");
}

// block_product: f(block, k) over a (rows, k) array, as a (out_rows, k)
// array. The block is read where it lies (the argument holds it while the
// lock is released), and the result handed over without a copy.
template <typename F>
py::array_t<double> block_product(const py_vector& a, std::size_t rows, std::size_t out_rows,
                                  const char* what, F f) {
  check_block(a, rows, what);
  const auto k = static_cast<int32_t>(a.shape(1));
  auto y = std::make_unique<std::vector<double>>();
  {
    py::gil_scoped_release free;
    *y = f(a.data(), k);
  }
  double* data = y->data();
  const py::capsule owner(y.release(),
                          [](void* v) { delete static_cast<std::vector<double>*>(v); });
  return py::array_t<double>({static_cast<py::ssize_t>(out_rows), static_cast<py::ssize_t>(k)},
                             data, owner);
}

// stop_tuple: a stop outside a run as (kind, report), for the module to raise.
py::tuple stop_tuple(const quolvent::stop& s) {
  std::string text;
  for (const auto& l : s.screen_lines.empty() ? s.log_lines : s.screen_lines) text += l + "\n";
  if (!s.error_text.empty()) text += s.error_text + "\n";
  const std::size_t first = text.find_first_not_of('\n');
  return py::make_tuple(quolvent::stop_kind_name(s.kind),
                        first == std::string::npos ? std::string() : text.substr(first));
}

// read_mesh: the mesh file at path as (counts, origin, dx, dy, dz), or a
// stop as ("stop", kind, report).
py::tuple read_mesh(const std::string& path) {
  try {
    const quolvent::mesh_model m = quolvent::read_mesh(path);
    return py::make_tuple(py::make_tuple(m.nx, m.ny, m.nz),
                          py::make_tuple(m.xn.at(0), m.yn.at(0), m.z0), to_array(m.dx),
                          to_array(m.dy), to_array(m.dz));
  } catch (const quolvent::stop& s) {
    return py::make_tuple("stop", stop_tuple(s));
  }
}

// column_tops: the layers above the ground in each column, (ny, nx), of a
// mesh from its origin and widths (nodes summed as the mesh reader sums
// them) under the topography points (east, north, elevation: m x 3); or a
// stop as ("stop", (kind, report)).
py::object column_tops(const std::tuple<double, double, double>& origin, const py_vector& dx,
                       const py_vector& dy, const py_vector& dz, const py_vector& points) {
  quolvent::mesh_model m;
  m.nx = static_cast<int32_t>(dx.size());
  m.ny = static_cast<int32_t>(dy.size());
  m.nz = static_cast<int32_t>(dz.size());
  m.dx.assign(dx.data(), dx.data() + dx.size());
  m.dy.assign(dy.data(), dy.data() + dy.size());
  m.dz.assign(dz.data(), dz.data() + dz.size());
  const auto nodes = [](std::vector<double>& n, double first, const std::vector<double>& w) {
    n.assign(1, first);
    for (double width : w) n.push_back(n.back() + width);
  };
  nodes(m.xn, std::get<0>(origin), m.dx);
  nodes(m.yn, std::get<1>(origin), m.dy);
  nodes(m.zn, 0.0, m.dz);
  m.z0 = std::get<2>(origin);
  check_block(points, static_cast<std::size_t>(points.shape(0)), "points");
  if (points.shape(1) != 3) throw py::value_error("points must be m x 3");
  const std::vector<double> p(points.data(), points.data() + points.size());
  quolvent::topo_points t;
  for (std::size_t i = 0; i + 2 < p.size(); i += 3) {
    t.east.push_back(p[i]);
    t.north.push_back(p[i + 1]);
    t.elev.push_back(p[i + 2]);
  }
  std::vector<int32_t> top;
  try {
    const quolvent::run_log quiet(nullptr);
    top = quolvent::ground_tops(t, m, "topography", quiet);
  } catch (const quolvent::stop& s) {
    return py::make_tuple("stop", stop_tuple(s));
  }
  py::array_t<int32_t> a({static_cast<py::ssize_t>(m.ny), static_cast<py::ssize_t>(m.nx)});
  auto out = a.mutable_unchecked<2>();
  for (py::ssize_t ix = 0; ix < m.nx; ++ix)
    for (py::ssize_t iy = 0; iy < m.ny; ++iy)
      out(iy, ix) = top[static_cast<std::size_t>(iy + ix * m.ny)];
  return a;
}

// to_grid: a value per cell below the ground as (nz, ny, nx), NaN above it.
py::array_t<double> to_grid(const stored_matrix& m, const py_vector& values) {
  const auto& c = m.contents();
  const std::vector<double> v = to_vector(values, static_cast<std::size_t>(c.n), "values");
  const py::ssize_t nz = c.mesh.nz, ny = c.mesh.ny, nx = c.mesh.nx;
  py::array_t<double> grid({nz, ny, nx});
  auto g = grid.mutable_unchecked<3>();
  const auto& map = m.cells().active_map;
  std::size_t p = 0;
  for (py::ssize_t iy = 0; iy < ny; ++iy)
    for (py::ssize_t ix = 0; ix < nx; ++ix)
      for (py::ssize_t iz = 0; iz < nz; ++iz, ++p) {
        const int32_t place = map[p];
        g(iz, iy, ix) = place > 0 ? v[static_cast<std::size_t>(place - 1)]
                                  : std::numeric_limits<double>::quiet_NaN();
      }
  return grid;
}

// wavelet_name: the name of the wavelet whose filter the file holds: the
// program's filters are written as they are made, so they compare exactly.
std::string wavelet_name(const stored_matrix& m) {
  const std::vector<double>& filter = m.contents().filter;
  if (filter.empty()) return "NONE";
  const quolvent::run_log quiet(nullptr);
  for (const char* name :
       {"daub1", "daub2", "daub3", "daub4", "daub5", "daub6", "symm4", "symm5", "symm6"}) {
    std::vector<double> f;
    int32_t filter_length = 0;
    quolvent::check_wavelet(name, f, filter_length, quiet);
    if (f == filter) return name;
  }
  return "unknown";
}

// run: one whole run of the command line args (control file, threads), the
// outputs in outdir; the summary as a dict, or {"stop": report}.
py::dict run(const std::vector<std::string>& args, const std::string& outdir, bool verbose) {
  std::vector<std::string> words{"quolvent"};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  quolvent::run_summary s;
  quolvent::run_options options;
  options.outdir = outdir;
  options.summary = &s;
  // The Python process keeps its threads where they are.
  options.set_affinity = false;
  {
    py::gil_scoped_release free;
    quolvent::run_command_line(static_cast<int>(words.size()), argv.data(),
                               verbose ? stdout : nullptr, options);
  }
  py::dict d;
  if (!s.complete) {
    d["stop"] = s.report;
    d["status"] = s.status;
    d["kind"] = s.stop_kind;
    return d;
  }
  d["ndata"] = s.ndata;
  d["nsurface"] = s.nsurface;
  d["nborehole"] = s.nborehole;
  d["ncells"] = s.ncells;
  d["nbelow"] = s.nbelow;
  std::string wavelet = s.wavelet;
  while (!wavelet.empty() && wavelet.back() == ' ') wavelet.pop_back();
  d["wavelet"] = wavelet;
  d["compressed"] = s.compressed;
  d["threshold_surface"] = s.threshold_surface;
  d["threshold_borehole"] = s.threshold_borehole;
  d["nnz"] = s.nnz;
  d["compression_ratio"] = s.compression_ratio;
  d["achieved_error"] = s.achieved_error;
  d["row_error_mean"] = s.row_error_mean;
  d["row_error_max"] = s.row_error_max;
  d["rows_measured"] = s.rows_measured;
  d["row_bound_mean"] = s.row_bound_mean;
  d["row_bound_max"] = s.row_bound_max;
  py::dict times;
  for (const auto& [phase, seconds] : s.phase_seconds) times[py::str(phase)] = seconds;
  d["times"] = times;
  return d;
}

}  // namespace

PYBIND11_MODULE(_quolvent, mod) {
  mod.doc() = "The native part of the quolvent module.";
  py::register_exception<quolvent::format_error>(mod, "FormatError", PyExc_ValueError);

  mod.def("run", &run, py::arg("args"), py::arg("outdir"), py::arg("verbose"));
  mod.def("read_mesh", &read_mesh, py::arg("path"));
  mod.def("column_tops", &column_tops, py::arg("origin"), py::arg("dx"), py::arg("dy"),
          py::arg("dz"), py::arg("points"));

  py::class_<stored_matrix>(mod, "Matrix")
      .def(py::init<const std::string&>(), py::arg("path"))
      .def_property_readonly("ndata", [](const stored_matrix& m) { return m.contents().ndata; })
      .def_property_readonly("ncells", [](const stored_matrix& m) { return m.contents().n; })
      .def_property_readonly("compressed",
                             [](const stored_matrix& m) { return m.contents().compressed(); })
      .def_property_readonly("wavelet", &wavelet_name)
      .def_property_readonly("filter",
                             [](const stored_matrix& m) { return to_array(m.contents().filter); })
      .def_property_readonly("padded",
                             [](const stored_matrix& m) {
                               const auto& c = m.contents();
                               return py::make_tuple(c.padded_ny, c.padded_nx, c.padded_nz);
                             })
      .def_property_readonly("nnz", &stored_matrix::nnz)
      .def_property_readonly("mesh_counts",
                             [](const stored_matrix& m) {
                               const auto& mesh = m.contents().mesh;
                               return py::make_tuple(mesh.nx, mesh.ny, mesh.nz);
                             })
      .def_property_readonly("xn",
                             [](const stored_matrix& m) { return to_array(m.contents().mesh.xn); })
      .def_property_readonly("yn",
                             [](const stored_matrix& m) { return to_array(m.contents().mesh.yn); })
      .def_property_readonly("zn",
                             [](const stored_matrix& m) { return to_array(m.contents().mesh.zn); })
      .def_property_readonly("z0", [](const stored_matrix& m) { return m.contents().mesh.z0; })
      .def_property_readonly("top_index",
                             [](const stored_matrix& m) {
                               const auto& c = m.contents();
                               // The file holds iy fastest: as (nx, ny) in C order, then
                               // transposed.
                               py::array_t<int32_t> a({static_cast<py::ssize_t>(c.mesh.ny),
                                                       static_cast<py::ssize_t>(c.mesh.nx)});
                               auto t = a.mutable_unchecked<2>();
                               for (py::ssize_t ix = 0; ix < c.mesh.nx; ++ix)
                                 for (py::ssize_t iy = 0; iy < c.mesh.ny; ++iy)
                                   t(iy, ix) =
                                       c.top_index[static_cast<std::size_t>(iy + ix * c.mesh.ny)];
                               return a;
                             })
      .def_property_readonly("weights",
                             [](const stored_matrix& m) { return to_array(m.contents().weights); })
      .def_property_readonly(
          "squared_sensitivity",
          [](const stored_matrix& m) { return to_array(m.contents().squared_sensitivity); })
      .def(
          "row",
          [](const stored_matrix& m, int32_t i) { return released([&] { return m.row(i); }); },
          py::arg("i"))
      .def(
          "dot",
          [](const stored_matrix& m, const py_vector& model) {
            const auto x = to_vector(model, static_cast<std::size_t>(m.contents().n), "model");
            return released([&] { return m.dot(x); });
          },
          py::arg("model"))
      .def(
          "rdot",
          [](const stored_matrix& m, const py_vector& v) {
            const auto x = to_vector(v, static_cast<std::size_t>(m.contents().ndata), "v");
            return released([&] { return m.rdot(x); });
          },
          py::arg("v"))
      .def(
          "dot_block",
          [](const stored_matrix& m, const py_vector& x) {
            const auto& c = m.contents();
            return block_product(x, static_cast<std::size_t>(c.n),
                                 static_cast<std::size_t>(c.ndata), "models",
                                 [&](const double* b, int32_t k) { return m.dot_block(b, k); });
          },
          py::arg("models"))
      .def(
          "rdot_block",
          [](const stored_matrix& m, const py_vector& v) {
            const auto& c = m.contents();
            return block_product(v, static_cast<std::size_t>(c.ndata),
                                 static_cast<std::size_t>(c.n), "vectors",
                                 [&](const double* b, int32_t k) { return m.rdot_block(b, k); });
          },
          py::arg("vectors"))
      .def("dense",
           [](const stored_matrix& m) {
             std::vector<float> d;
             {
               py::gil_scoped_release free;
               d = m.dense();
             }
             py::array_t<float> a({static_cast<py::ssize_t>(m.contents().ndata),
                                   static_cast<py::ssize_t>(m.contents().n)});
             std::copy(d.begin(), d.end(), a.mutable_data());
             return a;
           })
      .def("to_grid", &to_grid, py::arg("values"));
}
