// The output files: the matrix file's frames and chaining byte for byte and a
// whole file read back by the tests' own reader; the text files line by line.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "model/model.hpp"
#include "output/diagnostic_files.hpp"
#include "output/matrix_file.hpp"
#include "output/output_file.hpp"
#include "output/ordered_matrix.hpp"
#include "output/output_room.hpp"
#include "support/matrix_reader.hpp"
#include "support/test_support.hpp"
#include "wavelet/compression.hpp"

using namespace quolvent;
namespace fs = std::filesystem;

const auto bytes = [](const auto& v) {
  return std::string(reinterpret_cast<const char*>(v.data()), v.size() * sizeof(v[0]));
};
const auto i32 = [](int32_t v) { return bytes(std::vector<int32_t>{v}); };

// put_in_place: the file name as writer writes it, then put in place.
void put_in_place(const std::string& name, const std::function<void(output_file&)>& writer) {
  output_file f(name, "wb");
  writer(f);
  f.place();
}

// One record of two blocks cut at limits 5 (whole frames, no empty one behind)
// and 10 (one frame), then an empty record; middle frames are read back below.
TEST(MatrixFile, RecordFrames) {
  qt::scratch_dir dir;
  dir.cd();
  output_file f("r.bin", "wb");
  for (int64_t limit : {5, 10}) write_record(f, {{"abc", 3}, {"defghij", 7}}, limit);
  write_record(f, {{"", 0}}, 4);
  f.close();
  EXPECT_EQ(file_bytes("r.bin"), i32(-5) + "abcde" + i32(5) + i32(5) + "fghij" + i32(-5) + i32(10) +
                                     "abcdefghij" + i32(10) + i32(0) + i32(0));
}

// A compressed file (rows of 0, 3 and 6 coefficients, column tops, a filter,
// padded extents) in frames of at most 10 bytes, so that most records are
// chained, read back; its size, and an uncompressed file's, known ahead.
TEST(MatrixFile, ChainedFileReadsBackAndItsSizeIsKnownAhead) {
  qt::scratch_dir dir;
  dir.cd();
  qt::capture cap;
  obs_set obs = qt::field(90, 0, 90, 0);
  for (int i = 0; i < 3; ++i) qt::add_datum(obs, 0.0, 110.0 + 5 * i, 51.0);
  const std::vector<int32_t> tops{0, 1, 0, 2, 0, 0, 1, 0, 0, 2, 0, 0};  // 30 cells below
  const std::vector<double> weights(30, 2.0), sq(30, 3.5);
  const auto s =
      qt::make_survey(qt::uniform_mesh(4, 3, 3, 5, 10, 2, -10, 100, 50), obs, tops, weights);
  compression c;
  c.compressed = true, c.filter_length = 4, c.padded_ny = c.padded_nx = c.padded_nz = 4,
  c.filter = {0.48, 0.83, 0.22, -0.12};
  matrix_store store;
  for (int i = 0; i < 3; ++i) {
    compressed_row& g = store.compressed_rows.emplace_back();
    for (int k = 0; k < 3 * i; ++k) g.idx.push_back(1 + 2 * k + i), g.val.push_back(0.25f * k - i);
  }
  put_in_place("dulmarok.mtx", [&](output_file& f) { write_matrix(f, s, c, store, 1, sq, cap.out, 10); });
  EXPECT_EQ(cap.screen(), "\nWriting out the matrix.\n\n");
  frame_reader rd{file_bytes("dulmarok.mtx"), 0, 10, {}};
  std::vector<std::string> recs;
  while (!rd.at_end() && recs.size() < 11) recs.push_back(rd.record());
  std::vector<std::string> want{
      i32(3) + i32(30) + i32(3) + i32(4) + i32(3),
      bytes(s.mesh.yn) + bytes(s.mesh.xn) + bytes(s.mesh.zn) + bytes(std::vector{50.0}),
      bytes(tops),
      i32(4) + bytes(c.filter),
      i32(4) + i32(4) + i32(4),
      i32(1) + bytes(weights)};
  for (const compressed_row& g : store.compressed_rows)
    want.push_back(i32(g.idx.size()) + bytes(g.idx) + bytes(g.val));
  want.push_back(bytes(sq));
  EXPECT_EQ(recs, want);
  // Arrays short of what the records hold: a stop, not a read past their end.
  compression cut = c;
  cut.filter.pop_back();
  auto light = s;
  light.weights.pop_back();
  matrix_store fewer = store;
  fewer.compressed_rows.pop_back();
  const row_range all{0, 3};
  EXPECT_NO_THROW(check_matrix_arrays(s, c, store, all, &sq));
  EXPECT_THROW(check_matrix_arrays(s, cut, store, all, &sq), quolvent::stop);
  EXPECT_THROW(check_matrix_arrays(light, c, store, all, &sq), quolvent::stop);
  EXPECT_THROW(check_matrix_arrays(s, c, fewer, all, &sq), quolvent::stop);
  const row_payload_fn kept = [](int32_t i) { return compressed_row_payload(3 * i); };
  EXPECT_EQ(matrix_file_bytes(s, c, kept, 10), static_cast<int64_t>(rd.bytes.size()));
  const compression none;  // uncompressed, in frames of every record's size
  store.full_rows.assign(30 * 3, 0.5f);
  put_in_place("u.mtx", [&](output_file& f) { write_matrix(f, s, none, store, 1, sq, cap.out); });
  const auto u = static_cast<int64_t>(file_bytes("u.mtx").size());
  EXPECT_EQ(matrix_file_bytes(s, none, [&](int32_t) { return uncompressed_row_payload(s.n); }), u);
  EXPECT_EQ(predicted_matrix_bytes(s, none), u);
}

