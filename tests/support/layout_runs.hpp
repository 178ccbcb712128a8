// Whole runs of the same surveys under different layouts (threads, processes
// of quolvent-mpi): the surveys as files, and every output of a run read back.
#pragma once

#include <cmath>
#include <filesystem>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "support/test_support.hpp"

namespace qt {

// layout_kind: scattered data over hills, with boreholes, directions of their
// own and a weighting file (60 surface + 12 borehole data); a regular grid over
// flat ground; 40 data, the 37th just above a cell corner (a line in the log).
enum class layout_kind { scattered, grid, edge };

struct layout_survey {
  const char* name;
  const char* wavelet;
  int diag;  // line 7 of the control file
  layout_kind kind;
  int ndata;  // data of a regular grid
};

// layout_surveys: compressed and not, in both row loops, a row's log line, and
// fewer data than 4 threads have groups of rows.
inline std::vector<layout_survey> layout_surveys() {
  return {{"scattered_symm4", "symm4", 1, layout_kind::scattered, 72},
          {"scattered_none", "NONE", 1, layout_kind::scattered, 72},
          {"grid_daub2", "daub2", 1, layout_kind::grid, 80},
          {"grid_none", "NONE", 0, layout_kind::grid, 80},
          {"edge_daub2", "daub2", 0, layout_kind::edge, 40},
          {"grid_none_12_data", "NONE", 1, layout_kind::grid, 12}};
}

// write_layout_survey: the survey's files and run.inp in d (a grid: ndata on
// the cells of a 10 x 8 x 10 mesh).
inline void write_layout_survey(const scratch_dir& d, const layout_survey& k) {
  const auto control = [&](const std::string& topo, const std::string& weights) {
    return "mesh.txt\nobs.mag\n" + topo + "\n" + weights + "\n" + k.wavelet + "\n1 0.02\n" +
           std::to_string(k.diag) + "\n";
  };
  if (k.kind == layout_kind::edge) {
    write_file(d.file("mesh.txt"), "6 6 4\n0 0 0\n6*10\n6*10\n4*5\n");
    std::string obs = "65 20 50000\n65 20 1\n40\n";
    for (int i = 0; i < 40; ++i)
      obs += i == 36 ? "30 30 0.0001\n"
                     : std::to_string(5 + i % 6 * 10) + " " + std::to_string(5.3 + i / 6 * 8) +
                           " 2\n";
    write_file(d.file("obs.mag"), obs);
  }
  if (k.kind == layout_kind::grid) write_flat_survey(d, 10, 8, 10, k.ndata, true, k.wavelet);
  if (k.kind != layout_kind::scattered)
    return write_file(d.file("run.inp"), control("null", "VALUE 1.0"));
  // Uneven widths, hills from 265 to 305 over a mesh top at 300, data above
  // them with directions of their own, and a borehole through them.
  write_file(d.file("mesh.txt"),
             "14 12 10\n1000.0 2000.0 300.0\n3*30.0 8*20.0 3*30.0\n12*25.0\n5*10.0 3*20.0 "
             "2*40.0\n");
  const double x1 = 1000 + 6 * 30 + 8 * 20, y1 = 2000 + 12 * 25;
  std::string topo = "! hills\n121\n";
  for (int j = 0; j <= 10; ++j)
    for (int i = 0; i <= 10; ++i) {
      const double x = 990 + i * (x1 - 980) / 10, y = 1990 + j * (y1 - 1980) / 10;
      topo += std::to_string(x) + " " + std::to_string(y) + " " +
              std::to_string(285 + 15 * std::sin(x / 70) + 5 * std::cos(y / 50)) + "\n";
    }
  write_file(d.file("topo.txt"), topo);
  std::string obs = "70.0 15.0 52000.0\n70.0 15.0 0\n! data\n72\n";
  for (int i = 0; i < 60; ++i) {
    // Irrational steps: no two data share a grid.
    const double x = 1010 + (x1 - 1020) * std::fmod(i * 0.6180339887, 1.0);
    const double y = 2010 + (y1 - 2020) * std::fmod(i * 0.4142135623, 1.0);
    obs += std::to_string(x) + " " + std::to_string(y) + " " + std::to_string(306.0 + i % 5) +
           " " + std::to_string(60 + i % 10) + " " + std::to_string(3.0 * (i % 7)) + "\n";
  }
  for (int i = 0; i < 12; ++i)
    obs += "1150.3 2163.7 " + std::to_string(250.0 - 13.7 * i) + " 70.0 10.0\n";
  write_file(d.file("obs.mag"), obs);
  std::string w;
  for (int i = 0; i < 14 * 12 * 10; ++i) w += std::to_string(1.0 + 0.01 * ((i * 37) % 101)) + "\n";
  write_file(d.file("w.txt"), w);
  write_file(d.file("run.inp"), control("topo.txt", "w.txt"));
}

// layout_outputs: every file a run left in d but its inputs, by name, and the
// screen; in the log and the screen what may differ between layouts (times,
// dates, the thread line and its warning, the line of ranks) taken out.
inline std::map<std::string, std::string> layout_outputs(const scratch_dir& d,
                                                         const std::string& screen) {
  const auto layout_text = [](std::string t) {
    for (const auto& [from, to] : std::vector<std::pair<std::string, std::string>>{
             {"cpu time: *[0-9:.]+", "cpu time: T"},
             {"(started|ended) on: [^\n]*", "$1 on: DATE"},
             {"# of threads: *[0-9]+\n", "# of threads: N\n"},
             {"\nWARNING: more threads started than processors available.\n\n", ""},
             {"MPI processes \\(ranks\\):[^\n]*\n", ""}})
      t = std::regex_replace(t, std::regex(from), to);
    return t;
  };
  std::map<std::string, std::string> out;
  for (const auto& e : std::filesystem::directory_iterator(d.path)) {
    const std::string name = e.path().filename().string();
    if (name == "mesh.txt" || name == "obs.mag" || name == "topo.txt" || name == "w.txt" ||
        name == "run.inp" || name.rfind(".", 0) == 0)
      continue;
    const std::string text = read_file(e.path().string());
    out[name] = name == "quolvent.log" ? layout_text(text) : text;
  }
  out["screen"] = layout_text(screen);
  return out;
}

}  // namespace qt
