// Denormal numbers flushed to zero on the calling thread for a while: the row
// loops gain nothing from values below the smallest normal number, and on
// some processors they cost a hundred times a normal operation.
#pragma once

#include <cstdint>

#if defined(__SSE__) || defined(__x86_64__) || defined(_M_X64)
#include <xmmintrin.h>
#endif

namespace quolvent {

// denormals_to_zero: while it lives, denormal results are flushed to zero and
// denormal operands count as zero on the thread that made it; the thread's
// own setting is back when it ends. On x86 the MXCSR's flush-to-zero and
// denormals-are-zero bits; on 64-bit ARM the FPCR's flush-to-zero bit, which
// covers both; elsewhere the setting is left as it is (the results are then
// the same to within the denormal range).
class denormals_to_zero {
 public:
  denormals_to_zero() : saved_(read()) { write(saved_ | flush_bits); }
  denormals_to_zero(const denormals_to_zero&) = delete;
  denormals_to_zero& operator=(const denormals_to_zero&) = delete;
  ~denormals_to_zero() { write(saved_); }

 private:
#if defined(__SSE__) || defined(__x86_64__) || defined(_M_X64)
  static constexpr uint64_t flush_bits = 0x8040;  // flush to zero (bit 15), denormals are zero (bit 6)
  static uint64_t read() { return _mm_getcsr(); }
  static void write(uint64_t v) { _mm_setcsr(static_cast<unsigned int>(v)); }
#elif defined(__aarch64__)
  static constexpr uint64_t flush_bits = uint64_t{1} << 24;  // FZ
  static uint64_t read() {
    uint64_t v;
    __asm__ __volatile__("mrs %0, fpcr" : "=r"(v));
    return v;
  }
  static void write(uint64_t v) { __asm__ __volatile__("msr fpcr, %0" : : "r"(v)); }
#else
  static constexpr uint64_t flush_bits = 0;
  static uint64_t read() { return 0; }
  static void write(uint64_t) {}
#endif
  uint64_t saved_;
};

}  // namespace quolvent
