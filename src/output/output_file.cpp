// Files the run writes.
#include "output/output_file.hpp"

#include "base/stop.hpp"

namespace quolvent {

output_file::output_file(const std::string& name, const char* mode)
    : name_(name), f_(std::fopen(name.c_str(), mode)) {
  if (!f_) platform_failure("cannot write " + name_);
  std::setvbuf(f_, nullptr, _IOFBF, 1 << 20);
}

output_file::~output_file() {
  if (f_) std::fclose(f_);
}

void output_file::write(const void* p, std::size_t bytes) {
  if (bytes > 0 && std::fwrite(p, 1, bytes, f_) != bytes) platform_failure("cannot write " + name_);
}

void output_file::close() {
  std::FILE* f = f_;
  f_ = nullptr;
  const bool bad = std::fflush(f) != 0 || std::ferror(f);
  if (std::fclose(f) != 0 || bad) platform_failure("cannot write " + name_);
}

}  // namespace quolvent
