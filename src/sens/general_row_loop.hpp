// The general row loop, one sensitivity row per datum, in
// parallel over the data; and the parts of a row loop that both loops share.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "base/channels.hpp"
#include "base/exact_sum.hpp"
#include "base/progress.hpp"
#include "base/row_range.hpp"
#include "base/stop_latch.hpp"
#include "model/model.hpp"
#include "sens/row_sink.hpp"

namespace quolvent {

// row_sums: the two per-cell sums of a row loop: avg of |row| before the
// weighting, sq of (row / weights)^2. A thread adds the rows of a group of
// sum_group_rows data in datum order, and the group's sums go into these
// exact sums: rows shared out among any threads and processes in whole
// groups give the same sums to the last bit.
struct row_sums {
  exact_sums avg, sq;
};

// general_row_loop
//   Given:   the survey s (mesh, data, column tops, row length n, weighting);
//            the sink of the rows; rows, the data this process computes
//            (whole groups, see row_sums, for sums the same for any layout);
//            the run's log.
//   Returns: the rows of `rows` computed over the mesh and handed to the sink
//            divided by weights; sums made n long, holding the sums over those
//            rows. The screen shows the progress line of all the run's rows.
//   Fails:   "kernel g" / "kernel" when a thread's row or its sums can't be
//            had; arguments that don't fit the rows stop with a text; the
//            stops of prism_row and of the sink; an interrupt at a row's
//            checkpoint (out.check_interrupt). A stop on any thread ends the
//            loop on every thread and leaves it once, after the loop.
void general_row_loop(const survey& s, row_sink& sink, row_range rows, row_sums& sums,
                      const run_log& out);

// general_row_loop, every row on this process: mean_sensitivity (n), the mean over the data of
// |row| before the weighting, and squared_sensitivity (n), the sum over the data of
// (row / weights)^2, each rounded once. Fails: as above.
void general_row_loop(const survey& s, row_sink& sink, std::vector<double>& squared_sensitivity,
                      std::vector<double>& mean_sensitivity, const run_log& out);

// round_sums: squared_sensitivity, the sums sq rounded, and mean_sensitivity, the sums avg
// rounded and divided by ndata (left at 0 with no data).
void round_sums(const row_sums& sums, int32_t ndata, std::vector<double>& squared_sensitivity,
                std::vector<double>& mean_sensitivity);

// row_loop: what the threads of one row loop share: the sums and their
// adders, the progress line, and the latch that carries a stop out of the
// region. The sums are made n long before the loop is.
struct row_loop {
  row_loop(const run_log& out, int32_t ndata, row_sums& sums)
      : progress(out, ndata), avg(sums.avg), sq(sums.sq) {}
  progress_line progress;
  stop_latch latch;
  exact_adder avg, sq;
};

// thread_rows: one thread's row; avg and sq, its sums over the rows of the
// group it is in (sum_group_rows), added in datum order; its part of the sink.
struct thread_rows {
  std::vector<double> g, avg, sq;
  std::unique_ptr<row_sink::thread_part> part;
};

// begin_rows
//   Given:   the sink, n, ndata, the name for allocation stops, the loop's
//            sums, the log. On the calling thread, before the parallel region.
//   Returns: the sink begun; the sums made n long and empty; the header of
//            the progress line on the screen, the log flushed first.
//   Fails:   the stops of the sink's begin; alloc_failed(name).
void begin_rows(row_sink& sink, int32_t n, int32_t ndata, const char* name, row_sums& sums,
                const run_log& out);

// begin_thread_rows
//   Given:   n, the names for allocation stops of the row (g_name) and of the
//            sums (name). In the parallel region, on each thread.
//   Returns: t with a zeroed row and sums of n values, and its sink part.
//   Fails:   alloc_failed(g_name) or alloc_failed(name); the sink's stops.
void begin_thread_rows(row_sink& sink, int32_t n, const char* g_name, const char* name,
                       thread_rows& t);

// end_group: after the last row of a group: the thread's sums of the group
// added into the loop's, and set back to 0.
void end_group(row_loop& loop, thread_rows& t);

// end_thread_rows
//   Given:   t after the thread's rows. In the parallel region, on every
//            thread, stopped or not.
//   Returns: after a barrier, frees the row and the sums and closes the sink
//            part.
//   Fails:   the sink's stops, through the loop's latch.
void end_thread_rows(row_loop& loop, row_sink& sink, thread_rows& t);

}  // namespace quolvent
