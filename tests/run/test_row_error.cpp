// The row errors of the compression report against the stored rows, over
// hills with boreholes (symm4) and over flat ground (daub2): each row computed
// again, and the row its record gives back read through the matrix reader;
// the header read field by field by the tests' own reader.
// The exact lines against the rows they name; the bound lines against what
// each record leaves out in the wavelet domain, over every row.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <tuple>
#include <regex>

#include "model/active_cells.hpp"
#include "model/mesh.hpp"
#include "model/observations.hpp"
#include "output/matrix_reader.hpp"
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

// norm_ratio: |a - b| / |a|.
double norm_ratio(const std::vector<double>& a, const std::vector<double>& b) {
  double energy = 0.0, lost = 0.0;
  for (std::size_t k = 0; k < a.size(); ++k)
    energy += a[k] * a[k], lost += (a[k] - b[k]) * (a[k] - b[k]);
  return std::sqrt(lost / energy);
}

}  // namespace

TEST(RowError, LogLinesAgreeWithTheStoredRows) {
  for (const bool hills : {true, false}) {
    SCOPED_TRACE(hills ? "hills and boreholes, symm4" : "flat ground, daub2");
    qt::scratch_dir dir("qrowerr");
    if (hills)
      qt::write_layout_survey(dir, qt::layout_surveys()[0]);
    else
      qt::write_flat_survey(dir, 24, 14, 6, 40, false, "daub2");  // padded 16 x 32 x 8
    ASSERT_EQ(qt::run_program(dir.path.string(), {"run.inp", "2"}).status, 0);
    const std::string log = qt::read_file(dir.file("quolvent.log"));
    const run_log quiet(nullptr);
    const mesh_model mesh = read_mesh(dir.file("mesh.txt"));
    const obs_set obs = read_data_file(dir.file("obs.mag"));
    // The header read field by field by the tests' reader, ahead of the
    // program's: the mesh file's mesh, each padded extent the smallest power
    // of two not below its count.
    const matrix_header h = header_of(matrix_records(dir.file("dulmarok.mtx")));
    EXPECT_EQ(std::tuple(h.ndata, h.ny, h.nx, h.nz, h.yn, h.xn, h.zn, h.z0),
              std::tuple(obs.ndata, mesh.ny, mesh.nx, mesh.nz, mesh.yn, mesh.xn, mesh.zn, mesh.z0));
    const auto pow2 = [](int32_t v) { return static_cast<int32_t>(std::bit_ceil(unsigned(v))); };
    EXPECT_EQ(std::tuple(h.nyp, h.nxp, h.nzp), std::tuple(pow2(mesh.ny), pow2(mesh.nx), pow2(mesh.nz)));
    const stored_matrix m(dir.file("dulmarok.mtx"));
    const matrix_contents& mc = m.contents();
    const int32_t ndata = mc.ndata, n = mc.n, measured = (ndata + 31) / 32;
    ASSERT_EQ(std::tuple(ndata, n), std::tuple(hills ? 72 : 40, h.n));
    // The lines right after the error of the test model's data, each saying what it is.
    const std::string exact = "  exact, " + std::to_string(measured) + " of " +
                              std::to_string(ndata) + " rows\n",
                      every = "  all " + std::to_string(ndata) + " rows\n";
    const std::regex lines("      mean relative row error:  [0-9.E+-]{10}" + exact +
                           "       max relative row error:  [0-9.E+-]{10}" + exact +
                           "      mean bound on row error:  [0-9.E+-]{10}" + every +
                           "       max bound on row error:  [0-9.E+-]{10}" + every + "\n");
    ASSERT_TRUE(std::regex_search(log, lines)) << log;

    // The transform of the file's filter over the cube of the file's extents.
    compression cmp{.compressed = true, .filter_length = static_cast<int32_t>(mc.filter.size())};
    cmp.filter = mc.filter;
    cmp.filters = set_filters(cmp.filter, cmp.filter_length);
    set_padded_extents(mesh, cmp);
    line_buffers lb;
    std::vector<double> cube(static_cast<std::size_t>(cmp.cube_size));
    double exact_sum = 0.0, exact_max = 0.0, bound_sum = 0.0, bound_max = 0.0;
    for (int32_t i = 1; i <= ndata; ++i) {
      std::vector<double> g = qt::kernel_row(mesh, obs, mc.top_index, i, quiet);
      std::vector<double> back = m.row(i - 1);
      for (int32_t k = 0; k < n; ++k) g[k] /= mc.weights[k], back[k] /= mc.weights[k];
      if ((i - 1) % 32 == 0) {
        const double e = norm_ratio(g, back);
        exact_sum += e, exact_max = std::fmax(exact_max, e);
      }
      // Every place the record lacks is dropped; those it has, rounded.
      row_to_cube(cmp, m.cells(), g.data(), n, cube.data());
      transform_cube(cmp, cube.data(), +1, lb);
      std::vector<double> stored(cube.size(), 0.0);
      const compressed_row& rec = mc.rows[static_cast<std::size_t>(i - 1)];
      for (std::size_t k = 0; k < rec.idx.size(); ++k)
        stored.at(static_cast<std::size_t>(rec.idx[k] - 1)) = rec.val[k];
      const double b = norm_ratio(cube, stored);
      bound_sum += b, bound_max = std::fmax(bound_max, b);
    }
    EXPECT_GT(exact_max, 1e-3);  // something was dropped: the lines measure a real error
    const auto expect_shown = [&](const char* label, double v) {
      EXPECT_NEAR(logged(log, label), v, 1e-3 * v) << label;
    };
    expect_shown("mean relative row error:", exact_sum / measured);
    expect_shown("max relative row error:", exact_max);
    expect_shown("mean bound on row error:", bound_sum / ndata);
    expect_shown("max bound on row error:", bound_max);
    EXPECT_LT(exact_max, bound_max);
    EXPECT_EQ(logged(log, "Number of non-zeros:"), static_cast<double>(m.nnz()));
  }
}
