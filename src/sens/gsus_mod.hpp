// GSUS_MOD: the six direction products of the inducing field and the measured
// direction.
#pragma once

#include "model/model.hpp"

namespace quolvent {

// dir_products: gyy = ly my, gxx = lx mx, gzz = lz mz, gxy = ly mx + lx my,
// gyz = ly mz + lz my, gxz = lx mz + lz mx.
struct dir_products {
  double gyy = 0, gxx = 0, gzz = 0, gxy = 0, gyz = 0, gxz = 0;
};

// SET_G_VALUES: the products of the field direction (incl, decl) and the
// measured direction (aincl, adecl), degrees, into d.
void SET_G_VALUES(double incl, double decl, double aincl, double adecl, dir_products& d);

// survey_directions: the products a survey starts from: its common measured
// direction, or with a direction per datum that of the first datum. The
// sample rows of the threshold estimate and every row of a survey with a
// common direction use them.
dir_products survey_directions(const obs_set& obs);

}  // namespace quolvent
