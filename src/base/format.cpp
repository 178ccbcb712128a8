// Number and label forms.
#include "base/format.hpp"

#include <cstdio>
#include <cstdlib>

namespace quolvent {

namespace {

std::string pad_left(std::string s, int width) {
  if (width > 0 && static_cast<int>(s.size()) < width) s.insert(0, width - s.size(), ' ');
  return s;
}

}  // namespace

std::string fmt_sci(double v, int width, int decimals) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.*E", decimals, v);
  return pad_left(buf, width);
}

std::string fmt_fixed(double v, int width, int decimals) {
  char buf[400];
  std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
  return pad_left(buf, width);
}

std::string fmt_int(long long v, int width) {
  return pad_left(std::to_string(v), width);
}

std::string fmt_int0(long long v, int width) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%0*lld", width, v);
  return buf;
}

std::string fmt_right(std::string_view text, int width) {
  if (static_cast<int>(text.size()) > width) text = text.substr(0, width);
  return pad_left(std::string(text), width);
}

std::string fmt_free_int(long long v) { return fmt_int(v, 12); }

}  // namespace quolvent
