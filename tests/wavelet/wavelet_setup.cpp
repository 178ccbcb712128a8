#include "wavelet_setup.hpp"

#include "support/test_support.hpp"

namespace wt {

void use_wavelet(const std::string& name) {
  qt::capture quiet;
  check_wavelet(name, filter, ncof);
  set_filters(filter, ncof);
}

}  // namespace wt
