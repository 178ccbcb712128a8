#include "support/test_support.hpp"

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "model/active_cells.hpp"
#include "model/mesh.hpp"
#include "model/observations.hpp"
#include "run/run_driver.hpp"
#include "sens/field_directions.hpp"
#include "sens/prism_row.hpp"
#include "wavelet/wavelet_filters.hpp"
#include "wavelet/transform.hpp"

namespace qt {

scratch_dir::scratch_dir(const std::string& tag) {
  std::string name = (std::filesystem::temp_directory_path() / (tag + "-XXXXXX")).string();
  path = mkdtemp(name.data());
}

scratch_dir::~scratch_dir() {
  std::error_code ec;
  if (!old_cwd.empty()) std::filesystem::current_path(old_cwd, ec);
  std::filesystem::remove_all(path, ec);
}

void scratch_dir::cd() {
  if (old_cwd.empty()) old_cwd = std::filesystem::current_path();
  std::filesystem::current_path(path);
}

void write_file(const std::string& path, const std::string& text) {
  std::ofstream f(path, std::ios::binary);
  f << text;
}

std::string read_file(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(f), {}};
}

std::vector<std::string> read_lines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream f(path);
  std::string l;
  while (std::getline(f, l)) lines.push_back(l);
  return lines;
}

program_run run_program(const std::string& dir, const std::vector<std::string>& args) {
  return start_program(dir, args).wait();
}

// Each program's streams in files of their own, so that two can share a dir.
static std::string streams_of(const std::string& dir, int pid, const char* which) {
  return dir + "/." + which + "." + std::to_string(pid) + ".txt";
}

std::string child_program::screen() const { return read_file(streams_of(dir, pid, "screen")); }

program_run child_program::wait() {
  int st = 0;
  waitpid(pid, &st, 0);
  return {screen(), read_file(streams_of(dir, pid, "errors")),
          WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st)};
}

child_program start_program(const std::string& dir, const std::vector<std::string>& args,
                            const std::function<void()>& before, const std::string& exe_path) {
  const pid_t pid = fork();
  if (pid == 0) {
    const std::string out = streams_of(dir, getpid(), "screen");
    const std::string err = streams_of(dir, getpid(), "errors");
    if (before) before();
    if (chdir(dir.c_str()) != 0) _exit(127);
    if (!freopen(out.c_str(), "w", stdout)) _exit(127);
    if (!freopen(err.c_str(), "w", stderr)) _exit(127);
    std::string exe = exe_path;
    std::vector<char*> argv{exe.data()};
    std::vector<std::string> copy(args);
    for (auto& a : copy) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(exe.c_str(), argv.data());
    _exit(127);
  }
  return child_program{static_cast<int>(pid), dir};
}

child_program start_held(const std::string& dir, const std::vector<std::string>& args,
                         const std::function<bool(const child_program&)>& at, int sig) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    auto child = start_program(dir, args, as_in_a_terminal);
    wait_until([&] { return at(child); });
    kill(child.pid, SIGSTOP);
    int st = 0;
    waitpid(child.pid, &st, WUNTRACED);
    if (WIFSTOPPED(st) && at(child)) {
      if (sig != 0) kill(child.pid, sig);
      return child;
    }
    if (WIFSTOPPED(st)) kill(child.pid, SIGCONT);
    child.wait();
  }
  return {};
}

program_run let_go(child_program& child) {
  if (child.pid <= 0) return {};
  kill(child.pid, SIGCONT);
  return child.wait();
}

bool has_log(const child_program& child) {
  return std::filesystem::exists(child.dir + "/quolvent.log");
}

capture::capture() : out(std::tmpfile()), screen_f(out.screen()), log_f(std::tmpfile()) {
  out.adopt_log(log_f);
}

capture::~capture() {
  out.close_log();
  std::fclose(screen_f);
  std::fclose(log_f);
}

namespace {
std::string slurp(std::FILE* f) {
  std::fflush(f);
  const long here = std::ftell(f);
  std::rewind(f);
  std::string s(static_cast<std::size_t>(here), '\0');
  const std::size_t got = std::fread(s.data(), 1, s.size(), f);
  s.resize(got);
  std::fseek(f, 0, SEEK_END);
  return s;
}
}  // namespace

std::string capture::screen() { return slurp(screen_f); }
std::string capture::log() { return slurp(log_f); }

bool capture::stops(const std::function<void()>& f) try {
  f();
  return false;
} catch (const quolvent::stop& s) {
  out.deliver(s);
  return true;
}

int open_descriptors() {
  const std::filesystem::directory_iterator fds("/proc/self/fd");
  return static_cast<int>(std::distance(begin(fds), end(fds)));
}

quolvent::mesh_model uniform_mesh(int nx, int ny, int nz, double dx, double dy, double dz,
                                  double x0, double y0, double z0) {
  const auto nodes = [](int n, double d, double first) {
    std::vector<double> v{first};
    for (int i = 0; i < n; ++i) v.push_back(v.back() + d);
    return v;
  };
  const auto widths = [](int n, double d) { return std::vector<double>(std::size_t(n), d); };
  return {nx, ny, nz, widths(nx, dx), widths(ny, dy), widths(nz, dz),
          nodes(nx, dx, x0), nodes(ny, dy, y0), nodes(nz, dz, 0.0), z0};
}

quolvent::obs_set field(double incl, double decl, double aincl, double adecl, double geomag,
                        int idir) {
  return {.incl = incl, .decl = decl, .geomag = geomag, .aincl = aincl, .adecl = adecl,
          .idir = idir};
}

