// Fuzz target over the mesh and observation readers, and the data split.
// The first byte picks the reader; the rest is the file.
#include <cstdint>
#include <string>

#include "fuzz_support.hpp"
#include "model/mesh.hpp"
#include "model/model.hpp"
#include "model/observations.hpp"

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

// A 3 x 2 x 4 mesh with uneven ground, for the data split.
void set_fixed_mesh() {
  mesh = mesh_model{};
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
  top_index = {2, 2, 0, 0, 4, 1};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::quiet();
  if (size < 1) return 0;
  const int mode = data[0] % 3;
  const std::string name = fuzz::input_file("model", data + 1, size - 1);
  try {
    if (mode == 0) {
      if (!mesh_too_big_to_fuzz(name)) read_mesh(name);
    } else {
      read_data_file(name);
      if (mode == 2) {
        set_fixed_mesh();
        std::vector<int32_t> obs_type(static_cast<std::size_t>(obs.ndata));
        int32_t data_kind = 0;
        classify_data(obs_type, data_kind);
      }
    }
  } catch (const fuzz::caught_stop&) {
  }
  return 0;
}
