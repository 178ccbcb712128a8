// dispatch_index: the entry of a Highway dispatch table (HWY_EXPORT) for one
// target, chosen by the caller rather than by the library's process-wide
// choice, so that a workspace (or a test) can hold its rows to any target the
// machine runs. Included only by the files built once per target.
#pragma once

#include <hwy/targets.h>

#include <cstddef>
#include <cstdint>

namespace quolvent {

inline std::size_t dispatch_index(int64_t target) {
  hwy::ChosenTarget pick;
  pick.Update(target);
  return pick.GetIndex();
}

}  // namespace quolvent
