// Fuzz target over the free-format reader (text and file forms) and the
// control-file parser. The first byte picks the reader; the rest is the input.
#include <cstdint>
#include <span>
#include <string>

#include "base/channels.hpp"
#include "base/stop.hpp"
#include "base/text_io.hpp"
#include "fuzz_support.hpp"
#include "run/control_file.hpp"

using namespace quolvent;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const run_log quiet(nullptr);
  const int mode = data[0] % 3;
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  int32_t i1 = 0, i2 = 0, iv[7] = {};
  double d1 = 0, d2 = 0, dv[9] = {};
  if (mode == 0) {
    ff_read_text(text, {i1, d1, std::span<double>(dv, 9), i2, d2});
    ff_read_text(text, {std::span<int32_t>(iv, 7)});
  } else if (mode == 1) {
    const std::string name = fuzz::input_file("text", data + 1, size - 1);
    text_file t;
    if (text_open(t, name)) {
      while (ff_read(t, {i1, std::span<double>(dv, 9), std::span<int32_t>(iv, 7), d2}) == 0) {
      }
      text_close(t);
    }
  } else {
    const std::string name = fuzz::input_file("control", data + 1, size - 1);
    try {
      read_control_file(name, quiet);
    } catch (const stop&) {
    }
  }
  return 0;
}
