// The run driver.
#include "run/sens3d.hpp"

#include "run/text_io.hpp"

int sens3d(int argc, char** argv) {
  (void)argc;
  (void)argv;
  stop_plain();
}
