// quolvent-gpu: the program with its rows made on a CUDA device
// (quolvent-gpu <control file> [nThreads]): the same inputs, stops and
// outputs as quolvent. The device is the first that CUDA_VISIBLE_DEVICES
// leaves visible.
#include "run/gpu/device_engine.hpp"
#include "run/run_driver.hpp"

int main(int argc, char** argv) {
  quolvent::device_engine engine(0);
  quolvent::run_options options;
  options.engine = &engine;
  return quolvent::run_command_line(argc, argv, stdout, options);
}
