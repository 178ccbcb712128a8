// The stored filter tables are kept to the digits the program has always
// used; the normalisation absorbs their rounding and their scale.
#include "wavelet/wavelet_filters.hpp"

#include <array>
#include <cmath>
#include <span>

#include "base/stop.hpp"
#include "base/text_io.hpp"

namespace quolvent {

namespace {

std::span<const double> stored_daub(int32_t n) {
  static constexpr std::array<double, 42> coefficients = {
      // daub1
      0.7071068,
      0.7071068,
      // daub2
      0.4829629131445341,
      0.8365163037378079,
      0.2241438680420134,
      -0.1294095225512604,
      // daub3
      0.33267055295,
      0.806891509311,
      0.459877502118,
      -0.13501102001,
      -0.085441273882,
      0.035226291882,
      // daub4
      0.230377813309,
      0.714846570553,
      0.63088076793,
      -0.027983769417,
      -0.187034811719,
      0.030841381836,
      0.032883011667,
      -0.010597401785,
      // daub5
      0.160102397974,
      0.603829269797,
      0.724308528438,
      0.138428145901,
      -0.242294887066,
      -0.032244869585,
      0.07757149384,
      -0.006241490213,
      -0.012580751999,
      0.003335725285,
      // daub6
      0.11154074335,
      0.494623890398,
      0.751133908021,
      0.315250351709,
      -0.226264693965,
      -0.129766867567,
      0.097501605587,
      0.02752286553,
      -0.031582039318,
      0.000553842201,
      0.004777257511,
      -0.001077301085,
  };
  // daub n: 2n coefficients from start[n - 1] on.
  static constexpr std::array<int, 7> start = {0, 2, 6, 12, 20, 30, 42};
  const std::size_t k = static_cast<std::size_t>(n - 1);
  return std::span<const double>(coefficients)
      .subspan(static_cast<std::size_t>(start[k]),
               static_cast<std::size_t>(start[k + 1] - start[k]));
}

std::span<const double> stored_symm(int32_t n) {
  static constexpr std::array<double, 30> coefficients = {
      // symm4
      -0.107148901418,
      -0.041910965125,
      0.703739068656,
      1.136658243408,
      0.421234534204,
      -0.140317624179,
      -0.017824701442,
      0.045570345896,
      // symm5
      0.038654795955,
      0.041746864422,
      -0.055344186117,
      0.281990696854,
      1.023052966894,
      0.89658164838,
      0.023478923136,
      -0.247951362613,
      -0.029842499869,
      0.027632152958,
      // symm6
      0.021784700327,
      0.004936612372,
      -0.166863215412,
      -0.068323121587,
      0.694457972958,
      1.113892783926,
      0.477904371333,
      -0.102724969862,
      -0.029783751299,
      0.06325056266,
      0.002499922093,
      -0.011031867509,
  };
  // symm n: 2n coefficients from start[n - 4] on.
  static constexpr std::array<int, 4> start = {0, 8, 18, 30};
  const std::size_t k = static_cast<std::size_t>(n - 4);
  return std::span<const double>(coefficients)
      .subspan(static_cast<std::size_t>(start[k]),
               static_cast<std::size_t>(start[k + 1] - start[k]));
}

// digit_of: the integer read from the fifth character; false when unreadable.
bool digit_of(const std::string& wavelet, int32_t& digit) {
  if (wavelet.size() < 5) return false;
  digit = 0;
  return ff_read_text(std::string_view(wavelet).substr(4, 1), {digit}) == 0;
}

}  // namespace

void check_wavelet(const std::string& wavelet, std::vector<double>& filter, int32_t& filter_length,
                   const run_log& out) {
  const std::string head = wavelet.substr(0, 4);
  filter.clear();
  filter_length = 0;
  if (head == "none" || head == "NONE") {
    out.report({"", "WARNING: no compression will be used for the sensitivity matrix.",
            "The program will need a lot of memory and disk space to store the matrix.", ""});
    return;
  }
  int32_t digit = 0;
  if (head == "daub") {
    if (!digit_of(wavelet, digit) || digit < 1 || digit > 6) {
      stop_report({"", "ERROR: Invalid daub compression.  daub[1-6]"});
    }
    const auto stored = stored_daub(digit);
    filter.assign(stored.begin(), stored.end());
  } else if (head == "symm") {
    if (!digit_of(wavelet, digit) || digit < 4 || digit > 6) {
      stop_report({"", "Error: Invalid symm compression.  symm[4-6]"});
    }
    const auto stored = stored_symm(digit);
    filter.assign(stored.begin(), stored.end());
  } else {
    stop_report(
        {"", "Error: invalid compression method.", "Should be: daub[1-6], symm[4-6], or NONE."});
  }
  filter_length = 2 * digit;
  double sum_sq = 0.0;
  for (double c : filter) sum_sq += c * c;
  const double norm = std::sqrt(sum_sq);
  for (double& c : filter) c /= norm;
}

}  // namespace quolvent
