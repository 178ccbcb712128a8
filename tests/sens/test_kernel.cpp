// The two row loops (the rows against each datum's row alone, the sums, the
// progress line, the regular-grid loop against the general one, a stop inside
// the loop) and the regular survey test that chooses between them.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "base/progress.hpp"
#include "base/stop.hpp"
#include "model/mesh.hpp"
#include "model/model.hpp"
#include "run/row_store.hpp"
#include "sens/grid_check.hpp"
#include "sens/kernel2_mod.hpp"
#include "sens/kernel_mod.hpp"
#include "support/test_support.hpp"
#include "wavelet/compress_row_mod.hpp"
#include "wavelet/compression.hpp"
#include "wavelet/threshold.hpp"

using namespace quolvent;

namespace {

// hills: a uniform mesh of cells 10 (x) by 20 (y) by 5 whose columns reach 0
// to 3 cells into the air, some wholly, and the field with no data yet.
struct hills {
  mesh_model mesh;
  obs_set obs;
  std::vector<int32_t> tops;

  hills(int nx, int ny, int nz, int32_t idir = 1)
      : mesh(qt::uniform_mesh(nx, ny, nz, 10, 20, 5, 300, -700, 50)),
        obs(qt::field(65, 12, 65, 12, 50000, idir)) {
    for (int i = 0; i < nx; ++i)
      for (int j = 0; j < ny; ++j)
        tops.push_back((i + 2 * j) % 11 == 7 ? nz : std::min((i * 3 + j * 5) % 4, nz));
  }

  // the survey: every cell below the ground active, the weighting away from 1.
  survey make() const {
    survey s = qt::make_survey(mesh, obs, tops);
    for (int32_t k = 0; k < s.n; ++k) s.wtz[k] = 1 + 0.25 * (k % 7);
    return s;
  }
};

// row_of: datum i's (1-based) row of s before the weighting, computed alone.
std::vector<double> row_of(const survey& s, int32_t i, const run_log& out) {
  return qt::kernel_row(s.mesh, s.obs, s.top_index, i, out);
}

struct result {
  std::vector<float> rows;
  std::vector<compressed_row> recs;
  std::vector<double> sq, avg;
  std::string screen, log;
};

// run: KERNEL, or KERNEL2 over grid, on `threads` threads, as the driver runs
// them: compressed with "daub3" when eps is given, the compression report
// after the loop.
result run(const survey& s, int threads, const grid_survey* grid = nullptr,
           const char* eps = nullptr) {
  result r;
  qt::capture cap;
  compression c;
  if (eps) {
    const sample_row_fn sample = [&](int32_t idat, std::vector<double>& row) {
      row = row_of(s, idat, cap.out);
    };
    c = setup_compression(s, "daub3", eps, sample, cap.out);
  }
  matrix_store store = make_matrix_store(c, s.n, s.obs.ndata);
  // A value no row holds, so that a place the loop leaves unwritten shows.
  std::fill(store.g_full.begin(), store.g_full.end(), -1.0f);
  store_sink sink(s, c, store);
  omp_set_num_threads(threads);
  grid ? KERNEL2(s, *grid, sink, r.sq, r.avg, cap.out) : KERNEL(s, sink, r.sq, r.avg, cap.out);
  if (c.compressed)
    report_compression(s.n, s.obs.ndata, sink.nnz(), sink.data_full().data(),
                       sink.data_comp().data(), sink.row_error().data(), cap.out);
  r.rows.assign(store.g_full.begin(), store.g_full.end());
  r.recs = store.g_compressed, r.screen = cap.screen(), r.log = cap.log();
  return r;
}

void expect_close(const std::vector<double>& a, const std::vector<double>& b, double tol,
                  const std::string& what) {
  ASSERT_EQ(a.size(), b.size()) << what;
  for (std::size_t k = 0; k < a.size(); ++k)
    ASSERT_LE(std::fabs(a[k] - b[k]), tol * std::max(std::fabs(a[k]), std::fabs(b[k])))
        << what << " entry " << k;
}

// regular_hills: mx x my data at cell centres (x, y from the first cell
// centre, in cells, sx and sy apart), height above the mesh top.
hills regular_hills(int nx, int ny, int nz, double x0, double sx, int mx, double y0, double sy,
                    int my, double height) {
  hills h(nx, ny, nz);
  for (int j = 0; j < my; ++j)
    for (int i = 0; i < mx; ++i)
      qt::add_datum(h.obs, 300 + 10 * (x0 + sx * i), -700 + 20 * (y0 + sy * j), 50 + height);
  return h;
}

}  // namespace

