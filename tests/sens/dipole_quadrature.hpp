// An independent reference for the prism formula: Gauss-Legendre quadrature of
// the dipole kernel over a box, with the box cut finer near the point.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

namespace quad {

// gauss_legendre: nodes and weights on [-1, 1] by Newton's method.
inline void gauss_legendre(int n, std::vector<double>& x, std::vector<double>& w) {
  x.assign(n, 0.0);
  w.assign(n, 0.0);
  for (int i = 0; i < n; ++i) {
    double t = std::cos(M_PI * (i + 0.75) / (n + 0.5));
    double dp = 0;
    for (int it = 0; it < 100; ++it) {
      double p0 = 1, p1 = t;
      for (int k = 2; k <= n; ++k) {
        const double p2 = ((2.0 * k - 1) * t * p1 - (k - 1.0) * p0) / k;
        p0 = p1;
        p1 = p2;
      }
      dp = n * (t * p1 - p0) / (t * t - 1);
      const double dt = p1 / dp;
      t -= dt;
      if (std::fabs(dt) < 1e-16) break;
    }
    x[i] = t;
    w[i] = 2.0 / ((1 - t * t) * dp * dp);
  }
}

// tensor: the integrals of (3 u_a u_b - delta_ab) / r^3 over a volume, axes y, x, z.
struct tensor {
  double yy = 0, xx = 0, zz = 0, xy = 0, yz = 0, xz = 0;
  void add(const tensor& o) {
    yy += o.yy; xx += o.xx; zz += o.zz; xy += o.xy; yz += o.yz; xz += o.xz;
  }
};

struct integrator {
  int order = 10;
  double ratio = 0.5;  // a box is cut while its longest side exceeds ratio x distance
  int max_depth = 40;
  std::vector<double> gx, gw;
  integrator() { gauss_legendre(order, gx, gw); }

  // box: lo/hi in (y, x, z), the point p outside it (on its surface at most
  // where the kernel stays bounded nearby).
  tensor box(const std::array<double, 3>& p, std::array<double, 3> lo, std::array<double, 3> hi,
             int depth = 0) const {
    double d2 = 0, side = 0;
    for (int a = 0; a < 3; ++a) {
      const double e = std::max({lo[a] - p[a], 0.0, p[a] - hi[a]});
      d2 += e * e;
      side = std::max(side, hi[a] - lo[a]);
    }
    const double dist = std::sqrt(d2);
    tensor t;
    if (side > ratio * dist && depth < max_depth) {
      // Cut every axis that is long against the distance.
      std::array<int, 3> cut{};
      for (int a = 0; a < 3; ++a) cut[a] = (hi[a] - lo[a]) > ratio * dist ? 1 : 0;
      for (int cy = 0; cy <= cut[0]; ++cy)
        for (int cx = 0; cx <= cut[1]; ++cx)
          for (int cz = 0; cz <= cut[2]; ++cz) {
            std::array<double, 3> l2 = lo, h2 = hi;
            const int c[3] = {cy, cx, cz};
            for (int a = 0; a < 3; ++a) {
              if (!cut[a]) continue;
              const double mid = 0.5 * (lo[a] + hi[a]);
              if (c[a] == 0) h2[a] = mid; else l2[a] = mid;
            }
            t.add(box(p, l2, h2, depth + 1));
          }
      return t;
    }
    const double hy = 0.5 * (hi[0] - lo[0]), hx = 0.5 * (hi[1] - lo[1]), hz = 0.5 * (hi[2] - lo[2]);
    const double cy = 0.5 * (hi[0] + lo[0]), cx = 0.5 * (hi[1] + lo[1]), cz = 0.5 * (hi[2] + lo[2]);
    for (int a = 0; a < order; ++a)
      for (int b = 0; b < order; ++b)
        for (int c = 0; c < order; ++c) {
          const double w = gw[a] * gw[b] * gw[c] * hy * hx * hz;
          const double y = cy + hy * gx[a] - p[0];
          const double x = cx + hx * gx[b] - p[1];
          const double z = cz + hz * gx[c] - p[2];
          const double r2 = y * y + x * x + z * z;
          const double r = std::sqrt(r2);
          const double r5 = r2 * r2 * r;
          const double r3 = r2 * r;
          t.yy += w * (3 * y * y / r5 - 1 / r3);
          t.xx += w * (3 * x * x / r5 - 1 / r3);
          t.zz += w * (3 * z * z / r5 - 1 / r3);
          t.xy += w * 3 * x * y / r5;
          t.yz += w * 3 * y * z / r5;
          t.xz += w * 3 * x * z / r5;
        }
    return t;
  }
};

// unit: (y, x, z) components of a direction of inclination i, declination d (degrees).
inline std::array<double, 3> unit(double incl, double decl) {
  const double r = M_PI / 180;
  return {std::cos(incl * r) * std::cos(decl * r), std::cos(incl * r) * std::sin(decl * r),
          std::sin(incl * r)};
}

// contract: sum over a, b of m_a l_b T_ab, and the sum of the magnitudes of its
// terms (the scale an error is measured against).
inline double contract(const tensor& t, const std::array<double, 3>& l,
                       const std::array<double, 3>& m, double* scale = nullptr) {
  const double terms[6] = {l[0] * m[0] * t.yy,
                           l[1] * m[1] * t.xx,
                           l[2] * m[2] * t.zz,
                           (l[0] * m[1] + l[1] * m[0]) * t.xy,
                           (l[0] * m[2] + l[2] * m[0]) * t.yz,
                           (l[1] * m[2] + l[2] * m[1]) * t.xz};
  double s = 0, a = 0;
  for (double v : terms) {
    s += v;
    a += std::fabs(v);
  }
  if (scale) *scale = a;
  return s;
}

}  // namespace quad
