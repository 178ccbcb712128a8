// Fuzz target over the topography reader: the input is the topography file,
// read over a fixed 6 x 5 x 4 mesh of 10 m cells from (0, 0).
#include <cstdint>
#include <string>
#include <vector>

#include "base/channels.hpp"
#include "base/stop.hpp"
#include "fuzz_support.hpp"
#include "model/model.hpp"
#include "topo/ground.hpp"

using namespace quolvent;

namespace {

mesh_model fixed_mesh() {
  mesh_model mesh;
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
  return mesh;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const run_log quiet(nullptr);
  const std::string name = fuzz::input_file("topo", data, size);
  const mesh_model mesh = fixed_mesh();
  try {
    const std::vector<int32_t> tops = read_topography(name, mesh, quiet);
    // One top per column, each a layer count of the mesh.
    if (tops.size() != static_cast<std::size_t>(mesh.nx) * static_cast<std::size_t>(mesh.ny))
      __builtin_trap();
    for (int32_t t : tops)
      if (t < 0 || t > mesh.nz) __builtin_trap();
  } catch (const stop&) {
  }
  return 0;
}
