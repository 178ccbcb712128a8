// Arctangents and logarithms of whole arrays on one vector target
// (base/vector_target.hpp). Every lane of a vector is computed alone, so on
// one machine and one target a value is the same wherever it stands in an
// array, and rows don't depend on the number of threads.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/vector_target.hpp"

namespace quolvent {

// vector_lanes: how many doubles one vector of the target holds.
int vector_lanes(int64_t target);

// atan_array: v[i] = atan(v[i]) for i < count, on the target.
void atan_array(int64_t target, double* v, std::size_t count);

// log_array: v[i] = log(v[i]) for i < count, on the target, for v[i] in
// (0, +Inf); any other value gives an unspecified number.
void log_array(int64_t target, double* v, std::size_t count);

}  // namespace quolvent
