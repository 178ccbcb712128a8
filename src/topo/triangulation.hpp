// Delaunay triangulation of scattered plan positions, built incrementally and
// in place in two integer arrays.
//
// Numbering: node numbers and positions in `adj` are 1-based values, as the
// lists themselves store them (0 is the hull mark). Storage is 0-based: node
// k's coordinates are tx[k-1], ty[k-1]; position p of the lists is adj[p-1];
// adj_end[k-1] holds the position of the last entry of node k's list.
//
// The triangulation:
//  - adj: the neighbour lists of nodes 1..n, one behind the other in node
//    order, without gaps. Node 1's list starts at position 1, node k's at
//    adj_end(k-1) + 1. Capacity 6n - 9 for n nodes.
//  - Each list holds the node's neighbours counterclockwise. An interior
//    node's list is cyclic. A hull node's list ends in 0: its first entry is
//    the next hull node counterclockwise, the entry before the 0 the next one
//    clockwise. Adjacent entries form a triangle with the node.
//  - For n nodes with h of them on the hull, adj holds 6n - 6 - h entries.
//
// Every decision is the sign of an expression of the coordinates, compared
// with 0.0 exactly: no tolerance, no perturbation. Coincident nodes must be
// refused by the caller before the triangulation is built.
#pragma once

#include <cstdint>
#include <span>

namespace quolvent {

// tri_status: the outcome of building a triangulation or adding a node.
enum class tri_status {
  ok,         // built
  too_few,    // fewer than three nodes
  collinear,  // every node on one line (or one that can't be placed)
};

// order_nodes
//   Given:   n, the number of arrays to permute nar (1: x alone, 2: x and y,
//            3: x, y and z), the key array x, the further arrays y, z, and an
//            integer workspace ind of n entries.
//   Returns: x sorted ascending, y and z permuted alike; ind holds the
//            permutation (ind(i): the old place of the value now at i). For
//            nar < 1 or n < 2 the arrays stay as they are.
//   Fails:   never.
void order_nodes(int32_t n, int32_t nar, std::span<double> x, std::span<double> y,
                 std::span<double> z, std::span<int32_t> ind);

// sort_index
//   Given:   n, the keys x, an integer array ind of n entries.
//   Returns: ind, a permutation of 1..n with x(ind(1)) <= x(ind(2)) <= ...;
//            the keys are untouched.
//   Fails:   never.
void sort_index(int32_t n, std::span<const double> x, std::span<int32_t> ind);

// triangulate
//   Given:   n nodes tx, ty (sorted on tx, for short walks), adj of 6n - 9
//            entries, adj_end of n.
//   Returns: adj, adj_end filled and status ok; too_few for n < 3 (arrays
//            untouched); collinear when all nodes are on one line (adj_end
//            then holds the nodes in their order along the line, adj is
//            untouched).
//   Fails:   by status alone; collinear also when a node can't be located
//            because the arithmetic of the coordinates overflows (the arrays
//            are then partly built and of no use).
void triangulate(int32_t n, std::span<const double> tx, std::span<const double> ty,
                 std::span<int32_t> adj, std::span<int32_t> adj_end, tri_status& status);

// add_node
//   Given:   node k and the triangulation of nodes 1..k-1.
//   Returns: the triangulation of nodes 1..k, Delaunay again around k, and
//            status ok.
//   Fails:   status collinear, nothing changed, when nodes 1..k are all on
//            one line.
void add_node(int32_t k, std::span<const double> tx, std::span<const double> ty,
              std::span<int32_t> adj, std::span<int32_t> adj_end, tri_status& status);

// insert_interior
//   Given:   node k inside the counterclockwise triangle (i1, i2, i3) of the
//            triangulation of nodes 1..k-1.
//   Returns: k joined to the three vertices; k's list i1, i2, i3 at the end
//            of adj.
//   Fails:   never.
void insert_interior(int32_t k, int32_t i1, int32_t i2, int32_t i3, std::span<int32_t> adj,
                     std::span<int32_t> adj_end);

// insert_boundary
//   Given:   node k outside the hull of nodes 1..k-1, i1 the rightmost and i2
//            the leftmost hull node visible from k.
//   Returns: k joined to i1, i2 and every hull node between them, which
//            become interior.
//   Fails:   never.
void insert_boundary(int32_t k, int32_t i1, int32_t i2, std::span<int32_t> adj,
                     std::span<int32_t> adj_end);

// swap_test
//   Given:   the nodes in1, k, out1, out2, with (in1, out1, out2) and
//            (k, out2, out1) counterclockwise triangles on either side of the
//            arc out1-out2.
//   Returns: true when the two angles opposite that arc sum to more than 180
//            degrees, so that the arc in1-k is to replace it; four nodes on one
//            circle keep the arc.
//   Fails:   never.
bool swap_test(int32_t in1, int32_t k, int32_t out1, int32_t out2, std::span<const double> tx,
               std::span<const double> ty);

// swap_diagonal
//   Given:   the arc out1-out2 of the quadrilateral in1, out1, in2, out2, with
//            (in1, out1, out2) counterclockwise.
//   Returns: the arc replaced by in1-in2; adj keeps its length, and only the
//            stretches between the removals and the insertions move.
//   Fails:   never.
void swap_diagonal(int32_t in1, int32_t in2, int32_t out1, int32_t out2, std::span<int32_t> adj,
                   std::span<int32_t> adj_end);

// list_index
//   Given:   node v and its neighbour b.
//   Returns: the position of b in v's list, searched backward from adj_end(v).
//   Fails:   a b missing from the list means broken lists: an internal check
//            stops the run with a text.
int32_t list_index(int32_t v, int32_t b, std::span<const int32_t> adj,
                   std::span<const int32_t> adj_end);

// shift_block
//   Given:   positions first..last of array a and a distance k.
//   Returns: those entries moved by k places (k > 0 toward higher positions),
//            copied in the direction that never overwrites its own source;
//            nothing for k = 0 or first > last.
//   Fails:   never.
void shift_block(int32_t first, int32_t last, int32_t k, std::span<int32_t> a);

}  // namespace quolvent
