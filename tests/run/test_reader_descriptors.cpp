// Readers that stop, many times over in one process (the fuzz targets, a
// driver reading run after run): a stop that unwinds through a reader closes
// what the reader opened, so the descriptors held stay as they were.
#include <gtest/gtest.h>

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
  qt::scratch_dir dir("fds");
  const run_log quiet(nullptr);
  const mesh_model mesh = qt::uniform_mesh(2, 2, 3, 1, 1, 1, 0, 0, 3);
  const std::vector<int32_t> flat(4, 0);
  const active_cells cells = get_active_cells("null", mesh, flat, quiet);
  const std::string six = "a\nb\nc\nd\ne\nf\n";
  std::vector<double> model(12);
  using file = const std::string&;
  const struct {
    std::function<void(file)> read;
    std::vector<std::string> texts;  // each one stops the reader
  } cases[] = {
      {[&](file f) { read_control_file(f, quiet); }, {"mesh\nobs\n", six + "2\n"}},
      {[](file f) { read_mesh(f); }, {"1 1 x\n", "2 2 2\n0 0 0\n1 1\n"}},
      {[](file f) { read_data_file(f); }, {"60 x 50000\n", "60 -10 50000\n45 5 1\n3\n1 2 3\n"}},
      {[&](file f) { read_cell_values(f, "w", cells, model, quiet); }, {"1\n2\nx\n", "13*1\n"}},
      {[&](file f) { get_active_cells(f, mesh, flat, quiet); }, {"11*1\n", "5*1 x 6*1\n"}},
      {[](file f) { read_topo_file(f); }, {"three\n", "5\n1 1 1\n"}},
      {[&](file f) { read_topography(f, mesh, quiet); },
       {"3\n10 10 1\n11 10 1\n10 11 1\n", "4\n1 1 1\n"}},
  };
  for (const auto& c : cases) {
    const int before = qt::open_descriptors();
    for (int round = 0; round < 12; ++round)
      for (const auto& text : c.texts) {
        qt::write_file(dir.file("in.txt"), text);
        EXPECT_THROW(c.read(dir.file("in.txt")), stop) << text;
      }
    EXPECT_EQ(qt::open_descriptors(), before) << c.texts[0];
  }
}
