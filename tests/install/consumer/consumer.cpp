// consumer CONTROL OUTDIR: one run in this process through the installed
// headers and libraries, its matrix file read back and applied. Every product
// is held against the rows read one by one: dot against the sum of each row
// times the model, rdot of a unit vector against the row it picks.
#include <quolvent/matrix.hpp>
#include <quolvent/run.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

namespace {

double largest_gap(const std::vector<double>& a, const std::vector<double>& b) {
  double gap = 0.0, scale = 0.0;
  for (size_t k = 0; k < a.size(); ++k) {
    gap = std::max(gap, std::abs(a[k] - b[k]));
    scale = std::max(scale, std::abs(b[k]));
  }
  return gap / std::max(scale, 1e-300);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: consumer CONTROL OUTDIR\n");
    return 2;
  }
  quolvent::run_summary summary;
  quolvent::run_options options;
  options.outdir = argv[2];
  options.summary = &summary;
  options.set_affinity = false;
  char name[] = "consumer", threads[] = "2";
  char* command_line[] = {name, argv[1], threads};
  if (quolvent::run_command_line(3, command_line, nullptr, options) != 0 || !summary.complete) {
    std::fprintf(stderr, "run failed: %s\n", summary.report.c_str());
    return 1;
  }

  const quolvent::stored_matrix g(std::string(argv[2]) + "/dulmarok.mtx");
  const auto& contents = g.contents();
  if (contents.ndata != summary.ndata || contents.n != summary.nbelow || g.nnz() != summary.nnz) {
    std::fprintf(stderr, "file and summary disagree: %d x %d, %lld kept\n", contents.ndata,
                 contents.n, static_cast<long long>(g.nnz()));
    return 1;
  }
  std::vector<double> model(contents.n);
  for (int32_t j = 0; j < contents.n; ++j) model[j] = 1e-3 * (1 + j % 7);
  std::vector<double> by_rows(contents.ndata);
  double rdot_gap = 0.0;
  for (int32_t i = 0; i < contents.ndata; ++i) {
    const auto row = g.row(i);
    for (int32_t j = 0; j < contents.n; ++j) by_rows[i] += row[j] * model[j];
    if (i % 50 == 0) {
      std::vector<double> pick(contents.ndata, 0.0);
      pick[i] = 1.0;
      rdot_gap = std::max(rdot_gap, largest_gap(g.rdot(pick), row));
    }
  }
  const double dot_gap = largest_gap(g.dot(model), by_rows);
  std::printf("%d data, %d cells, %lld kept; dot %.2e, rdot %.2e\n", contents.ndata, contents.n,
              static_cast<long long>(g.nnz()), dot_gap, rdot_gap);
  return dot_gap < 1e-9 && rdot_gap < 1e-9 ? 0 : 1;
}
