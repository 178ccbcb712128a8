// The regular survey test: do the data form a grid on one level, at a spacing
// that is a whole multiple of a uniform mesh's cells? If so, the run takes the
// regular-grid row loop (grid_row_loop) instead of the general one (general_row_loop).
#pragma once

#include <cstdint>

#include "model/model.hpp"

namespace quolvent {

// Relative tolerance of every test of grid_check.
inline constexpr double grid_rel_tol = 0.01;
// Two coordinates closer than this (0.001 taken at 32-bit precision) times the
// mesh's length scale (mesh_length_scale) are one grid line.
inline constexpr double grid_same_coord = static_cast<double>(0.001f);

// grid_survey: the outcome of the regular survey test. When regular, the
// 1-based datum nearest the mesh centre in plan view (first of equals) and the
// mean cell widths along y and x, always finite and above 0.
struct grid_survey {
  bool regular = false;
  int32_t ref_datum = 0;
  double cell_dy = 0.0, cell_dx = 0.0;
};

// grid_check
// Given: the mesh, the data and survey_kind (all surface, all borehole, mixed).
// Returns: regular true when every test passes, with the reference datum and
//   the widths; otherwise regular false (the widths then hold what was set
//   before the failing test).
// Fails: never; an unusable mesh or survey just gives regular false.
grid_survey grid_check(const mesh_model& mesh, const obs_set& obs, datum_kind survey_kind);

// spacing_stats
// Given: a[0..n-1], one coordinate of all data; same, the distance within
//   which two values are one line (grid_same_coord times the length scale).
// Returns: spacing, the mean gap between the distinct values (values within
//   same of one already listed are the same line), and spread,
//   (largest gap - smallest gap) / spacing. With fewer than two distinct
//   values there is no gap: both are NaN, and the caller must treat them as
//   passing and never use them as numbers.
// Fails: never.
void spacing_stats(const double* a, int32_t n, double same, double& spacing, double& spread);

}  // namespace quolvent
