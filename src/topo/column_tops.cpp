// Column tops from the sampled surface.
#include "topo/column_tops.hpp"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <functional>

namespace quolvent {

namespace {

// on_boundary: zmin, or the boundary of elev (falling) it lies within tol of.
double on_boundary(double zmin, const std::vector<double>& elev, double tol) {
  // The first boundary at or below zmin, and the one above it.
  const auto below = std::lower_bound(elev.begin(), elev.end(), zmin, std::greater<double>());
  if (below != elev.end() && zmin - *below <= tol) return *below;
  if (below != elev.begin() && *(below - 1) - zmin <= tol) return *(below - 1);
  return zmin;
}

}  // namespace

double boundary_tolerance(const std::vector<double>& elev) {
  if (elev.empty()) return 0.0;
  const double m = std::max(std::fabs(elev.front()), std::fabs(elev.back()));
  return 32.0 * DBL_EPSILON * m;
}

std::vector<int32_t> column_tops(const std::vector<double>& surf, int32_t ny, int32_t nx, int32_t nz,
                                 const std::vector<double>& zn, double z0) {
  const std::size_t nyc = static_cast<std::size_t>(std::max(ny, 0));
  const std::size_t nxc = static_cast<std::size_t>(std::max(nx, 0));
  const int32_t nzc = std::max(nz, 0);
  const std::size_t ns = 2 * nyc + 1;  // samples along the first subscript
  std::vector<int32_t> top_index(nyc * nxc, 0);

  // Layer boundary elevations, falling with k.
  std::vector<double> elev(static_cast<std::size_t>(nzc) + 1);
  for (std::size_t k = 0; k < elev.size(); ++k) elev[k] = z0 - zn[k];
  // A flat ground on a boundary, sampled or summed a rounding error off it,
  // is on it.
  const double tol = boundary_tolerance(elev);

  for (std::size_t ix = 1; ix <= nxc; ++ix) {
    for (std::size_t iy = 1; iy <= nyc; ++iy) {
      // The lowest of the nine samples: corners, edge mid-points, centre.
      double zmin = 1e20;
      bool any = false;
      for (std::size_t i = 2 * ix - 1; i <= 2 * ix + 1; ++i) {
        for (std::size_t j = 2 * iy - 1; j <= 2 * iy + 1; ++j) {
          const double s = surf[(j - 1) + (i - 1) * ns];
          if (std::isnan(s)) continue;
          any = true;
          if (s < zmin) zmin = s;
        }
      }
      if (any) zmin = on_boundary(zmin, elev, tol);
      int32_t t = 0;
      if (!any || zmin >= elev[0]) {
        t = 0;
      } else if (zmin < elev[static_cast<std::size_t>(nzc)]) {
        t = nzc;  // the ground lies below the mesh bottom
      } else {
        // The first layer whose boundaries hold zmin; a zmin on a boundary
        // takes the layer above it.
        t = nzc;
        for (int32_t k = 1; k <= nzc; ++k) {
          if (elev[static_cast<std::size_t>(k - 1)] >= zmin &&
              zmin >= elev[static_cast<std::size_t>(k)]) {
            t = k;
            break;
          }
        }
      }
      top_index[(iy - 1) + (ix - 1) * nyc] = t;
    }
  }
  return top_index;
}

}  // namespace quolvent
