// The row errors of the compression report against the stored rows: a whole
// run on a generated survey with a borehole, its matrix file read back by
// the tests' own reader, each row computed again, divided by the weighting
// of the file and transformed; what its record leaves out (the coefficients
// it lacks, the rounding of those it holds) measured in the wavelet domain,
// and the records' counts against the logged number of non-zeros.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <regex>
#include <sstream>

#include "model/active_cells.hpp"
#include "model/mesh.hpp"
#include "model/model.hpp"
#include "model/observations.hpp"
#include "support/matrix_reader.hpp"
#include "support/test_support.hpp"
#include "wavelet/compression.hpp"
#include "wavelet/wtn_mod.hpp"

using namespace quolvent;

namespace {

// write_survey: a 10 x 8 x 6 mesh of uneven widths under a sloping ground,
// a grid of surface data above it and a borehole of five data below it,
// and a weighting that varies from cell to cell.
void write_survey(const qt::scratch_dir& dir, const std::string& wavelet) {
  qt::write_file(dir.file("mesh.txt"),
                 "10 8 6\n500.0 1200.0 100.0\n2*30.0 6*20.0 2*30.0\n8*25.0\n2*5.0 2*10.0 2*20.0\n");
  std::ostringstream obs;
  obs << "60.0 12.0 51000.0\n60.0 12.0 1\n" << 6 * 5 + 5 << "\n";
  for (int j = 0; j < 5; ++j)
    for (int i = 0; i < 6; ++i) obs << 530.0 + 37.0 * i << " " << 1215.0 + 41.0 * j << " 104.0\n";
  for (int k = 0; k < 5; ++k) obs << "613.0 1287.0 " << 93.0 - 11.0 * k << "\n";
  qt::write_file(dir.file("obs.mag"), obs.str());
  // A plane falling to the east, from 100 to about 92 over the mesh.
  std::ostringstream topo;
  topo << "! a slope\n5\n";
  for (double x : {400.0, 800.0})
    for (double y : {1100.0, 1500.0}) topo << x << " " << y << " " << 102.0 - 0.02 * (x - 500.0) << "\n";
  topo << "600.0 1300.0 " << 102.0 - 0.02 * 100.0 << "\n";
  qt::write_file(dir.file("topo.txt"), topo.str());
  std::ostringstream w;
  for (int c = 0; c < 10 * 8 * 6; ++c) w << 0.5 + 0.01 * ((c * 37) % 151) << "\n";
  qt::write_file(dir.file("w.txt"), w.str());
  qt::write_file(dir.file("run.inp"), "mesh.txt\nobs.mag\ntopo.txt\nw.txt\n" + wavelet + "\n1 0.05\n0\n");
}

// logged: the number after label on its line of the log.
double logged(const std::string& log, const std::string& label) {
  const std::size_t p = log.find(label);
  EXPECT_NE(p, std::string::npos) << label;
  return p == std::string::npos ? -1.0 : std::stod(log.substr(p + label.size(), 12));
}

// within_print: v printed with 4 decimals behind its first digit reads as
// shown, up to the rounding of that last digit.
void expect_printed(double shown, double v, const std::string& what) {
  const double unit = (v > 0.0) ? std::pow(10.0, std::floor(std::log10(v)) - 4) : 1e-300;
  EXPECT_LE(std::fabs(shown - v), 0.5 * unit * (1 + 1e-9) + 1e-6 * v) << what << ": " << v;
}

}  // namespace

TEST(RowError, LogLinesAgreeWithTheStoredRows) {
  for (const char* wavelet : {"daub2", "symm5"}) {
    SCOPED_TRACE(wavelet);
    qt::scratch_dir dir("qrowerr");
    write_survey(dir, wavelet);
    const qt::program_run run = qt::run_program(dir.path.string(), {"run.inp", "2"});
    ASSERT_EQ(run.status, 0);
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
    ASSERT_EQ(ndata, 35);
    ASSERT_EQ(recs.size(), 7u + static_cast<std::size_t>(ndata));
    const std::vector<int32_t> top = values_of<int32_t>(recs[2], 0, 80);
    const int32_t ncof = values_of<int32_t>(recs[3], 0, 1)[0];
    ASSERT_GT(ncof, 0);
    const std::vector<double> wtz = values_of<double>(recs[5], 4, static_cast<std::size_t>(n));

    // The mesh and the data as the program reads them; the transform of
    // the file's filter over the cube of the file's extents.
    const run_log quiet(nullptr);
    const mesh_model mesh = read_mesh(dir.file("mesh.txt"));
    const obs_set obs = read_data_file(dir.file("obs.mag"));
    const active_cells cells = get_active_cells("null", mesh, top, quiet);
    ASSERT_EQ(cells.nactive, n);
    compression cmp;
    cmp.compressed = true, cmp.ncof = ncof;
    cmp.filter = values_of<double>(recs[3], 4, static_cast<std::size_t>(ncof));
    cmp.flt = set_filters(cmp.filter, ncof);
    set_padded_extents(mesh, cmp);
    EXPECT_EQ(values_of<int32_t>(recs[4], 0, 3), (std::vector<int32_t>{cmp.nyp, cmp.nxp, cmp.nzp}));

    line_buffers lb;
    std::vector<double> cube(static_cast<std::size_t>(cmp.ncube));
    double sum = 0.0, worst = 0.0;
    int64_t total = 0;
    for (int32_t i = 1; i <= ndata; ++i) {
      const std::size_t d = static_cast<std::size_t>(i - 1);
      std::vector<double> g = qt::kernel_row(mesh, obs, top, i, quiet);
      for (int32_t k = 0; k < n; ++k) g[k] /= wtz[k];
      row_to_cube(cmp, cells, g.data(), n, cube.data());
      transform_cube(cmp, cube.data(), +1, lb);
      const std::string& rec = recs[6 + d];
      const int32_t nnz = values_of<int32_t>(rec, 0, 1)[0];
      ASSERT_EQ(rec.size(), 4u + 8u * static_cast<std::size_t>(nnz));
      const auto idx = values_of<int32_t>(rec, 4, static_cast<std::size_t>(nnz));
      for (int32_t k = 1; k < nnz; ++k) ASSERT_GT(idx[k], idx[k - 1]) << i;
      total += nnz;
      const auto val = values_of<float>(rec, 4 + 4 * static_cast<std::size_t>(nnz),
                                        static_cast<std::size_t>(nnz));
      // Every place the record lacks is dropped; those it has, rounded.
      std::vector<double> stored(cube.size(), 0.0);
      for (int32_t k = 0; k < nnz; ++k) stored.at(static_cast<std::size_t>(idx[k] - 1)) = val[k];
      double energy = 0.0, lost = 0.0;
      for (std::size_t p = 0; p < cube.size(); ++p)
        energy += cube[p] * cube[p], lost += (cube[p] - stored[p]) * (cube[p] - stored[p]);
      ASSERT_GT(energy, 0.0) << i;
      const double e = std::sqrt(lost / energy);
      sum += e, worst = std::fmax(worst, e);
    }
    const double mean = sum / ndata;
    EXPECT_GT(worst, 1e-3);  // something was dropped: the lines measure a real error
    expect_printed(logged(log, "mean relative row error:"), mean, "mean");
    expect_printed(logged(log, "max relative row error:"), worst, "max");
    EXPECT_EQ(logged(log, "Number of non-zeros:"), static_cast<double>(total));
  }
}
