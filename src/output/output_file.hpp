// output_file: a file the run writes, replaced whole or not at all. It is
// written under a temporary name beside its own, flushed and synced, and
// renamed over the final name only when it is complete; a stop that unwinds
// before that (a failure, an interrupt) removes the temporary file, so that a
// file of that name from an earlier run stays exactly as it was. A file
// finished but not yet put in place waits for the rest of its set
// (output/run_folder).
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

namespace quolvent {

class output_file {
 public:
  // Creates a temporary file "<name>.unfinished.XXXXXX" beside name, opened
  // with the fopen mode ("w" or "wb"), with a large buffer. When it is
  // finished it takes the permissions of the file it will replace (a rename
  // replaces a read-only file too), or those of a new file (0666 less the
  // umask); until then its owner, or another process, can write it.
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
  // start_writeback: every byte written so far handed to the system, and the
  // device started on it without a wait, so that the sync at the end finds
  // little left to do. Fails: as write.
  void start_writeback();
  // finish: syncs, takes the permissions, closes; the file waits under its
  // temporary name. Fails: as close.
  void finish();
  // place: renames the finished file over name. Fails: as close.
  void place();
  // close: finish, then place.
  // Fails: any of these that fails: cannot_write; the temporary file is gone.
  void close();
  bool finished() const { return f_ == nullptr; }
  const std::string& name() const { return name_; }

  // probe: a file can be made beside name (the directory is there and
  // writable); the one made for the test is removed at once.
  // Fails: cannot_write(name, reason).
  static void probe(const std::string& name);

  // temporary: the file's temporary name while it is being written (empty
  // once it is in place), for other writers of the same file.
  const std::string& temporary() const { return temp_; }

  // temporary_prefix: what the names of temporary files of name begin with;
  // six letters or digits follow it.
  static std::string temporary_prefix(const std::string& name) { return name + ".unfinished."; }
  static constexpr std::size_t temporary_tag_length = 6;

 private:
  std::string name_;
  std::string temp_;  // empty once renamed (or removed)
  // The stream's buffer: given a size but no buffer, the C library keeps its
  // own 4 KB one, and a 400 MB matrix would go to the disk in 100,000 writes.
  std::unique_ptr<char[]> buffer_;
  std::FILE* f_ = nullptr;
  bool synced_ = false;
  [[noreturn]] void fail(int err);
};

// output_part: a handle of an output_file's temporary file for writers
// that put bytes at known places, from any thread, while the file is being
// made: every thread of a process, or another process of the run that opens
// the file by its temporary name. The output_file puts the file in place (or
// removes it); a part only writes.
class output_part {
 public:
  // Opens `temporary`, the temporary file of the output `name`, for writing.
  // Fails: cannot_write(name, reason).
  output_part(const std::string& name, const std::string& temporary);
  output_part(const output_part&) = delete;
  output_part& operator=(const output_part&) = delete;
  ~output_part();

  // write_at: bytes from p at offset. From any thread at once, at places
  // that don't overlap. Fails: cannot_write(name, reason); the file is left
  // to its output_file.
  void write_at(int64_t offset, const void* p, std::size_t bytes) const;
  // start_writeback: the device starts on these bytes now, without a wait,
  // so that the final sync finds little left to do.
  void start_writeback(int64_t offset, int64_t bytes) const;
  // finish: every byte on the device, the handle closed. Fails: cannot_write.
  void finish();

 private:
  std::string name_;
  int fd_ = -1;
};

}  // namespace quolvent
