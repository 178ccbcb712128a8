// Cell-value sources: a constant or a file of one value per mesh cell.
#include "model/cell_values.hpp"

#include <algorithm>

#include "base/format.hpp"
#include "base/stop.hpp"
#include "base/text_io.hpp"

namespace quolvent {

void read_cell_values(const std::string& source, const std::string& label,
                      const active_cells& cells, std::span<double> model, const run_log& out) {
  if (model.size() != static_cast<std::size_t>(std::max(cells.nactive, 0))) {
    stop_text("size(model) /= ncell");
  }
  const std::string what = rtrim(label);

  // The source arrives with trailing blanks cut: "VALUE" alone is the
  // constant form with its number missing.
  std::string padded = source;
  if (padded.size() < 6) padded.resize(6, ' ');
  if (padded.rfind("VALUE ", 0) == 0) {
    double v = 0.0;
    if (ff_read_text(std::string_view(padded).substr(6), {v}) != 0) {
      stop_report({"", "ERROR reading constant value for " + what, rtrim(source)});
    }
    std::fill(model.begin(), model.end(), v);
    out.report_log({fmt_right(what + " was set to: ", 31) + fmt_sci(v, 11, 4)});
    return;
  }

  const std::string name = rtrim(source);
  text_file t;
  if (!text_open(t, source)) file_not_found(what, source);

  // One read per cell over the whole mesh, in the order of active_map.
  for (std::size_t p = 0; p < cells.active_map.size(); ++p) {
    double v = 0.0;
    const int st = ff_read(t, {v});
    if (st < 0) {
      stop_reading({"", "ERROR: end reached reading " + what + " file " + name});
    }
    if (st > 0) {
      stop_reading({"", "ERROR reading " + what + " file " + name});
    }
    const int32_t place = cells.active_map[p];
    if (place > 0 && static_cast<std::size_t>(place) <= model.size()) model[static_cast<std::size_t>(place) - 1] = v;
  }
  double extra = 0.0;
  if (ff_read(t, {extra}) == 0) {
    stop_reading({"", "ERROR: too many values in " + what + " file " + name});
  }
  text_close(t);
  out.report_log({fmt_right(what + " was read from file: ", 40) + name});
}

}  // namespace quolvent
