// output_file: a file the run writes, replaced whole or not at all. It is
// written under a temporary name beside its own, flushed and synced, and
// renamed over the final name only when it is complete; a stop that unwinds
// before that (a failure, an interrupt) removes the temporary file, so that a
// file of that name from an earlier run stays exactly as it was.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace quolvent {

class output_file {
 public:
  // Creates a temporary file "<name>.XXXXXX" beside name, opened with the
  // fopen mode ("w" or "wb"), with a large buffer. Its permissions are those
  // of the file it will replace, or those of a new file (0666 less the umask).
  // Fails: a file that can't be created: cannot_write(name, reason).
  output_file(const std::string& name, const char* mode);
  output_file(const output_file&) = delete;
  output_file& operator=(const output_file&) = delete;
  // Unless close() has put the file in place: closes and removes it.
  ~output_file();

  // write: bytes from p. Fails: a write that fails: cannot_write.
  void write(const void* p, std::size_t bytes);
  // line: text and a line end. Fails: as write.
  void line(std::string_view text);
  // sync: every byte written so far on the device. Fails: as write.
  void sync();
  // close: syncs, closes, and renames the file over name.
  // Fails: any of these that fails: cannot_write; the temporary file is gone.
  void close();

  // probe: a file can be made beside name (the directory is there and
  // writable); the one made for the test is removed at once.
  // Fails: cannot_write(name, reason).
  static void probe(const std::string& name);

  // temporary: the file's temporary name while it is being written (empty
  // once it is in place), for other writers of the same file.
  const std::string& temporary() const { return temp_; }

  // temporary_prefix: what the names of temporary files of name begin with.
  static std::string temporary_prefix(const std::string& name) { return name + "."; }

 private:
  std::string name_;
  std::string temp_;  // empty once renamed (or removed)
  std::FILE* f_ = nullptr;
  bool synced_ = false;
  [[noreturn]] void fail(int err);
};

}  // namespace quolvent
