// file_guard: closes a reader's file on every way out of the reader, a stop
// that a test turns into an exception included, so that no handle leaks.
#pragma once

#include "run/text_io.hpp"

struct file_guard {
  text_file& t;
  explicit file_guard(text_file& file) : t(file) {}
  ~file_guard() { text_close(t); }
  file_guard(const file_guard&) = delete;
  file_guard& operator=(const file_guard&) = delete;
};
