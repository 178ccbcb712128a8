// Fuzz target over the mesh and observation readers, and the data split.
// The first byte picks the reader; the rest is the file.
#include <cstdint>
#include <string>
#include <vector>

#include "base/channels.hpp"
#include "base/stop.hpp"
#include "base/text_io.hpp"
#include "fuzz_support.hpp"
#include "model/mesh.hpp"
#include "model/model.hpp"
#include "model/observations.hpp"

using namespace quolvent;

namespace {

// A legal mesh may ask for widths arrays of up to 2^31 values from a few
// bytes ("2000000000*1.0"): that is memory, not parsing, so such counts are
// left out here. Negative and overflowing counts still go to the reader.
bool mesh_too_big_to_fuzz(const std::string& name) {
  text_file t;
  if (!text_open(t, name)) return false;
  int32_t nx = 0, ny = 0, nz = 0;
  const int st = ff_read(t, {nx, ny, nz});
  text_close(t);
  if (st != 0 || nx < 0 || ny < 0 || nz < 0) return false;
  return int64_t{nx} + ny + nz > (int64_t{1} << 20);
}

// A 3 x 2 x 4 mesh, for the data split.
mesh_model fixed_mesh() {
  mesh_model mesh;
  mesh.nx = 3;
  mesh.ny = 2;
  mesh.nz = 4;
  mesh.dx = {10, 10, 10};
  mesh.dy = {10, 10};
  mesh.dz = {5, 5, 5, 5};
  mesh.xn = {0, 10, 20, 30};
  mesh.yn = {0, 10, 20};
  mesh.zn = {0, 5, 10, 15, 20};
  mesh.z0 = 100;
  return mesh;
}

// Its uneven ground: column tops (iy, ix), iy fastest.
const std::vector<int32_t> fixed_tops{2, 2, 0, 0, 4, 1};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const run_log quiet(nullptr);
  const int mode = data[0] % 3;
  const std::string name = fuzz::input_file("model", data + 1, size - 1);
  try {
    if (mode == 0) {
      if (!mesh_too_big_to_fuzz(name)) read_mesh(name);
    } else {
      const obs_set obs = read_data_file(name);
      if (mode == 2) {
        const mesh_model mesh = fixed_mesh();
        const data_split split =
            classify_data(mesh, mesh_length_scale(mesh), obs, fixed_tops, quiet);
        // One kind per datum.
        if (split.datum_kinds.size() != static_cast<std::size_t>(obs.ndata)) __builtin_trap();
      }
    }
  } catch (const stop&) {
  }
  return 0;
}
