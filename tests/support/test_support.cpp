#include "support/test_support.hpp"

#include <array>
#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

#include "model/active_cells.hpp"
#include "model/mesh.hpp"
#include "model/observations.hpp"
#include "wavelet/wavelet_filters.hpp"
#include "wavelet/wtn_mod.hpp"

namespace qt {

scratch_dir::scratch_dir(const std::string& tag) {
  std::random_device rd;
  for (;;) {
    path = std::filesystem::temp_directory_path() /
           (tag + "-" + std::to_string(getpid()) + "-" + std::to_string(rd()));
    if (std::filesystem::create_directory(path)) break;
  }
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
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
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

std::string child_program::screen() const { return read_file(dir + "/.screen.txt"); }

program_run child_program::wait() {
  program_run r;
  const std::string out = dir + "/.screen.txt";
  const std::string err = dir + "/.errors.txt";
  int st = 0;
  waitpid(pid, &st, 0);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  r.screen = read_file(out);
  r.errors = read_file(err);
  std::remove(out.c_str());
  std::remove(err.c_str());
  return r;
}

child_program start_program(const std::string& dir, const std::vector<std::string>& args,
                            const std::function<void()>& before) {
  return start_command(QUOLVENT_EXE, dir, args, before);
}

child_program start_command(const std::string& exe_path, const std::string& dir,
                            const std::vector<std::string>& args,
                            const std::function<void()>& before) {
  const std::string out = dir + "/.screen.txt";
  const std::string err = dir + "/.errors.txt";
  const pid_t pid = fork();
  if (pid == 0) {
    if (before) before();
    if (chdir(dir.c_str()) != 0) _exit(127);
    if (!freopen(out.c_str(), "w", stdout)) _exit(127);
    if (!freopen(err.c_str(), "w", stderr)) _exit(127);
    std::vector<char*> argv;
    std::string exe = exe_path;
    argv.push_back(exe.data());
    std::vector<std::string> copy(args);
    for (auto& a : copy) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(exe.c_str(), argv.data());
    _exit(127);
  }
  return child_program{static_cast<int>(pid), dir};
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

bool capture::stops(const std::function<void()>& f) {
  try {
    f();
  } catch (const quolvent::stop& s) {
    out.deliver(s);
    return true;
  }
  return false;
}

int open_descriptors() {
  int n = 0;
  for (const auto& e : std::filesystem::directory_iterator("/proc/self/fd")) {
    (void)e;
    ++n;
  }
  return n;
}

quolvent::mesh_model uniform_mesh(int nx, int ny, int nz, double dx, double dy, double dz,
                                  double x0, double y0, double z0) {
  quolvent::mesh_model mesh;
  mesh.nx = nx;
  mesh.ny = ny;
  mesh.nz = nz;
  mesh.dx.assign(static_cast<std::size_t>(nx), dx);
  mesh.dy.assign(static_cast<std::size_t>(ny), dy);
  mesh.dz.assign(static_cast<std::size_t>(nz), dz);
  mesh.xn.assign(1, x0);
  mesh.yn.assign(1, y0);
  mesh.zn.assign(1, 0.0);
  for (int i = 0; i < nx; ++i) mesh.xn.push_back(mesh.xn.back() + dx);
  for (int j = 0; j < ny; ++j) mesh.yn.push_back(mesh.yn.back() + dy);
  for (int k = 0; k < nz; ++k) mesh.zn.push_back(mesh.zn.back() + dz);
  mesh.z0 = z0;
  return mesh;
}

quolvent::obs_set field(double incl, double decl, double aincl, double adecl, double geomag,
                        int idir) {
  quolvent::obs_set obs;
  obs.incl = incl;
  obs.decl = decl;
  obs.aincl = aincl;
  obs.adecl = adecl;
  obs.geomag = geomag;
  obs.idir = idir;
  return obs;
}

void add_datum(quolvent::obs_set& obs, double x, double y, double z, double aincl, double adecl) {
  obs.obs_x.push_back(x);
  obs.obs_y.push_back(y);
  obs.obs_z.push_back(z);
  if (obs.idir == 0) {
    obs.obs_aincl.push_back(aincl);
    obs.obs_adecl.push_back(adecl);
  }
  obs.ndata = static_cast<int32_t>(obs.obs_x.size());
}

quolvent::survey make_survey(const quolvent::mesh_model& mesh, const quolvent::obs_set& obs,
                             std::vector<int32_t> top_index, std::vector<double> wtz) {
  quolvent::survey s;
  s.mesh = mesh;
  s.obs = obs;
  if (top_index.empty())
    top_index.assign(static_cast<std::size_t>(mesh.nx) * static_cast<std::size_t>(mesh.ny), 0);
  s.top_index = std::move(top_index);
  const quolvent::run_log quiet(nullptr);
  s.cells = quolvent::get_active_cells("null", s.mesh, s.top_index, quiet);
  quolvent::data_split split = quolvent::classify_data(
      s.mesh, quolvent::mesh_length_scale(s.mesh), s.obs, s.top_index, quiet);
  s.obs_type = std::move(split.obs_type);
  s.data_kind = split.data_kind;
  s.n = s.cells.nbelow;
  if (wtz.empty()) wtz.assign(static_cast<std::size_t>(s.n), 1.0);
  s.wtz = std::move(wtz);
  return s;
}

quolvent::compression wavelet_of(const std::string& name) {
  const quolvent::run_log quiet(nullptr);
  quolvent::compression c;
  quolvent::check_wavelet(name, c.filter, c.ncof, quiet);
  c.flt = quolvent::set_filters(c.filter, c.ncof);
  c.compressed = c.ncof > 0;
  return c;
}

}  // namespace qt
