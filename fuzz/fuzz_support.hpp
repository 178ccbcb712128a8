// What every fuzz target shares: quiet channels, stops that return to the
// target, and the input written to a file of this process.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <unistd.h>

#include "run/text_io.hpp"

namespace fuzz {

struct caught_stop {};
inline void throw_stop() { throw caught_stop{}; }

// quiet: screen and log to /dev/null, and stops throw caught_stop.
inline void quiet() {
  static std::FILE* sink = std::fopen("/dev/null", "w");
  set_screen(sink);
  set_log(sink);
  set_stop_handler(&throw_stop);
}

// input_file: the bytes written to a file named for the target and process.
inline std::string input_file(const char* tag, const uint8_t* data, size_t size) {
  const std::string name =
      std::string("/tmp/quolvent-fuzz-") + tag + "-" + std::to_string(getpid()) + ".txt";
  if (std::FILE* f = std::fopen(name.c_str(), "wb")) {
    std::fwrite(data, 1, size, f);
    std::fclose(f);
  }
  return name;
}

}  // namespace fuzz
