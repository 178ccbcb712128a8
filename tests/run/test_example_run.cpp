// Whole runs of the bundled example: the files the user gets, the log lines,
// and the matrix file read back by the tests' own reader and checked against
// rows computed here; a survey of a single datum likewise.
#include <gtest/gtest.h>

#include <cmath>
#include <regex>

#include "model/mesh.hpp"
#include "model/observations.hpp"
#include "support/matrix_reader.hpp"
#include "support/test_support.hpp"
#include "topo/ground.hpp"

using namespace quolvent;

namespace {

const std::string examples = std::string(QUOLVENT_SOURCE_DIR) + "/examples/";

// example_run: the bundled example run with 2 threads, the wavelet given and
// the diagnostic files, on the vector target named (the machine's best when
// empty); the files it wrote hold no NaN or Inf in any spelling.
struct example_run {
  qt::scratch_dir dir{"qexample"};
  std::string log;
  explicit example_run(const std::string& wavelet, const std::string& target = "") {
    qt::write_file(dir.file("run.inp"), examples + "mesh.txt\n" + examples + "obs.mag\n" +
                                            examples + "topo.txt\nVALUE 1.0\n" + wavelet +
                                            "\nnull\n1\n");
    const auto held = [&] { if (!target.empty()) setenv("QUOLVENT_VECTOR", target.c_str(), 1); };
    EXPECT_EQ(qt::start_program(dir.path.string(), {"run.inp", "2"}, held).wait().status, 0);
    log = qt::read_file(dir.file("quolvent.log"));
    static const std::regex bad("nan|inf", std::regex::icase);
    for (const auto& e : std::filesystem::directory_iterator(dir.path))
      if (e.path().extension() == ".txt" || e.path().extension() == ".log")
        EXPECT_FALSE(std::regex_search(qt::read_file(e.path()), bad)) << e.path();
  }
  bool has(const std::string& name) const { return std::filesystem::exists(dir.path / name); }
  double logged(const std::string& label) const {
    const std::size_t p = log.find(label);
    EXPECT_NE(p, std::string::npos) << label;
    return p == std::string::npos ? 0.0 : std::stod(log.substr(p + label.size(), 16));
  }
  // threshold: the estimated threshold of the block under the kind's heading, as printed.
  std::string threshold(const std::string& heading) const {
    const std::string label = "Estimated relative threshold:";
    const std::size_t p = log.find(label, log.find(heading));
    return p == std::string::npos || log.find(heading) == std::string::npos
               ? "" : log.substr(p + label.size(), 12);
  }
};

// digest: 64-bit FNV-1a of bytes.
uint64_t digest(const std::string& bytes) {
  uint64_t h = 14695981039346656037u;
  for (unsigned char c : bytes) h = (h ^ c) * 1099511628211u;
  return h;
}

}  // namespace

TEST(ExampleRun, UncompressedRowsMatchEachDatumsRow) {
  example_run r("NONE");
  EXPECT_TRUE(r.has("sensitivity.txt"));
  EXPECT_FALSE(r.has("sensitivity_compressed.txt") || r.has("data_compressed.txt"));
  EXPECT_NE(r.log.find("     TOTAL cpu time:"), std::string::npos);
  EXPECT_EQ(r.log.find("uncompress cpu time:"), std::string::npos);
  EXPECT_NE(r.log.find("        # of cells below topo:    9589\n"), std::string::npos);

  // The same model, read here, gives the rows the file must hold.
  qt::capture cap;
  const mesh_model mesh = read_mesh(examples + "mesh.txt");
  const obs_set obs = read_data_file(examples + "obs.mag");
  const std::vector<int32_t> top_index = read_topography(examples + "topo.txt", mesh, cap.out);
  const int32_t n = 9589;
  const auto recs = matrix_records(r.dir.file("dulmarok.mtx"));
  ASSERT_EQ(recs.size(), 7u + static_cast<std::size_t>(obs.ndata));
  const matrix_header h = header_of(recs);
  EXPECT_EQ(std::tuple(h.ndata, h.n, h.ny, h.nx, h.nz, h.nyp, h.nxp, h.nzp),
            std::tuple(obs.ndata, n, 30, 30, 15, 0, 0, 0));
  EXPECT_EQ(values_of<int32_t>(recs[2], 0, 900), top_index);
  for (int32_t i : {1, 200, 401, 403}) {
    const std::vector<double> g = qt::kernel_row(mesh, obs, top_index, i, cap.out);
    const std::string& row = recs[5 + static_cast<std::size_t>(i)];
    ASSERT_EQ(row.size(), 4u * n);
    const auto stored = values_of<float>(row, 0, static_cast<std::size_t>(n));
    for (int32_t k = 0; k < n; ++k) ASSERT_EQ(stored[k], static_cast<float>(g[k])) << i << " " << k;
  }
}

