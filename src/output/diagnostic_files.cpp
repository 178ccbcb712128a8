// The text files beside the matrix file.
#include "output/diagnostic_files.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "base/channels.hpp"
#include "base/format.hpp"
#include "base/stop.hpp"
#include "base/stop_latch.hpp"
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
  // The place of each column's first value (columns iy outermost).
  std::vector<std::size_t> first_value(static_cast<std::size_t>(ny) * nx + 1, 0);
  for (int32_t iy = 1, c = 0; iy <= ny; ++iy)
    for (int32_t ix = 1; ix <= nx; ++ix, ++c)
      first_value[c + 1] = first_value[c] + static_cast<std::size_t>(nz - column_top(iy, ix));
  if (values.size() < first_value.back()) stop_text("size(values) /= cells below the ground");

  // The lines are made by every thread, a piece of whole columns each, and
  // written in order: the file is the same bytes for any number of threads.
  const std::string air = fmt_sci(1e-20, 8, 1);
  const auto column_lines = [&](int32_t c, std::string& text) {
    const int32_t iy = c / nx + 1, ix = c % nx + 1;
    const int32_t t = column_top(iy, ix);
    for (int32_t iz = 1; iz <= t; ++iz) text.append(air).push_back('\n');
    std::size_t next = first_value[static_cast<std::size_t>(c)];
    for (int32_t iz = t + 1; iz <= nz; ++iz) {
      const double volume = mesh.dz[iz - 1] * (mesh.dx[ix - 1] * mesh.dy[iy - 1]);
      double v = values[next++] / volume;
      // A cell of no volume has no density to show; 0 rather than Inf or NaN.
      if (!std::isfinite(v)) v = 0.0;
      text.append(fmt_sci(v, 12, 5)).push_back('\n');
    }
  };
  constexpr int32_t piece_lines = 1 << 14, round_pieces = 64;
  const int32_t columns = ny * nx;
  const int32_t piece_columns = std::max(1, piece_lines / std::max(nz, 1));
  const int32_t pieces = columns == 0 ? 0 : (columns - 1) / piece_columns + 1;

  std::vector<std::string> texts(static_cast<std::size_t>(std::min(pieces, round_pieces)));
  for (int32_t first = 0; first < pieces; first += round_pieces) {
    const int32_t count = std::min(round_pieces, pieces - first);
    stop_latch latch;
#pragma omp parallel for schedule(dynamic, 1)
    for (int32_t k = 0; k < count; ++k) {
      latch.run([&] {
        std::string& text = texts[static_cast<std::size_t>(k)];
        text.clear();
        const int32_t c0 = (first + k) * piece_columns, c1 = std::min(columns, c0 + piece_columns);
        for (int32_t c = c0; c < c1; ++c) column_lines(c, text);
      });
    }
    latch.rethrow();
    for (int32_t k = 0; k < count; ++k) {
      const std::string& text = texts[static_cast<std::size_t>(k)];
      file.write(text.data(), text.size());
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
