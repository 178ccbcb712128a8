// The wavelet filters: the name of the control file turned into a unit-norm
// coefficient list.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/channels.hpp"

namespace quolvent {

// check_wavelet
// Given: wavelet, the 5-character name field ("daub1".."daub6",
//   "symm4".."symm6", "none" or "NONE"; the first four characters decide,
//   case-sensitively, the fifth is the digit).
// Returns: filter with filter_length coefficients of unit Euclidean norm, filter_length = 2N;
//   for "none"/"NONE" filter_length = 0, filter empty, and the warning on screen and log.
// Fails: an unknown name or a bad digit is reported on the screen and the log
//   and the run stops.
void check_wavelet(const std::string& wavelet, std::vector<double>& filter, int32_t& filter_length,
                   const run_log& out);

}  // namespace quolvent
