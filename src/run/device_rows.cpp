// The host's side of rows made on a device.
#include "run/device_rows.hpp"

#include <algorithm>
#include <cstdlib>
#include <string>

#include "base/format.hpp"
#include "base/stop.hpp"
#include "model/mesh.hpp"
#include "sens/prism_row.hpp"
#include "wavelet/transform.hpp"

namespace quolvent {

namespace {

constexpr int64_t group = largest_sum_group;
constexpr double gib = 1073741824.0;

int64_t round_up_to_group(int64_t rows) { return (rows + group - 1) / group * group; }

}  // namespace

int64_t device_row_bytes(const device_needs& need) {
  // Node values, the row, the per-row figures (flags, counts, test datum,
  // bound) and its share of a group's two sums.
  int64_t bytes = 24 * need.nodes + 8 * need.n + 64 +
                  (16 * need.n + smallest_sum_group - 1) / smallest_sum_group;
  // The cube, its work lines, the packed coefficients in the row's own
  // place and once more gathered one row after another.
  if (need.cube > 0) bytes += 32 * need.cube;
  return bytes;
}

batch_plan plan_batches(const device_needs& need, int64_t free_bytes, int32_t rows,
                        int32_t forced) {
  batch_plan plan;
  const int64_t per_row = 2 * device_row_bytes(need);
  const int64_t cap = std::max<int64_t>(group, round_up_to_group(rows));
  int64_t b = 0;
  if (forced > 0) {
    b = std::min(cap, round_up_to_group(forced));
  } else {
    const int64_t usable = free_bytes - free_bytes / 10 - need.fixed;
    b = usable > 0 ? usable / per_row / group * group : 0;
    if (b < group) {
      const int64_t needed = need.fixed + group * per_row + free_bytes / 10;
      stop_report({"", "ERROR: the device's memory holds no batch of rows: one batch of " +
                           fmt_int(group) + " rows needs",
                   "       " + fmt_sci(static_cast<double>(needed), 10, 3) + " bytes, and " +
                       fmt_sci(static_cast<double>(free_bytes), 10, 3) + " are free.",
                   "       Use the CPU program, or a device with more memory.", ""});
    }
    b = std::min(b, cap);
  }
  plan.rows = static_cast<int32_t>(b);
  plan.batches = rows > 0 ? static_cast<int32_t>((rows + b - 1) / b) : 0;
  plan.bytes = need.fixed + per_row * b;
  return plan;
}

int32_t forced_batch_rows() {
  const char* v = std::getenv("QUOLVENT_GPU_BATCH_ROWS");
  if (v == nullptr || *v == '\0') return 0;
  char* end = nullptr;
  const long long rows = std::strtoll(v, &end, 10);
  if (*end != '\0' || rows < 1 || rows > (1LL << 30))
    stop_text("QUOLVENT_GPU_BATCH_ROWS is not a row count");
  return static_cast<int32_t>(rows);
}

std::vector<device_datum> device_data(const survey& s, row_range rows) {
  const mesh_model& m = s.mesh;
  const obs_set& obs = s.obs;
  const double tol = plane_tolerance(mesh_length_scale(m));
  const direction_products common = survey_directions(obs);
  std::vector<device_datum> data(static_cast<std::size_t>(rows.count()));
  for (int32_t i = rows.first; i < rows.last; ++i) {
    const std::size_t d = static_cast<std::size_t>(i);
    device_datum& e = data[static_cast<std::size_t>(i - rows.first)];
    e.oy = on_node(obs.northing[d], m.yn.data(), m.ny, tol);
    e.ox = on_node(obs.easting[d], m.xn.data(), m.nx, tol);
    e.oz = on_node(m.z0 - obs.elevation[d], m.zn.data(), m.nz, tol);
    e.dir = obs.idir == 0
                ? field_directions(obs.incl, obs.decl, obs.datum_aincl[d], obs.datum_adecl[d])
                : common;
  }
  return data;
}

std::vector<int32_t> cell_corner_nodes(const mesh_model& mesh, const std::vector<int32_t>& top) {
  const int64_t ez = mesh.nz + 1, ex = mesh.nx + 1, ey = mesh.ny + 1;
  if (ez * ex * ey >= (int64_t{1} << 31)) stop_text("mesh nodes beyond 32-bit places");
  std::vector<int32_t> corner;
  for (int32_t j = 1; j <= mesh.ny; ++j)
    for (int32_t i = 1; i <= mesh.nx; ++i) {
      const int32_t kt = std::clamp(top_at(top, mesh.ny, j, i), 0, mesh.nz);
      for (int32_t k = kt + 1; k <= mesh.nz; ++k)
        corner.push_back(static_cast<int32_t>(((j - 1) * ex + (i - 1)) * ez + (k - 1)));
    }
  return corner;
}

std::vector<int64_t> cube_places(const compression& c, const active_cells& cells, int32_t n) {
  const std::size_t len = static_cast<std::size_t>(std::max(n, 0));
  std::vector<double> marks, cube;
  std::vector<int64_t> place;
  assign_or_stop(marks, len, 0.0, "cube places");
  assign_or_stop(cube, static_cast<std::size_t>(c.cube_size), 0.0, "cube places");
  assign_or_stop(place, len, int64_t{0}, "cube places");
  // Each entry marked with its place + 1: the cube tells where it went.
  for (std::size_t p = 0; p < len; ++p) marks[p] = static_cast<double>(p + 1);
  row_to_cube(c, cells, marks.data(), n, cube.data());
  for (std::size_t q = 0; q < cube.size(); ++q)
    if (cube[q] > 0.0) place[static_cast<std::size_t>(cube[q]) - 1] = static_cast<int64_t>(q);
  return place;
}

void take_record(const int32_t* idx, const float* val, int32_t count, int64_t cube_size,
                 compressed_row& rec) {
  int64_t prev = 0;
  for (int32_t k = 0; k < count; ++k) {
    if (idx[k] <= prev || idx[k] > cube_size) stop_text("idx outside the cube");
    prev = idx[k];
  }
  try {
    rec.idx.assign(idx, idx + count);
    rec.val.assign(val, val + count);
  } catch (const std::bad_alloc&) {
    stop_report(
        {"", "ERROR: cannot allocate any more memory for the compressed sensitivity matrix.", ""});
  }
}

std::string device_banner(const std::string& name, int64_t total_bytes) {
  return " Device: " + name + ", " + fmt_fixed(static_cast<double>(total_bytes) / gib, 0, 1) +
         " GiB";
}

std::string batch_line(const batch_plan& plan, int64_t free_bytes) {
  return " Device batches: " + fmt_int(plan.rows) + " rows each, " + fmt_int(plan.batches) +
         " batches, " + fmt_fixed(static_cast<double>(plan.bytes) / gib, 0, 2) + " of " +
         fmt_fixed(static_cast<double>(free_bytes) / gib, 0, 2) + " GiB free";
}

}  // namespace quolvent
