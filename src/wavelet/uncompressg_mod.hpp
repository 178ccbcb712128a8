// UNCOMPRESSG_MOD: the average absolute sensitivity as the compressed rows
// represent it. UNCOMPRESSG itself is declared in wavelet/compression.hpp:
//
// UNCOMPRESSG
// Given: the row length n, wtz (n), and the filled g_compressed.
// Returns: sens_avg (made n long) = mean over the data of |row| of each
//   record taken back through the inverse transform and multiplied by wtz;
//   "Uncompressing ..." and the progress line on the screen.
// Fails: no memory for a thread's cube or row: the allocation stop
//   "uncompressG"; a position outside the cube stops with a text.
// Calls: transform_cube, cube_to_row, report_progress.
#pragma once

#include "wavelet/compression.hpp"
