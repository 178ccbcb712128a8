// The one definition of the matrix store and the compression state.
#include "wavelet/compression.hpp"

bool compressed = false;
std::vector<compressed_row> g_compressed;
float_matrix g_full;
int32_t ncof = 0;
std::vector<double> filter;
int32_t nyp = 0, nxp = 0, nzp = 0;
int64_t ncube = 0;
double wctol_surface = 0.0, wctol_borehole = 0.0;
