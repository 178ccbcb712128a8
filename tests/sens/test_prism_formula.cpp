// The prism formula against an independent reference, Gauss-Legendre
// quadrature of the dipole kernel, and at its special points.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <vector>

#include "sens/field_directions.hpp"
#include "sens/prism_row.hpp"
#include "sens/vector_math.hpp"
#include "support/test_support.hpp"

namespace {

using vec = std::array<double, 3>;  // (y, x, z), z downwards

// rule: nodes and weights of the 10-point rule on [-1, 1], by Newton's method.
struct rule {
  double x[10], w[10];
  rule() {
    for (int i = 0; i < 10; ++i) {
      double t = std::cos(M_PI * (i + 0.75) / 10.5), dp = 1;
      for (int it = 0; it < 50; ++it) {
        double p0 = 1, p1 = t;
        for (int k = 2; k <= 10; ++k)
          std::swap(p0, p1), p1 = ((2 * k - 1) * t * p0 - (k - 1) * p1) / k;
        dp = 10 * (t * p1 - p0) / (t * t - 1);
        t -= p1 / dp;
      }
      x[i] = t, w[i] = 2 / ((1 - t * t) * dp * dp);
    }
  }
};

// kernel: the integral over the box [lo, hi] of (3 (m.u)(l.u) - m.l) / r^3
// seen from p outside it; the box is cut while a side exceeds half the
// distance. scale grows by the integral of the magnitudes of the two terms.
inline double kernel(const vec& p, const vec& lo, const vec& hi, const vec& l, const vec& m,
                     double& scale, int depth = 0) {
  static const rule q;
  double d2 = 0, side = 0, s = 0;
  for (int a = 0; a < 3; ++a) {
    const double e = std::max({lo[a] - p[a], 0.0, p[a] - hi[a]});
    d2 += e * e, side = std::max(side, hi[a] - lo[a]);
  }
  const double lim = 0.5 * std::sqrt(d2), lm = l[0] * m[0] + l[1] * m[1] + l[2] * m[2];
  for (int c = 0; c < 8 && side > lim && depth < 40; ++c) {
    vec l2 = lo, h2 = hi;
    bool twice = false;  // a second child along an axis that is not cut
    for (int a = 0; a < 3; ++a) {
      const bool upper = c >> a & 1, cut = hi[a] - lo[a] > lim;
      if (cut) (upper ? l2 : h2)[a] = 0.5 * (lo[a] + hi[a]);
      twice |= upper && !cut;
    }
    if (!twice) s += kernel(p, l2, h2, l, m, scale, depth + 1);
    if (c == 7) return s;
  }
  for (int c = 0; c < 1000; ++c) {
    double w = 1, r2 = 0, lu = 0, mu = 0;
    for (int d = 0, i = c; d < 3; ++d, i /= 10) {
      const double h = 0.5 * (hi[d] - lo[d]), u = lo[d] + h * (1 + q.x[i % 10]) - p[d];
      w *= h * q.w[i % 10], r2 += u * u, lu += l[d] * u, mu += m[d] * u;
    }
    const double r3 = r2 * std::sqrt(r2);
    s += w * (3 * lu * mu / (r2 * r3) - lm / r3);
    scale += w * (std::fabs(3 * lu * mu / (r2 * r3)) + std::fabs(lm / r3));
  }
  return s;
}

// unit: (y, x, z) components of a direction of inclination i, declination d (degrees).
inline vec unit(double incl, double decl) {
  const double i = incl * M_PI / 180, d = decl * M_PI / 180;
  return {std::cos(i) * std::cos(d), std::cos(i) * std::sin(d), std::sin(i)};
}

const double four_pi = 12.566370614359172;

// one_cell: the row of the one-cell mesh lo..hi (y, x, depth) at the point p,
// with geomag 4 pi so that the entry is the cell's integral itself.
double one_cell(quolvent::row_workspace& ws, const vec& lo, const vec& hi, const vec& p,
                const quolvent::run_log& out) {
  const double yn[2] = {lo[0], hi[0]}, xn[2] = {lo[1], hi[1]}, zn[2] = {lo[2], hi[2]};
  const int32_t top[1] = {0};
  double g = -1;
  quolvent::prism_row(ws, four_pi, yn, xn, zn, 1, 1, 1, top, 1, p[0], p[1], p[2], &g, 1, out);
  return g;
}

// workspace: a thread's workspace for the field (fi, fd) and the measured
// direction (ai, ad), on meshes with no width below 1 (length scale 1).
quolvent::row_workspace workspace(double fi, double fd, double ai, double ad) {
  return quolvent::make_row_workspace(quolvent::field_directions(fi, fd, ai, ad), 1.0);
}

}  // namespace

