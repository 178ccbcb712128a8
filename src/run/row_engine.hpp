// row_engine: what makes the rows of a run other than the row loops of this
// process's threads. The plain program has none; quolvent-gpu hands the
// driver one over a device (src/run/gpu), so that nothing the plain program
// links knows of a device.
#pragma once

#include <string>

#include "base/channels.hpp"
#include "base/row_range.hpp"
#include "model/model.hpp"
#include "run/row_store.hpp"
#include "sens/general_row_loop.hpp"
#include "sens/grid_check.hpp"
#include "wavelet/compression.hpp"

namespace quolvent {

class row_engine {
 public:
  virtual ~row_engine() = default;
  // banner_line: the banner's line of the engine ("": none).
  virtual std::string banner_line() const = 0;
  // make_rows: the rows of `rows` into the sink and their sums into sums, as
  // grid_row_loop (where grid.regular) or general_row_loop makes them, up to
  // the rounding of the formula's arctangents and logarithms.
  // Fails: as those loops, and the engine's own stops.
  virtual void make_rows(const survey& s, const grid_survey& grid, const compression& c,
                         store_sink& sink, row_range rows, row_sums& sums, const run_log& out) = 0;
};

}  // namespace quolvent
