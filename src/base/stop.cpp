// Stops.
#include "base/stop.hpp"

#include <cerrno>
#include <cstring>

#include "base/text_io.hpp"

namespace quolvent {

const char* stop::what() const noexcept {
  if (!error_text.empty()) return error_text.c_str();
  for (const auto& l : screen_lines)
    if (!l.empty()) return l.c_str();
  for (const auto& l : log_lines)
    if (!l.empty()) return l.c_str();
  return "stop";
}

const char* stop_kind_name(stop_kind kind) {
  switch (kind) {
    case stop_kind::none: return "none";
    case stop_kind::file: return "file";
    case stop_kind::input: return "input";
    case stop_kind::memory: return "memory";
    case stop_kind::output: return "output";
    case stop_kind::interrupted: return "interrupted";
    case stop_kind::internal: return "internal";
  }
  return "input";
}

void stop_plain() {
  stop s;
  s.kind = stop_kind::none;
  throw s;
}

namespace {

[[noreturn]] void stop_both(std::initializer_list<std::string_view> lines, stop_kind kind) {
  stop s;
  for (auto l : lines) s.screen_lines.emplace_back(l);
  s.log_lines = s.screen_lines;
  s.kind = kind;
  throw s;
}

}  // namespace

void stop_report(std::initializer_list<std::string_view> lines) {
  stop_both(lines, stop_kind::input);
}

void stop_reading(std::initializer_list<std::string_view> lines) {
  stop_both(lines, stop_kind::file);
}

void stop_report_log(std::initializer_list<std::string_view> lines) {
  stop s;
  for (auto l : lines) s.log_lines.emplace_back(l);
  throw s;
}

void stop_text(std::string_view text) {
  stop s;
  s.error_text = std::string(text);
  s.kind = stop_kind::internal;
  throw s;
}

void file_not_found(std::string_view label, std::string_view name) {
  stop_reading({"", " ERROR: " + rtrim(label) + " file not found: " + rtrim(name)});
}

void alloc_failed(std::string_view name) {
  stop_both({"", "Memory allocation error in: " + rtrim(name), ""}, stop_kind::memory);
}

void platform_failure(std::string_view text) {
  stop s;
  s.error_text = "quolvent: " + std::string(text);
  s.status = 1;
  s.kind = stop_kind::output;
  throw s;
}

void cannot_write(std::string_view name, int err) {
  // A failure that left no reason behind is still a failure of the device.
  if (err == 0) err = EIO;
  const std::string file(rtrim(name));
  stop s;
  s.screen_lines = {"", "ERROR: cannot write " + file + ": " + std::strerror(err),
                    "       (an earlier " + file + ", if any, is left as it was)", ""};
  s.log_lines = s.screen_lines;
  s.status = 1;
  s.kind = stop_kind::output;
  throw s;
}

}  // namespace quolvent
