// The text files beside the matrix file.
#include "output/diagnostic_files.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "base/channels.hpp"
#include "base/format.hpp"
#include "base/stop.hpp"
#include "output/output_file.hpp"

namespace quolvent {

void write_sensitivity_model(const std::vector<double>& values, const mesh_model& mesh,
                             const std::vector<int32_t>& top_index, output_file& file) {
  const int32_t ny = std::max(mesh.ny, 0), nx = std::max(mesh.nx, 0), nz = std::max(mesh.nz, 0);
  if (top_index.size() < static_cast<std::size_t>(ny) * static_cast<std::size_t>(nx) ||
      mesh.dy.size() < static_cast<std::size_t>(ny) ||
      mesh.dx.size() < static_cast<std::size_t>(nx) ||
      mesh.dz.size() < static_cast<std::size_t>(nz)) {
    stop_text("size(top_index) /= ny * nx");
  }
  auto column_top = [&](int32_t iy, int32_t ix) {
    return std::min(std::max(top_index[static_cast<std::size_t>(iy - 1) +
                                       static_cast<std::size_t>(ix - 1) * ny],
                             0),
                    nz);
  };
  std::size_t below = 0;
  for (int32_t iy = 1; iy <= ny; ++iy)
    for (int32_t ix = 1; ix <= nx; ++ix) below += static_cast<std::size_t>(nz - column_top(iy, ix));
  if (values.size() < below) stop_text("size(values) /= cells below the ground");

  const std::string air = fmt_sci(1e-20, 8, 1);
  std::size_t next = 0;
  for (int32_t iy = 1; iy <= ny; ++iy)
    for (int32_t ix = 1; ix <= nx; ++ix) {
      const int32_t t = column_top(iy, ix);
      for (int32_t iz = 1; iz <= t; ++iz) file.line(air);
      for (int32_t iz = t + 1; iz <= nz; ++iz) {
        const double volume = mesh.dz[iz - 1] * (mesh.dx[ix - 1] * mesh.dy[iy - 1]);
        double v = values[next++] / volume;
        // A cell of no volume has no density to show; 0 rather than Inf or NaN.
        if (!std::isfinite(v)) v = 0.0;
        file.line(fmt_sci(v, 12, 5));
      }
    }
  file.finish();
}

void write_data_file(output_file& file, const obs_set& obs,
                     const std::vector<double>& values) {
  const int32_t ndata = obs.ndata;
  const std::size_t count = static_cast<std::size_t>(ndata > 0 ? ndata : 0);
  if (values.size() < count || obs.easting.size() < count || obs.northing.size() < count ||
      obs.elevation.size() < count ||
      (obs.idir <= 0 && (obs.datum_aincl.size() < count || obs.datum_adecl.size() < count))) {
    stop_text("size(values) /= ndata");
  }
  file.line(fmt_fixed(obs.incl, 10, 2) + fmt_fixed(obs.decl, 10, 2) +
                  fmt_fixed(obs.geomag, 10, 2) + "  !! incl, decl, geomag");
  file.line(fmt_fixed(obs.aincl, 10, 2) + fmt_fixed(obs.adecl, 10, 2) + "     " +
                  fmt_int(obs.idir, 2) + "   " + "  !! aincl, adecl, idir");
  file.line(fmt_int(ndata, 7) + std::string(23, ' ') + "  !! # of data");
  for (int32_t i = 0; i < ndata; ++i) {
    const std::size_t d = static_cast<std::size_t>(i);
    std::string line = fmt_sci(obs.easting[d], 17, 9) + fmt_sci(obs.northing[d], 17, 9) +
                       fmt_sci(obs.elevation[d], 17, 9) + "  ";
    if (obs.idir <= 0) {
      line += fmt_sci(obs.datum_aincl[d], 12, 4) + fmt_sci(obs.datum_adecl[d], 12, 4) + "  ";
    }
    line += fmt_sci(values[d], 14, 6);
    file.line(line);
  }
  file.finish();
}

}  // namespace quolvent