// Rows finished out of datum order by 4 threads (each record made just
// before its row is done, in frames of at most 40 bytes so that long records
// are chained): the file the records went into as they came is the same to
// the byte as the one written after the rows, with every record freed from
// the store when asked. A row that never came: a stop, and no file.
TEST(MatrixFile, RecordsInAsTheRowsComeMakeTheSameFile) {
  qt::scratch_dir dir;
  dir.cd();
  qt::capture cap;
  obs_set obs = qt::field(90, 0, 90, 0);
  constexpr int ndata = 150;
  for (int i = 0; i < ndata; ++i) qt::add_datum(obs, 0.0, 100.0 + i, 51.0);
  const std::vector<int32_t> tops(12, 0);
  const std::vector<double> weights(36, 2.0), sq(36, 3.5);
  const auto s =
      qt::make_survey(qt::uniform_mesh(4, 3, 3, 5, 10, 2, -10, 100, 50), obs, tops, weights);
  compression c;
  c.compressed = true, c.filter_length = 2, c.padded_ny = c.padded_nx = c.padded_nz = 4,
  c.filter = {0.7, 0.7};
  matrix_store made;
  for (int i = 0; i < ndata; ++i) {
    compressed_row& g = made.compressed_rows.emplace_back();
    for (int k = 0; k < (i * 7) % 13; ++k) g.idx.push_back(k * 3 + i % 3), g.val.push_back(0.5f * k - i);
  }
  matrix_store copy = made;
  put_in_place("after.mtx",
               [&](output_file& f) { write_matrix(f, s, c, copy, 1, sq, cap.out, 40); });
  std::vector<int32_t> order(ndata);
  for (int i = 0; i < ndata; ++i) order[static_cast<std::size_t>(i)] = i;
  std::shuffle(order.begin(), order.end(), std::mt19937(7));
  for (const bool release : {false, true}) {
    matrix_store store;
    store.compressed_rows.resize(ndata);
    output_file f("during.mtx", "wb");
    ordered_matrix m(f, s, c, store, 1, release, 40);
    std::atomic<int> next{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([&] {
        for (int k; (k = next++) < ndata;) {
          const auto i = static_cast<std::size_t>(order[static_cast<std::size_t>(k)]);
          store.compressed_rows[i] = made.compressed_rows[i];
          m.row_done(static_cast<int32_t>(i));
        }
      });
    for (auto& t : threads) t.join();
    m.finish(sq, cap.out);
    f.place();
    EXPECT_EQ(file_bytes("during.mtx"), file_bytes("after.mtx")) << release;
    EXPECT_EQ(std::count_if(store.compressed_rows.begin(), store.compressed_rows.end(),
                            [](const compressed_row& g) { return g.idx.capacity() > 0; }),
              release ? 0 : std::count_if(made.compressed_rows.begin(), made.compressed_rows.end(),
                                          [](const compressed_row& g) { return !g.idx.empty(); }));
  }
  matrix_store store;
  store.compressed_rows.resize(ndata);
  {
    output_file f("missing.mtx", "wb");
    ordered_matrix m(f, s, c, store, 1, true, 40);
    for (int i = 0; i < ndata; ++i)
      if (i != 77) m.row_done(i);
    EXPECT_THROW(m.row_done(ndata), quolvent::stop);
    EXPECT_THROW(m.finish(sq, cap.out), quolvent::stop);
  }
  EXPECT_FALSE(fs::exists("missing.mtx"));
  EXPECT_EQ(qt::temporary_outputs(dir.path.string()), std::vector<std::string>{});
}

// An output replaces a file of its name only when closed; a stop that
// unwinds before (the object dies unclosed) leaves the earlier file as it was
// and no temporary file (a write that fails: Faults in tests/run). The
// earlier file's permissions carry over. Either way no descriptor stays open
// (a program embedding runs makes thousands of outputs).
TEST(OutputFile, ReplacesWholeOrNotAtAll) {
  const auto open_descriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  const auto before = open_descriptors();
  for (const bool close : {true, false}) {
    qt::scratch_dir dir;
    dir.cd();
    qt::write_file("out.txt", "earlier\n");
    fs::permissions("out.txt", fs::perms{0640});
    {
      output_file f("out.txt", "w");
      for (int i = 0; i < 1000; ++i) f.line("a line of this run's output");
      if (close) f.close();
    }
    EXPECT_EQ(qt::read_file("out.txt") != "earlier\n", close);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path), fs::directory_iterator()), 1);
    EXPECT_EQ(fs::status("out.txt").permissions(), fs::perms{0640}) << close;
  }
  EXPECT_EQ(open_descriptors(), before);
  // A directory that isn't there: refused when probed, before anything is written.
  EXPECT_THROW(output_file::probe("no/such/dir/out.txt"), stop);
}

