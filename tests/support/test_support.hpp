// Helpers of the test suite: scratch directories, whole-program runs, files,
// a run's channels in memory, and small surveys built in memory.
#pragma once

#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "base/channels.hpp"
#include "model/model.hpp"
#include "wavelet/compression.hpp"

namespace qt {

// scratch_dir: a fresh temporary directory, removed with the object; cd()
// makes it the current directory until then.
struct scratch_dir {
  std::filesystem::path path;
  std::filesystem::path old_cwd;
  explicit scratch_dir(const std::string& tag = "quolvent");
  ~scratch_dir();
  void cd();
  std::string file(const std::string& name) const { return (path / name).string(); }
};

// write_file / read_file: whole files as text.
void write_file(const std::string& path, const std::string& text);
std::string read_file(const std::string& path);
std::vector<std::string> read_lines(const std::string& path);

// program_run: the program's screen (stdout), error stream and exit status.
struct program_run {
  std::string screen;
  std::string errors;
  int status = -1;
};
program_run run_program(const std::string& dir, const std::vector<std::string>& args);

// child_program: a program running in dir, its streams going to files there.
struct child_program {
  int pid = -1;
  std::string dir;
  std::string screen() const;  // what the screen has got so far
  program_run wait();          // waits for the end; a death by signal N reads 128 + N
};
// start_program: as run_program without waiting, or the program at exe
// (mpirun); before runs in the child first (limits, environment).
child_program start_program(const std::string& dir, const std::vector<std::string>& args,
                            const std::function<void()>& before = {},
                            const std::string& exe = QUOLVENT_EXE);

// start_held: the program started in dir as a user would, held (SIGSTOP) once
// at(child) says it is where it should be and still is when held, so that a
// busy machine can't let it run past (three tries); then sig sent to it (0:
// none), left held. A pid of -1 when it never was.
child_program start_held(const std::string& dir, const std::vector<std::string>& args,
                         const std::function<bool(const child_program&)>& at, int sig = 0);
// let_go: a held program continued to its end.
program_run let_go(child_program& child);
// has_log: the program has made its log (and holds its folder).
bool has_log(const child_program& child);

// capture: a run_log (out) whose screen and log go to memory; stops() delivers
// a stop as the program's entry would.
struct capture {
  capture();
  ~capture();
  quolvent::run_log out;
  std::string screen();  // what the screen got so far
  std::string log();     // what the log got so far
  // stops: runs f; true when it stopped, with the stop's report delivered.
  bool stops(const std::function<void()>& f);
 private:
  std::FILE* screen_f;
  std::FILE* log_f;
};

// open_descriptors: the number of file descriptors this process holds.
int open_descriptors();

// uniform_mesh: nx x ny x nz cells of widths dx, dy, dz from (x0, y0), the top
// at elevation z0; nodes by running sums as the mesh reader makes them.
quolvent::mesh_model uniform_mesh(int nx, int ny, int nz, double dx, double dy, double dz,
                                  double x0 = 0.0, double y0 = 0.0, double z0 = 0.0);

// field: data without a datum yet: field and measured directions (degrees).
quolvent::obs_set field(double incl, double decl, double aincl, double adecl,
                        double geomag = 50000.0, int idir = 1);
// add_datum: one datum (with its own direction when idir is 0).
void add_datum(quolvent::obs_set& obs, double x, double y, double z, double aincl = 0.0,
               double adecl = 0.0);

// make_survey: mesh and obs over the column tops (flat ground when empty),
// every cell below ground active, the data classified, weighting 1 or weights.
quolvent::survey make_survey(const quolvent::mesh_model& mesh, const quolvent::obs_set& obs,
                             std::vector<int32_t> top_index = {}, std::vector<double> weights = {});

// wavelet_of: a compression record with the filters of the wavelet name.
quolvent::compression wavelet_of(const std::string& name);

// kernel_row: datum i's (1-based) unweighted row over the cells below the
// tops, from the row kernel for that datum alone.
std::vector<double> kernel_row(const quolvent::mesh_model& mesh, const quolvent::obs_set& obs,
                               const std::vector<int32_t>& top, int32_t i,
                               const quolvent::run_log& out);

// run_in_process: args run in dir through run_command_line in this process.
program_run run_in_process(const scratch_dir& dir, std::vector<std::string> args);

// write_flat_survey: run.inp, mesh.txt, obs.mag: nx x ny x nz cells of
// 10 x 10 x 5, flat ground, nd data 2 m up on cell centres when regular (the
// regular-grid loop), else scattered; no diagnostic files.
void write_flat_survey(const scratch_dir& d, int nx, int ny, int nz, int nd, bool regular,
                       const std::string& wavelet);

// temporary_outputs: the names of outputs' temporary files in dir.
std::vector<std::string> temporary_outputs(const std::string& dir);
inline std::vector<std::string> temporary_outputs(const scratch_dir& d) {
  return temporary_outputs(d.path.string());
}

// as_in_a_terminal: in a child, interrupts as for a program started by hand.
void as_in_a_terminal();

// wait_until: polls ready every millisecond for up to `seconds`.
bool wait_until(const std::function<bool()>& ready, int seconds = 60);

}  // namespace qt
