// Checks of a finished triangulation by its properties, for the topography
// tests: list shape, orientation, symmetry, fill level, empty circumcircles.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace tt {

// A node set with the triangulation arrays sized for it.
struct net {
  std::vector<double> x, y, z;
  std::vector<int32_t> adj, adj_end;
  int32_t status = -99;
  int32_t n() const { return static_cast<int32_t>(x.size()); }
};

// build: sort (when asked) and triangulate the nodes of t.
void build(net& t, bool sort = true);

// check_triangulation: an empty text when every property holds, else the
// first violation found. exact: circumcircles tested without tolerance.
std::string check_triangulation(const net& t, bool exact);

// hull_count: nodes whose list ends in 0.
int32_t hull_count(const net& t);

// neighbours: node k's list (1-based node numbers, 0 kept).
std::vector<int32_t> neighbours(const net& t, int32_t k);

// random_net: n distinct uniform points in [0, 1)^2.
net random_net(int32_t n, uint32_t seed);

}  // namespace tt
