// Readers that stop, many times over in one process: a stop that unwinds
// through a reader closes what the reader opened.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "model/active_cells.hpp"
#include "model/cell_values.hpp"
#include "model/mesh.hpp"
#include "model/observations.hpp"
#include "run/control_file.hpp"
#include "support/test_support.hpp"
#include "topo/ground.hpp"
#include "topo/topo_reader.hpp"

using namespace quolvent;

TEST(Readers, StoppingInputsLeaveNoDescriptorOpen) {
  // Every reader meets failing files again and again in one process (the fuzz
  // targets, a driver reading run after run): a stop that unwinds through a
  // reader must close what it opened, so the descriptors held stay as they were.
  qt::scratch_dir dir("fds");
  const run_log quiet(nullptr);
  const mesh_model mesh = qt::uniform_mesh(2, 2, 3, 1, 1, 1, 0, 0, 3);
  const std::vector<int32_t> flat(4, 0);
  const active_cells cells = get_active_cells("null", mesh, flat, quiet);
  const std::string flags12 = "a\nb\nc\nd\ne\nf\n";
  struct reader_case {
    const char* name;
    std::function<void(const std::string&)> read;
    std::vector<std::string> texts;  // each one stops the reader
  };
  const std::vector<reader_case> cases{
      {"control file", [&](const std::string& f) { read_control_file(f, quiet); },
       {"mesh\nobs\n", flags12 + "2\n", flags12 + "x\n"}},
      {"mesh", [](const std::string& f) { read_mesh(f); },
       {"1 1 x\n", "2 2 2\n0 0 0\n1 1\n", "-1 1 1\n"}},
      {"data", [](const std::string& f) { read_data_file(f); },
       {"60 x 50000\n", "60 -10 50000\n45 5 1\n3\n1 2 3\n", "60 -10 50000\n45 5 2\n"}},
      {"cell values", [&](const std::string& f) {
         std::vector<double> model(12);
         read_cell_values(f, "weighting", cells, model, quiet);
       },
       {"1\n2\nx\n", "1\n2\n3\n", "13*1\n"}},
      {"active cells", [&](const std::string& f) { get_active_cells(f, mesh, flat, quiet); },
       {"11*1\n", "5*1 x 6*1\n", "12*1\n0\n", "11*1 -2\n"}},
      {"topography points", [](const std::string& f) { read_topo_file(f); },
       {"", "three\n", "3\n1 1 1\nabc 2 2\n", "5\n1 1 1\n"}},
      {"topography", [&](const std::string& f) { read_topography(f, mesh, quiet); },
       {"3\n10 10 1\n11 10 1\n10 11 1\n", "4\n0.5 0.5 1\n0.5 0.5 2\n-1 -1 1\n3 3 1\n",
        "3\n-1 -1 0\n1 1 0\n3 3 0\n", "4\n1 1 1\n"}},
  };
  for (const auto& c : cases) {
    std::vector<std::string> files;
    for (const auto& text : c.texts) {
      files.push_back(dir.file(std::to_string(files.size()) + ".txt"));
      qt::write_file(files.back(), text);
    }
    const int before = qt::open_descriptors();
    int calls = 0, stops = 0;
    for (; calls < 24; ++calls) {
      try {
        c.read(files[static_cast<std::size_t>(calls) % files.size()]);
      } catch (const stop&) {
        ++stops;
      }
    }
    EXPECT_EQ(stops, calls) << c.name;
    EXPECT_EQ(qt::open_descriptors(), before) << c.name;
  }
}
