// Helpers of the test suite: temporary working directories, whole-program
// runs, files written and read back, stops caught in-process.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

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

// stop_caught: thrown by the test stop handler in place of the process exit.
struct stop_caught {};

// capture: while alive, the screen goes to a buffer and the log to another,
// and stops throw stop_caught instead of ending the process.
struct capture {
  capture();
  ~capture();
  std::string screen();  // what the screen got so far
  std::string log();     // what the log got so far
 private:
  std::FILE* screen_f;
  std::FILE* log_f;
};

// set_uniform_mesh: the global mesh with nx x ny x nz cells of widths dx,
// dy, dz, its first nodes at (x0, y0) and its top at elevation z0; nodes by
// running sums as the mesh reader makes them. top_index is set flat (all 0).
void set_uniform_mesh(int nx, int ny, int nz, double dx, double dy, double dz,
                      double x0 = 0.0, double y0 = 0.0, double z0 = 0.0);

// set_field: the global data emptied, with the field, the measured direction
// (degrees), the field strength and idir.
void set_field(double incl, double decl, double aincl, double adecl, double geomag = 50000.0,
               int idir = 1);
// add_datum: one datum at easting x, northing y, elevation z (and its own
// direction when idir is 0).
void add_datum(double x, double y, double z, double aincl = 0.0, double adecl = 0.0);

}  // namespace qt
