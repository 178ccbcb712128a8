// The run driver: the program's one pipeline, top to bottom.
#include "run/run_driver.hpp"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <new>
#include <optional>
#include <omp.h>
#include <string>
#include <vector>

#include "base/denormals.hpp"
#include "base/format.hpp"
#include "base/interrupt.hpp"
#include "base/stop.hpp"
#include "base/text_io.hpp"
#include "base/timing.hpp"
#include "model/active_cells.hpp"
#include "model/cell_values.hpp"
#include "model/mesh.hpp"
#include "model/model.hpp"
#include "model/observations.hpp"
#include "output/diagnostic_files.hpp"
#include "output/matrix_file.hpp"
#include "output/output_room.hpp"
#include "output/run_folder.hpp"
#include "run/control_file.hpp"
#include "run/row_engine.hpp"
#include "run/row_store.hpp"
#include "run/run_group.hpp"
#include "sens/grid_check.hpp"
#include "sens/field_directions.hpp"
#include "sens/prism_row.hpp"
#include "sens/grid_row_loop.hpp"
#include "sens/general_row_loop.hpp"
#include "topo/ground.hpp"
#include "wavelet/compression.hpp"
#include "wavelet/compress_row.hpp"
#include "wavelet/threshold.hpp"
#include "wavelet/uncompress.hpp"

namespace quolvent {

namespace {

// memory_stop: the stop of an allocation without a report of its own: it
// says so plainly.
stop memory_stop() {
  stop s;
  s.screen_lines = {"", "ERROR: not enough memory for this run.", ""};
  s.log_lines = s.screen_lines;
  s.kind = stop_kind::memory;
  return s;
}

constexpr const char* program_name = "quolvent";
constexpr std::size_t field_width = 500;

// thread_count_from: nThreads of the second argument, or 0 when it can't be
// parsed; 0 and below leave the runtime's default.
int thread_count_from(const char* arg) {
  std::string text(arg);
  if (text.size() > field_width) text.resize(field_width);
  int32_t n = 0;
  if (ff_read_text(text, {n}) != 0) return 0;
  return n;
}

// thread_count_scope: the thread count of the parallel regions for one run;
// the process gets its own count back when the run ends, however it ends.
class thread_count_scope {
 public:
  explicit thread_count_scope(int n) : saved_(omp_get_max_threads()) {
    if (n > 0) omp_set_num_threads(n);
  }
  thread_count_scope(const thread_count_scope&) = delete;
  thread_count_scope& operator=(const thread_count_scope&) = delete;
  ~thread_count_scope() { omp_set_num_threads(saved_); }