void add_datum(quolvent::obs_set& obs, double x, double y, double z, double aincl, double adecl) {
  obs.easting.push_back(x);
  obs.northing.push_back(y);
  obs.elevation.push_back(z);
  if (obs.idir == 0) {
    obs.datum_aincl.push_back(aincl);
    obs.datum_adecl.push_back(adecl);
  }
  obs.ndata = static_cast<int32_t>(obs.easting.size());
}

quolvent::survey make_survey(const quolvent::mesh_model& mesh, const quolvent::obs_set& obs,
                             std::vector<int32_t> top_index, std::vector<double> weights) {
  if (top_index.empty()) top_index.assign(std::size_t(mesh.nx) * std::size_t(mesh.ny), 0);
  quolvent::survey s{.mesh = mesh, .obs = obs, .top_index = std::move(top_index)};
  const quolvent::run_log quiet(nullptr);
  s.cells = quolvent::get_active_cells("null", s.mesh, s.top_index, quiet);
  auto split = quolvent::classify_data(s.mesh, quolvent::mesh_length_scale(s.mesh), s.obs,
                                      s.top_index, quiet);
  s.datum_kinds = std::move(split.datum_kinds);
  s.survey_kind = split.survey_kind;
  s.n = s.cells.nbelow;
  s.weights = weights.empty() ? std::vector<double>(std::size_t(s.n), 1.0) : std::move(weights);
  return s;
}

quolvent::compression wavelet_of(const std::string& name) {
  const quolvent::run_log quiet(nullptr);
  quolvent::compression c;
  quolvent::check_wavelet(name, c.filter, c.filter_length, quiet);
  c.filters = quolvent::set_filters(c.filter, c.filter_length);
  c.compressed = c.filter_length > 0;
  return c;
}

std::vector<double> kernel_row(const quolvent::mesh_model& mesh, const quolvent::obs_set& obs,
                               const std::vector<int32_t>& top, int32_t i,
                               const quolvent::run_log& out) {
  const std::size_t d = static_cast<std::size_t>(i - 1);
  quolvent::direction_products dir = quolvent::survey_directions(obs);
  if (obs.idir == 0)
    dir = quolvent::field_directions(obs.incl, obs.decl, obs.datum_aincl[d], obs.datum_adecl[d]);
  quolvent::row_workspace ws =
      quolvent::make_row_workspace(dir, quolvent::mesh_length_scale(mesh));
  std::size_t n = 0;
  for (int32_t t : top) n += static_cast<std::size_t>(mesh.nz - t);
  std::vector<double> g(n);
  quolvent::prism_row(ws, obs.geomag, mesh.yn.data(), mesh.xn.data(), mesh.zn.data(), mesh.ny,
                      mesh.nx, mesh.nz, top.data(), i, obs.northing[d], obs.easting[d],
                      mesh.z0 - obs.elevation[d], g.data(), g.size(), out);
  return g;
}

program_run run_in_process(const scratch_dir& dir, std::vector<std::string> args) {
  program_run r;
  const auto old = std::filesystem::current_path();
  std::filesystem::current_path(dir.path);
  std::FILE* screen = std::tmpfile();
  std::string exe = "quolvent";
  std::vector<char*> argv{exe.data()};
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  r.status = quolvent::run_command_line(static_cast<int>(args.size()) + 1, argv.data(), screen);
  r.screen = slurp(screen);
  std::fclose(screen);
  std::filesystem::current_path(old);
  return r;
}

void write_flat_survey(const scratch_dir& d, int nx, int ny, int nz, int nd, bool regular,
                       const std::string& wavelet) {
  const auto n = [](int v) { return std::to_string(v); };
  write_file(d.file("mesh.txt"), n(nx) + " " + n(ny) + " " + n(nz) + "\n0 0 0\n" + n(nx) +
                                     "*10.0\n" + n(ny) + "*10.0\n" + n(nz) + "*5.0\n");
  std::string obs = "65 20 50000\n65 20 1\n" + n(nd) + "\n";
  for (int i = 0; i < nd; ++i) {
    // Irrational steps when scattered: no two data share a grid.
    const double x = regular ? 5.0 + 10.0 * (i % nx)
                             : 10.0 * nx * (0.05 + 0.9 * std::fmod(i * 0.6180339887, 1.0));
    const double y = regular ? 5.0 + 10.0 * (i / nx)
                             : 10.0 * ny * (0.05 + 0.9 * std::fmod(i * 0.4142135623, 1.0));
    obs += std::to_string(x) + " " + std::to_string(y) + " 2.0\n";
  }
  write_file(d.file("obs.mag"), obs);
  write_file(d.file("run.inp"), "mesh.txt\nobs.mag\nnull\nVALUE 1.0\n" + wavelet + "\nnull\n0\n");
}

std::vector<std::string> temporary_outputs(const std::string& dir) {
  std::vector<std::string> found;
  for (const auto& e : std::filesystem::directory_iterator(dir)) {
    const std::string name = e.path().filename().string();
    if (name.find(".unfinished.") != std::string::npos) found.push_back(name);
  }
  return found;
}

void as_in_a_terminal() {
  for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGXFSZ}) std::signal(sig, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

bool wait_until(const std::function<bool()>& ready, int seconds) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (std::chrono::steady_clock::now() < limit) {
    if (ready()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

}  // namespace qt
