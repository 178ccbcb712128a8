// The direction products of the prism formula.
#include "sens/field_directions.hpp"

#include <cmath>

namespace quolvent {

direction_products field_directions(double incl, double decl, double aincl, double adecl) {
  const double rad = 0.017453292519943295;
  const double fi = incl * rad, fd = decl * rad;
  const double ai = aincl * rad, ad = adecl * rad;

  // Declination from y towards x, inclination downward from the horizontal.
  const double ly = std::cos(fi) * std::cos(fd);
  const double lx = std::cos(fi) * std::sin(fd);
  const double lz = std::sin(fi);
  const double my = std::cos(ai) * std::cos(ad);
  const double mx = std::cos(ai) * std::sin(ad);
  const double mz = std::sin(ai);

  direction_products d;
  d.gyy = ly * my;
  d.gxx = lx * mx;
  d.gzz = lz * mz;
  d.gxy = ly * mx + lx * my;
  d.gyz = ly * mz + lz * my;
  d.gxz = lx * mz + lz * mx;
  return d;
}

direction_products survey_directions(const obs_set& obs) {
  const bool common = obs.idir != 0 || obs.datum_aincl.empty() || obs.datum_adecl.empty();
  return field_directions(obs.incl, obs.decl, common ? obs.aincl : obs.datum_aincl[0],
                          common ? obs.adecl : obs.datum_adecl[0]);
}

}  // namespace quolvent
