// Number and label forms of every text the program writes. Nothing formats a
// number by hand elsewhere.
#pragma once

#include <string>
#include <string_view>

namespace quolvent {

// fmt_sci: scientific form with one digit before the point, `decimals` behind
// it, and an exponent of E, a sign and two digits (1.234560E+03), right-aligned
// in `width` columns. A value that needs more room is written whole.
std::string fmt_sci(double v, int width, int decimals);

// fmt_fixed: fixed form with `decimals` behind the point, right-aligned in
// `width` columns (0.05 in 6 columns with 4 decimals gives 0.0500).
std::string fmt_fixed(double v, int width, int decimals);

// fmt_int: an integer right-aligned in `width` columns; width 0 is its natural width.
std::string fmt_int(long long v, int width = 0);

// fmt_int0: an integer in `width` columns with leading zeros (minutes, seconds).
std::string fmt_int0(long long v, int width);

// fmt_right: a label right-aligned in `width` columns; a longer label is cut
// to its first `width` characters.
std::string fmt_right(std::string_view text, int width);

// fmt_free_int: an integer as a free-format write shows it, in 12 columns.
std::string fmt_free_int(long long v);

}  // namespace quolvent