// Data at random places, every fifth in a borehole, each with its own
// direction (idir 0), on 3 threads: the store holds row / wtz of the datum's
// own row computed alone, sens_avg the mean |row| and sens_sq the sum of
// (row / wtz)^2.
TEST(Kernel, RowsAreEachDatumsRowOverTheWeighting) {
  std::mt19937_64 rng(7);
  std::uniform_real_distribution<double> u(0, 1);
  hills h(6, 5, 4, 0);
  const int32_t ndata = 23;
  for (int i = 0; i < ndata; ++i)
    qt::add_datum(h.obs, 295 + 67 * u(rng), -705 + 110 * u(rng),
                  i % 5 == 4 ? 30 - 20 * u(rng) : 51 + 5 * u(rng), 160 * u(rng) - 80,
                  360 * u(rng) - 180);
  const survey s = h.make();
  const int32_t n = s.n;
  const result one = run(s, 3);
  qt::capture cap;
  std::vector<double> avg(n), sq(n);
  for (int32_t i = 0; i < ndata; ++i) {
    const std::vector<double> g = row_of(s, i + 1, cap.out);
    for (int32_t k = 0; k < n; ++k) {
      const double w = g[k] / s.wtz[k];
      ASSERT_EQ(one.rows[static_cast<std::size_t>(i) * n + k], static_cast<float>(w));
      avg[k] += std::fabs(g[k]) / ndata, sq[k] += w * w;
    }
  }
  expect_close(one.avg, avg, 1e-13, "sens_avg");
  expect_close(one.sq, sq, 1e-13, "sens_sq");
}

// Steps of 5 from 0 with 100 data; fewer rows start above 0 and skip the
// steps jumped over; below 10 rows nothing.
TEST(ReportProgress, Texts) {
  qt::capture cap;
  progress_line hundred(cap.out.screen(), 100), nine(cap.out.screen(), 9),
      eleven(cap.out.screen(), 11);
  for (int32_t d = 1; d <= 100; ++d) hundred.report_progress(d, 100);
  for (int32_t d = 1; d <= 9; ++d) nine.report_progress(d, 9);
  for (int32_t d : {1, 2, 3, 7, 11}) eleven.report_progress(d, 11);
  EXPECT_EQ(cap.screen(),
            "  0  5 10 15 20 25 30 35 40 45 50 55 60 65 70 75 80 85 90 95 100.\n"
            "  5 15 25 60 100.\n");
}

// The regular-grid loop against the general one on regular surveys: rows and
// sums to 1e-6, records of the same coefficients, the same screen and log
// (threshold estimate and compression report included).
TEST(Kernel2, AgreesWithTheGeneralLoop) {
  const struct {
    const char* name;
    int nx, ny, nz;
    double x0, sx, mx, y0, sy, my, height;  // data from (x0, y0), sx and sy apart, in cells
    const char* eps;                       // compressed with this threshold line
  } cases[] = {
      {"even, every cell to the edges", 8, 6, 4, 0.5, 1, 8, 0.5, 1, 6, 7, nullptr},
      {"odd, every second cell", 7, 5, 3, 0.5, 2, 4, 0.5, 2, 3, 3, nullptr},
      {"reference off centre, shift 5 over ny/2 = 3", 6, 6, 3, 0.5, 5, 2, 0.5, 5, 2, 4, nullptr},
      {"one row of cells", 9, 1, 3, 0.5, 2, 5, 0.5, 1, 1, 2, nullptr},
      {"data on node planes", 6, 4, 3, 0, 2, 4, 1, 2, 2, 6, nullptr},
      {"compressed", 8, 7, 4, 0.5, 1, 8, 0.5, 2, 4, 6, "2 0.001"},
      {"compressed, threshold from a sample row", 8, 7, 4, 0.5, 1, 8, 0.5, 2, 4, 6, "1 0.02"},
  };
  for (const auto& c : cases) {
    const survey s = regular_hills(c.nx, c.ny, c.nz, c.x0, c.sx, static_cast<int>(c.mx), c.y0,
                                   c.sy, static_cast<int>(c.my), c.height)
                         .make();
    const grid_survey grid = grid_check(s.mesh, s.obs, s.data_kind);
    ASSERT_TRUE(grid.regular) << c.name;
    const result general = run(s, 2, nullptr, c.eps), fast = run(s, 3, &grid, c.eps);
    EXPECT_EQ(fast.screen, general.screen) << c.name;
    EXPECT_NE(fast.screen.find(" Calculating sensitivity matrix ...\n % done:"), std::string::npos);
    EXPECT_EQ(fast.log, general.log) << c.name;
    expect_close({general.rows.begin(), general.rows.end()}, {fast.rows.begin(), fast.rows.end()},
                 1e-6, c.name);
    expect_close(general.sq, fast.sq, 1e-6, c.name);
    expect_close(general.avg, fast.avg, 1e-6, c.name);
    ASSERT_EQ(fast.recs.size() + general.recs.size(), c.eps ? 2u * s.obs.ndata : 0u);
    for (std::size_t i = 0; i < fast.recs.size(); ++i)
      EXPECT_EQ(fast.recs[i].idx, general.recs[i].idx) << "row " << i + 1;
  }
}

