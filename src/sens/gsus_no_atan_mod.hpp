// GSUS_NO_ATAN_MOD: the closed-form prism formula for one cell (GSUS) and the
// walk over the cells of one datum (sens_row).
#pragma once

#include <cstddef>
#include <cstdint>

// sens_row: the row of the datum idat (1-based, for the edge message) at the
// observation point (oy, ox, oz) (northing, easting, depth below the mesh top)
// over the mesh with nodes yn[0..ny], xn[0..nx], zn[0..nz] (zn are depths) and
// column tops top[(j-1) + (i-1)*ny]. Fills g[0..glen-1] in the order y, x, z,
// cells k = top+1..nz of each column, each value times geomag / (4 pi).
// Uses the calling thread's direction products and arctangent cache.
// Fails: a cell whose edge guard fires gets 0 and a log message; a walk that
// doesn't fill exactly glen entries stops with "indx /= size(g)".
void sens_row(const double* yn, const double* xn, const double* zn, int32_t ny, int32_t nx,
              int32_t nz, const int32_t* top, int32_t idat, double oy, double ox, double oz,
              double* g, std::size_t glen);