// Every placement of the point against the cell (below, within or above it on
// each axis, so every sign flag), twice, with random cells and non-vertical
// directions, on every vector target and through the one-cell formula, one
// workspace throughout as a thread keeps it. Inside: a cube centred on the point, whose integral is
// -4 pi / 3 l.m, plus 26 boxes.
TEST(Gsus, AgreesWithQuadrature) {
  qt::capture cap;
  quolvent::row_workspace ws = workspace(0, 0, 0, 0);
  std::mt19937_64 rng(20261122);
  std::uniform_real_distribution<double> ang(-80, 80), dec(-180, 180), len(5, 60), org(-500, 500),
      u(0.15, 0.85);
  for (int c = 0; c < 2 * 27; ++c) {
    vec lo, hi, p;
    for (int a = 0, where = c % 27; a < 3; ++a, where /= 3) {
      lo[a] = a == 2 ? 100 + 0.1 * org(rng) : org(rng);
      hi[a] = lo[a] + len(rng);
      const double w = hi[a] - lo[a], f = where % 3 == 1 ? u(rng) : 1.2 + u(rng);
      p[a] = where % 3 == 0 ? hi[a] - w * f : lo[a] + w * f;
    }
    const double fi = ang(rng), fd = dec(rng), ai = ang(rng), ad = dec(rng);
    const vec l = unit(fi, fd), m = unit(ai, ad);
    ws.dir = quolvent::field_directions(fi, fd, ai, ad);
    double scale = 0, want = 0;
    if (c % 27 == 13) {  // inside
      scale = std::fabs(want = -four_pi / 3 * (l[0] * m[0] + l[1] * m[1] + l[2] * m[2]));
      const double h = 0.5 * std::min({p[0] - lo[0], p[1] - lo[1], p[2] - lo[2], hi[0] - p[0],
                                       hi[1] - p[1], hi[2] - p[2]});
      for (int b = 0; b < 27; ++b) {
        vec a2, b2;
        for (int d = 0, w = b; d < 3; ++d, w /= 3) {
          const double cuts[4] = {lo[d], p[d] - h, p[d] + h, hi[d]};
          a2[d] = cuts[w % 3], b2[d] = cuts[w % 3 + 1];
        }
        if (b != 13) want += kernel(p, a2, b2, l, m, scale);
      }
    } else {
      want = kernel(p, lo, hi, l, m, scale);
    }
    for (int64_t t : quolvent::vector_targets()) {
      ws.vector_target = t;
      EXPECT_NEAR(one_cell(ws, lo, hi, p, cap.out), want, 1e-9 * scale)
          << "case " << c << " on " << quolvent::vector_target_name(t);
    }
    ws.every_cell_alone = true;  // the formula for the cells the vector loop sets aside
    EXPECT_NEAR(one_cell(ws, lo, hi, p, cap.out), want, 1e-9 * scale) << "case " << c << " alone";
    ws.every_cell_alone = false;
  }
  EXPECT_EQ(cap.log(), "");
}

// Points on the lower plane (flag 0, sign rule of a zero offset) and upper
// plane (flag -1, difference form) of each axis, off the cell: no message. A
// y or x plane through the point is cached as if 0.001 away, so there the
// value matches only to that displacement; z planes, and points 1e-6 off any
// plane, match fully.
TEST(Gsus, PointsOnTheLowerAndUpperPlanes) {
  qt::capture cap;
  const vec lo{10, -20, 40}, hi{30, -5, 55};
  quolvent::row_workspace ws = workspace(65, 12, 48, -33);
  const std::pair<vec, int> points[] = {{{10, 2, 45}, 0},  {{30, -29, 59}, 0}, {{16, -20, 32}, 1},
                                        {{35, -5, 43}, 1}, {{14, 1, 40}, 2},   {{7, -15, 55}, 2}};
  for (const auto& [p, axis] : points)
    for (double off : {0.0, -1e-6, 1e-6}) {
      vec q = p;
      q[axis] += off;
      double scale = 0, want = kernel(q, lo, hi, unit(65, 12), unit(48, -33), scale);
      const double tol = (off == 0 && axis < 2 ? 2e-4 : 1e-9) * scale;
      EXPECT_NEAR(one_cell(ws, lo, hi, q, cap.out), want, tol) << off;
    }
  EXPECT_EQ(cap.log(), "");
}

// A point on a vertical edge, or 0.0007 from its line: entry 0 and the
// message naming the datum and the cell (x index first) for each cell along
// it; 0.0014 from the line a value. A point on a node: no NaN or Inf.
TEST(Gsus, EdgesAndNodes) {
  quolvent::row_workspace ws = workspace(60, 10, 60, 10);
  const double yn[4] = {0, 10, 20, 30}, xn[4] = {0, 10, 20, 30}, zn[3] = {0, 10, 20};
  const int32_t top[9] = {};
  const std::string msg =
      "\n Observation point          17  is on the edge of the model cell (           1"
      "           1           1 ).\nSensitivity set to zero!\n\n";
  std::vector<double> g(12);
  for (const double d : {0.0, 0.0005, 0.001}) {
    qt::capture cap;
    quolvent::prism_row(ws, 50000, yn, xn, zn, 2, 3, 2, top, 17, 10 + d, 10 - d, 5, g.data(),
                        g.size(), cap.out);
    for (int e = 0; e < 12; ++e)  // the cells (j, i, 1) around the edge are at 0, 2, 6, 8
      EXPECT_EQ(g[e] == 0.0, d < 0.001 && e % 6 < 3 && e % 2 == 0) << d << " " << e;
    if (d == 0) EXPECT_EQ(cap.log().substr(0, msg.size()), msg);
    EXPECT_EQ(cap.log().size(), d < 0.001 ? 4 * msg.size() : 0u);
  }
  qt::capture cap;
  g.resize(18);
  quolvent::prism_row(ws, 50000, yn, xn, zn, 3, 3, 2, top, 5, 20, 10, 10, g.data(), g.size(),
                      cap.out);
  for (double v : g) EXPECT_TRUE(std::isfinite(v));
}
