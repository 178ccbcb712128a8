// The program's entry: the whole run lives in sens3d.
#include "run/sens3d.hpp"

int main(int argc, char** argv) { return sens3d(argc, argv); }
