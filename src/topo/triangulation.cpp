// Delaunay triangulation, in place in adj and adj_end.
#include "topo/triangulation.hpp"

#include <algorithm>
#include <array>

#include "base/stop.hpp"
#include "topo/surface.hpp"

namespace quolvent {

namespace {

// 1-based views of the 0-based arrays: the lists store 1-based node numbers
// and positions, and the list surgery reads best in those terms.
struct lists {
  std::span<int32_t> adj, adj_end;
  int32_t& a(int32_t p) const { return adj[static_cast<std::size_t>(p - 1)]; }
  int32_t& e(int32_t k) const { return adj_end[static_cast<std::size_t>(k - 1)]; }
  // first: position of the first entry of node k's list.
  int32_t first(int32_t k) const { return k == 1 ? 1 : e(k - 1) + 1; }
  // bump: adj_end grows by d for nodes from..to.
  void bump(int32_t from, int32_t to, int32_t d) const {
    for (int32_t m = from; m <= to; ++m) e(m) += d;
  }
};

}  // namespace

// ------------------------------------------------------------------ sorting

void sort_index(int32_t n, std::span<const double> x, std::span<int32_t> ind) {
  auto I = [&](int32_t p) -> int32_t& { return ind[static_cast<std::size_t>(p - 1)]; };
  auto key = [&](int32_t p) { return x[static_cast<std::size_t>(I(p) - 1)]; };
  for (int32_t p = 1; p <= n; ++p) I(p) = p;
  if (n < 1) return;

  // Saved segment bounds. The larger part is always the one saved, so the
  // depth stays below log2(n) + 1: 32 places hold any 32-bit count.
  std::array<int32_t, 34> il{}, iu{};
  int32_t m = 1, i = 1, j = n, k = 0, l = 0, ij = 0;
  double r = 0.375;
  double t = 0.0;

step2:
  if (i >= j) goto step9;
  // A pseudo-random central element, r a multiple of 1/256.
  if (r > 0.5898436903953552)
    r -= 0.21875;
  else
    r += 0.0390625;

step4:
  k = i;
  ij = i + static_cast<int32_t>(static_cast<float>(r) * static_cast<float>(j - i));
  t = key(ij);
  // Median of three at i, ij, j.
  if (key(i) > t) {
    std::swap(I(i), I(ij));
    t = key(ij);
  }
  l = j;
  if (key(j) < t) {
    std::swap(I(ij), I(j));
    t = key(ij);
    if (key(i) > t) {
      std::swap(I(ij), I(i));
      t = key(ij);
    }
  }
  for (;;) {
    do --l; while (key(l) > t);
    do ++k; while (key(k) < t);
    if (k > l) break;
    std::swap(I(l), I(k));
  }
  if (l - i > j - k) {
    il[static_cast<std::size_t>(m)] = i;
    iu[static_cast<std::size_t>(m)] = l;
    i = k;
  } else {
    il[static_cast<std::size_t>(m)] = k;
    iu[static_cast<std::size_t>(m)] = j;
    j = l;
  }
  ++m;

step8:
  if (j - i >= 11) goto step4;
  if (i == 1) goto step2;
  // Insertion on a short segment; the entry ahead of it stops the inner loop.
  for (int32_t p = i; p < j; ++p) {
    const int32_t v = I(p + 1);
    const double tv = x[static_cast<std::size_t>(v - 1)];
    if (key(p) > tv) {
      int32_t q = p;
      do {
        I(q + 1) = I(q);
        --q;
      } while (tv < key(q));
      I(q + 1) = v;
    }
  }

step9:
  --m;
  if (m == 0) return;
  i = il[static_cast<std::size_t>(m)];
  j = iu[static_cast<std::size_t>(m)];
  goto step8;
}

void order_nodes(int32_t n, int32_t nar, std::span<double> x, std::span<double> y,
                 std::span<double> z, std::span<int32_t> ind) {
  sort_index(n, x, ind);
  if (nar < 1 || n < 2) return;
  auto P = [&](int32_t p) -> int32_t& { return ind[static_cast<std::size_t>(p - 1)]; };
  const std::array<std::span<double>, 3> arrays{x, y, z};
  for (int32_t a = 0; a < std::min<int32_t>(nar, 3); ++a) {
    std::span<double> v = arrays[static_cast<std::size_t>(a)];
    auto V = [&](int32_t p) -> double& { return v[static_cast<std::size_t>(p - 1)]; };
    // One cycle at a time; a negative entry marks a place already filled.
    for (int32_t s = 1; s <= n; ++s) {
      if (P(s) < 0) continue;
      const double hold = V(s);
      int32_t i = s;
      for (;;) {
        const int32_t from = P(i);
        P(i) = -from;
        if (from == s) {
          V(i) = hold;
          break;
        }
        V(i) = V(from);
        i = from;
      }
    }
    for (int32_t p = 1; p <= n; ++p) P(p) = -P(p);
  }
}

// ------------------------------------------------------------ list surgery

void shift_block(int32_t first, int32_t last, int32_t k, std::span<int32_t> a) {
  if (k == 0 || first > last) return;
  int32_t* base = a.data() - 1 + first;  // position first
  int32_t* end = a.data() + last;        // one behind position last
  if (k > 0)
    std::copy_backward(base, end, end + k);
  else
    std::copy(base, end, base + k);
}

int32_t list_index(int32_t v, int32_t b, std::span<const int32_t> adj,
                   std::span<const int32_t> adj_end) {
  const int32_t start = v == 1 ? 1 : adj_end[static_cast<std::size_t>(v - 2)] + 1;
  for (int32_t p = adj_end[static_cast<std::size_t>(v - 1)]; p >= start; --p) {
    if (adj[static_cast<std::size_t>(p - 1)] == b) return p;
  }
  stop_text("triangulation: neighbour missing from a node list");
}

namespace {
int32_t pos(const lists& L, int32_t v, int32_t b) { return list_index(v, b, L.adj, L.adj_end); }
}  // namespace

void insert_interior(int32_t k, int32_t i1, int32_t i2, int32_t i3, std::span<int32_t> adj,
                     std::span<int32_t> adj_end) {
  const lists L{adj, adj_end};
  // k goes behind i2 in i1's list, behind i3 in i2's, behind i1 in i3's.
  std::array<std::array<int32_t, 2>, 3> at{{{pos(L, i1, i2), i1},
                                           {pos(L, i2, i3), i2},
                                           {pos(L, i3, i1), i3}}};
  std::sort(at.begin(), at.end());
  const int32_t p1 = at[0][0], p2 = at[1][0], p3 = at[2][0];
  const int32_t u1 = at[0][1], u2 = at[1][1], u3 = at[2][1];
  const int32_t last = L.e(k - 1);
  // Open the array from the top, so that each entry moves once.
  shift_block(p3 + 1, last, 3, adj);
  L.a(p3 + 3) = k;
  shift_block(p2 + 1, p3, 2, adj);
  L.a(p2 + 2) = k;
  shift_block(p1 + 1, p2, 1, adj);
  L.a(p1 + 1) = k;
  L.bump(u1, u2 - 1, 1);
  L.bump(u2, u3 - 1, 2);
  L.bump(u3, k - 1, 3);
  const int32_t top = L.e(k - 1);
  L.a(top + 1) = i1;
  L.a(top + 2) = i2;
  L.a(top + 3) = i3;
  L.e(k) = top + 3;
}

void insert_boundary(int32_t k, int32_t i1, int32_t i2, std::span<int32_t> adj,
                     std::span<int32_t> adj_end) {
  const lists L{adj, adj_end};
  // k goes in front of the 0 of i1's list and at the front of i2's list.
  const int32_t place1 = L.e(i1);
  const int32_t place2 = L.first(i2);
  const int32_t lo = std::min(place1, place2), hi = std::max(place1, place2);
  const int32_t last = L.e(k - 1);
  shift_block(hi, last, 2, adj);
  L.a(hi + 1) = k;
  shift_block(lo, hi - 1, 1, adj);
  L.a(lo) = k;
  const int32_t nlo = std::min(i1, i2), nhi = std::max(i1, i2);
  L.bump(nhi, k - 1, 2);
  L.bump(nlo, nhi - 1, 1);

  // k's list: i1, the hull nodes between, i2, 0. The nodes between become
  // interior: their final 0 turns into k.
  int32_t p = L.e(k - 1) + 1;
  L.a(p) = i1;
  int32_t next = L.a(L.e(i1) - 2);
  while (next != i2) {
    L.a(++p) = next;
    const int32_t cur = next;
    next = L.a(L.e(cur) - 1);
    L.a(L.e(cur)) = k;
  }
  L.a(++p) = i2;
  L.a(++p) = 0;
  L.e(k) = p;
}

bool swap_test(int32_t in1, int32_t k, int32_t out1, int32_t out2, std::span<const double> tx,
               std::span<const double> ty) {
  auto X = [&](int32_t i) { return tx[static_cast<std::size_t>(i - 1)]; };
  auto Y = [&](int32_t i) { return ty[static_cast<std::size_t>(i - 1)]; };
  const double ax = X(out1) - X(in1), ay = Y(out1) - Y(in1);
  const double bx = X(out2) - X(in1), by = Y(out2) - Y(in1);
  const double cx = X(out1) - X(k), cy = Y(out1) - Y(k);
  const double dx = X(out2) - X(k), dy = Y(out2) - Y(k);
  const double cos1 = ax * bx + ay * by;
  const double cos2 = cx * dx + cy * dy;
  // Two angles of at most 90 degrees, or two obtuse ones, decide at once.
  if (cos1 >= 0.0 && cos2 >= 0.0) return false;
  if (cos1 < 0.0 && cos2 < 0.0) return true;
  const double sin1 = ax * by - bx * ay;
  const double sin2 = dx * cy - cx * dy;
  // sin(angle1 + angle2) < 0: the angles sum to more than 180 degrees. An
  // exact 0 (four points on a circle) keeps the arc.
  return sin1 * cos2 + sin2 * cos1 < 0.0;
}

void swap_diagonal(int32_t in1, int32_t in2, int32_t out1, int32_t out2, std::span<int32_t> adj,
                   std::span<int32_t> adj_end) {
  const lists L{adj, adj_end};
  // in[1] < in[2], io[1] < io[2]; (in[1], io[ip1], io[ip2]) counterclockwise.
  std::array<int32_t, 3> in{0, in1, in2}, io{0, out1, out2};
  int32_t ip1 = 1;
  if (in1 > in2) {
    std::swap(in[1], in[2]);
    ip1 = 2;
  }
  if (out1 > out2) {
    std::swap(io[1], io[2]);
    ip1 = 3 - ip1;
  }
  int32_t ip2 = 3 - ip1;
  auto up = [&](int32_t nf, int32_t nl, int32_t c) {
    if (nf <= nl) shift_block(nf, nl, -c, adj);
  };
  auto down = [&](int32_t nf, int32_t nl, int32_t c) {
    if (nf <= nl) shift_block(nf, nl, c, adj);
  };
  int32_t nf = 0, nl = 0;

  if (io[2] < in[1]) {
    // Lists in the order io(1), io(2), in(1), in(2): everything moves up.
    nf = pos(L, io[1], io[2]) + 1;
    nl = pos(L, io[2], io[1]) - 1;
    up(nf, nl, 1);
    L.bump(io[1], io[2] - 1, -1);

    nf = nl + 2;
    nl = pos(L, in[1], io[static_cast<std::size_t>(ip2)]) - 1;
    up(nf, nl, 2);
    L.a(nl - 1) = in[2];
    L.bump(io[2], in[1] - 1, -2);

    nf = nl + 1;
    nl = pos(L, in[2], io[static_cast<std::size_t>(ip1)]) - 1;
    up(nf, nl, 1);
    L.a(nl) = in[1];
    L.bump(in[1], in[2] - 1, -1);
  } else if (in[2] < io[1]) {
    // Lists in the order in(1), in(2), io(1), io(2): everything moves down.
    nf = pos(L, io[1], io[2]) + 1;
    nl = pos(L, io[2], io[1]) - 1;
    down(nf, nl, 1);
    L.bump(io[1], io[2] - 1, 1);

    nl = nf - 2;
    nf = pos(L, in[2], io[static_cast<std::size_t>(ip2)]) + 1;
    down(nf, nl, 2);
    L.a(nf + 1) = in[1];
    L.bump(in[2], io[1] - 1, 2);

    nl = nf - 1;
    nf = pos(L, in[1], io[static_cast<std::size_t>(ip1)]) + 1;
    down(nf, nl, 1);
    L.a(nf) = in[2];
    L.bump(in[1], in[2] - 1, 1);
  } else {
    // in(1) and io(1) before in(2) and io(2): one removal and one insertion
    // in each half.
    for (int32_t j = 1; j <= 2; ++j) {
      const int32_t kk = 3 - j;
      const int32_t inj = in[static_cast<std::size_t>(j)];
      const int32_t ioj = io[static_cast<std::size_t>(j)];
      const int32_t iok = io[static_cast<std::size_t>(kk)];
      const int32_t ink = in[static_cast<std::size_t>(kk)];
      if (ioj < inj) {
        nf = pos(L, ioj, iok) + 1;
        nl = pos(L, inj, io[static_cast<std::size_t>(ip2)]) - 1;
        up(nf, nl, 1);
        L.a(nl) = ink;
        L.bump(ioj, inj - 1, -1);
      } else {
        nf = pos(L, inj, io[static_cast<std::size_t>(ip1)]) + 1;
        nl = pos(L, ioj, iok) - 1;
        down(nf, nl, 1);
        L.a(nf) = ink;
        L.bump(inj, ioj - 1, 1);
      }
      ip1 = ip2;
      ip2 = 3 - ip1;
    }
  }
}

// ------------------------------------------------------------ construction

void add_node(int32_t k, std::span<const double> tx, std::span<const double> ty,
              std::span<int32_t> adj, std::span<int32_t> adj_end, tri_status& status) {
  const lists L{adj, adj_end};
  int32_t i1 = 0, i2 = 0, i3 = 0;
  // The nodes come sorted, so the node added last is close by.
  find_triangle(k - 1, tx[static_cast<std::size_t>(k - 1)], ty[static_cast<std::size_t>(k - 1)],
                tx, ty, adj, adj_end, i1, i2, i3);
  // Sound arithmetic gives three distinct vertices, or two distinct hull
  // nodes; anything else (overflowing coordinates) leaves the node out.
  const bool located = i3 == 0 ? (i1 != 0 && i2 != 0 && i1 != i2)
                               : (i1 != 0 && i1 != i2 && i2 != i3 && i1 != i3);
  if (!located) {
    status = tri_status::collinear;
    return;
  }
  status = tri_status::ok;
  if (i3 == 0)
    insert_boundary(k, i1, i2, adj, adj_end);
  else
    insert_interior(k, i1, i2, i3, adj, adj_end);

  // Restore the Delaunay property: test each arc opposite k.
  int32_t first = L.e(k - 1) + 1;
  const int32_t last = L.e(k);
  const int32_t nabor1 = L.a(first);
  int32_t io2 = nabor1;
  int32_t p = first + 1;
  int32_t io1 = L.a(p);
  for (;;) {
    const int32_t q = pos(L, io2, io1);
    int32_t in1 = 0;
    if (q != L.first(io2)) {
      in1 = L.a(q - 1);
    } else {
      in1 = L.a(L.e(io2));
    }
    if (in1 != 0 && in1 != k && swap_test(in1, k, io1, io2, tx, ty)) {
      swap_diagonal(in1, k, io1, io2, adj, adj_end);
      // k's list grew at its front end, its last position stays.
      io1 = in1;
      --p;
      --first;
      continue;
    }
    if (io1 == nabor1) return;
    io2 = io1;
    ++p;
    if (p > last) p = first;
    io1 = L.a(p);
    if (io1 == 0) return;
  }
}

void triangulate(int32_t n, std::span<const double> tx, std::span<const double> ty,
                 std::span<int32_t> adj, std::span<int32_t> adj_end, tri_status& status) {
  if (n < 3) {
    status = tri_status::too_few;
    return;
  }
  status = tri_status::ok;
  const lists L{adj, adj_end};
  auto X = [&](int32_t i) { return tx[static_cast<std::size_t>(i - 1)]; };
  auto Y = [&](int32_t i) { return ty[static_cast<std::size_t>(i - 1)]; };

  // Until a node off the line turns up, adj_end is the list of the collinear
  // nodes in their order along the line.
  L.e(1) = 1;
  L.e(2) = 2;
  double xl = X(1), yl = Y(1), xr = X(2), yr = Y(2);
  int32_t k = 2, km1 = 0;
  double dxr = xr - xl, dyr = yr - yl;
  for (;;) {
    if (k == n) {
      status = tri_status::collinear;
      return;
    }
    km1 = k;
    ++k;
    const double dxk = X(k) - xl, dyk = Y(k) - yl;
    const double cprod = dxr * dyk - dxk * dyr;
    if (cprod > 0.0) {
      // k left of the line: reverse it, so that k lies to the right.
      std::reverse(adj_end.begin(), adj_end.begin() + km1);
      break;
    }
    if (cprod < 0.0) break;
    const double sprod = dxr * dxk + dyr * dyk;
    if (sprod <= 0.0) {
      // Before the left end.
      shift_block(1, km1, 1, adj_end);
      L.e(1) = k;
      xl = X(k);
      yl = Y(k);
      dxr = xr - xl;
      dyr = yr - yl;
      continue;
    }
    bool placed = false;
    for (int32_t ind = 2; ind <= km1; ++ind) {
      const int32_t n0 = L.e(ind);
      if ((xl - X(n0)) * (X(k) - X(n0)) + (yl - Y(n0)) * (Y(k) - Y(n0)) >= 0.0) {
        shift_block(ind, km1, 1, adj_end);
        L.e(ind) = k;
        placed = true;
        break;
      }
    }
    if (placed) continue;  // the ends stay
    // Behind the right end.
    L.e(k) = k;
    xr = X(k);
    yr = Y(k);
    dxr = xr - xl;
    dyr = yr - yl;
  }

  // A fan from k over the line nodes 1..km1.
  const int32_t nl = L.e(1), nr = L.e(km1);
  for (int32_t ind = 1; ind <= km1; ++ind) {
    const int32_t n0 = L.e(ind);
    int32_t p = 4 * n0;
    if (n0 >= nl) --p;
    if (n0 >= nr) --p;
    L.a(p) = 0;
    --p;
    if (ind < km1) {
      L.a(p) = L.e(ind + 1);
      --p;
    }
    L.a(p) = k;
    if (ind > 1) L.a(p - 1) = L.e(ind - 1);
  }
  {
    int32_t p = 5 * km1 - 1;
    L.a(p) = 0;
    for (int32_t ind = 1; ind <= km1; ++ind) L.a(--p) = L.e(ind);
  }
  // True pointers in place of the line order.
  int32_t sum = 0;
  for (int32_t n0 = 1; n0 <= km1; ++n0) {
    sum += (n0 == nl || n0 == nr) ? 3 : 4;
    L.e(n0) = sum;
  }
  L.e(k) = sum + k;

  // With a triangle in place a node can't fail to go in, but for
  // coordinates whose arithmetic overflows: the nodes then can't be told
  // from a line.
  for (int32_t kk = k + 1; kk <= n; ++kk) {
    tri_status st = tri_status::ok;
    add_node(kk, tx, ty, adj, adj_end, st);
    if (st != tri_status::ok) {
      status = tri_status::collinear;
      return;
    }
  }
}

}  // namespace quolvent
