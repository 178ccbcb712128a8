// Files the run writes, replaced whole or not at all.
#include "output/output_file.hpp"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

#include "base/stop.hpp"

namespace quolvent {

namespace {

// open_temporary: a new file "<name>.XXXXXX" (X letters and digits) for
// writing, created exclusively so that no other file is ever taken over.
// Returns its descriptor and sets temp, or -1 with errno set.
int open_temporary(const std::string& name, std::string& temp) {
  constexpr char letters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  std::random_device rd;
  for (int attempt = 0; attempt < 100; ++attempt) {
    temp = output_file::temporary_prefix(name);
    for (std::size_t k = 0; k < output_file::temporary_tag_length; ++k) temp.push_back(letters[rd() % (sizeof letters - 1)]);
    // 0666: the umask makes it what a new file of the user's would be.
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  errno = EEXIST;
  return -1;
}

// sync_directory: the rename on the device too. A file system that can't
// sync a directory has still renamed the file: nothing to report.
void sync_directory(const std::string& name) {
  std::filesystem::path dir = std::filesystem::path(name).parent_path();
  if (dir.empty()) dir = ".";
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

// start_device_write: the device starts on these bytes of fd now, without a
// wait (bytes 0: to the end of the file).
void start_device_write(int fd, int64_t offset, int64_t bytes) {
#ifdef __linux__
  ::sync_file_range(fd, static_cast<off_t>(offset), static_cast<off_t>(bytes),
                    SYNC_FILE_RANGE_WRITE);
#else
  (void)fd;
  (void)offset;
  (void)bytes;
#endif
}

}  // namespace

output_file::output_file(const std::string& name, const char* mode) : name_(name) {
  const int fd = open_temporary(name_, temp_);
  if (fd < 0) {
    const int err = errno;
    temp_.clear();
    cannot_write(name_, err);
  }
  f_ = ::fdopen(fd, mode);
  if (!f_) {
    const int err = errno;
    ::close(fd);
    fail(err);
  }
  constexpr std::size_t buffer_bytes = std::size_t{1} << 20;
  buffer_ = std::make_unique_for_overwrite<char[]>(buffer_bytes);
  std::setvbuf(f_, buffer_.get(), _IOFBF, buffer_bytes);
}

output_file::~output_file() {
  if (f_) std::fclose(f_);
  if (!temp_.empty()) ::unlink(temp_.c_str());
}

void output_file::fail(int err) {
  if (f_) std::fclose(f_);
  f_ = nullptr;
  if (!temp_.empty()) ::unlink(temp_.c_str());
  temp_.clear();
  cannot_write(name_, err);
}

void output_file::write(const void* p, std::size_t bytes) {
  synced_ = false;
  if (bytes > 0 && std::fwrite(p, 1, bytes, f_) != bytes) fail(errno);
}

void output_file::line(std::string_view text) {
  write(text.data(), text.size());
  write("\n", 1);
}

void output_file::sync() {
  if (synced_) return;
  if (std::fflush(f_) != 0) fail(errno);
  if (::fsync(::fileno(f_)) != 0) fail(errno);
  synced_ = true;
}

void output_file::start_writeback() {
  if (std::fflush(f_) != 0) fail(errno);
  start_device_write(::fileno(f_), 0, 0);
}

void output_file::finish() {
  if (!f_) return;
  sync();
  // The file it replaces keeps its permissions, as when it was written in
  // place; taken only now, so that a read-only one doesn't keep the writers
  // of other processes out of the temporary file.
  struct stat old {};
  if (::stat(name_.c_str(), &old) == 0 && S_ISREG(old.st_mode))
    ::fchmod(::fileno(f_), old.st_mode & 07777);
  std::FILE* f = f_;
  f_ = nullptr;
  if (std::fclose(f) != 0) fail(errno);
}

void output_file::place() {
  if (std::rename(temp_.c_str(), name_.c_str()) != 0) fail(errno);
  temp_.clear();
  sync_directory(name_);
}

void output_file::close() {
  finish();
  place();
}

void output_file::probe(const std::string& name) {
  std::string temp;
  const int fd = open_temporary(name, temp);
  if (fd < 0) cannot_write(name, errno);
  ::close(fd);
  ::unlink(temp.c_str());
}

output_part::output_part(const std::string& name, const std::string& temporary) : name_(name) {
  fd_ = ::open(temporary.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd_ < 0) cannot_write(name_, errno);
}

output_part::~output_part() {
  if (fd_ >= 0) ::close(fd_);
}

void output_part::write_at(int64_t offset, const void* p, std::size_t bytes) const {
  const char* from = static_cast<const char*>(p);
  while (bytes > 0) {
    const ssize_t done = ::pwrite(fd_, from, bytes, static_cast<off_t>(offset));
    if (done < 0 && errno == EINTR) continue;
    // A write that takes nothing is a full disk.
    if (done <= 0) cannot_write(name_, done < 0 ? errno : ENOSPC);
    from += done;
    offset += done;
    bytes -= static_cast<std::size_t>(done);
  }
}

void output_part::start_writeback(int64_t offset, int64_t bytes) const {
  start_device_write(fd_, offset, bytes);
}

void output_part::finish() {
  const int fd = fd_;
  fd_ = -1;
  int err = 0;
  if (::fsync(fd) != 0) err = errno;
  if (::close(fd) != 0 && err == 0) err = errno;
  if (err != 0) cannot_write(name_, err);
}

}  // namespace quolvent
