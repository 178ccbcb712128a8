// output_file: a file the run writes, owned so that a stop closes it, with
// its failures turned into the platform failure of the run.
#pragma once

#include <cstdio>
#include <string>

namespace quolvent {

class output_file {
 public:
  // Creates (or replaces) name with the fopen mode, with a large buffer.
  // Fails: a file that can't be created: platform failure "cannot write <name>".
  output_file(const std::string& name, const char* mode);
  output_file(const output_file&) = delete;
  output_file& operator=(const output_file&) = delete;
  ~output_file();

  std::FILE* get() const { return f_; }
  // write: bytes from p. Fails: a short write is a platform failure.
  void write(const void* p, std::size_t bytes);
  // close: flushes and closes. Fails: an error of any write or of the close
  // is a platform failure.
  void close();

 private:
  std::string name_;
  std::FILE* f_;
};

}  // namespace quolvent
