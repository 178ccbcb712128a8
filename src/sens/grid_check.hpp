// The regular survey test: do the data form a grid on one level, at a spacing
// that is a whole multiple of a uniform mesh's cells? If so, the run takes the
// regular-grid row loop (KERNEL2) instead of the general one (KERNEL).
#pragma once

#include <cstdint>

// Relative tolerance of every test of grid_check.
inline constexpr double grid_rel_tol = 0.01;
// Two coordinates closer than this (0.001 taken at 32-bit precision) are one
// grid line.
inline constexpr double grid_same_coord = static_cast<double>(0.001f);

// grid_check
// Given: data_kind (+1 all surface, -1 all borehole, 0 mixed) and idir (0 when
//   each datum has its own direction); reads the shared mesh and obs records.
// Returns: regular, true when every test passes; then ref_datum, the 1-based
//   datum nearest the mesh centre in plan view (first of equals), and cell_dy,
//   cell_dx, the mean cell widths along y and x, always finite and above 0.
//   When regular is false, ref_datum is left as it was and cell_dy, cell_dx
//   hold what was set before the failing test.
// Fails: never; an unusable mesh or survey just gives regular false.
// Calls: spacing_stats.
void grid_check(int32_t data_kind, int32_t idir, bool& regular, int32_t& ref_datum,
                double& cell_dy, double& cell_dx);

// spacing_stats
// Given: a[0..n-1], one coordinate of all data.
// Returns: spacing, the mean gap between the distinct values (values within
//   grid_same_coord of one already listed are the same line), and spread,
//   (largest gap - smallest gap) / spacing. With fewer than two distinct
//   values there is no gap: both are NaN, and the caller must treat them as
//   passing and never use them as numbers.
// Fails: never.
// Calls: hpsort.
void spacing_stats(const double* a, int32_t n, double& spacing, double& spread);
