// A matrix file read back and applied as it is stored: read_matrix_file
// (its records), stored_matrix (row, dot, rdot, dense) and format_error (a
// file that is not a whole matrix file). Part of the installed package.
#pragma once

#include "output/matrix_reader.hpp"
