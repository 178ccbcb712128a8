// The output files: the matrix file's frames and chaining byte for byte and a
// whole file read back by the tests' own reader; the text files line by line.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <vector>

#include "model/model.hpp"
#include "output/diagnostic_files.hpp"
#include "output/matrix_file.hpp"
#include "output/output_file.hpp"
#include "output/output_room.hpp"
#include "support/matrix_reader.hpp"
#include "support/test_support.hpp"
#include "wavelet/compression.hpp"

using namespace quolvent;

const auto bytes = [](const auto& v) {
  return std::string(reinterpret_cast<const char*>(v.data()), v.size() * sizeof(v[0]));
};
const auto i32 = [](int32_t v) { return bytes(std::vector<int32_t>{v}); };

// One record of two blocks cut at limits 4, 5 and 10, then an empty record.
TEST(MatrixFile, RecordFrames) {
  qt::scratch_dir dir;
  dir.cd();
  output_file f("r.bin", "wb");
  for (int64_t limit : {4, 5, 10}) write_record(f, {{"abc", 3}, {"defghij", 7}}, limit);
  write_record(f, {{"", 0}}, 4);
  f.close();
  EXPECT_EQ(file_bytes("r.bin"),
            i32(-4) + "abcd" + i32(4) + i32(-4) + "efgh" + i32(-4) + i32(2) + "ij" + i32(-2) +
                i32(-5) + "abcde" + i32(5) + i32(5) + "fghij" + i32(-5) + i32(10) + "abcdefghij" +
                i32(10) + i32(0) + i32(0));
}

// A compressed file (rows of 0, 3 and 6 coefficients, a filter, padded
// extents) in frames of at most 10 bytes, so that most records are chained.
TEST(MatrixFile, ChainedCompressedFileReadsBack) {
  qt::scratch_dir dir;
  dir.cd();
  qt::capture cap;
  obs_set obs = qt::field(90, 0, 90, 0);
  for (int i = 0; i < 3; ++i) qt::add_datum(obs, 0.0, 110.0 + 5 * i, 51.0);
  const std::vector<double> wtz(36, 2.0), sq(36, 3.5);
  const survey s = qt::make_survey(qt::uniform_mesh(4, 3, 3, 5, 10, 2, -10, 100, 50), obs, {}, wtz);
  compression c;
  c.compressed = true, c.ncof = 4, c.nyp = c.nxp = c.nzp = 4, c.filter = {0.48, 0.83, 0.22, -0.12};
  matrix_store store;
  store.g_compressed.assign(3, compressed_row{});
  for (int i = 0; i < 3; ++i)
    for (int k = 0; k < 3 * i; ++k)
      store.g_compressed[i].idx.push_back(1 + 2 * k + i), store.g_compressed[i].val.push_back(0.25f * k - i);
  write_matrix("dulmarok.mtx", s, c, store, 1, sq, cap.out, 10);
  EXPECT_EQ(cap.screen(), "\nWriting out the matrix.\n\n");
  frame_reader rd{file_bytes("dulmarok.mtx"), 0, 10, {}};
  std::vector<std::string> recs;
  while (!rd.at_end() && recs.size() < 11) recs.push_back(rd.record());
  ASSERT_EQ(recs.size(), 10u);
  EXPECT_EQ(recs[0], i32(3) + i32(36) + i32(3) + i32(4) + i32(3));
  EXPECT_EQ(recs[1], bytes(s.mesh.yn) + bytes(s.mesh.xn) + bytes(s.mesh.zn) + bytes(std::vector{50.0}));
  EXPECT_EQ(recs[2], bytes(std::vector<int32_t>(12, 0)));
  EXPECT_EQ(recs[3], i32(4) + bytes(c.filter));
  EXPECT_EQ(recs[4], i32(4) + i32(4) + i32(4));
  EXPECT_EQ(recs[5], i32(1) + bytes(wtz));
  for (const compressed_row& g : store.g_compressed)
    EXPECT_EQ(recs[6 + g.idx.size() / 3], i32(g.idx.size()) + bytes(g.idx) + bytes(g.val));
  EXPECT_EQ(recs[9], bytes(sq));
  EXPECT_EQ(rd.parts[5], 30);  // 292 bytes in frames of 10
  // The size known ahead of the rows is the file's, frames and all.
  const row_payload_fn kept = [&](int32_t i) {
    return compressed_row_payload(static_cast<int64_t>(store.g_compressed[i].idx.size()));
  };
  EXPECT_EQ(matrix_file_bytes(s, c, kept, 10), static_cast<int64_t>(rd.bytes.size()));
  write_matrix("one_frame.mtx", s, c, store, 1, sq, cap.out);
  EXPECT_EQ(matrix_file_bytes(s, c, kept), static_cast<int64_t>(file_bytes("one_frame.mtx").size()));
}

