// The ground: topography points to column tops.
#include "topo/ground.hpp"

#include <algorithm>
#include <array>
#include <cmath>

#include "base/format.hpp"
#include "base/stop.hpp"
#include "base/text_io.hpp"
#include "topo/column_tops.hpp"
#include "topo/surface.hpp"
#include "topo/triangulation.hpp"

namespace quolvent {

namespace {

// sample_lines: every node line and every cell mid-line of one mesh axis.
std::vector<double> sample_lines(const std::vector<double>& nodes, int32_t cells) {
  std::vector<double> s(2 * static_cast<std::size_t>(cells) + 1);
  for (std::size_t j = 0; j < static_cast<std::size_t>(cells); ++j) {
    s[2 * j] = nodes[j];
    s[2 * j + 1] = 0.5 * (nodes[j] + nodes[j + 1]);
  }
  s[2 * static_cast<std::size_t>(cells)] = nodes[static_cast<std::size_t>(cells)];
  return s;
}

}  // namespace

std::vector<int32_t> read_topography(const std::string& file_name, const mesh_model& mesh,
                                     const run_log& out) {
  // No topography: a flat ground at or above the mesh top.
  if (is_null_name(file_name)) {
    const std::size_t ny = static_cast<std::size_t>(std::max(mesh.ny, 0));
    const std::size_t nx = static_cast<std::size_t>(std::max(mesh.nx, 0));
    return std::vector<int32_t>(ny * nx, 0);
  }
  return ground_tops(read_topo_file(file_name), mesh, rtrim(file_name), out);
}

std::vector<int32_t> ground_tops(const topo_points& points, const mesh_model& mesh,
                                 const std::string& name, const run_log& out) {
  std::vector<int32_t> top_index(static_cast<std::size_t>(std::max(mesh.ny, 0)) *
                                     static_cast<std::size_t>(std::max(mesh.nx, 0)),
                                 0);
  // Nodes hold the northing first, the easting second.
  std::vector<double> tx, ty, tz;
  const int32_t nx = mesh.nx, ny = mesh.ny;
  const std::size_t nxs = static_cast<std::size_t>(std::max(nx, 0));
  const std::size_t nys = static_cast<std::size_t>(std::max(ny, 0));
  const double x1 = mesh.xn[0], xe = mesh.xn[nxs];
  const double y1 = mesh.yn[0], ye = mesh.yn[nys];
  // Plan corners (easting, northing), in the order of the corner nodes.
  const std::array<std::array<double, 2>, 4> corner{{{x1, y1}, {x1, ye}, {xe, y1}, {xe, ye}}};
  std::array<double, 4> best_dist{1e15, 1e15, 1e15, 1e15};
  std::array<double, 4> best_elev{0.0, 0.0, 0.0, 0.0};
  double xmin = 1e15, xmax = -1e15, ymin = 1e15, ymax = -1e15;
  const std::size_t count = points.east.size();
  for (std::size_t i = 0; i < count; ++i) {
    const double east = points.east[i], north = points.north[i], elev = points.elev[i];
    tx.push_back(north);
    ty.push_back(east);
    tz.push_back(elev);
    xmin = std::min(xmin, east);
    xmax = std::max(xmax, east);
    ymin = std::min(ymin, north);
    ymax = std::max(ymax, north);
    for (std::size_t c = 0; c < 4; ++c) {
      const double dx = east - corner[c][0], dy = north - corner[c][1];
      const double d = std::sqrt(dx * dx + dy * dy);
      if (d < best_dist[c]) {
        best_dist[c] = d;
        best_elev[c] = elev;
      }
    }
  }

  // Coverage; a box that only touches the mesh is outside.
  if (ymin >= ye || y1 >= ymax || xmin >= xe || x1 >= xmax) {
    stop_report({"", "Error: Topography is outside the mesh."});
  }
  // A mesh without columns has no tops to fill.
  if (nx < 1 || ny < 1) return top_index;
  const double ratio = (std::min(ymax, ye) - std::max(ymin, y1)) *
                       (std::min(xmax, xe) - std::max(xmin, x1)) / ((ye - y1) * (xe - x1));
  if (ratio < 0.3) out.report({"Warning: Topography region is not large enough."});

  // Corner nodes: a plan corner beyond the box along both axes and farther
  // than tol from every point takes the elevation of the nearest point.
  const double tol = 0.25 * std::min(mesh.yn[1] - mesh.yn[0], mesh.xn[1] - mesh.xn[0]);
  const std::array<bool, 4> beyond{ymin > y1 && xmin > x1, ye > ymax && xmin > x1,
                                   ymin > y1 && xe > xmax, ye > ymax && xe > xmax};
  for (std::size_t c = 0; c < 4; ++c) {
    if (beyond[c] && best_dist[c] > tol) {
      tx.push_back(corner[c][1]);
      ty.push_back(corner[c][0]);
      tz.push_back(best_elev[c]);
    }
  }
  // Positions in the lists are 32-bit: 6n - 9 of them must fit.
  if (tx.size() > static_cast<std::size_t>(INT32_MAX / 6)) {
    stop_report({"", "ERROR reading topography file " + name + ": too many points to triangulate"});
  }
  const int32_t n = static_cast<int32_t>(tx.size());

  const std::vector<double> ys = sample_lines(mesh.yn, ny);
  const std::vector<double> xs = sample_lines(mesh.xn, nx);

  // Sorted on the first coordinate, so that each node goes in next to the
  // one before it.
  std::vector<int32_t> adj_end(static_cast<std::size_t>(n));
  std::vector<int32_t> adj(static_cast<std::size_t>(std::max(6 * static_cast<int64_t>(n) - 9,
                                                             static_cast<int64_t>(0))));
  order_nodes(n, 3, tx, ty, tz, adj_end);

  // Coincident plan positions, listed all before the stop.
  int64_t ndup = 0;
  std::size_t run = 0;
  for (std::size_t i = 1; i < static_cast<std::size_t>(n); ++i) {
    if (tx[i] != tx[i - 1]) {
      run = i;
      continue;
    }
    for (std::size_t k = run; k < i; ++k) {
      if (ty[i] != ty[k]) continue;
      ++ndup;
      if (ndup == 1) out.report({"", "Duplicate points:"});
      out.report({fmt_sci(ty[i], 16, 8) + fmt_sci(tx[i], 16, 8)});
    }
  }
  if (ndup > 0) {
    stop_report({"", "Error: " + fmt_int(ndup) + " duplicate points found in topography file.", ""});
  }

  tri_status status = tri_status::ok;
  triangulate(n, tx, ty, adj, adj_end, status);
  if (status == tri_status::collinear) {
    stop_report({"", "Error: Points in the topography file are collinear."});
  }

  // The surface over every node line and mid-line; each search starts at the
  // triangle of the sample before. Fewer than three nodes leave 0.0.
  const std::size_t nsy = ys.size(), nsx = xs.size();
  std::vector<double> surf(nsy * nsx);
  int32_t ist = 1;
  for (std::size_t i = 0; i < nsx; ++i) {
    for (std::size_t j = 0; j < nsy; ++j) {
      double pz = 0.0;
      surface_status st = surface_status::inside;
      eval_surface(n, ys[j], xs[i], tx, ty, tz, adj, adj_end, ist, pz, st);
      surf[j + i * nsy] = pz;
    }
  }

  return column_tops(surf, ny, nx, mesh.nz, mesh.zn, mesh.z0);
}

}  // namespace quolvent
