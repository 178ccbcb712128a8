// The six direction products of the inducing field and the measured
// direction.
#pragma once

#include "model/model.hpp"

namespace quolvent {

// direction_products: gyy = ly my, gxx = lx mx, gzz = lz mz, gxy = ly mx + lx my,
// gyz = ly mz + lz my, gxz = lx mz + lz mx.
struct direction_products {
  double gyy = 0, gxx = 0, gzz = 0, gxy = 0, gyz = 0, gxz = 0;
};

// field_directions
//   Given:   the inducing field's inclination and declination (incl, decl) and
//            the measured direction's (aincl, adecl), in degrees: declination
//            from northing towards easting, inclination downward.
//   Returns: their six direction products.
//   Fails:   never.
direction_products field_directions(double incl, double decl, double aincl, double adecl);

// survey_directions: the products a survey starts from: its common measured
// direction, or with a direction per datum that of the first datum. The
// sample rows of the threshold estimate and every row of a survey with a
// common direction use them.
direction_products survey_directions(const obs_set& obs);

}  // namespace quolvent
