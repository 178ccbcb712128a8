// Active cells: which cells take part in a row, and the place of each.
#include "model/active_cells.hpp"

#include <new>
#include <span>

#include "base/channels.hpp"
#include "base/format.hpp"
#include "base/stop.hpp"
#include "base/text_io.hpp"
#include "model/model.hpp"

namespace quolvent {

namespace {

[[noreturn]] void flag_error(const std::string& text) { stop_reading({"", text}); }

// read_flags: the flag file into flags (one free-format read over all cells),
// then the tests of its length and of its values.
void read_flags(const std::string& file_name, std::vector<int32_t>& flags, const run_log& out) {
  const std::string name = rtrim(file_name);
  text_file t;
  if (!text_open(t, file_name)) file_not_found("active cells", file_name);

  const int st = ff_read(t, {std::span<int32_t>(flags)});
  if (st < 0) flag_error("ERROR: end reached reading active cell file " + name);
  if (st > 0) flag_error("ERROR reading active cell file " + name);
  int32_t extra = 0;
  if (ff_read(t, {extra}) == 0) flag_error("ERROR: too many values in active cell file " + name);
  text_close(t);

  for (int32_t f : flags) {
    if (f < -1 || f > 1) {
      stop_reading({"", "ERROR: values in the active cell file should be -1, 0 or 1.", name});
    }
  }
  out.report_log({"active cells were read from file: " + name});
}

}  // namespace

active_cells get_active_cells(const std::string& file_name, const mesh_model& mesh,
                              const std::vector<int32_t>& top_index, const run_log& out) {
  const int32_t nx = mesh.nx, ny = mesh.ny, nz = mesh.nz;
  // read_mesh keeps nx*ny*nz below 2^31.
  const std::size_t ncell = static_cast<std::size_t>(nx) * static_cast<std::size_t>(ny) *
                            static_cast<std::size_t>(nz);
  std::vector<int32_t> flags;
  active_cells c;
  try {
    flags.assign(ncell, 1);
    c.active_map.assign(ncell, 0);
  } catch (const std::bad_alloc&) {
    alloc_failed("get_active_cells");
  }

  if (!is_null_name(file_name)) read_flags(file_name, flags, out);

  std::size_t p = 0;  // flat position, iz fastest, then ix, then iy
  int64_t air = 0;
  for (int32_t iy = 1; iy <= ny; ++iy) {
    for (int32_t ix = 1; ix <= nx; ++ix) {
      const int32_t top = top_index[static_cast<std::size_t>(iy - 1) +
                                    static_cast<std::size_t>(ix - 1) * static_cast<std::size_t>(ny)];
      air += top;
      for (int32_t iz = 1; iz <= nz; ++iz, ++p) {
        if (flags[p] == 0 || iz <= top) {
          c.active_map[p] = 0;
          ++c.ninactive;
        } else if (flags[p] == 1) {
          c.active_map[p] = ++c.nactive;
        } else {
          c.active_map[p] = -(++c.ninf);
        }
      }
    }
  }
  c.ncell_total = static_cast<int32_t>(ncell);
  c.nbelow = static_cast<int32_t>(static_cast<int64_t>(ncell) - air);

  out.report_log({fmt_right("# of cells:", 30) + " " + fmt_int(nx) + " x " + fmt_int(ny) + " x " +
                  fmt_int(nz),
              fmt_right("total # of cells:", 30) + fmt_int(c.ncell_total, 8)});
  if (c.nactive != c.nbelow) {
    out.report_log({fmt_right("# of active cells:", 30) + fmt_int(c.nactive, 8)});
  }
  out.report_log({fmt_right("# of cells below topo:", 30) + fmt_int(c.nbelow, 8)});
  if (c.ninf > 0) out.report_log({fmt_right("# of inactive cells (inf):", 30) + fmt_int(c.ninf, 8)});
  if (c.ninactive > 0) {
    out.report_log({fmt_right("# of inactive cells:", 30) + fmt_int(c.ninactive, 8)});
  }
  out.report_log({""});

  if (c.nactive == 0) flag_error("ERROR: all cells are inactive.");
  return c;
}

}  // namespace quolvent
