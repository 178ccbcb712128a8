// Which of the processor's vector instruction sets the vector loops run on.
//
// The vector code (the prism formula, the wavelet transform) is built once
// for each instruction set it can use (AVX-512, AVX2, SSE4, SSSE3 on x86; NEON
// and SVE on ARM; a portable fallback everywhere) and one is picked at run
// time. A target is named by its bit (the vector library's target bits).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace quolvent {

// vector_targets: the targets this processor runs and the program was built
// for, the widest first. Never empty (the fallback is always there).
std::vector<int64_t> vector_targets();

// pick_vector_target
//   Given:   name, a target's name (AVX3, AVX2, SSE4, SSSE3, EMU128, NEON,
//            SVE, ...; any case; also avx512 for AVX3 and scalar for the
//            fallback), or nullptr or "".
//   Returns: that target where this processor runs it, else the widest of
//            vector_targets().
//   Fails:   never.
int64_t pick_vector_target(const char* name);

// run_vector_target: pick_vector_target of the environment variable
// QUOLVENT_VECTOR, so that a run, a test or a benchmark can be held to a
// narrower target than the machine's best.
int64_t run_vector_target();

// vector_target_name: the name of a target ("AVX3", "AVX2", ...).
std::string vector_target_name(int64_t target);

}  // namespace quolvent
