// The regular survey test.
#include "sens/grid_check.hpp"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstddef>
#include <limits>
#include <vector>

#include "base/hpsort.hpp"
#include "model/mesh.hpp"

namespace quolvent {

namespace {

// exceeds: a relative measure fails only when it is greater than the
// tolerance, so a NaN measure (no gap to measure) passes.
bool exceeds(double v) { return v > grid_rel_tol; }

// uniform_widths: the mean of the widths nodes[k+1] - nodes[k], k < m, in
// mean; true when the widths are positive and their range is within the
// tolerance of the mean.
bool uniform_widths(const std::vector<double>& nodes, int32_t m, double& mean) {
  if (m < 1 || nodes.size() < static_cast<std::size_t>(m) + 1) return false;
  double sum = 0.0;
  double wmin = std::numeric_limits<double>::infinity();
  double wmax = -std::numeric_limits<double>::infinity();
  for (int32_t k = 0; k < m; ++k) {
    const double w = nodes[static_cast<std::size_t>(k) + 1] - nodes[static_cast<std::size_t>(k)];
    sum += w;
    wmin = std::min(wmin, w);
    wmax = std::max(wmax, w);
  }
  mean = sum / m;
  // A zero or negative width leaves no cell to shift by.
  if (!(wmin > 0.0) || !(mean > 0.0) || !std::isfinite(mean)) return false;
  return !exceeds((wmax - wmin) / mean);
}

// whole_multiple: the spacing is a whole number of cells, only the excess
// above the integer part counting. No spacing (NaN) passes. Coordinates of
// magnitude mag carry rounding errors of about mag times the machine epsilon,
// which can leave a whole multiple a hair short of its integer: a shortfall
// within a few such errors counts as the whole multiple, so that a survey
// takes the same loop at any scale and map origin.
bool whole_multiple(double spacing, double cell, double mag) {
  if (std::isnan(spacing)) return true;
  const double r = spacing / cell;
  const double rounding = 64.0 * DBL_EPSILON * r * (1.0 + mag / cell);
  if (std::ceil(r) - r <= rounding) return true;
  return !exceeds(r - std::trunc(r));
}

// magnitude: the largest absolute value among a[0..n-1].
double magnitude(const std::vector<double>& a, int32_t n) {
  double m = 0.0;
  for (int32_t i = 0; i < n; ++i) m = std::max(m, std::fabs(a[static_cast<std::size_t>(i)]));
  return m;
}

}  // namespace

void spacing_stats(const double* a, int32_t n, double same, double& spacing, double& spread) {
  // Distinct values, each compared with the values as first listed.
  std::vector<double> list;
  for (int32_t i = 0; i < n; ++i) {
    bool seen = false;
    for (double v : list) {
      if (std::fabs(a[i] - v) <= same) {
        seen = true;
        break;
      }
    }
    if (!seen) list.push_back(a[i]);
  }

  const int32_t m = static_cast<int32_t>(list.size());
  if (m < 2) {
    spacing = std::numeric_limits<double>::quiet_NaN();
    spread = std::numeric_limits<double>::quiet_NaN();
    return;
  }
  hpsort(list.data(), m);

  double gmin = std::numeric_limits<double>::infinity();
  double gmax = 0.0;
  for (int32_t k = 1; k < m; ++k) {
    const double gap = list[static_cast<std::size_t>(k)] - list[static_cast<std::size_t>(k) - 1];
    gmin = std::min(gmin, gap);
    gmax = std::max(gmax, gap);
  }
  // The gaps add up to the whole range: one difference instead of m - 1.
  spacing = (list[static_cast<std::size_t>(m) - 1] - list[0]) / (m - 1);
  spread = (gmax - gmin) / spacing;
}

grid_survey grid_check(const mesh_model& mesh, const obs_set& obs, datum_kind survey_kind) {
  grid_survey g;
  const int32_t idir = obs.idir;
  const int32_t nd = obs.ndata;
  const int32_t ny = mesh.ny;
  const int32_t nx = mesh.nx;
  if (nd < 1 || ny < 1 || nx < 1) return g;

  // 1. Every datum inside the mesh in plan view, edges included.
  const auto [ylo, yhi] = std::minmax_element(obs.northing.begin(), obs.northing.begin() + nd);
  const auto [xlo, xhi] = std::minmax_element(obs.easting.begin(), obs.easting.begin() + nd);
  if (mesh.yn[0] > *ylo || *yhi > mesh.yn[static_cast<std::size_t>(ny)]) return g;
  if (mesh.xn[0] > *xlo || *xhi > mesh.xn[static_cast<std::size_t>(nx)]) return g;

  // 2. Surface data only, one direction for all.
  if (survey_kind != datum_kind::surface || idir == 0) return g;

  // 3. One level, measured against the height above the mesh top.
  double zmin = obs.elevation[0], zmax = obs.elevation[0], zsum = 0.0;
  for (int32_t i = 0; i < nd; ++i) {
    const double z = obs.elevation[static_cast<std::size_t>(i)];
    zmin = std::min(zmin, z);
    zmax = std::max(zmax, z);
    zsum += z;
  }
  const double height = std::fabs(mesh.z0 - zsum / nd);
  const double zrange = zmax - zmin;
  if (height > 0.0) {
    if (exceeds(zrange / height)) return g;
  } else if (zrange > 0.0) {
    return g;  // levels differ, and there is no height to measure them by
  }

  // 4, 5. Uniform cells along y, then x.
  if (!uniform_widths(mesh.yn, ny, g.cell_dy)) return g;
  if (!uniform_widths(mesh.xn, nx, g.cell_dx)) return g;

  // 6. Regular spacing of the data along y and x; grid lines told apart in
  // proportion to the cells, so that a scaled survey takes the same loop.
  const double same = grid_same_coord * mesh_length_scale(mesh);
  double sp_y = 0.0, spr_y = 0.0, sp_x = 0.0, spr_x = 0.0;
  spacing_stats(obs.northing.data(), nd, same, sp_y, spr_y);
  if (exceeds(spr_y)) return g;
  spacing_stats(obs.easting.data(), nd, same, sp_x, spr_x);
  if (exceeds(spr_x)) return g;

  // 7. The spacing a whole number of cells.
  if (!whole_multiple(sp_y, g.cell_dy, magnitude(obs.northing, nd))) return g;
  if (!whole_multiple(sp_x, g.cell_dx, magnitude(obs.easting, nd))) return g;

  // 8. The reference datum: nearest the mesh centre, the first of equals.
  const double yc = mesh.yn[static_cast<std::size_t>(ny / 2)];
  const double xc = mesh.xn[static_cast<std::size_t>(nx / 2)];
  double best = 1e20;
  for (int32_t i = 0; i < nd; ++i) {
    const double ey = obs.northing[static_cast<std::size_t>(i)] - yc;
    const double ex = obs.easting[static_cast<std::size_t>(i)] - xc;
    const double d = std::sqrt(ey * ey + ex * ex);
    if (d < best) {
      best = d;
      g.ref_datum = i + 1;
    }
  }
  g.regular = best < 1e20;
  return g;
}

}  // namespace quolvent
