// The rectilinear mesh file.
#include "model/mesh.hpp"

#include <cmath>
#include <cstdint>
#include <new>
#include <span>

#include "base/format.hpp"
#include "base/stop.hpp"
#include "base/text_io.hpp"
#include "model/model.hpp"

namespace quolvent {

namespace {

// Positions of a cell in a row or in the padded cube are 32-bit, so a mesh
// must have fewer than 2^31 cells.
constexpr int64_t max_cells = int64_t{1} << 31;

[[noreturn]] void mesh_error(const std::string& name, const char* why = nullptr) {
  const std::string line = "ERROR reading mesh file: " + rtrim(name);
  if (why) stop_reading({"", line, why});
  stop_reading({"", line});
}

// nodes: the running sums origin, origin + w[0], ... in the order of the
// file, each node from the one before it.
bool accumulate_nodes(std::vector<double>& nodes, const std::vector<double>& widths) {
  for (std::size_t j = 0; j < widths.size(); ++j) nodes[j + 1] = nodes[j] + widths[j];
  for (double v : nodes) {
    if (!std::isfinite(v)) return false;
  }
  return true;
}

// check_widths: the first width of w that is not a positive number ends the
// run, named by its 1-based place and the axis.
void check_widths(const std::string& name, const std::vector<double>& w, const char* axis) {
  for (std::size_t i = 0; i < w.size(); ++i) {
    if (w[i] > 0.0 && std::isfinite(w[i])) continue;
    const std::string why = "The cell width " + fmt_int(static_cast<long long>(i) + 1) +
                            " along " + axis + " is not positive: " + fmt_sci(w[i], 0, 6);
    mesh_error(name, why.c_str());
  }
}

}  // namespace

mesh_model read_mesh(const std::string& name) {
  text_file t;
  if (!text_open(t, name)) file_not_found("mesh", name);

  mesh_model m;
  if (ff_read(t, {m.nx, m.ny, m.nz}) != 0) mesh_error(name);
  if (m.nx < 0 || m.ny < 0 || m.nz < 0) {
    mesh_error(name, "The numbers of cells nx, ny, nz must not be negative.");
  }
  // Columns and cells are both counted in 32 bits (top_index, row positions).
  const int64_t ncolumn = int64_t{m.nx} * m.ny;
  if (ncolumn >= max_cells || ncolumn * m.nz >= max_cells) {
    mesh_error(name, "The mesh is too large: nx*ny and nx*ny*nz must be below 2147483648.");
  }

  try {
    m.dy.assign(static_cast<std::size_t>(m.ny), 0.0);
    m.dx.assign(static_cast<std::size_t>(m.nx), 0.0);
    m.dz.assign(static_cast<std::size_t>(m.nz), 0.0);
    m.yn.assign(static_cast<std::size_t>(m.ny) + 1, 0.0);
    m.xn.assign(static_cast<std::size_t>(m.nx) + 1, 0.0);
    m.zn.assign(static_cast<std::size_t>(m.nz) + 1, 0.0);
  } catch (const std::bad_alloc&) {
    alloc_failed("read_mesh");
  }

  if (ff_read(t, {m.xn[0], m.yn[0], m.z0}) != 0) mesh_error(name);
  if (ff_read(t, {std::span<double>(m.dx)}) != 0) mesh_error(name);
  if (ff_read(t, {std::span<double>(m.dy)}) != 0) mesh_error(name);
  if (ff_read(t, {std::span<double>(m.dz)}) != 0) mesh_error(name);
  text_close(t);

  // A width of 0 or below would fold the mesh onto itself: refused before
  // anything is made of it, in the order of the file.
  check_widths(name, m.dx, "easting");
  check_widths(name, m.dy, "northing");
  check_widths(name, m.dz, "depth");

  m.zn[0] = 0.0;
  const bool finite = accumulate_nodes(m.yn, m.dy) && accumulate_nodes(m.xn, m.dx) &&
                      accumulate_nodes(m.zn, m.dz);
  if (!finite) mesh_error(name, "The node coordinates are too large to be represented.");
  return m;
}

double mesh_length_scale(const mesh_model& m) {
  double scale = 1.0;
  for (const std::vector<double>* w : {&m.dx, &m.dy, &m.dz}) {
    for (double v : *w) {
      if (v > 0.0 && v < scale) scale = v;
    }
  }
  return scale;
}

}  // namespace quolvent