// A cube of 2^31 cells (two data 50000 cells apart), or a reference datum or
// width that can't be used, sends the rows through KERNEL with a note in the
// log. Halves of a cell round away from 0.
TEST(Kernel2, FallbackToTheGeneralLoop) {
  hills h(1, 1, 1);
  qt::add_datum(h.obs, 305, -690, 51);
  qt::add_datum(h.obs, 305 + 500000, -690 + 1000000, 51);
  const survey s = h.make();
  const result general = run(s, 2);
  const std::string big = " Regular survey: the extended mesh would reach 2**31 cells,\n",
                    bad = " Regular survey without a usable reference datum or cell width,\n";
  for (const auto& [ref, cdy, line] : std::vector<std::tuple<int32_t, double, std::string>>{
           {1, 20, big}, {0, 20, bad}, {3, 20, bad}, {1, NAN, bad}}) {
    const grid_survey grid{true, ref, cdy, 10};
    const result r = run(s, 2, &grid);
    EXPECT_EQ(r.log, "\n" + line + " so the rows are computed datum by datum.\n\n") << ref;
    EXPECT_EQ(r.rows, general.rows);
  }
  for (const auto& [v, shift] : std::vector<std::pair<double, int32_t>>{
           {0.4999, 0}, {0.5, 1}, {-0.5, -1}, {-0.4999, 0}, {2.995, 3}, {-3.004, -3}})
    EXPECT_EQ(grid_shift(v), shift) << v;
}

namespace {

// stopping_sink: the store's sink, but the rows of the given data stop the
// run as a failing sink would, on whichever thread computes them. With
// `together`, a stopping row waits (up to 2 s) until that many have come, so
// that several threads stop at once.
class stopping_sink : public row_sink {
 public:
  stopping_sink(row_sink& inner, std::set<int32_t> at, int together)
      : inner_(inner), at_(std::move(at)), together_(together) {}
  void begin(int32_t n, int32_t ndata, const char* name) override { inner_.begin(n, ndata, name); }
  double test_model() const override { return inner_.test_model(); }
  float* full_column(int32_t datum) override {
    if (at_.count(datum)) {
      ++arrived_;
      const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
      while (arrived_ < together_ && std::chrono::steady_clock::now() < until)
        std::this_thread::yield();
      ++thrown;
      stop_report({"", "ERROR: test stop"});
    }
    return inner_.full_column(datum);
  }
  std::unique_ptr<thread_part> open_thread() override { return inner_.open_thread(); }
  void put(thread_part& t, int32_t datum, const double* row, double test_datum) override {
    inner_.put(t, datum, row, test_datum);
  }
  void close_thread(thread_part& t) override { inner_.close_thread(t); }
  std::atomic<int> thrown{0};

 private:
  row_sink& inner_;
  std::set<int32_t> at_;
  int together_;
  std::atomic<int> arrived_{0};
};

std::size_t count(const std::string& text, const std::string& what) {
  std::size_t k = 0;
  for (std::size_t p = text.find(what); p != std::string::npos; p = text.find(what, p + 1)) ++k;
  return k;
}

}  // namespace

// A stop inside the row loop ends the run with its report once: one datum in
// the middle, one in each thread's share of the data (0-based), or the first
// row of both threads' shares stopping at the same moment. The loop ends
// unfinished, the stop comes out of the loop once and its report is in the
// log once; a loop run afterwards in the same process completes with the rows
// of a run that never stopped.
TEST(Kernel, AStopInsideTheRowLoopEndsTheRunWithItsReportOnce) {
  const survey s = regular_hills(8, 5, 3, 0.5, 1, 8, 0.5, 1, 5, 4).make();
  ASSERT_EQ(s.obs.ndata, 40);
  const grid_survey grid = grid_check(s.mesh, s.obs, s.data_kind);
  ASSERT_TRUE(grid.regular);
  const result clean = run(s, 1), clean2 = run(s, 1, &grid);
  const struct {
    int threads;
    std::set<int32_t> at;
    int together;  // stops that happen at once
  } cases[] = {{3, {20}, 0}, {3, {5, 19, 33}, 0}, {2, {0, 39}, 0},
               // The first rows of the two threads' blocks of whole groups of
               // 16 (0..31 and 32..39) stop at once.
               {2, {0, 32}, 2}};
  for (const bool regular : {false, true})
    for (const auto& c : cases) {
      const std::string name = std::string(regular ? "KERNEL2" : "KERNEL") + ", threads " +
                               std::to_string(c.threads) + ", first stop " +
                               std::to_string(*c.at.begin());
      qt::capture cap;
      compression none;
      matrix_store store = make_matrix_store(none, s.n, s.obs.ndata);
      store_sink inner(s, none, store);
      stopping_sink sink(inner, c.at, c.together);
      std::vector<double> sq, avg;
      omp_set_num_threads(c.threads);
      int caught = 0;
      EXPECT_TRUE(cap.stops([&] {
        try {
          regular ? KERNEL2(s, grid, sink, sq, avg, cap.out) : KERNEL(s, sink, sq, avg, cap.out);
        } catch (const stop&) {
          ++caught;
          throw;
        }
      })) << name;
      EXPECT_EQ(caught, 1) << name;
      EXPECT_GE(sink.thrown.load(), std::max(c.together, 1)) << name;
      EXPECT_LE(sink.thrown.load(), c.threads) << name;
      EXPECT_EQ(count(cap.log(), "ERROR: test stop"), 1u) << name;
      EXPECT_EQ(count(cap.screen(), "ERROR: test stop"), 1u) << name;
      EXPECT_EQ(cap.screen().find(" 100."), std::string::npos) << name;

      const result again = regular ? run(s, c.threads, &grid) : run(s, c.threads);
      EXPECT_NE(again.screen.find(" 100.\n"), std::string::npos) << name;
      EXPECT_EQ(again.rows, regular ? clean2.rows : clean.rows) << name;
    }
}

