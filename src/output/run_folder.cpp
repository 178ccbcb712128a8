// The folder a run writes its outputs in.
#include "output/run_folder.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/stop.hpp"

namespace quolvent {

namespace fs = std::filesystem;

namespace {

std::string folder_of(const std::string& path) {
  const fs::path dir = fs::path(path).parent_path();
  return dir.empty() ? std::string(".") : dir.string();
}

// shown_folder: the folder as a user finds it again: its full path.
std::string shown_folder(const std::string& dir) {
  std::error_code ec;
  const fs::path full = fs::weakly_canonical(fs::absolute(dir.empty() ? "." : dir, ec), ec);
  return ec ? dir : full.string();
}

// joined: names with ", " between them.
std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const auto& n : names) text += (text.empty() ? "" : ", ") + n;
  return text;
}

std::string base_name(const std::string& path) { return fs::path(path).filename().string(); }

// is_temporary_of: name is a temporary file of the output whose file name is
// output: its prefix, then exactly the letters and digits of the tag.
bool is_temporary_of(const std::string& name, const std::string& output) {
  const std::string prefix = output_file::temporary_prefix(output);
  if (name.size() != prefix.size() + output_file::temporary_tag_length ||
      name.compare(0, prefix.size(), prefix) != 0)
    return false;
  return std::all_of(name.begin() + static_cast<std::ptrdiff_t>(prefix.size()), name.end(),
                     [](unsigned char ch) { return std::isalnum(ch) != 0; });
}

}  // namespace

folder_lock::folder_lock(const std::string& dir) {
  const std::string path = (dir.empty() ? std::string(".") : dir) + "/" + file_name;
  fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY, 0666);
  // A lock file made by another user can still be locked through a
  // descriptor for reading.
  if (fd_ < 0 && errno == EACCES) fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  if (fd_ < 0) {
    platform_failure("cannot create " + std::string(file_name) + " in " + shown_folder(dir) +
                     ": " + std::strerror(errno));
  }
  int err = 0;
  do {
    err = ::flock(fd_, LOCK_EX | LOCK_NB) == 0 ? 0 : errno;
  } while (err == EINTR);
  if (err == 0) return;
  if (err == EWOULDBLOCK) {
    ::close(fd_);
    fd_ = -1;
    stop s;
    s.screen_lines = {"", "ERROR: another run is writing its outputs in " + shown_folder(dir),
                      "       This run is stopped and has changed nothing there.", ""};
    s.status = folder_busy_status;
    throw s;
  }
  // Some network file systems have no locks: the run goes on, and says that
  // nothing keeps a second run out.
  warning_ = {"", "WARNING: the file system of " + shown_folder(dir) +
                      " does not lock files (" + std::strerror(err) + "):",
              "         nothing keeps another run from writing there at the same time.", ""};
}

folder_lock::~folder_lock() {
  if (fd_ >= 0) ::close(fd_);
}

output_set::output_set(std::vector<std::string> family) : family_(std::move(family)) {}

void output_set::prepare(const run_log& out) const {
  if (family_.empty()) return;
  for (const auto& name : family_) {
    struct stat st {};
    if (::stat(name.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) cannot_write(name, EISDIR);
  }
  const std::string dir = folder_of(family_.front());
  std::vector<std::string> removed;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(dir, ec)) {
    const std::string name = entry.path().filename().string();
    for (const auto& output : family_) {
      if (!is_temporary_of(name, base_name(output))) continue;
      if (::unlink(entry.path().c_str()) == 0) removed.push_back(name);
    }
  }
  if (removed.empty()) return;
  std::sort(removed.begin(), removed.end());
  out.report_log({"", "Removed, left unfinished by an earlier run: " + joined(removed)});
}

output_file& output_set::open(const std::string& name, const char* mode) {
  return files_.emplace_back(name, mode);
}

void output_set::commit(const run_log& out) {
  for (output_file& f : files_) f.finish();
  std::vector<std::string> placed, removed;
  const auto written = [&](const std::string& name) {
    return std::any_of(files_.begin(), files_.end(),
                       [&](const output_file& f) { return f.name() == name; });
  };
  // What an earlier run left and this one doesn't replace goes first, so that
  // no moment pairs it with this run's files.
  for (const auto& name : family_) {
    struct stat st {};
    if (written(name) || ::lstat(name.c_str(), &st) != 0 || S_ISDIR(st.st_mode)) continue;
    if (::unlink(name.c_str()) != 0) cannot_write(name, errno);
    removed.push_back(base_name(name));
  }
  for (const auto& name : family_) {
    for (output_file& f : files_) {
      if (f.name() != name) continue;
      f.place();
      placed.push_back(base_name(name));
    }
  }
  out.report_log({"", "Outputs written: " + joined(placed)});
  if (!removed.empty()) out.report_log({"Removed, as outputs of an earlier run: " + joined(removed)});
}

}  // namespace quolvent
