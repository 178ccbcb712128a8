// The program's entry: one run of the command line.
#include "run/run_driver.hpp"

int main(int argc, char** argv) { return quolvent::run_command_line(argc, argv, stdout); }