// On the portable vector target, whose arithmetic is the same on every
// x86-64 machine, the thresholds as printed, each under its own kind's label,
// and the matrix file are golden: they follow from the sample datum of each
// kind (the first of the data nearest the mesh centre where two are as near)
// and, in the last record, from the groups of 8 data of the sums.
TEST(ExampleRun, CompressedRunWritesEveryFileAndItsReport) {
  example_run r("daub2", "scalar");
  EXPECT_EQ(r.threshold("    Sensitivity of surface  data:"), "  1.2347E-02");
  EXPECT_EQ(r.threshold("    Sensitivity of borehole data:"), "  1.4925E-02");
#if defined(__x86_64__)
  EXPECT_EQ(digest(qt::read_file(r.dir.file("dulmarok.mtx"))), 0x9a325e39903a5997u);
#endif
  for (const char* f : {"dulmarok.mtx", "sensitivity.txt", "sensitivity_compressed.txt",
                        "data_notcompressed.txt", "data_compressed.txt"})
    EXPECT_TRUE(r.has(f)) << f;
  EXPECT_NE(r.log.find("uncompress cpu time:"), std::string::npos);
  const double ratio = r.logged("Compression   ratio:");
  EXPECT_GT(ratio, 1.0);
  EXPECT_LT(ratio / r.logged("Predicted compression  ratio:"), 2.0);
  EXPECT_GT(ratio / r.logged("Predicted compression  ratio:"), 0.5);
  EXPECT_GT(r.logged("achieved relative error:"), 0.0);
  EXPECT_LT(r.logged("achieved relative error:"), 0.1);
}

// A survey of one datum, scattered and on a cell centre (the regular-grid
// loop's kind of point): its one row record is that datum's row computed
// here, to the file's 32-bit rounding.
TEST(SmallRuns, OneDatumsMatrixIsItsRow) {
  for (const bool regular : {false, true}) {
    SCOPED_TRACE(regular);
    qt::scratch_dir d("qone");
    qt::write_flat_survey(d, 6, 5, 4, 1, regular, "NONE");
    ASSERT_EQ(qt::run_program(d.path.string(), {"run.inp", "2"}).status, 0);
    qt::capture cap;
    const mesh_model mesh = read_mesh(d.file("mesh.txt"));
    const obs_set obs = read_data_file(d.file("obs.mag"));
    const std::size_t n = 6 * 5 * 4;
    const std::vector<double> g =
        qt::kernel_row(mesh, obs, std::vector<int32_t>(6 * 5, 0), 1, cap.out);
    const auto recs = matrix_records(d.file("dulmarok.mtx"));
    ASSERT_EQ(recs.size(), 8u);
    ASSERT_EQ(recs[6].size(), 4 * n);
    const auto stored = values_of<float>(recs[6], 0, n);
    double top = 0.0;
    for (double v : g) top = std::max(top, std::fabs(v));
    for (std::size_t k = 0; k < n; ++k) EXPECT_NEAR(stored[k], g[k], 1e-6 * top) << k;
  }
}
