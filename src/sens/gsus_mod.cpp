// GSUS_MOD: the direction products of the prism formula, one set per thread.
#include "sens/gsus_mod.hpp"

#include <cmath>

namespace {

// Each thread of a row loop has its own products: with per-datum directions
// two threads are at two different data at the same time.
thread_local dir_products t_dir;

}  // namespace

// g_dir
// Given: nothing. Returns: the calling thread's products. Fails: never.
// Calls: nothing.
dir_products& g_dir() { return t_dir; }

// SET_G_VALUES
// Given: the field inclination and declination and the measured inclination
// and declination, in degrees. Returns: nothing; overwrites the calling
// thread's six products. Fails: never. Calls: cos, sin.
void SET_G_VALUES(double incl, double decl, double aincl, double adecl) {
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

  dir_products& d = t_dir;
  d.gyy = ly * my;
  d.gxx = lx * mx;
  d.gzz = lz * mz;
  d.gxy = ly * mx + lx * my;
  d.gyz = ly * mz + lz * my;
  d.gxz = lx * mz + lz * mx;
}
