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

// report_progress: the percent line on the screen, in steps of 5, ended by
// " 100."; silent when total is below 10. Call it under a lock of the caller's.
void report_progress(int32_t done, int32_t total);
