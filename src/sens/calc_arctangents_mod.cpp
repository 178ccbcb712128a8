// CALC_ARCTANGENTS_MOD: distance and arctangents per mesh node.
#include "sens/calc_arctangents_mod.hpp"

#include <algorithm>
#include <cmath>
#include <new>
#include <stdexcept>

#include "base/stop.hpp"
#include "sens/vector_math.hpp"

namespace quolvent {

namespace {

// node_line: what one vertical line of nodes shares: its horizontal offsets.
struct node_line {
  double y, x, ys, xs, hh;  // offsets, offsets with 0 replaced by the shift, y y + x x
};

// fill_line: nodes [k0, k1) of one line: the distances, then the two
// quotients in at_x and at_y, then their arctangents over the whole stretch.
// The loop has no branch and the arithmetic is exact IEEE, so the compiler may
// run it several values at a time without changing a bit.
void fill_line(const node_line& L, const double* zn, double oz, int k0, int k1, double* r,
               double* ax, double* ay, int width) {
  for (int k = k0; k < k1; ++k) {
    const double z = zn[k] - oz;
    const double rr = std::sqrt(z * z + L.hh);
    // At the point itself both quotients are 0 over 0; the cell that reads
    // such a node is set aside by the prism formula, but the cache holds no
    // NaN either.
    const double qx = (L.y * z) / (L.xs * rr);
    const double qy = (z * L.x) / (rr * L.ys);
    r[k] = rr;
    ax[k] = rr == 0.0 ? 0.0 : qx;
    ay[k] = rr == 0.0 ? 0.0 : qy;
  }
  if (k1 > k0) {
    atan_array(ax + k0, static_cast<std::size_t>(k1 - k0), width);
    atan_array(ay + k0, static_cast<std::size_t>(k1 - k0), width);
  }
}

}  // namespace

void CALC_ARCTANGENTS(arctangent_cache& c, int width, double shift, const double* yn,
                      const double* xn, const double* zn, int32_t ny, int32_t nx, int32_t nz,
                      const int32_t* top, double oy, double ox, double oz) {
  const int32_t ez = std::max(nz, 0) + 1, ex = std::max(nx, 0) + 1, ey = std::max(ny, 0) + 1;

  // Arrays made for other extents would put nodes in the wrong places (or
  // past the end): make them anew for this mesh.
  if (c.ez != ez || c.ex != ex || c.ey != ey) {
    c.at_x.clear();
    c.at_x.shrink_to_fit();
    c.at_y.clear();
    c.at_y.shrink_to_fit();
    c.r_node.clear();
    c.r_node.shrink_to_fit();
    c.ez = c.ex = c.ey = 0;
    const std::size_t total =
        static_cast<std::size_t>(ez) * static_cast<std::size_t>(ex) * static_cast<std::size_t>(ey);
    try {
      c.at_x.resize(total);
      c.at_y.resize(total);
      c.r_node.resize(total);
      c.col_q.resize(3 * static_cast<std::size_t>(ez));
      c.col_s.resize(3 * static_cast<std::size_t>(ez));
      c.col_edge.resize(static_cast<std::size_t>(ez));
    } catch (const std::bad_alloc&) {
      alloc_failed("calc_arctangents");
    } catch (const std::length_error&) {
      alloc_failed("calc_arctangents");
    }
    c.ez = ez;
    c.ex = ex;
    c.ey = ey;
  }

  auto top_at_col = [&](int32_t j, int32_t i) {
    return top[static_cast<std::size_t>(j - 1) +
               static_cast<std::size_t>(i - 1) * static_cast<std::size_t>(ny)];
  };

  for (int32_t j = 1; j <= ey; ++j) {
    node_line L{};
    L.y = yn[j - 1] - oy;
    L.ys = L.y == 0.0 ? shift : L.y;
    const double yy = L.y * L.y;
    for (int32_t i = 1; i <= ex; ++i) {
      L.x = xn[i - 1] - ox;
      L.xs = L.x == 0.0 ? shift : L.x;
      L.hh = yy + L.x * L.x;

      // Start level: the highest node any of the four columns around this
      // line can reach; the rim is computed whole.
      int32_t start = 1;
      if (j > 1 && j < ey && i > 1 && i < ex) {
        const int32_t t = std::min(std::min(top_at_col(j - 1, i - 1), top_at_col(j, i - 1)),
                                   std::min(top_at_col(j - 1, i), top_at_col(j, i)));
        start = std::clamp(t + 1, 1, ez);
      }

      const std::size_t base =
          static_cast<std::size_t>(ez) *
          (static_cast<std::size_t>(i - 1) + static_cast<std::size_t>(ex) * (j - 1));
      double* r = c.r_node.data() + base;
      double* ax = c.at_x.data() + base;
      double* ay = c.at_y.data() + base;
      fill_line(L, zn, oz, start - 1, ez, r, ax, ay, width);
    }
  }
}

void DEALLOC_AT(arctangent_cache& c) { c = arctangent_cache{}; }

}  // namespace quolvent
