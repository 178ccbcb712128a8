// The folder a run writes its outputs in: one run at a time, and its outputs
// replaced as one set.
//
// folder_lock keeps a second run out of a folder while one writes there: an
// advisory lock (flock) on a file beside the outputs, which the kernel lets go
// of when the holder ends, however it ends. output_set holds a run's outputs
// under their temporary names until the whole run is through, then puts them
// in place together, the matrix file last, and removes the outputs of an
// earlier run that this one did not make; a run that stops before leaves the
// folder's outputs as they were, all of them.
#pragma once

#include <list>
#include <string>
#include <vector>

#include "base/channels.hpp"
#include "output/output_file.hpp"

namespace quolvent {

// The exit status of a run refused because another run holds its folder.
inline constexpr int folder_busy_status = 75;

class folder_lock {
 public:
  // The lock file's name, beside the outputs (left there: it is empty).
  static constexpr const char* file_name = ".quolvent.lock";

  // Takes the lock on the folder dir ("" : the current directory) without
  // waiting. Touches nothing else in the folder.
  // Fails: another process holds it: a report naming the folder, exit status
  //   folder_busy_status, on the screen only; no lock file can be made or
  //   opened: the platform's failure (exit status 1). A file system without
  //   locks is no failure: the run goes on unlocked and warning() says so.
  explicit folder_lock(const std::string& dir);
  folder_lock(const folder_lock&) = delete;
  folder_lock& operator=(const folder_lock&) = delete;
  ~folder_lock();

  // warning: lines for the screen and the log when the folder could not be
  // locked (empty when it is).
  const std::vector<std::string>& warning() const { return warning_; }

 private:
  int fd_ = -1;
  std::vector<std::string> warning_;
};

class output_set {
 public:
  // family: the paths of every output a run may write, all in one folder, in
  // the order they are put in place (the product last).
  explicit output_set(std::vector<std::string> family);
  output_set(const output_set&) = delete;
  output_set& operator=(const output_set&) = delete;

  // prepare: before anything is written, by the run that holds the folder.
  // Temporary files of the family that an earlier run left (killed before
  // it could remove them) are removed, and the log says which.
  // Fails: a directory (or anything a file can't be renamed over) in an
  //   output's place: cannot_write(name, EISDIR).
  void prepare(const run_log& out) const;

  // open: a new output of the family, written under its temporary name.
  // Fails: as output_file.
  output_file& open(const std::string& name, const char* mode);

  // commit: once the whole run is through. Every output opened is finished,
  // the outputs of the family that this run did not write are removed, and
  // the run's outputs are put in place in the family's order; the log names
  // what was put in place and what was removed.
  // Fails: a file that can't be finished or renamed: cannot_write.
  void commit(const run_log& out);

 private:
  std::vector<std::string> family_;
  std::list<output_file> files_;  // stable places: writers hold references
};

}  // namespace quolvent
