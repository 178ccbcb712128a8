// dispatch_index: the entry of the list of a function's versions (as
// QUOLVENT_EXPORT keeps it) for one target, chosen by the caller rather than
// by the library's process-wide choice, so that a workspace (or a test) can
// hold its rows to any target the machine runs. Included only by the files
// built once per target.
#pragma once

#include <hwy/highway.h>
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

// QUOLVENT_EXPORT(FUNC): defines FUNC_for(index), FUNC's version for the
// entry `index` of dispatch_index, at the namespace level of FUNC's versions.
// The list is a constant inside the function: unlike the library's own
// export, no table of pointers stays behind in the program's data. Entry 0,
// which the library keeps for its own first choice, is the fallback here.
#define QUOLVENT_EXPORT(FUNC)                                                  \
  static decltype(&HWY_STATIC_DISPATCH(FUNC)) FUNC##_for(std::size_t index) { \
    using version = decltype(&HWY_STATIC_DISPATCH(FUNC));                      \
    const version versions[] = {HWY_CHOOSE_FALLBACK(FUNC),                     \
                                HWY_CHOOSE_TARGET_LIST(FUNC),                  \
                                HWY_CHOOSE_FALLBACK(FUNC)};                    \
    return versions[index];                                                    \
  }
