// GSUS_NO_ATAN_MOD: the closed-form prism formula for one cell (GSUS) and the
// walk over the cells of one datum (sens_row).
#pragma once

#include <cstddef>
#include <cstdint>

// GSUS: the integral over cell (j, i, k) (1-based y, x, z indices into the
// calling thread's arctangent cache) of the dipole kernel, for the offsets
// y1 < y2, x1 < x2, z1 < z2 of the cell's planes from the observation point,
// their squares and the sign flags sy, sx, sz of each axis (+1: both planes
// on the positive side, -1: both on the negative side or the upper one at 0,
// 0: the point between them or on the lower one). Uses the calling thread's
// direction products. Sets edge_flag to 1 and returns 0 where the point lies
// within 0.001 of the line through a cell edge of an axis whose flag is 0, or
// on a node of the cell; else edge_flag is 0.
double GSUS(int32_t sy, int32_t sx, int32_t sz, int32_t& edge_flag, double y1, double y2,
            double x1, double x2, double z1, double z2, double y1sq, double y2sq, double x1sq,
            double x2sq, double z1sq, double z2sq, int32_t j, int32_t i, int32_t k);

// axis_flag: the sign flag of an axis with plane offsets a < b.
int32_t axis_flag(double a, double b);

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
