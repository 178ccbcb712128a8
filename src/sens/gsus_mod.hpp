// GSUS_MOD: the six direction products of the inducing field and the measured
// direction, one set per thread.
#pragma once

// dir_products: gyy = ly my, gxx = lx mx, gzz = lz mz, gxy = ly mx + lx my,
// gyz = ly mz + lz my, gxz = lx mz + lz mx.
struct dir_products {
  double gyy = 0, gxx = 0, gzz = 0, gxy = 0, gyz = 0, gxz = 0;
};

// g_dir: the calling thread's products (each thread owns its own copy).
dir_products& g_dir();

// SET_G_VALUES: overwrites the calling thread's products from the field
// direction (incl, decl) and the measured direction (aincl, adecl), degrees.
void SET_G_VALUES(double incl, double decl, double aincl, double adecl);
