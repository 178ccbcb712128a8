// Threshold estimation and the matrix store. The estimate costs
// one row, one transform and one sort per kind of datum, whatever the number
// of data, each shared among the run's threads.
#include "wavelet/threshold.hpp"

#include <algorithm>
#include <cmath>
#include <omp.h>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>

#include "base/format.hpp"
#include "base/parallel_sort.hpp"
#include "base/stop.hpp"
#include "base/text_io.hpp"
#include "wavelet/wavelet_filters.hpp"
#include "wavelet/transform.hpp"

namespace quolvent {

namespace {

[[noreturn]] void out_of_reach() {
  stop_report_log({" Cannot achieve the required relative accuracy,", " program is terminated."});
}

// sample_datum: the 1-based number of the datum of this kind nearest to the
// centre of the mesh (borehole data also by depth); 0 when there is none.
int32_t sample_datum(const mesh_model& mesh, const obs_set& obs,
                     const std::vector<datum_kind>& datum_kinds, datum_kind kind) {
  const double yc = mesh.yn[static_cast<std::size_t>(mesh.ny / 2)];
  const double xc = mesh.xn[static_cast<std::size_t>(mesh.nx / 2)];
  // With fewer than two layers there is no middle node; the top one serves.
  const double zc = mesh.zn[static_cast<std::size_t>(mesh.nz >= 2 ? mesh.nz / 2 - 1 : 0)];
  double best = 1e21;
  int32_t pick = 0;
  const std::size_t nd =
      std::min(datum_kinds.size(), static_cast<std::size_t>(std::max(obs.ndata, 0)));
  for (std::size_t i = 0; i < nd; ++i) {
    if (datum_kinds[i] != kind) continue;
    const double dy = yc - obs.northing[i];
    const double dx = xc - obs.easting[i];
    double d = dy * dy + dx * dx;
    if (kind == datum_kind::borehole) {
      const double dz = obs.elevation[i] + zc - mesh.z0;
      d += dz * dz;
    }
    if (d < best) {
      best = d;
      pick = static_cast<int32_t>(i + 1);
    }
  }
  return pick;
}

}  // namespace

double relative_threshold(const compression& c, const active_cells& cells, const double* row,
                          int32_t n, double eps, const run_log& out, int64_t* kept_count) {
  const int64_t cube_size = c.cube_size;
  const std::size_t nc = static_cast<std::size_t>(cube_size);
  // The row's coefficients, then in their place their energies.
  std::unique_ptr<double[]> y;
  try {
    y.reset(new double[nc]);
  } catch (const std::bad_alloc&) {
    alloc_failed("wctol");
  }
  // Its pages first touched by every thread: the system clears them on all.
#pragma omp parallel for
  for (int64_t i = 0; i < cube_size; ++i) y[static_cast<std::size_t>(i)] = 0.0;
  row_to_cube(c, cells, row, n, y.get());
  transform_cube_parallel(c, y.get(), +1);
#pragma omp parallel for
  for (int64_t i = 0; i < cube_size; ++i)
    y[static_cast<std::size_t>(i)] *= y[static_cast<std::size_t>(i)];
  sort_ascending(y.get(), cube_size);

  // Relative energy: the strongest coefficient is 1. Summed smallest first.
  const double top = nc > 0 ? y[nc - 1] : 0.0;
  if (!(top > 0.0) || !std::isfinite(top)) {
    stop_report({"", "ERROR: the sample row has no finite value other than 0, so no threshold",
                 "can be estimated from it. Give the relative threshold itself (itol 2).",
                 "program is terminated."});
  }
  double total = 0.0;
  for (std::size_t i = 0; i < nc; ++i) {
    y[i] /= top;
    total += y[i];
  }

  // Coefficients below 1e-12 of the strongest are not counted as dropped.
  std::size_t j = 0;
  while (j < nc && y[j] < 1e-12) ++j;

  double tol[10], err[10];
  double dropped = 0.0;
  int k = 0;  // points made
  for (int i = 1; i <= 10; ++i) {
    const double last = (k == 0) ? 0.0 : err[k - 1];
    if (!(last < eps)) break;  // also ends at once for an eps of 0 or below
    tol[i - 1] = std::exp((i - 1) * 1.2792139405522476 - 13.815510557964274);
    while (j < nc && y[j] <= tol[i - 1]) dropped += y[j++];
    err[i - 1] = std::sqrt(dropped / total);
    k = i;
  }
  if (k <= 1) out_of_reach();

  const double tol_a = tol[k - 2], tol_b = tol[k - 1];
  const double err_a = err[k - 2], err_b = err[k - 1];
  double thr;
  if (err_a > 0.0 && err_b > err_a) {
    thr = std::exp(std::log(tol_a) +
                   std::log(tol_b / tol_a) / std::log(err_b / err_a) * std::log(eps / err_a));
  } else {
    // No slope to follow: take the last point that still meets eps.
    thr = (err_b < eps) ? tol_b : tol_a;
  }
  // Above 1 every coefficient of every row would go.
  if (thr > 1.0) thr = 1.0;

  int64_t kept = 0;
  for (std::size_t i = nc; i > 0 && y[i - 1] >= thr; --i) ++kept;
  const double result = std::sqrt(thr);
  if (kept_count) *kept_count = kept;

  out.report_log({"", fmt_right("At the relative  accuracy of:", 30) + fmt_sci(eps, 12, 4),
              fmt_right("Estimated relative threshold:", 30) + fmt_sci(result, 12, 4),
              fmt_right("Predicted compression  ratio:", 30) +
                  fmt_sci(static_cast<double>(n) / static_cast<double>(kept), 12, 4)});
  return result;
}

void estimate_thresholds(const compression& c, const survey& s, const std::string& eps_line,
                         const sample_row_fn& sample_row, const run_log& out, double& surface,
                         double& borehole, int64_t* kept_surface, int64_t* kept_borehole) {
  int32_t itol = 0;
  double eps = std::numeric_limits<double>::quiet_NaN();
  if (is_null_name(eps_line)) {
    itol = 1;
    eps = 0.05;
  } else {
    // A missing eps (end of the text, or a "/") leaves it without a value:
    // that is unreadable input as much as a bad token.
    const int status = ff_read_text(eps_line, {itol, eps});
    if (status != 0 || !std::isfinite(eps)) {
      stop_report({"Unrecognized input for compression threshold,", "program is terminated."});
    }
  }
  if (itol != 1 && itol != 2) stop_report({"Error:  itol should be 1 or 2."});
  if (itol == 2) {
    surface = eps;
    borehole = eps;
    return;
  }
  if (!(eps > 0.0)) {
    stop_report({"", "ERROR: the relative accuracy must be above 0 when itol is 1.",
                 "program is terminated."});
  }

  const int32_t n = s.n;
  std::vector<double> row;
  assign_or_stop(row, static_cast<std::size_t>(n > 0 ? n : 0), 0.0, "setup_compression");
  for (datum_kind kind : {datum_kind::surface, datum_kind::borehole}) {
    const int32_t idat = sample_datum(s.mesh, s.obs, s.datum_kinds, kind);
    if (idat == 0) continue;
    out.report_log({"", kind == datum_kind::surface ? "    Sensitivity of surface  data:"
                                                    : "    Sensitivity of borehole data:"});
    sample_row(idat, row);
    for (std::size_t i = 0; i < row.size(); ++i) row[i] /= s.weights[i];
    const double t = relative_threshold(c, s.cells, row.data(), n, eps, out,
                                        kind == datum_kind::surface ? kept_surface : kept_borehole);
    if (kind == datum_kind::surface) {
      surface = t;
    } else {
      borehole = t;
    }
  }
}

compression setup_compression(const survey& s, const std::string& wavelet,
                              const std::string& eps_line, const sample_row_fn& sample_row,
                              const run_log& out, bool estimate) {
  compression c;
  check_wavelet(wavelet, c.filter, c.filter_length, out);
  if (c.filter_length > 0) set_padded_extents(s.mesh, c);
  c.compressed = c.filter_length >= 1;
  if (c.compressed) {
    c.filters = set_filters(c.filter, c.filter_length);
    if (estimate)
      estimate_thresholds(c, s, eps_line, sample_row, out, c.threshold_surface,
                          c.threshold_borehole, &c.kept_surface, &c.kept_borehole);
  }
  return c;
}

matrix_store make_matrix_store(const compression& c, int32_t n, int32_t ndata) {
  matrix_store store;
  const std::size_t nd = static_cast<std::size_t>(ndata > 0 ? ndata : 0);
  if (c.compressed) {
    assign_or_stop(store.compressed_rows, nd, compressed_row{}, "setup_compression");
    return store;
  }
  const std::size_t len = static_cast<std::size_t>(n > 0 ? n : 0);
  bool ok = true;
  try {
    store.full_rows.resize(len * nd);
  } catch (const std::bad_alloc&) {
    ok = false;
  } catch (const std::length_error&) {
    ok = false;
  }
  if (!ok) {
    stop_report({"", "Error: not enough memory to allocate for the uncompressed",
                 "sensitivity matrix.  Try using compression.", ""});
  }
  return store;
}

}  // namespace quolvent
