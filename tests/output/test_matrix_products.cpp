// The products of a stored matrix over blocks of columns, against the rows
// the reader gives back one at a time and against single products, on any
// number of threads: compressed over hills (inactive cells, symm4, a
// weighting file) and uncompressed.
#include <gtest/gtest.h>

#include <omp.h>

#include <cmath>
#include <vector>

#include "output/matrix_reader.hpp"
#include "support/layout_runs.hpp"
#include "support/matrix_reader.hpp"

using namespace quolvent;

namespace {

// largest_gap: the largest |a - b| over the largest |b|.
double largest_gap(const std::vector<double>& a, const std::vector<double>& b) {
  double gap = 0.0, top = 0.0;
  for (std::size_t k = 0; k < b.size(); ++k)
    gap = std::fmax(gap, std::fabs(a[k] - b[k])), top = std::fmax(top, std::fabs(b[k]));
  return gap / top;
}

// column: column j of a block of rows x k values.
std::vector<double> column(const std::vector<double>& block, std::size_t k, std::size_t j) {
  std::vector<double> c(block.size() / k);
  for (std::size_t r = 0; r < c.size(); ++r) c[r] = block[r * k + j];
  return c;
}

}  // namespace

TEST(MatrixProducts, BlocksAgainstRowsSingleProductsAndThreadCounts) {
  const int saved = omp_get_max_threads();
  for (const int survey : {0, 1}) {  // scattered_symm4, scattered_none
    const qt::layout_survey s = qt::layout_surveys()[static_cast<std::size_t>(survey)];
    SCOPED_TRACE(s.name);
    qt::scratch_dir dir("qproducts");
    qt::write_layout_survey(dir, s);
    ASSERT_EQ(qt::run_program(dir.path.string(), {"run.inp", "2"}).status, 0);
    const stored_matrix m(dir.file("dulmarok.mtx"));
    const std::size_t n = static_cast<std::size_t>(m.contents().n);
    const std::size_t ndata = static_cast<std::size_t>(m.contents().ndata);
    // The fields a caller reads, against the tests' own reader of the file.
    const std::vector<std::string> recs = matrix_records(dir.file("dulmarok.mtx"));
    const matrix_header h = header_of(recs);
    EXPECT_EQ(m.contents().ndata, h.ndata);
    EXPECT_EQ(m.contents().n, h.n);
    EXPECT_EQ(m.contents().padded_nz, h.nzp);
    EXPECT_EQ(m.contents().flag, values_of<int32_t>(recs[5], 0, 1)[0]);
    EXPECT_TRUE(m.contents().weights == values_of<double>(recs[5], 4, n));
    std::vector<std::vector<double>> rows;
    for (std::size_t i = 0; i < ndata; ++i) rows.push_back(m.row(static_cast<int32_t>(i)));
    // Eleven columns: a group of eight and one of three, its cubes four wide.
    for (const std::size_t k : {std::size_t{1}, std::size_t{8}, std::size_t{11}}) {
      SCOPED_TRACE(k);
      std::vector<double> x(n * k), v(ndata * k);
      for (std::size_t p = 0; p < x.size(); ++p) x[p] = std::cos(0.37 * p * p) + 0.5;
      for (std::size_t p = 0; p < v.size(); ++p) v[p] = std::sin(1.13 * p * p);
      omp_set_num_threads(1);
      const std::vector<double> d = m.dot_block(x.data(), static_cast<int32_t>(k));
      const std::vector<double> g = m.rdot_block(v.data(), static_cast<int32_t>(k));
      for (const int threads : {2, 3}) {
        omp_set_num_threads(threads);
        EXPECT_TRUE(m.dot_block(x.data(), static_cast<int32_t>(k)) == d) << threads;
        EXPECT_TRUE(m.rdot_block(v.data(), static_cast<int32_t>(k)) == g) << threads;
      }
      for (std::size_t j = 0; j < k; ++j) {
        // The rows as the reader gives them back, summed here in long double.
        std::vector<double> by_rows(ndata), by_columns(n);
        for (std::size_t i = 0; i < ndata; ++i) {
          long double sd = 0.0L;
          for (std::size_t c = 0; c < n; ++c) sd += static_cast<long double>(rows[i][c]) * x[c * k + j];
          by_rows[i] = static_cast<double>(sd);
        }
        for (std::size_t c = 0; c < n; ++c) {
          long double sg = 0.0L;
          for (std::size_t i = 0; i < ndata; ++i) sg += static_cast<long double>(rows[i][c]) * v[i * k + j];
          by_columns[c] = static_cast<double>(sg);
        }
        EXPECT_LT(largest_gap(column(d, k, j), by_rows), 1e-10) << j;
        EXPECT_LT(largest_gap(column(g, k, j), by_columns), 1e-10) << j;
        // A block's column is the single product of that column: the same
        // sums in the same order but for the uncompressed G x, whose single
        // product keeps eight partial sums.
        const std::vector<double> single = m.dot(column(x, k, j));
        if (m.contents().compressed())
          EXPECT_TRUE(column(d, k, j) == single) << j;
        else
          EXPECT_LT(largest_gap(column(d, k, j), single), 1e-12) << j;
        EXPECT_TRUE(column(g, k, j) == m.rdot(column(v, k, j))) << j;
      }
    }
  }
  omp_set_num_threads(saved);
}