// Columns in file order (iy outermost) with tops 0, 1, 3 and 2 of 3 cells,
// each value over dz * (dx * dy), a cell of no volume 0; too few values, widths or tops stop.
// A data file with idir 0 carries each datum's own direction.
TEST(DiagnosticFiles, ExactLines) {
  qt::scratch_dir dir;
  dir.cd();
  mesh_model mesh = qt::uniform_mesh(2, 2, 3, 1, 1, 1);
  mesh.dy = {2, 0}, mesh.dx = {1, 5}, mesh.dz = {10, 0.5, 2};
  const std::vector<int32_t> tops{0, 3, 1, 2};
  put_in_place("s.txt", [&](output_file& f) {
    write_sensitivity_model({20, -3, 4, 50, 1, 80}, mesh, tops, f);
  });
  EXPECT_EQ(qt::read_file("s.txt"), " 1.00000E+00\n-3.00000E+00\n 1.00000E+00\n 1.0E-20\n"
                                    " 1.00000E+01\n 5.00000E-02\n 1.0E-20\n 1.0E-20\n 1.0E-20\n"
                                    " 1.0E-20\n 1.0E-20\n 0.00000E+00\n");
  // Too few values, widths or tops one short of the mesh: a stop, not a read past their end.
  const auto short_model = [&](const std::vector<double>& v, const mesh_model& m,
                               const std::vector<int32_t>& t) {
    EXPECT_THROW(put_in_place("short.txt",
                              [&](output_file& f) { write_sensitivity_model(v, m, t, f); }),
                 quolvent::stop);
  };
  short_model({1, 2}, mesh, tops);
  const std::vector<double> values(6);
  for (auto widths : {&mesh_model::dy, &mesh_model::dx, &mesh_model::dz}) {
    mesh_model cut = mesh;
    (cut.*widths).pop_back();
    short_model(values, cut, tops);
  }
  short_model(values, mesh, {0, 3, 1});
  obs_set obs = qt::field(65.5, -3.25, 90, 0, 51234.5, 0);
  qt::add_datum(obs, 1234.5, -0.125, 100, -12.5, 100.25);
  put_in_place("d.txt", [&](output_file& f) { write_data_file(f, obs, {-1234.5678}); });
  EXPECT_EQ(qt::read_file("d.txt"),
            "     65.50     -3.25  51234.50  !! incl, decl, geomag\n"
            "     90.00      0.00      0     !! aincl, adecl, idir\n"
            "      1                         !! # of data\n"
            "  1.234500000E+03 -1.250000000E-01  1.000000000E+02   -1.2500E+01  1.0025E+02"
            "   -1.234568E+03\n");
}