// The exact size of an uncompressed file, ahead of its rows, in frames of
// every record's size and of 7 bytes, against the files written.
TEST(MatrixFile, UncompressedSizeIsKnownAhead) {
  qt::scratch_dir dir;
  dir.cd();
  qt::capture cap;
  obs_set obs = qt::field(90, 0, 90, 0);
  for (int i = 0; i < 5; ++i) qt::add_datum(obs, 5.0 * i, 3.0, 1.0);
  const survey s = qt::make_survey(qt::uniform_mesh(3, 2, 4, 5, 5, 5), obs, {2, 0, 1, 4, 0, 3});
  const compression c;  // no wavelet
  for (int64_t limit : {int64_t{7}, subrecord_limit}) {
    matrix_store store;
    store.g_full.assign(static_cast<std::size_t>(s.n) * 5, 0.5f);
    write_matrix("u.mtx", s, c, store, 1, std::vector<double>(s.n, 1.0), cap.out, limit);
    const int64_t row = uncompressed_row_payload(s.n);
    EXPECT_EQ(matrix_file_bytes(s, c, [row](int32_t) { return row; }, limit),
              static_cast<int64_t>(file_bytes("u.mtx").size()))
        << limit;
  }
  EXPECT_EQ(predicted_matrix_bytes(s, c), static_cast<int64_t>(file_bytes("u.mtx").size()));
}

// An output replaces a file of its name only when closed; a stop that
// unwinds before (the object dies unclosed) or a write that fails (a file
// size limit here) leaves the earlier file as it was, and no temporary file
// in either case. The earlier file's permissions carry over.
TEST(OutputFile, ReplacesWholeOrNotAtAll) {
  const struct {
    const char* what;
    bool close;
    rlim_t size_limit;  // RLIM_INFINITY: none
    bool replaced;
  } cases[] = {
      {"closed", true, RLIM_INFINITY, true},
      {"unwound before close", false, RLIM_INFINITY, false},
      {"past the file size limit", true, 4096, false},
  };
  for (const auto& k : cases) {
    qt::scratch_dir dir;
    dir.cd();
    qt::write_file("out.txt", "earlier\n");
    ::chmod("out.txt", 0640);
    rlimit saved{};
    getrlimit(RLIMIT_FSIZE, &saved);
    const auto xfsz = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit lowered{k.size_limit, saved.rlim_max};
    setrlimit(RLIMIT_FSIZE, &lowered);
    int status = -1;
    std::string report;
    try {
      output_file f("out.txt", "w");
      for (int i = 0; i < 1000; ++i) f.line("a line of this run's output");
      if (k.close) f.close();
    } catch (const stop& s) {
      status = s.status;
      report = s.screen_lines.at(1);
    }
    setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, xfsz);
    EXPECT_EQ(qt::read_file("out.txt") != "earlier\n", k.replaced) << k.what;
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(dir.path))
      names.push_back(e.path().filename().string());
    EXPECT_EQ(names, std::vector<std::string>{"out.txt"}) << k.what;
    struct stat st {};
    ::stat("out.txt", &st);
    EXPECT_EQ(st.st_mode & 0777, 0640u) << k.what;
    if (k.size_limit != RLIM_INFINITY) {
      EXPECT_EQ(status, 1);
      EXPECT_EQ(report, "ERROR: cannot write out.txt: File too large");
    }
  }
  // A directory that isn't there: refused when probed, before anything is written.
  try {
    output_file::probe("no/such/dir/out.txt");
    ADD_FAILURE() << "no stop";
  } catch (const stop& s) {
    EXPECT_EQ(s.screen_lines.at(1), "ERROR: cannot write no/such/dir/out.txt: No such file or directory");
  }
}

// Columns in file order (iy outermost) with tops 0, 1, 3 and 2 of 3 cells,
// each value over dz * (dx * dy), a cell of no volume 0; too few values stop.
// A data file with idir 0 carries the datum's direction, with idir 1 not.
TEST(DiagnosticFiles, ExactLines) {
  qt::scratch_dir dir;
  dir.cd();
  mesh_model mesh = qt::uniform_mesh(2, 2, 3, 1, 1, 1);
  mesh.dy = {2, 0}, mesh.dx = {1, 5}, mesh.dz = {10, 0.5, 2};
  const std::vector<int32_t> tops{0, 3, 1, 2};
  write_sensitivity_model({20, -3, 4, 50, 1, 80}, mesh, tops, "s.txt");
  EXPECT_EQ(qt::read_file("s.txt"), " 1.00000E+00\n-3.00000E+00\n 1.00000E+00\n 1.0E-20\n"
                                    " 1.00000E+01\n 5.00000E-02\n 1.0E-20\n 1.0E-20\n 1.0E-20\n"
                                    " 1.0E-20\n 1.0E-20\n 0.00000E+00\n");
  obs_set obs = qt::field(65.5, -3.25, 90, 0, 51234.5, 0);
  qt::add_datum(obs, 1234.5, -0.125, 100, 45, 100.25);
  qt::add_datum(obs, -20, 3e5, 0, -12.5, 0);
  write_data_file("d.txt", obs, {0.5, -1234.5678});
  EXPECT_EQ(qt::read_file("d.txt"),
            "     65.50     -3.25  51234.50  !! incl, decl, geomag\n"
            "     90.00      0.00      0     !! aincl, adecl, idir\n"
            "      2                         !! # of data\n"
            "  1.234500000E+03 -1.250000000E-01  1.000000000E+02    4.5000E+01  1.0025E+02"
            "    5.000000E-01\n"
            " -2.000000000E+01  3.000000000E+05  0.000000000E+00   -1.2500E+01  0.0000E+00"
            "   -1.234568E+03\n");
  obs.idir = 1;
  write_data_file("d1.txt", obs, {0.5, 2});
  EXPECT_EQ(qt::read_lines("d1.txt")[3],
            "  1.234500000E+03 -1.250000000E-01  1.000000000E+02    5.000000E-01");
  EXPECT_THROW(write_sensitivity_model({1, 2}, mesh, tops, "short.txt"), quolvent::stop);
}
