// KERNEL_MOD: the general row loop, one sensitivity row per datum, in
// parallel over the data; and the parts of a row loop that both loops share.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "base/channels.hpp"
#include "base/progress.hpp"
#include "base/stop_latch.hpp"
#include "model/model.hpp"
#include "sens/row_sink.hpp"

namespace quolvent {

// KERNEL
//   Given:   the survey s (mesh, data, column tops, row length n, weighting);
//            the sink of the rows; the run's log.
//   Returns: every row computed over the mesh and handed to the sink divided
//            by wtz; sens_avg (n), the mean over the data of |row| before the
//            weighting, and sens_sq (n), the sum over the data of
//            (row / wtz)^2. The screen shows the progress line.
//   Fails:   "kernel g" / "kernel" when a thread's row or its sums can't be
//            had; arguments that don't fit the rows stop with a text; the
//            stops of sens_row and of the sink; an interrupt at a row's
//            checkpoint (out.check_interrupt). A stop on any thread ends the
//            loop on every thread and leaves it once, after the loop.
void KERNEL(const survey& s, row_sink& sink, std::vector<double>& sens_sq,
            std::vector<double>& sens_avg, const run_log& out);

// row_loop: what the threads of one row loop share: the sums, the progress
// line, and the latch that carries a stop out of the region.
struct row_loop {
  row_loop(const run_log& out, int32_t ndata) : progress(out.screen(), ndata) {}
  std::mutex sums_lock;
  progress_line progress;
  stop_latch latch;
};

// thread_rows: one thread's row, its private sums over the rows it computes,
// and its part of the sink.
struct thread_rows {
  std::vector<double> g, avg, sq;
  std::unique_ptr<row_sink::thread_part> part;
};

// begin_rows
//   Given:   the sink, n, ndata, the name for allocation stops, the log. On
//            the calling thread, before the parallel region.
//   Returns: the sink begun; the header of the progress line on the screen,
//            the log flushed first.
//   Fails:   the stops of the sink's begin.
void begin_rows(row_sink& sink, int32_t n, int32_t ndata, const char* name, const run_log& out);

// begin_thread_rows
//   Given:   n, the names for allocation stops of the row (g_name) and of the
//            sums (name). In the parallel region, on each thread.
//   Returns: t with a zeroed row and sums of n values, and its sink part.
//   Fails:   alloc_failed(g_name) or alloc_failed(name); the sink's stops.
void begin_thread_rows(row_sink& sink, int32_t n, const char* g_name, const char* name,
                       thread_rows& t);

// end_thread_rows
//   Given:   t after the thread's rows. In the parallel region, on every
//            thread, stopped or not.
//   Returns: after a barrier, frees the row, closes the sink part and adds the
//            sums into sens_sq and sens_avg under the loop's lock.
//   Fails:   the sink's stops, through the loop's latch.
void end_thread_rows(row_loop& loop, row_sink& sink, thread_rows& t,
                     std::vector<double>& sens_sq, std::vector<double>& sens_avg);

// end_rows: sens_avg as a mean over the data (left at 0 with no data).
void end_rows(int32_t ndata, std::vector<double>& sens_avg);

}  // namespace quolvent
