// KERNEL_MOD: the general row loop, one sensitivity row per datum, in
// parallel over the data; and the progress line shared by the row loops.
#pragma once

#include <cstdint>
#include <vector>

// KERNEL: computes every row over the model's mesh and data, folds them into
// sens_avg (mean over the data of |row|, before the weighting) and sens_sq
// (sum over the data of (row / wtz)^2), and stores row / wtz: rounded to 32
// bits in g_full when uncompressed, as a compressed record otherwise.
void KERNEL(int32_t n, const std::vector<double>& wtz, const std::vector<int32_t>& top_index,
            const std::vector<int32_t>& obs_type, std::vector<double>& sens_sq,
            std::vector<double>& sens_avg);

// The set-up and the reduction that both row loops share; the rows
// themselves stay in each loop.

// compression_check: the uniform test model of the compression check and the
// datum of each row from the full and from the compressed row; empty when
// the rows are not compressed.
struct compression_check {
  std::vector<double> model, data_full, data_comp;
};

// thread_rows: one thread's row, its private sums over the rows it computes,
// and its count of kept coefficients.
struct thread_rows {
  std::vector<double> g, avg, sq;
  int64_t nnz = 0;
};

// begin_rows
// Given: n, ndata, wtz (n), the name for allocation stops. On the calling
//   thread, before the parallel region.
// Returns: check filled when compressed (the model of 0.01, transformed);
//   the header of the progress line on the screen, the log flushed first.
// Fails: alloc_failed(name). Calls: transform_test_model, say_screen.
void begin_rows(int32_t n, int32_t ndata, const std::vector<double>& wtz, const char* name,
                compression_check& check);

// begin_thread_rows
// Given: n, the names for allocation stops of the row (g_name) and of the
//   sums (name). In the parallel region, on each thread.
// Returns: t with a zeroed row and sums of n values and nnz 0; the thread's
//   work arrays when compressed.
// Fails: alloc_failed(g_name) or alloc_failed(name). Calls: ALLOC_WORK.
void begin_thread_rows(int32_t n, const char* g_name, const char* name, thread_rows& t);

// end_thread_rows
// Given: t after the thread's rows. In the parallel region, on each thread.
// Returns: after a barrier, frees the row and the work arrays and adds the
//   sums into sens_sq, sens_avg and nnz under a lock of its own.
// Fails: never. Calls: DEALLOC_WORK.
void end_thread_rows(thread_rows& t, std::vector<double>& sens_sq, std::vector<double>& sens_avg,
                     int64_t& nnz);

// end_rows
// Given: n, ndata, the total nnz, sens_avg (sums), check. On the calling
//   thread, after the parallel region.
// Returns: sens_avg as a mean over the data (left at 0 with no data); when
//   compressed, the compression report, and check freed.
// Fails: as report_compression. Calls: report_compression.
void end_rows(int32_t n, int32_t ndata, int64_t nnz, std::vector<double>& sens_avg,
              compression_check& check);

// report_progress: the percent line on the screen, in steps of 5, ended by
// " 100."; silent when total is below 10. Call it under a lock of the caller's.
void report_progress(int32_t done, int32_t total);
