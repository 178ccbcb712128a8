// The row errors of the compression report against the stored rows: a whole
// run over hills with boreholes, its matrix file read back by the tests' own
// reader, each row computed again, divided by the file's weighting and
// transformed; what its record leaves out (the coefficients it lacks, the
// rounding of the rest) measured in the wavelet domain, and its counts
// against the non-zeros.
#include <gtest/gtest.h>

#include <cmath>
#include <regex>

#include "model/active_cells.hpp"
#include "model/mesh.hpp"
#include "model/observations.hpp"
#include "support/layout_runs.hpp"
#include "support/matrix_reader.hpp"
#include "wavelet/transform.hpp"

using namespace quolvent;

namespace {

// logged: the number after label on its line of the log.
double logged(const std::string& log, const std::string& label) {
  const std::size_t p = log.find(label);
  EXPECT_NE(p, std::string::npos) << label;
  return p == std::string::npos ? -1.0 : std::stod(log.substr(p + label.size(), 12));
}

// expect_printed: shown is v with 4 decimals behind its first digit.
void expect_printed(double shown, double v, const std::string& what) {
  const double unit = std::pow(10.0, std::floor(std::log10(v)) - 4);
  EXPECT_LE(std::fabs(shown - v), 0.5 * unit * (1 + 1e-9) + 1e-6 * v) << what << ": " << v;
}

}  // namespace

TEST(RowError, LogLinesAgreeWithTheStoredRows) {
  qt::scratch_dir dir("qrowerr");
  qt::write_layout_survey(dir, qt::layout_surveys()[0]);
  ASSERT_EQ(qt::run_program(dir.path.string(), {"run.inp", "2"}).status, 0);
  const std::string log = qt::read_file(dir.file("quolvent.log"));
  ASSERT_NE(log.find("Sensitivity of borehole data:"), std::string::npos) << log;
  // The two lines right after the error of the test model's data.
  static const std::regex after(
      "      achieved relative error:  [0-9.E+-]{10}\n"
      "      mean relative row error:  [0-9.E+-]{10}\n"
      "       max relative row error:  [0-9.E+-]{10}\n\n");
  ASSERT_TRUE(std::regex_search(log, after)) << log;

  // The matrix file: sizes, mesh, tops, filter, padded extents, weighting, rows.
  const std::vector<std::string> recs = matrix_records(dir.file("dulmarok.mtx"));
  const auto sizes = values_of<int32_t>(recs.at(0), 0, 5);
  const int32_t ndata = sizes[0], n = sizes[1];
  ASSERT_EQ(ndata, 72);
  ASSERT_EQ(recs.size(), 7u + static_cast<std::size_t>(ndata));
  const std::vector<int32_t> top = values_of<int32_t>(recs[2], 0, 14 * 12);
  const int32_t filter_length = values_of<int32_t>(recs[3], 0, 1)[0];
  const std::vector<double> weights = values_of<double>(recs[5], 4, static_cast<std::size_t>(n));

  // The mesh and data as the program reads them; the transform of the file's
  // filter over the cube of the file's extents.
  const run_log quiet(nullptr);
  const mesh_model mesh = read_mesh(dir.file("mesh.txt"));
  const obs_set obs = read_data_file(dir.file("obs.mag"));
  const active_cells cells = get_active_cells("null", mesh, top, quiet);
  ASSERT_EQ(cells.nactive, n);
  compression cmp{.compressed = true, .filter_length = filter_length};
  cmp.filter = values_of<double>(recs[3], 4, static_cast<std::size_t>(filter_length));
  cmp.filters = set_filters(cmp.filter, filter_length);
  set_padded_extents(mesh, cmp);
  EXPECT_EQ(values_of<int32_t>(recs[4], 0, 3),
            (std::vector<int32_t>{cmp.padded_ny, cmp.padded_nx, cmp.padded_nz}));

  line_buffers lb;
  std::vector<double> cube(static_cast<std::size_t>(cmp.cube_size));
  double sum = 0.0, worst = 0.0;
  int64_t total = 0;
  for (int32_t i = 1; i <= ndata; ++i) {
    std::vector<double> g = qt::kernel_row(mesh, obs, top, i, quiet);
    for (int32_t k = 0; k < n; ++k) g[k] /= weights[k];
    row_to_cube(cmp, cells, g.data(), n, cube.data());
    transform_cube(cmp, cube.data(), +1, lb);
    const std::string& rec = recs[5 + static_cast<std::size_t>(i)];
    const auto nnz = static_cast<std::size_t>(values_of<int32_t>(rec, 0, 1)[0]);
    ASSERT_EQ(rec.size(), 4u + 8u * nnz);
    const auto idx = values_of<int32_t>(rec, 4, nnz);
    const auto val = values_of<float>(rec, 4 + 4 * nnz, nnz);
    total += static_cast<int64_t>(nnz);
    // Every place the record lacks is dropped; those it has, rounded.
    std::vector<double> stored(cube.size(), 0.0);
    for (std::size_t k = 0; k < nnz; ++k) {
      if (k > 0) ASSERT_GT(idx[k], idx[k - 1]) << i;
      stored.at(static_cast<std::size_t>(idx[k] - 1)) = val[k];
    }
    double energy = 0.0, lost = 0.0;
    for (std::size_t p = 0; p < cube.size(); ++p)
      energy += cube[p] * cube[p], lost += (cube[p] - stored[p]) * (cube[p] - stored[p]);
    const double e = std::sqrt(lost / energy);
    sum += e, worst = std::fmax(worst, e);
  }
  EXPECT_GT(worst, 1e-3);  // something was dropped: the lines measure a real error
  expect_printed(logged(log, "mean relative row error:"), sum / ndata, "mean");
  expect_printed(logged(log, "max relative row error:"), worst, "max");
  EXPECT_EQ(logged(log, "Number of non-zeros:"), static_cast<double>(total));
}
