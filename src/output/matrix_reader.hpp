// Reading the matrix file back: every record checked against the sizes of
// the first, and the matrix applied as it is stored (compressed rows through
// the wavelet transform), never made dense unless asked.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "model/model.hpp"
#include "wavelet/compression.hpp"

namespace quolvent {

// format_error: the file is not a whole matrix file; what() names the record
// (1-based, in file order) and what is wrong with it.
class format_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// matrix_contents: the records of a matrix file, as written.
struct matrix_contents {
  int32_t ndata = 0, n = 0;
  mesh_model mesh;                 // counts, nodes, widths (from the nodes), z0
  std::vector<int32_t> top_index;  // ny x nx, iy fastest
  std::vector<double> filter;      // filter_length coefficients; empty without compression
  int32_t padded_ny = 0, padded_nx = 0, padded_nz = 0;
  int32_t flag = 0;
  std::vector<double> weights;           // n
  std::vector<compressed_row> rows;      // ndata records when compressed
  std::vector<float> full;               // n x ndata, row i at [i*n], when not
  std::vector<double> squared_sensitivity;  // n
  bool compressed() const { return !filter.empty(); }
};

// read_matrix_file
//   Given:   the path of a matrix file.
//   Returns: its records.
//   Fails:   a file that can't be opened, a frame whose markers disagree or
//            run past the end, a record of another length than the sizes of
//            record 1 give, counts out of range, positions of a compressed row
//            outside the cube or not ascending, bytes after the last record:
//            format_error naming the record. Nothing is allocated beyond what
//            the file itself holds.
matrix_contents read_matrix_file(const std::string& path);

// stored_matrix: a matrix file ready to apply. G is the sensitivity matrix,
// ndata x n; the file keeps each row divided by the cell weights, and, when
// compressed, as the kept coefficients of its wavelet transform.
class stored_matrix {
 public:
  // Fails: as read_matrix_file; a top_index that doesn't leave n cells below
  // the ground is a format_error of record 3.
  explicit stored_matrix(const std::string& path);

  const matrix_contents& contents() const { return m_; }
  const active_cells& cells() const { return cells_; }
  int64_t nnz() const;

  // row: row i (0-based) of G, n values: decompressed and times weights.
  std::vector<double> row(int32_t i) const;
  // dot: G model, ndata values (model: n values).
  std::vector<double> dot(const std::vector<double>& model) const;
  // rdot: G^T v, n values (v: ndata values).
  std::vector<double> rdot(const std::vector<double>& v) const;
  // dot_block: G X for k models at once, X n x k (cell c of model j at
  //   [c * k + j]); ndata x k values, datum i of model j at [i * k + j].
  //   The stored rows are read once for all k.
  std::vector<double> dot_block(const double* models, int32_t k) const;
  // rdot_block: G^T V for k vectors, V ndata x k as dot_block's result;
  //   n x k values laid out as dot_block's models.
  std::vector<double> rdot_block(const double* v, int32_t k) const;
  // dense: G, ndata x n 32-bit floats, row i at [i*n].
  std::vector<float> dense() const;

 private:
  matrix_contents m_;
  active_cells cells_;
  compression c_;
};

}  // namespace quolvent
