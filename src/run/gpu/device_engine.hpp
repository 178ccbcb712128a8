// device_engine: the rows of a run made on one device (quolvent-gpu). The
// general loop and the regular-grid shortcut on the device in 64-bit floats,
// the compression there too, so that only the kept coefficients of each row
// come back; rows in batches sized to the device's free memory, two batches
// in flight on two streams, so that one batch's results come back and are
// stored while the next computes.
#pragma once

#include <cstdint>
#include <string>

#include "run/row_engine.hpp"

namespace quolvent {

class device_engine : public row_engine {
 public:
  // device: the device's number (an MPI rank takes rank modulo the count).
  // No device is no failure here: the banner's line stops the run.
  explicit device_engine(int device);
  std::string banner_line() const override;
  void make_rows(const survey& s, const grid_survey& grid, const compression& c, store_sink& sink,
                 row_range rows, row_sums& sums, const run_log& out) override;

 private:
  int device_ = 0;
  std::string name_, error_;
  int64_t total_bytes_ = 0;
};

}  // namespace quolvent
