// Observations: the data file, and the split of the data into surface and
// borehole data.
#include "model/observations.hpp"

#include <algorithm>
#include <cmath>
#include <new>

#include "base/format.hpp"
#include "base/stop.hpp"
#include "base/text_io.hpp"

namespace quolvent {

namespace {

// Width of the line buffer of the data file: longer lines are cut.
constexpr std::size_t data_line_width = 1000;
// The arrays grow with the lines actually read; a count in the header is
// trusted for no more than this many places in advance.
constexpr std::size_t reserve_limit = 4096;

// The reader's state, for its reports.
struct data_reader {
  text_file t;
  std::string name;  // trailing blanks cut
  std::string line;
};

[[noreturn]] void end_reached(const data_reader& r) {
  stop_reading({"", "ERROR: end reached when reading data file " + r.name});
}

[[noreturn]] void bad_line(const data_reader& r) {
  stop_reading({"", "ERROR reading data file " + r.name, rtrim(r.line)});
}

// fetch: the next usable line into r.line, or the end-reached report.
void fetch(data_reader& r) {
  if (!next_data_line(r.t, r.line, data_line_width)) end_reached(r);
}

}  // namespace

obs_set read_data_file(const std::string& name) {
  data_reader r;
  r.name = rtrim(name);
  if (!text_open(r.t, name)) file_not_found("data", name);

  obs_set o;
  fetch(r);
  if (ff_read_text(r.line, {o.incl, o.decl, o.geomag}) != 0) bad_line(r);
  fetch(r);
  if (ff_read_text(r.line, {o.aincl, o.adecl, o.idir}) != 0) bad_line(r);
  if (o.idir != 0 && o.idir != 1) {
    stop_reading({"", "ERROR: idir in data file should be 0 or 1.", rtrim(r.line)});
  }
  fetch(r);
  if (ff_read_text(r.line, {o.ndata}) != 0) bad_line(r);
  if (o.ndata < 1) {
    stop_reading({"", "ERROR: Number of data should be positive.", r.name});
  }

  const bool own_direction = o.idir == 0;
  try {
    const std::size_t ahead = std::min(static_cast<std::size_t>(o.ndata), reserve_limit);
    o.northing.reserve(ahead);
    o.easting.reserve(ahead);
    o.elevation.reserve(ahead);
    if (own_direction) {
      o.datum_aincl.reserve(ahead);
      o.datum_adecl.reserve(ahead);
    }
    for (int32_t i = 0; i < o.ndata; ++i) {
      fetch(r);
      double x = 0, y = 0, z = 0, ai = 0, ad = 0;
      const int st = own_direction ? ff_read_text(r.line, {x, y, z, ai, ad})
                                   : ff_read_text(r.line, {x, y, z});
      if (st != 0) bad_line(r);
      o.northing.push_back(y);
      o.easting.push_back(x);
      o.elevation.push_back(z);
      if (own_direction) {
        o.datum_aincl.push_back(ai);
        o.datum_adecl.push_back(ad);
      }
    }
  } catch (const std::bad_alloc&) {
    alloc_failed("read_data_file");
  }
  text_close(r.t);
  return o;
}

void locate(double v, const std::vector<double>& nodes, int32_t m, double tol, int32_t& cell,
            double& node) {
  // 1-based j over nodes(1) .. nodes(m + 1).
  int32_t j = 1;
  if (v > nodes[0]) {
    while (j < m + 1 && v > nodes[static_cast<std::size_t>(j) - 1]) ++j;
  }
  node = nodes[static_cast<std::size_t>(j) - 1];
  const bool beyond = v > nodes[static_cast<std::size_t>(m)];
  cell = (beyond || std::fabs(v - nodes[0]) < tol) ? j : j - 1;
}

data_split classify_data(const mesh_model& mesh, double length_scale, const obs_set& obs,
                         const std::vector<int32_t>& top_index, const run_log& out) {
  const int32_t nx = mesh.nx, ny = mesh.ny, nz = mesh.nz;
  // Every position test against the nodes, in proportion to the cells.
  const double node_tol = node_tolerance(length_scale);
  data_split split;
  std::vector<datum_kind>& datum_kinds = split.datum_kinds;
  datum_kinds.assign(static_cast<std::size_t>(std::max(obs.ndata, 0)), datum_kind::surface);
  auto top = [&](int32_t iy, int32_t ix) { return top_at(top_index, ny, iy, ix); };

  bool on_edge = false;
  for (int32_t i = 1; i <= obs.ndata; ++i) {
    const std::size_t p = static_cast<std::size_t>(i) - 1;
    const double d = mesh.z0 - obs.elevation[p];
    int32_t iy = 0, ix = 0, k = 0;
    double yp = 0, xp = 0, zp = 0;
    locate(obs.northing[p], mesh.yn, ny, node_tol, iy, yp);
    locate(obs.easting[p], mesh.xn, nx, node_tol, ix, xp);
    locate(d, mesh.zn, nz, node_tol, k, zp);
    const bool y_on = std::fabs(obs.northing[p] - yp) < node_tol;
    const bool x_on = std::fabs(obs.easting[p] - xp) < node_tol;
    const bool z_on = std::fabs(d - zp) < node_tol;
    if (k == 1 && d == mesh.zn[0]) k = 0;

    // Beyond the sides of the mesh a datum is a surface datum, at any depth.
    if (iy < 1 || iy > ny || ix < 1 || ix > nx) continue;

    // On a column boundary the lowest ground of the columns that touch the
    // point decides.
    int32_t t = top(iy, ix);
    const bool y_next = y_on && iy < ny;
    const bool x_next = x_on && ix < nx;
    if (y_next) t = std::min(t, top(iy + 1, ix));
    if (x_next) t = std::min(t, top(iy, ix + 1));
    if (y_next && x_next) t = std::min(t, top(iy + 1, ix + 1));

    // t layers are air: t > k puts the point in the air, t == k in the last
    // air cell unless it sits on that cell's bottom node, the ground.
    if (t > k || (t == k && !z_on)) continue;
    datum_kinds[p] = datum_kind::borehole;

    if (int(y_on) + int(x_on) + int(z_on) >= 2) {
      out.report_log({"Point " + fmt_int(i, 7) + ": (" + fmt_sci(obs.easting[p], 14, 6) + "," +
                      fmt_sci(obs.northing[p], 14, 6) + "," + fmt_sci(obs.elevation[p], 14, 6) +
                      ") is on an edge."});
      on_edge = true;
    }
  }

  if (on_edge) {
    stop_report({"", "Error: there are data points on cell edges."});
  }

  int32_t nsurf = 0, nbore = 0;
  int64_t sum = 0;
  for (int32_t i = 0; i < obs.ndata; ++i) {
    const int32_t v = static_cast<int32_t>(datum_kinds[static_cast<std::size_t>(i)]);
    if (datum_kinds[static_cast<std::size_t>(i)] == datum_kind::borehole) {
      ++nbore;
    } else {
      ++nsurf;
    }
    sum += v;
  }
  out.report({fmt_right("# of surface  data:", 30) + fmt_int(nsurf, 8),
          fmt_right("# of borehole data:", 30) + fmt_int(nbore, 8), ""});
  if (nbore > 0) {
    out.report_log({"", "  Indices of borehole data:"});
    for (int32_t i = 1; i <= obs.ndata; ++i) {
      if (datum_kinds[static_cast<std::size_t>(i) - 1] == datum_kind::borehole) {
        out.report_log({fmt_int(i, 6)});
      }
    }
    out.report_log({""});
  }
  if (sum == -int64_t{obs.ndata}) {
    split.survey_kind = datum_kind::borehole;
  } else if (sum == int64_t{obs.ndata}) {
    split.survey_kind = datum_kind::surface;
  } else {
    split.survey_kind = datum_kind::mixed;
  }
  return split;
}

}  // namespace quolvent