 private:
  int saved_;
};

void print_usage(const run_log& out) {
  out.say_screen("");
  out.say_screen(std::string("   Usage: ") + program_name + " " + program_name +
                 ".inp  [nThreads]");
  out.say_screen("");
  out.say_screen(std::string("   For a sample input file, type: ") + program_name + " -inp");
}

// threshold_echo: the text behind " Wavelet   threshold: " for the eps line.
std::string threshold_echo(const std::string& eps_line) {
  if (is_null_name(eps_line)) return "default";
  int32_t itol = 0;
  double eps = 0.0;
  if (ff_read_text(eps_line, {itol, eps}) != 0) {
    stop_report({"", "Unrecognized input for compression threshold,", "program is terminated."});
  }
  return (itol == 1 ? "relative accuracy =" : "relative threshold =") + fmt_fixed(eps, 6, 4);
}

void print_parameters(const run_params& params, const std::string& input_name, const run_log& out) {
  out.say_log("with the following parameters:");
  out.say_log("");
  out.say_log("          Input file: " + rtrim(input_name));
  out.say_log("   Observations file: " + rtrim(params.obs_file));
  out.say_log("           Mesh file: " + rtrim(params.mesh_file));
  out.say_log("     Topography file: " + rtrim(params.topo_file));
  out.say_log(" Wavelet compression: " + params.wavelet);
  out.say_log(" Wavelet   threshold: " + threshold_echo(params.eps_line));
  out.say_log("");
}

// worker_stack_bytes: each worker of the row loops keeps row-sized arrays,
// 40 bytes per row entry, never less than a comfortable default stack.
std::size_t worker_stack_bytes(int32_t n) {
  constexpr std::size_t floor_bytes = std::size_t{8} << 20;
  return std::max(floor_bytes, std::size_t{40} * static_cast<std::size_t>(std::max(n, 0)));
}

// read_survey: steps 13 to 20, the model, the data, the ground and the
// weighting, each stage filling its part of the survey.
survey read_survey(const run_params& params, const run_log& out) {
  survey s;
  s.mesh = read_mesh(params.mesh_file);
  s.obs = read_data_file(params.obs_file);
  s.top_index = read_topography(params.topo_file, s.mesh, out);
  s.cells = get_active_cells("null", s.mesh, s.top_index, out);
  data_split split = classify_data(s.mesh, mesh_length_scale(s.mesh), s.obs, s.top_index, out);
  s.datum_kinds = std::move(split.datum_kinds);
  s.survey_kind = split.survey_kind;
  s.n = s.cells.nbelow;
  kmp_set_stacksize_s(worker_stack_bytes(s.n));
  out.flush();
  s.weights.assign(static_cast<std::size_t>(s.n), 0.0);
  read_cell_values(params.weight_file, "weighting", s.cells, s.weights, out);
  return s;
}

// output_path: an output's name in the run's output directory.
std::string output_path(const run_options& options, const std::string& name) {
  if (options.outdir.empty()) return name;
  return options.outdir.back() == '/' ? options.outdir + name : options.outdir + "/" + name;
}

// run_outputs: every output a run may write, in the order they are put in
// place, the matrix file last.
std::vector<std::string> run_outputs(const run_options& options) {
  std::vector<std::string> names;
  for (const char* name : {"data_notcompressed.txt", "data_compressed.txt", "sensitivity.txt",
                           "sensitivity_compressed.txt", "dulmarok.mtx"})
    names.push_back(output_path(options, name));
  return names;
}

// round_mean: the exact sums rounded, and divided by ndata (no data: 0).
void round_mean(const exact_sums& sums, int32_t ndata, std::vector<double>& mean) {
  sums.round(mean);
  if (ndata > 0) {
    for (double& v : mean) v /= ndata;
  }
}

// run_pipeline: steps 13 to 33, from the mesh to the uncompress stage. Every
// process of the group runs it; each computes and holds the rows of its own
// data, and the first writes what the others only help to make.
void run_pipeline(const run_params& params, phase_clock& clock, run_log& out,
                  const run_options& options, run_summary& sum, run_group& group) {
  auto timed = [&](const char* label) {
    sum.phase_seconds.emplace_back(label, clock.phase_timer(label, 1, out.screen(), out.log()));
  };
  const bool leads = group.leads();
  // The outputs wait under their temporary names until the whole run is
  // through; a directory in the place of one refuses the run now.
  output_set outputs(run_outputs(options));
  if (leads) outputs.prepare(out);
  // init: the model, the data, the ground and the weighting.
  const survey s = read_survey(params, out);
  const grid_survey grid = grid_check(s.mesh, s.obs, s.survey_kind);
  sum.ndata = s.obs.ndata;
  for (datum_kind k : s.datum_kinds)
    (k == datum_kind::borehole ? sum.nborehole : sum.nsurface) += 1;
  sum.ncells = s.cells.ncell_total;
  sum.nbelow = s.n;
  timed("init");
  out.flush();
  out.enter_phase("sens");

  // sens: the rows, the sensitivity model and the matrix file.
  std::vector<double> squared_sensitivity, mean_sensitivity;
  assign_or_stop(squared_sensitivity, static_cast<std::size_t>(s.n), 0.0, "sens3d");
  assign_or_stop(mean_sensitivity, static_cast<std::size_t>(s.n), 0.0, "sens3d");
  // The sample rows of the threshold estimate: the survey's directions, on
  // every thread. The first process estimates; the others take its thresholds.
  const row_workspace sample_ws =
      make_row_workspace(survey_directions(s.obs), mesh_length_scale(s.mesh));
  const sample_row_fn sample_row = [&](int32_t idat, std::vector<double>& row) {
    const std::size_t d = static_cast<std::size_t>(idat - 1);
    prism_row_parallel(sample_ws, s.obs.geomag, s.mesh.yn.data(), s.mesh.xn.data(),
                       s.mesh.zn.data(), s.mesh.ny, s.mesh.nx, s.mesh.nz, s.top_index.data(), idat,
                       s.obs.northing[d], s.obs.easting[d], s.mesh.z0 - s.obs.elevation[d],
                       row.data(), row.size(), out);
  };
  compression c = setup_compression(s, params.wavelet, params.eps_line, sample_row, out, leads);
  group.share_thresholds(c);
  // Before the first row: a run whose outputs can't be written stops now.
  sum.compressed = c.compressed;
  sum.threshold_surface = c.threshold_surface;
  sum.threshold_borehole = c.threshold_borehole;
  const row_range rows = group.rows(s.obs.ndata);
  const std::string matrix_path = output_path(options, "dulmarok.mtx");
  check_output_room(s, c, matrix_path, out, rows.count());
  // Rows kept whole go to the matrix file as they are made. Compressed rows
  // are held in memory (they are small); a process that writes the whole
  // file puts each record in as soon as every earlier one is made, and frees
  // it unless the uncompress stage reads it again.
  matrix_store store = c.compressed ? make_matrix_store(c, s.n, rows.count()) : matrix_store{};
  output_file* matrix = nullptr;
  std::unique_ptr<streamed_matrix> streamed;
  std::unique_ptr<ordered_matrix> ordered;
  if (!c.compressed) {
    if (leads) matrix = &outputs.open(matrix_path, "wb");
    streamed = group.open_streamed_matrix(matrix, s, c);
  } else {
    ordered = group.open_ordered_matrix(outputs, matrix_path, s, c, store,
                                        !params.write_diagnostics);
  }
  {
    store_sink sink(s, c, store, rows, streamed.get(), ordered.get());
    row_sums sums;
    if (options.engine != nullptr) {
      options.engine->make_rows(s, grid, c, sink, rows, sums, out);
    } else if (grid.regular) {
      grid_row_loop(s, grid, sink, rows, sums, out);
    } else {
      general_row_loop(s, sink, rows, sums, out);
    }
    group.reduce_sums(sums.sq);
    group.reduce_sums(sums.avg);
    if (leads) {
      sums.sq.round(squared_sensitivity);
      round_mean(sums.avg, s.obs.ndata, mean_sensitivity);
    }
    sum.nnz = int64_t{s.n} * s.obs.ndata;
    if (c.compressed) {
      const int64_t nnz = group.total(sink.nnz());
      group.gather_rows(sink.data_full(), rows);
      group.gather_rows(sink.data_comp(), rows);
      group.gather_rows(sink.row_bound(), rows);
      group.gather_rows(sink.row_exact(), rows);
      const compression_figures fig = report_compression(
          s.n, s.obs.ndata, nnz, sink.data_full().data(), sink.data_comp().data(),
          sink.row_bound().data(), sink.row_exact().data(), out);
      sum.nnz = nnz;
      sum.compression_ratio = fig.ratio;
      sum.achieved_error = fig.achieved_error;
      sum.row_error_mean = fig.row_error_mean;
      sum.row_error_max = fig.row_error_max;
      sum.rows_measured = fig.rows_measured;
      sum.row_bound_mean = fig.row_bound_mean;
      sum.row_bound_max = fig.row_bound_max;
      if (params.write_diagnostics && leads) {
        write_data_file(outputs.open(output_path(options, "data_notcompressed.txt"), "w"), s.obs,
                        sink.data_full());
        write_data_file(outputs.open(output_path(options, "data_compressed.txt"), "w"), s.obs,
                        sink.data_comp());
      }
    }
  }
  timed("sens");
  out.enter_phase("writing");
  if (leads)
    write_sensitivity_model(mean_sensitivity, s.mesh, s.top_index,
                            outputs.open(output_path(options, "sensitivity.txt"), "w"));
  if (ordered) {
    say_writing_matrix(out);
    ordered->finish(squared_sensitivity, out);
  } else {
    if (c.compressed && leads) matrix = &outputs.open(matrix_path, "wb");
    group.write_matrix(matrix, s, c, store, rows, squared_sensitivity, out, streamed.get());
  }
  ordered.reset();
  streamed.reset();
  std::vector<double>().swap(squared_sensitivity);

  // uncompress: what the compressed rows make of the average sensitivity.
  if (c.compressed && params.write_diagnostics) {
    out.enter_phase("uncompress");
    exact_sums sums;
    uncompress_rows(c, s.cells, store, s.n, rows, s.obs.ndata, s.weights, sums, out);
    group.reduce_sums(sums);
    if (leads) {
      round_mean(sums, s.obs.ndata, mean_sensitivity);
      write_sensitivity_model(mean_sensitivity, s.mesh, s.top_index,
                              outputs.open(output_path(options, "sensitivity_compressed.txt"), "w"));
    }
    timed("uncompress");
  }
  // Every process is through: the outputs take the places of an earlier
  // run's, all of them, after a last checkpoint.
  group.agree();
  if (leads) {
    out.check_interrupt();
    outputs.commit(out);
  }
  group.agree();
}

}  // namespace

void execute_run(int argc, char** argv, run_log& out, const run_options& options,
                 const std::vector<std::string>& lock_warning) {
  run_summary scratch;
  run_summary& sum = options.summary ? *options.summary : scratch;
  solo_group solo;
  run_group& group = options.group ? *options.group : solo;
  out.set_hook(group.hook());
  // Every process learns whether the first one got the folder.
  group.agree();
  const int nargs = argc - 1;

  // Set-up: floating-point control, affinity and threads, before any
  // parallel region starts.
  const denormals_to_zero flush;
  if (options.set_affinity) setenv("KMP_AFFINITY", "scatter", 1);
  const thread_count_scope threads(nargs == 2 ? thread_count_from(argv[2]) : 0);
  phase_clock clock;
  clock.phase_timer("start", 0, out.screen(), nullptr);
  // The banner's line of the group and of the engine, where they have one.
  std::string banner_line = group.banner_line();
  if (options.engine != nullptr && !options.engine->banner_line().empty())
    banner_line += (banner_line.empty() ? "" : "\n") + options.engine->banner_line();
  print_banner("QUOLVENT", out.screen(), banner_line);
  if (nargs < 1) {
    print_usage(out);
    stop_plain();
  }
  std::string input_name(argv[1]);
  if (input_name.size() > field_width) input_name.resize(field_width);

  if (group.leads())
    out.open_log(output_path(options, "quolvent.log"));
  else
    out.adopt_log(group.side_log());
  print_banner("QUOLVENT", out.log(), banner_line);
  for (const auto& line : lock_warning) {
    out.say_screen(line);
    out.say_log(line);
  }
  const run_params params = read_control_file(input_name, out);
  print_timestamp("QUOLVENT started on: ", out.log());
  print_parameters(params, input_name, out);
  try {
    sum.wavelet = params.wavelet;
    run_pipeline(params, clock, out, options, sum, group);
  } catch (const std::bad_alloc&) {
    throw memory_stop();
  }

  sum.phase_seconds.emplace_back("TOTAL", clock.phase_timer("TOTAL", -1, out.screen(), out.log()));
  print_timestamp("QUOLVENT ended on: ", out.log());
  out.close_log();
  if (out.screen()) std::fflush(out.screen());
  sum.complete = true;
}

namespace {

// report_text: a stop's report as the screen shows it, then its error text.
std::string report_text(const stop& s) {
  std::string text;
  for (const auto& l : s.screen_lines.empty() ? s.log_lines : s.screen_lines) text += l + "\n";
  if (!s.error_text.empty()) text += s.error_text + "\n";
  const std::size_t first = text.find_first_not_of('\n');
  return first == std::string::npos ? std::string() : text.substr(first);
}

}  // namespace

int run_command_line(int argc, char** argv, std::FILE* screen, const run_options& options) {
  // SIGINT, SIGTERM and SIGHUP become a stop at the run's next checkpoint,
  // which removes what is half written. Made before any worker thread starts,
  // so that the workers hold them back too; the mask is the caller's again
  // when the run ends.
  const interrupt_watch watch;
  // The folder is the run's from before its log is made until after it is
  // closed, the report of a stop included.
  std::optional<folder_lock> folder;
  run_log out(screen);
  out.watch_interrupts(&watch);
  int status = 0;
  // A stop of a run shared by several processes is settled among them
  // first: the report of the process that stopped goes to the first one.
  const auto deliver = [&](const stop& own) {
    const stop s = options.group ? options.group->settle(own) : own;
    out.deliver(s);
    status = s.status;
    if (options.summary) {
      options.summary->report = report_text(s);
      options.summary->stop_kind = stop_kind_name(s.kind);
    }
  };
  try {
    const bool leads = options.group ? options.group->leads() : true;
    if (leads && argc >= 2) folder.emplace(options.outdir);
    execute_run(argc, argv, out, options, folder ? folder->warning() : std::vector<std::string>{});
  } catch (const stop& s) {
    deliver(s);
  } catch (const std::bad_alloc&) {
    // Before the pipeline, or while a stop was being made.
    deliver(memory_stop());
  }
  out.close_log();
  if (screen) std::fflush(screen);
  if (options.summary) options.summary->status = status;
  return status;
}

}  // namespace quolvent
