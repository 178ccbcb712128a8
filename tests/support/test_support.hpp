// Helpers of the test suite: temporary working directories, whole-program
// runs, files written and read back, a run's channels captured in memory,
// and the records of small surveys built in memory.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "base/channels.hpp"
#include "base/stop.hpp"
#include "model/model.hpp"
#include "wavelet/compression.hpp"

namespace qt {

// scratch_dir: a fresh directory under the system's temporary directory,
// removed with the object; cd() makes it the current directory until the
// object dies.
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
// run_program: runs the built program with args in directory dir.
program_run run_program(const std::string& dir, const std::vector<std::string>& args);

// child_program: the built program running in dir, its screen and error
// stream going to files there, for a test that acts on it while it runs.
struct child_program {
  int pid = -1;
  std::string dir;
  std::string screen() const;  // what the screen has got so far
  program_run wait();          // waits for the end; a death by signal N reads 128 + N
};
// start_program: as run_program, without waiting; before runs in the child
// first (limits, signal dispositions, environment).
child_program start_program(const std::string& dir, const std::vector<std::string>& args,
                            const std::function<void()>& before = {});
// start_command: as start_program, running the program at path exe (mpirun,
// for one) instead of the built program.
child_program start_command(const std::string& exe, const std::string& dir,
                            const std::vector<std::string>& args,
                            const std::function<void()>& before = {});

// capture: a run's log whose screen and log go to memory. out is what the
// routines under test are handed; a stop they throw is delivered with
// deliver(), as the program's entry would.
struct capture {
  capture();
  ~capture();
  capture(const capture&) = delete;
  capture& operator=(const capture&) = delete;
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

// uniform_mesh: nx x ny x nz cells of widths dx, dy, dz, the first nodes at
// (x0, y0) and the top at elevation z0; nodes by running sums as the mesh
// reader makes them.
quolvent::mesh_model uniform_mesh(int nx, int ny, int nz, double dx, double dy, double dz,
                                  double x0 = 0.0, double y0 = 0.0, double z0 = 0.0);

// field: data without a datum yet: the field, the measured direction
// (degrees), the field strength and idir.
quolvent::obs_set field(double incl, double decl, double aincl, double adecl,
                        double geomag = 50000.0, int idir = 1);
// add_datum: one datum at easting x, northing y, elevation z (and its own
// direction when idir is 0).
void add_datum(quolvent::obs_set& obs, double x, double y, double z, double aincl = 0.0,
               double adecl = 0.0);

// make_survey: the survey of mesh and obs with the given column tops (flat
// ground at the mesh top when empty): every cell below the ground active,
// the data classified, and a weighting of 1 (or wtz when given).
quolvent::survey make_survey(const quolvent::mesh_model& mesh, const quolvent::obs_set& obs,
                             std::vector<int32_t> top_index = {},
                             std::vector<double> wtz = {});

// wavelet_of: a compression record with the filters of the wavelet name
// (padded extents not set), made quietly.
quolvent::compression wavelet_of(const std::string& name);

// kernel_row: datum i's (1-based) row over the cells below the tops, before
// any weighting, as the row kernel computes it for that datum alone (in the
// datum's own direction where idir is 0).
std::vector<double> kernel_row(const quolvent::mesh_model& mesh, const quolvent::obs_set& obs,
                               const std::vector<int32_t>& top, int32_t i,
                               const quolvent::run_log& out);

// run_in_process: the run of args in dir through run_command_line, in this
// process, as an embedding program makes it; its screen and status.
program_run run_in_process(const scratch_dir& dir, std::vector<std::string> args);

// write_flat_survey: run.inp, mesh.txt and obs.mag in d: nx x ny x nz cells
// of 10 x 10 x 5 from (0, 0), flat ground, nd data 2 m above it on the cell
// centres when regular (the regular-grid loop), otherwise at scattered places
// (the general loop); the wavelet given, no diagnostic files.
void write_flat_survey(const scratch_dir& d, int nx, int ny, int nz, int nd, bool regular,
                       const std::string& wavelet);

// temporary_outputs: names in d that hold an output's temporary file (the
// output's name and a suffix).
std::vector<std::string> temporary_outputs(const scratch_dir& d);

// as_in_a_terminal: for a child before it starts: the interrupts act as for
// a program started by hand, whatever the test runner does with them.
void as_in_a_terminal();

// wait_until: polls ready every millisecond for up to `seconds`.
bool wait_until(const std::function<bool()>& ready, int seconds = 60);

}  // namespace qt
