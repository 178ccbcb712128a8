// The targets of the vector code.
#include "base/vector_target.hpp"

#include <hwy/targets.h>

#include <cctype>
#include <cstdlib>

namespace quolvent {

std::vector<int64_t> vector_targets() {
  // The list runs from the lowest bit, which is the widest target.
  std::vector<int64_t> t = hwy::SupportedAndGeneratedTargets();
  if (t.empty()) t.push_back(HWY_STATIC_TARGET);
  return t;
}

std::string vector_target_name(int64_t target) { return hwy::TargetName(target); }

int64_t pick_vector_target(const char* name) {
  const std::vector<int64_t> all = vector_targets();
  if (name == nullptr || *name == '\0') return all.front();
  std::string want;
  for (const char* p = name; *p != '\0'; ++p)
    want += static_cast<char>(std::toupper(static_cast<unsigned char>(*p)));
  if (want == "AVX512") want = "AVX3";
  for (int64_t t : all) {
    const std::string have = vector_target_name(t);
    if (want == have) return t;
    if (want == "SCALAR" && (have == "EMU128" || have == "SCALAR")) return t;
  }
  return all.front();
}

int64_t run_vector_target() { return pick_vector_target(std::getenv("QUOLVENT_VECTOR")); }

}  // namespace quolvent
