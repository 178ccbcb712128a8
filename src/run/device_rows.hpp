// The host's side of rows made on a device (quolvent-gpu, src/run/gpu): the
// plan of batches, what each datum hands the device, the list of cells, and
// the records made from the kept coefficients a device gives back. Nothing
// here needs a device, so that every machine tests it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/channels.hpp"
#include "base/row_range.hpp"
#include "model/model.hpp"
#include "sens/field_directions.hpp"
#include "wavelet/compression.hpp"

namespace quolvent {

// device_needs: what the rows of a run hold on a device. Per row in flight:
// node values (3 doubles per mesh node), the row (n doubles), and when
// compressed the cube, its work lines and its packed coefficients. Held once:
// fixed bytes (mesh, weights, cell list, the regular grid's cube).
struct device_needs {
  int64_t n = 0;
  int64_t nodes = 0;  // mesh nodes per row (0: the regular grid needs none)
  int64_t cube = 0;   // padded cube (0: rows kept whole)
  int64_t fixed = 0;
};

// device_row_bytes: the device memory one row of a batch holds.
int64_t device_row_bytes(const device_needs& need);

// batch_plan: rows per batch (a whole number of largest_sum_group, so that
// each group's sums are made by one batch in datum order, whatever the
// survey's group size) and the batches of a
// loop's rows; bytes, the device memory the plan holds (two batches in
// flight, one computing while the other's results come back).
struct batch_plan {
  int32_t rows = 0;
  int32_t batches = 0;
  int64_t bytes = 0;
};

// plan_batches
//   Given:   the needs; the device's free memory; the rows of the loop;
//            forced, a batch size asked for (0: none).
//   Returns: the largest batch that leaves a tenth of the free memory
//            unused, at most the loop's rows rounded up to a group; a forced
//            size (rounded up to a group) where given.
//   Fails:   not even one group of rows fits: a stop whose report names the
//            memory needed and the memory free.
batch_plan plan_batches(const device_needs& need, int64_t free_bytes, int32_t rows, int32_t forced);

// forced_batch_rows: the batch size QUOLVENT_GPU_BATCH_ROWS asks for (tests
// force many small batches with it); 0 when unset. Fails: a value that is
// not a whole number from 1 to 2^30 stops with a text.
int32_t forced_batch_rows();

// device_datum: a datum as a device's row takes it: the point (northing,
// easting, depth below the mesh top) taken onto a node plane within the
// formula's tolerance as prism_row does, and its direction products.
struct device_datum {
  double oy = 0, ox = 0, oz = 0;
  direction_products dir;
};

// device_data: the data of `rows`, in order. Fails: never.
std::vector<device_datum> device_data(const survey& s, row_range rows);

// cell_corner_nodes
//   Given:   the mesh and its column tops.
//   Returns: for each cell below the ground, in row order (y, x, z), the
//            index of its lower corner node (y, x, z all lower) among the
//            mesh's nodes, z fastest: ((j-1) (nx+1) + i-1) (nz+1) + k-1.
//   Fails:   a mesh of 2^31 nodes or more stops with a text.
std::vector<int32_t> cell_corner_nodes(const mesh_model& mesh, const std::vector<int32_t>& top);

// cube_places
//   Given:   the compression record, the active cells, the row length n.
//   Returns: the 0-based place in the padded cube of each of the n row
//            entries, as row_to_cube lays a row into the cube.
//   Fails:   the stops of row_to_cube; no memory: the allocation stop.
std::vector<int64_t> cube_places(const compression& c, const active_cells& cells, int32_t n);

// take_record
//   Given:   a row's kept coefficients as a device packed them: count
//            positions (1-based, in the cube) and values; the cube's size.
//   Returns: rec holding them.
//   Fails:   positions not strictly ascending or outside the cube stop with
//            "idx outside the cube": the device's answer is not a record.
void take_record(const int32_t* idx, const float* val, int32_t count, int64_t cube_size,
                 compressed_row& rec);

// device_banner: the banner's line of a device (name, memory in GiB).
std::string device_banner(const std::string& name, int64_t total_bytes);

// batch_line: the log's line of a loop's batches.
std::string batch_line(const batch_plan& plan, int64_t free_bytes);

}  // namespace quolvent
