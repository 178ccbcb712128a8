// Where a run's words go.
#include "base/channels.hpp"

namespace quolvent {

void put_line(std::FILE* f, std::string_view text) {
  if (!f) return;
  std::string line(text);
  line.push_back('\n');
  std::fwrite(line.data(), 1, line.size(), f);
}

run_log::~run_log() { close_log(); }

void run_log::open_log(const std::string& path) {
  close_log();
  log_ = std::fopen(path.c_str(), "w");
  if (!log_) platform_failure("cannot create " + path + " in the current directory");
  own_log_ = true;
}

void run_log::adopt_log(std::FILE* f) {
  close_log();
  log_ = f;
  own_log_ = false;
}

void run_log::close_log() {
  if (log_ && own_log_) std::fclose(log_);
  else if (log_) std::fflush(log_);
  log_ = nullptr;
  own_log_ = false;
}

void run_log::to_log(std::string_view text) const {
  if (!held_) return put_line(log_, text);
  held_->append(text);
  held_->push_back('\n');
}

void run_log::pass_held(const run_log& out) {
  if (!held_) return;
  if (out.held_)
    out.held_->append(*held_);
  else if (out.log_ && !held_->empty())
    std::fwrite(held_->data(), 1, held_->size(), out.log_);
  held_->clear();
}

void run_log::report(std::initializer_list<std::string_view> lines) const {
  for (auto l : lines) put_line(screen_, l);
  for (auto l : lines) to_log(l);
}

void run_log::report_log(std::initializer_list<std::string_view> lines) const {
  for (auto l : lines) to_log(l);
}

void run_log::flush() const {
  if (screen_) std::fflush(screen_);
  if (log_) std::fflush(log_);
}

void run_log::deliver(const stop& s) const {
  for (const auto& l : s.screen_lines) put_line(screen_, l);
  for (const auto& l : s.log_lines) to_log(l);
  if (!s.error_text.empty()) {
    put_line(stderr, s.error_text);
    std::fflush(stderr);
  }
  flush();
}

}  // namespace quolvent
