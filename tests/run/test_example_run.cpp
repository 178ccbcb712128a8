// Whole runs of the bundled example in a temporary directory: the files the
// user gets, the log lines, and the matrix file read back by a reader of its
// own and checked against rows computed here.
#include <gtest/gtest.h>

#include <regex>

#include "model/mesh.hpp"
#include "model/model.hpp"
#include "model/observations.hpp"
#include "support/matrix_reader.hpp"
#include "support/test_support.hpp"
#include "topo/ground.hpp"

using namespace quolvent;

namespace {

const std::string examples = std::string(QUOLVENT_SOURCE_DIR) + "/examples/";

// example_control: the bundled example's control file with its paths made
// absolute, and the wavelet, eps line and last line given.
std::string example_control(const std::string& wavelet, const std::string& eps, int diag) {
  return examples + "mesh.txt\n" + examples + "obs.mag\n" + examples + "topo.txt\nVALUE 1.0\n" +
         wavelet + "\n" + eps + "\n" + std::to_string(diag) + "\n";
}

struct example_run {
  qt::scratch_dir dir{"qexample"};
  qt::program_run run;
  std::string log;
  example_run(const std::string& control, const std::string& threads) {
    qt::write_file(dir.file("run.inp"), control);
    run = qt::run_program(dir.path.string(), {"run.inp", threads});
    log = qt::read_file(dir.file("quolvent.log"));
  }
  bool has(const std::string& name) const { return std::filesystem::exists(dir.path / name); }
};

// expect_finite_text: a text file holds no NaN or Inf in any spelling.
void expect_finite_text(const std::string& path) {
  const std::string text = qt::read_file(path);
  static const std::regex bad("nan|inf", std::regex::icase);
  EXPECT_FALSE(std::regex_search(text, bad)) << path;
}

double log_value(const std::string& log, const std::string& label) {
  const std::size_t p = log.find(label);
  EXPECT_NE(p, std::string::npos) << label;
  if (p == std::string::npos) return 0.0;
  return std::stod(log.substr(p + label.size(), 16));
}

}  // namespace

TEST(ExampleRun, UncompressedRowsMatchTheRowKernel) {
  example_run r(example_control("NONE", "null", 1), "2");
  EXPECT_EQ(r.run.status, 0);
  EXPECT_TRUE(r.has("dulmarok.mtx"));
  EXPECT_TRUE(r.has("sensitivity.txt"));
  EXPECT_FALSE(r.has("sensitivity_compressed.txt"));
  EXPECT_FALSE(r.has("data_compressed.txt"));
  for (const char* timer : {"      init cpu time:", "      sens cpu time:", "     TOTAL cpu time:"})
    EXPECT_NE(r.log.find(timer), std::string::npos) << timer;
  EXPECT_EQ(r.log.find("uncompress cpu time:"), std::string::npos);
  EXPECT_NE(r.log.find("        # of cells below topo:    9589\n"), std::string::npos);
  expect_finite_text(r.dir.file("sensitivity.txt"));

  // The same model, read here, gives the rows the file must hold.
  qt::capture cap;
  const mesh_model mesh = read_mesh(examples + "mesh.txt");
  const obs_set obs = read_data_file(examples + "obs.mag");
  const std::vector<int32_t> top_index = read_topography(examples + "topo.txt", mesh, cap.out);
  const int32_t n = 9589;

  const auto recs = matrix_records(r.dir.file("dulmarok.mtx"));
  ASSERT_EQ(recs.size(), 7u + static_cast<std::size_t>(obs.ndata));
  EXPECT_EQ(values_of<int32_t>(recs[0], 0, 5), (std::vector<int32_t>{obs.ndata, n, 30, 30, 15}));
  const auto nodes = values_of<double>(recs[1], 0, 31 + 31 + 16 + 1);
  EXPECT_EQ(nodes[30], mesh.yn[30]);
  EXPECT_EQ(nodes[78], 100.0);
  EXPECT_EQ(values_of<int32_t>(recs[2], 0, 900), top_index);
  EXPECT_EQ(recs[3].size(), 4u);
  EXPECT_EQ(values_of<int32_t>(recs[4], 0, 3), (std::vector<int32_t>{0, 0, 0}));
  EXPECT_EQ(recs[5].size(), 4u + 8u * n);
  EXPECT_EQ(recs.back().size(), 8u * n);

  for (int32_t i : {1, 200, 401, 403}) {
    const std::vector<double> g = qt::kernel_row(mesh, obs, top_index, i, cap.out);
    const std::string& row = recs[5 + static_cast<std::size_t>(i)];
    ASSERT_EQ(row.size(), 4u * n);
    const auto stored = values_of<float>(row, 0, static_cast<std::size_t>(n));
    for (int32_t k = 0; k < n; ++k) ASSERT_EQ(stored[k], static_cast<float>(g[k])) << i << " " << k;
  }
}

TEST(ExampleRun, CompressedRunWritesEveryFileAndItsReport) {
  example_run r(example_control("daub2", "null", 1), "2");
  EXPECT_EQ(r.run.status, 0);
  for (const char* f : {"dulmarok.mtx", "sensitivity.txt", "sensitivity_compressed.txt",
                        "data_notcompressed.txt", "data_compressed.txt"}) {
    EXPECT_TRUE(r.has(f)) << f;
    if (std::string(f) != "dulmarok.mtx") expect_finite_text(r.dir.file(f));
  }
  expect_finite_text(r.dir.file("quolvent.log"));
  for (const char* line : {"    Sensitivity of surface  data:", "    Sensitivity of borehole data:",
                           "uncompress cpu time:", "     TOTAL cpu time:"})
    EXPECT_NE(r.log.find(line), std::string::npos) << line;

  const double ratio = log_value(r.log, "Compression   ratio:");
  const double predicted = log_value(r.log, "Predicted compression  ratio:");
  EXPECT_GT(ratio, 1.0);
  EXPECT_LT(ratio / predicted, 2.0);
  EXPECT_GT(ratio / predicted, 0.5);
  const double error = log_value(r.log, "achieved relative error:");
  EXPECT_GT(error, 0.0);
  EXPECT_LT(error, 0.1);
}
