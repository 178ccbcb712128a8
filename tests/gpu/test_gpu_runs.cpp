// quolvent-gpu against the plain program on the test surveys (both loops,
// every wavelet, topography, boreholes, a direction per datum, a datum on a
// cell edge), in many batches of 16 rows and in the device's own batches:
// rows within 1e-10 of their largest entry (and the 32-bit rounding), the
// same kept coefficients but near the threshold, the sums to 1e-12, and the
// same bytes from two batch sizes. Every test needs a CUDA device.
// QUOLVENT_EXE and QUOLVENT_GPU_EXE name the programs of a build carried to
// the device's machine.
#include <gtest/gtest.h>

#include <cuda_runtime.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <set>
#include <sstream>

#include "support/layout_runs.hpp"
#include "support/matrix_reader.hpp"

namespace {

bool have_device() {
  int count = 0;
  return cudaGetDeviceCount(&count) == cudaSuccess && count > 0;
}

#define NEED_DEVICE() \
  if (!have_device()) GTEST_SKIP() << "no CUDA device: quolvent-gpu's runs need one"

// program: the program the environment variable name points at (a build
// carried to another machine), else the one built with the tests.
std::string program(const char* name, const char* built) {
  const char* v = std::getenv(name);
  return v != nullptr && *v != '\0' ? v : built;
}

// run_plain: quolvent in d.
qt::program_run run_plain(const qt::scratch_dir& d) {
  return qt::start_program(d.path.string(), {"run.inp", "2"}, {},
                           program("QUOLVENT_EXE", QUOLVENT_EXE)).wait();
}

// run_gpu: quolvent-gpu in d, batches of `batch` rows (0: the device's own).
qt::program_run run_gpu(const qt::scratch_dir& d, int batch) {
  return qt::start_program(d.path.string(), {"run.inp", "2"}, [batch] {
           if (batch > 0) setenv("QUOLVENT_GPU_BATCH_ROWS", std::to_string(batch).c_str(), 1);
         }, program("QUOLVENT_GPU_EXE", QUOLVENT_GPU_EXE)).wait();
}

// numbers_agree: two texts the same but for numbers within rel of each other.
void numbers_agree(const std::string& a, const std::string& b, double rel, const std::string& what) {
  std::istringstream sa(a), sb(b);
  std::string ta, tb;
  while (sa >> ta) {
    ASSERT_TRUE(static_cast<bool>(sb >> tb)) << what;
    char* ea = nullptr;
    char* eb = nullptr;
    const double va = std::strtod(ta.c_str(), &ea), vb = std::strtod(tb.c_str(), &eb);
    if (*ea != '\0' || *eb != '\0' || ta.empty()) {
      EXPECT_EQ(ta, tb) << what;
      continue;
    }
    EXPECT_LE(std::fabs(va - vb), rel * std::max(std::fabs(va), std::fabs(vb)) + 1e-300) << what;
  }
  EXPECT_FALSE(static_cast<bool>(sb >> tb)) << what;
}

// matrices_agree: the same records 1 to 6; rows and the sums as the
// agreement allows.
void matrices_agree(const std::string& cpu_path, const std::string& gpu_path, bool compressed,
                    const std::string& what) {
  const auto cpu = matrix_records(cpu_path), gpu = matrix_records(gpu_path);
  ASSERT_EQ(cpu.size(), gpu.size()) << what;
  for (std::size_t r = 0; r < 6; ++r) EXPECT_EQ(cpu[r], gpu[r]) << what << " record " << r + 1;
  for (std::size_t r = 6; r + 1 < cpu.size(); ++r) {
    if (!compressed) {
      const auto a = values_of<float>(cpu[r], 0, cpu[r].size() / 4);
      const auto b = values_of<float>(gpu[r], 0, gpu[r].size() / 4);
      ASSERT_EQ(a.size(), b.size());
      float big = 0.0f;
      for (float v : a) big = std::max(big, std::fabs(v));
      for (std::size_t k = 0; k < a.size(); ++k)
        ASSERT_LE(std::fabs(a[k] - b[k]), 1e-10 * big + 1.2e-7 * std::fabs(a[k]))
            << what << " row " << r - 5 << " cell " << k;
      continue;
    }
    int32_t na = 0, nb = 0;
    std::memcpy(&na, cpu[r].data(), 4);
    std::memcpy(&nb, gpu[r].data(), 4);
    const auto ia = values_of<int32_t>(cpu[r], 4, na), ib = values_of<int32_t>(gpu[r], 4, nb);
    const auto va = values_of<float>(cpu[r], 4 + 4 * na, na);
    const auto vb = values_of<float>(gpu[r], 4 + 4 * nb, nb);
    // A kept set differs only by coefficients at the threshold: a handful.
    std::set<int32_t> sa(ia.begin(), ia.end()), sb(ib.begin(), ib.end()), diff;
    std::set_symmetric_difference(sa.begin(), sa.end(), sb.begin(), sb.end(),
                                  std::inserter(diff, diff.begin()));
    EXPECT_LE(diff.size(), std::max<std::size_t>(1, sa.size() / 1000)) << what << " row " << r - 5;
    float big = 0.0f;
    for (float v : va) big = std::max(big, std::fabs(v));
    for (std::size_t k = 0, l = 0; k < ia.size() && l < ib.size();) {
      if (ia[k] < ib[l]) { ++k; continue; }
      if (ib[l] < ia[k]) { ++l; continue; }
      EXPECT_LE(std::fabs(va[k] - vb[l]), 1e-10 * big + 1.2e-7 * std::fabs(va[k])) << what;
      ++k, ++l;
    }
  }
  const std::size_t n = cpu.back().size() / 8;
  const auto sa = values_of<double>(cpu.back(), 0, n), sb = values_of<double>(gpu.back(), 0, n);
  for (std::size_t k = 0; k < n; ++k)
    EXPECT_LE(std::fabs(sa[k] - sb[k]), 1e-12 * std::fabs(sa[k]) + 1e-300) << what << " sum " << k;
}

// Both loops, compressed and not, a datum on an edge; every wavelet over the
// scattered survey; batches of 16 rows, then the device's own.
TEST(GpuRuns, AgreeWithThePlainProgram) {
  NEED_DEVICE();
  std::vector<qt::layout_survey> surveys = qt::layout_surveys();
  for (const char* w : {"daub1", "daub2", "daub3", "daub4", "daub5", "daub6", "symm5", "symm6"})
    surveys.push_back({w, w, 1, qt::layout_kind::scattered, 72});
  for (const auto& k : surveys) {
    qt::scratch_dir d("qgpu");
    qt::write_layout_survey(d, k);
    const auto plain = qt::layout_outputs(d, run_plain(d).screen);
    std::filesystem::rename(d.file("dulmarok.mtx"), d.file("cpu.mtx"));
    const qt::program_run small = run_gpu(d, 16);
    ASSERT_EQ(small.status, 0) << k.name << small.screen;
    const auto gpu = qt::layout_outputs(d, small.screen);
    const bool compressed = std::string(k.wavelet) != "NONE";
    matrices_agree(d.file("cpu.mtx"), d.file("dulmarok.mtx"), compressed, k.name);
    for (const char* f : {"sensitivity.txt", "sensitivity_compressed.txt", "data_compressed.txt",
                          "data_notcompressed.txt"})
      if (plain.count(f)) numbers_agree(plain.at(f), gpu.at(f), 2e-6, std::string(k.name) + " " + f);
    EXPECT_NE(gpu.at("quolvent.log").find(" Device: "), std::string::npos);
    EXPECT_NE(gpu.at("quolvent.log").find(" Device batches:"), std::string::npos) << k.name;
    // The device's own batches: the same bytes.
    const std::string first = qt::read_file(d.file("dulmarok.mtx"));
    ASSERT_EQ(run_gpu(d, 0).status, 0);
    EXPECT_EQ(first, qt::read_file(d.file("dulmarok.mtx"))) << k.name;
  }
}

// A stop is the plain program's: a weighting file short of values.
TEST(GpuRuns, StopsAsThePlainProgram) {
  NEED_DEVICE();
  qt::scratch_dir d("qgpu");
  qt::write_layout_survey(d, qt::layout_surveys()[0]);
  qt::write_file(d.file("w.txt"), "1.0\n2.0\n");
  const auto plain = run_plain(d);
  const auto gpu = run_gpu(d, 0);
  EXPECT_EQ(plain.status, gpu.status);
  EXPECT_FALSE(std::filesystem::exists(d.file("dulmarok.mtx")));
}

}  // namespace
