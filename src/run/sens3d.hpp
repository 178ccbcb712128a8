// The run driver: one fixed pipeline from the command line to the matrix file.
#pragma once

// sens3d: runs the whole program for the command line (argc, argv). Every
// failure ends the process through a stop; a normal run returns 0.
int sens3d(int argc, char** argv);
