// A whole run of the program inside another program: run_command_line (the
// exit status, the report delivered), execute_run (a stop thrown to the
// caller), run_options (where the outputs go, where the summary goes) and
// run_summary (what the run found and made). Part of the installed package:
//   find_package(quolvent)  target_link_libraries(app PRIVATE quolvent::quolvent)
#pragma once

#include "run/run_driver.hpp"
