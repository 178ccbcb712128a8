// row_sink: where the row loops put each finished row. The loops know
// nothing of how the matrix is stored; the driver hands them a sink that
// stores rows whole or compressed.
#pragma once

#include <cstdint>
#include <memory>

#include "base/row_range.hpp"

namespace quolvent {

class row_sink {
 public:
  // thread_part: one thread's share of the sink (its buffers and counts).
  class thread_part {
   public:
    virtual ~thread_part() = default;
  };

  virtual ~row_sink() = default;

  // begin: before the rows, on the thread that starts the loop. Checks that
  // the store takes ndata rows of n values and makes what the rows need.
  // Fails: an allocation stops with alloc_name; a store of another size stops
  // with a text.
  virtual void begin(int32_t n, int32_t ndata, const char* alloc_name) = 0;

  // test_model: the uniform value of the test model whose datum each row
  // hands to put (the compression check); 0 when rows are not checked.
  virtual double test_model() const = 0;

  // full_column: where datum's row (0-based) goes as n 32-bit floats when the
  // store keeps rows whole, so that a loop may write it there itself, on the
  // thread of part t; nullptr when rows go through put. The place is the
  // row's until full_done.
  virtual float* full_column(thread_part& t, int32_t datum) = 0;
  // full_done: datum's row at its full_column is complete (the sink may
  // write it out, and give the place to the next row).
  virtual void full_done(thread_part&, int32_t) {}

  // claim_rows: the rows (0-based data) the calling thread of the region is
  // about to write through full_column, so that their memory is made ready by
  // the thread that writes it. Does nothing by default.
  virtual void claim_rows(row_range) {}

  // open_thread: one thread's part, made inside the parallel region (or by
  // any producer of rows, one part per thread that hands rows in).
  virtual std::unique_ptr<thread_part> open_thread() = 0;

  // put: datum's row (0-based datum; n values, divided by the weighting) and
  // the datum of the test model from the row before the weighting.
  virtual void put(thread_part& t, int32_t datum, const double* row, double test_datum) = 0;

  // close_thread: after a thread's rows, its counts into the store's. Called
  // by every thread of the region at once.
  virtual void close_thread(thread_part& t) = 0;
};

}  // namespace quolvent