// Each case edits a regular survey: 16 x 16 cells of 10 from (1000, 5000),
// top at 100, 6 x 6 data 20 apart from the first node, 5 above the top.
TEST(GridCheck, WhichSurveysAreRegular) {
  const auto shift = [](obs_set& o, double dx, double dy) {
    for (int k = 0; k < o.ndata; ++k) o.obs_x[k] += dx, o.obs_y[k] += dy;
  };
  const auto x_step = [](obs_set& o, double s) {
    for (int k = 0; k < o.ndata; ++k) o.obs_x[k] = 1000 + s * (k % 6);
  };
  const struct {
    const char* name;
    std::function<void(obs_set&)> edit;
    datum_kind kind;
    int32_t idir;
    bool regular;
    int32_t ref;  // the datum nearest the centre (1080, 5080), 0 unchecked
  } cases[] = {
      {"regular", [](obs_set&) {}, datum_kind::surface, 1, true, 29},
      {"a tie goes to the first", [&](obs_set& o) { shift(o, 10, 0); }, datum_kind::surface, 1,
       true, 28},
      {"on the outermost nodes", [&](obs_set& o) { shift(o, 60, 60); }, datum_kind::surface, 1,
       true, 0},
      {"just outside above",
       [&](obs_set& o) { shift(o, 60, 60), o.obs_x[35] = std::nextafter(1160.0, 2e3); },
       datum_kind::surface, 1, false, 0},
      {"0.0005 apart", [](obs_set& o) { o.obs_x[3] += 0.0005, o.obs_y[7] -= 0.0005; },
       datum_kind::surface, 1, true, 0},
      {"spacing 2.5 cells", [&](obs_set& o) { x_step(o, 25); }, datum_kind::surface, 1, false, 0},
      {"spacing 3.005 cells", [&](obs_set& o) { x_step(o, 30.05); }, datum_kind::surface, 1, true,
       0},
      {"idir 0", [](obs_set&) {}, datum_kind::surface, 0, false, 0},
      {"a borehole datum", [](obs_set&) {}, datum_kind::mixed, 1, false, 0},
      {"all in boreholes", [](obs_set&) {}, datum_kind::borehole, 1, false, 0},
      {"one line along x", [](obs_set& o) { o.obs_y.assign(36, 5045); }, datum_kind::surface, 1,
       true, 0},
      {"one line along y", [](obs_set& o) { o.obs_x.assign(36, 1045); }, datum_kind::surface, 1,
       true, 0},
      {"levels 1.2% apart", [](obs_set& o) { o.obs_z[4] += 0.06; }, datum_kind::surface, 1, false,
       0},
  };
  const mesh_model mesh = qt::uniform_mesh(16, 16, 3, 10, 10, 10, 1000, 5000, 100);
  for (const auto& c : cases) {
    obs_set obs = qt::field(60, 0, 60, 0, 50000, c.idir);
    for (int j = 0; j < 6; ++j)
      for (int i = 0; i < 6; ++i) qt::add_datum(obs, 1000 + 20.0 * i, 5000 + 20.0 * j, 105, 60, 0);
    c.edit(obs);
    const grid_survey g = grid_check(mesh, obs, c.kind);
    EXPECT_EQ(g.regular, c.regular) << c.name;
    if (c.ref) EXPECT_EQ(g.ref_datum, c.ref) << c.name;
    if (g.regular) EXPECT_TRUE(g.cell_dy == 10 && g.cell_dx == 10) << c.name;
  }
}
