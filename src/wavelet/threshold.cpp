// Threshold estimation and the choice of the matrix store. The estimate costs
// one row, one transform and one sort per kind of datum, whatever the number
// of data.
#include "wavelet/threshold.hpp"

#include <cmath>
#include <limits>
#include <new>
#include <stdexcept>

#include "model/model.hpp"
#include "run/format.hpp"
#include "run/text_io.hpp"
#include "sens/gsus_mod.hpp"
#include "sens/gsus_no_atan_mod.hpp"
#include "wavelet/compression.hpp"
#include "wavelet/hpsort.hpp"
#include "wavelet/wavelet_filters.hpp"
#include "wavelet/wtn_mod.hpp"

namespace {

[[noreturn]] void out_of_reach() {
  report_log({" Cannot achieve the required relative accuracy,", " program is terminated."});
  stop_plain();
}

// sample_datum: the 1-based number of the datum of this kind nearest to the
// centre of the mesh (borehole data also by depth); 0 when there is none.
int32_t sample_datum(const std::vector<int32_t>& obs_type, int32_t kind) {
  const double yc = mesh.yn[static_cast<std::size_t>(mesh.ny / 2)];
  const double xc = mesh.xn[static_cast<std::size_t>(mesh.nx / 2)];
  // With fewer than two layers there is no middle node; the top one serves.
  const double zc = mesh.zn[static_cast<std::size_t>(mesh.nz >= 2 ? mesh.nz / 2 - 1 : 0)];
  double best = 1e21;
  int32_t pick = 0;
  const std::size_t nd = std::min(obs_type.size(), static_cast<std::size_t>(std::max(obs.ndata, 0)));
  for (std::size_t i = 0; i < nd; ++i) {
    if (obs_type[i] != kind) continue;
    const double dy = yc - obs.obs_y[i];
    const double dx = xc - obs.obs_x[i];
    double d = dy * dy + dx * dx;
    if (kind < 0) {
      const double dz = obs.obs_z[i] + zc - mesh.z0;
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

double wctol(const double* row, int32_t n, double eps) {
  const std::size_t nc = static_cast<std::size_t>(ncube);
  std::vector<double> y;
  {
    std::vector<double> x;
    try {
      x.assign(nc, 0.0);
      y.assign(nc, 0.0);
    } catch (const std::bad_alloc&) {
      alloc_failed("wctol");
    }
    row_to_cube(row, n, x.data());
    transform_cube(x.data(), +1);
    for (std::size_t i = 0; i < nc; ++i) y[i] = x[i] * x[i];
  }
  hpsort(y.data(), ncube);

  // Relative energy: the strongest coefficient is 1. Summed smallest first.
  const double top = nc > 0 ? y[nc - 1] : 0.0;
  if (!(top > 0.0) || !std::isfinite(top)) {
    report({"", "ERROR: the sample row has no finite value other than 0, so no threshold",
            "can be estimated from it. Give the relative threshold itself (itol 2).",
            "program is terminated."});
    stop_plain();
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

  report_log({"", fmt_right("At the relative  accuracy of:", 30) + fmt_sci(eps, 12, 4),
              fmt_right("Estimated relative threshold:", 30) + fmt_sci(result, 12, 4),
              fmt_right("Predicted compression  ratio:", 30) +
                  fmt_sci(static_cast<double>(n) / static_cast<double>(kept), 12, 4)});
  return result;
}

void estimate_thresholds(int32_t n, const std::vector<double>& wtz,
                         const std::vector<int32_t>& top_index,
                         const std::vector<int32_t>& obs_type, const std::string& eps_line,
                         double& surface, double& borehole) {
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
      report({"Unrecognized input for compression threshold,", "program is terminated."});
      stop_plain();
    }
  }
  if (itol != 1 && itol != 2) {
    report({"Error:  itol should be 1 or 2."});
    stop_plain();
  }
  if (itol == 2) {
    surface = eps;
    borehole = eps;
    return;
  }
  if (!(eps > 0.0)) {
    report({"", "ERROR: the relative accuracy must be above 0 when itol is 1.",
            "program is terminated."});
    stop_plain();
  }

  std::vector<double> row;
  try {
    row.assign(static_cast<std::size_t>(n > 0 ? n : 0), 0.0);
  } catch (const std::bad_alloc&) {
    alloc_failed("setup_compression");
  }
  for (int32_t kind : {1, -1}) {
    const int32_t idat = sample_datum(obs_type, kind);
    if (idat == 0) continue;
    report_log({"", kind > 0 ? "    Sensitivity of surface  data:" : "    Sensitivity of borehole data:"});
    const std::size_t d = static_cast<std::size_t>(idat - 1);
    sens_row(mesh.yn.data(), mesh.xn.data(), mesh.zn.data(), mesh.ny, mesh.nx, mesh.nz,
             top_index.data(), idat, obs.obs_y[d], obs.obs_x[d], mesh.z0 - obs.obs_z[d], row.data(),
             row.size());
    for (std::size_t i = 0; i < row.size(); ++i) row[i] /= wtz[i];
    const double t = wctol(row.data(), n, eps);
    if (kind > 0) {
      surface = t;
    } else {
      borehole = t;
    }
  }
}

// setup_compression
// Given: the row length, wtz, the column tops, the kinds of the data, the
//   wavelet name and the tolerance field.
// Returns: the main thread's direction products set; compressed, filters,
//   padded extents and thresholds set and g_compressed made (ndata empty
//   records), or g_full made (n x ndata, each element written by the row loops) when no wavelet is used.
// Fails: the stops of check_wavelet, set_padded_extents and
//   estimate_thresholds; no memory for g_compressed: "setup_compression";
//   for g_full: its own message and a stop.
// Calls: SET_G_VALUES, check_wavelet, set_padded_extents, set_filters,
//   estimate_thresholds.
void setup_compression(int32_t n, const std::vector<double>& wtz,
                       const std::vector<int32_t>& top_index,
                       const std::vector<int32_t>& obs_type, const std::string& wavelet,
                       const std::string& eps_line) {
  // The main thread's products serve the sample rows here and are copied to
  // every thread of the row loop.
  const bool common = obs.idir != 0 || obs.obs_aincl.empty() || obs.obs_adecl.empty();
  SET_G_VALUES(obs.incl, obs.decl, common ? obs.aincl : obs.obs_aincl[0],
               common ? obs.adecl : obs.obs_adecl[0]);

  check_wavelet(wavelet, filter, ncof);
  if (ncof > 0) set_padded_extents();
  compressed = ncof >= 1;
  const std::size_t nd = static_cast<std::size_t>(obs.ndata > 0 ? obs.ndata : 0);
  if (compressed) {
    try {
      g_compressed.assign(nd, compressed_row{});
    } catch (const std::bad_alloc&) {
      alloc_failed("setup_compression");
    } catch (const std::length_error&) {
      alloc_failed("setup_compression");
    }
    set_filters(filter, ncof);
    estimate_thresholds(n, wtz, top_index, obs_type, eps_line, wctol_surface, wctol_borehole);
  } else {
    const std::size_t len = static_cast<std::size_t>(n > 0 ? n : 0);
    bool ok = true;
    try {
      g_full.resize(len * nd);
    } catch (const std::bad_alloc&) {
      ok = false;
    } catch (const std::length_error&) {
      ok = false;
    }
    if (!ok) {
      report({"", "Error: not enough memory to allocate for the uncompressed",
              "sensitivity matrix.  Try using compression.", ""});
      stop_plain();
    }
  }
}
