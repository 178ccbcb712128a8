// Fuzz target over the topography reader: the input is the topography file,
// read over a fixed 6 x 5 x 4 mesh of 10 m cells from (0, 0).
#include <cstdint>
#include <string>

#include "fuzz_support.hpp"
#include "model/model.hpp"
#include "topo/column_tops.hpp"

namespace {

void set_fixed_mesh() {
  mesh = mesh_model{};
  mesh.nx = 6;
  mesh.ny = 5;
  mesh.nz = 4;
  mesh.dx.assign(6, 10.0);
  mesh.dy.assign(5, 10.0);
  mesh.dz = {2, 4, 8, 16};
  mesh.xn = {0, 10, 20, 30, 40, 50, 60};
  mesh.yn = {0, 10, 20, 30, 40, 50};
  mesh.zn = {0, 2, 6, 14, 30};
  mesh.z0 = 50;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::quiet();
  const std::string name = fuzz::input_file("topo", data, size);
  set_fixed_mesh();
  try {
    read_topography(name);
    // Every top is a layer count of the mesh.
    for (int32_t t : top_index)
      if (t < 0 || t > mesh.nz) __builtin_trap();
  } catch (const fuzz::caught_stop&) {
  }
  return 0;
}
