// What every fuzz target shares: the input written to a file of this process.
// Each target hands the routines a quiet run_log (no screen, no log) and
// catches quolvent::stop, the end of every input the program refuses.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <unistd.h>

namespace fuzz {

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
