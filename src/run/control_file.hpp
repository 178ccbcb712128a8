// The control file: seven positional lines naming the inputs of a run.
#pragma once

#include <string>

// read_control_file: reads the control file `name` into `params`, after
// copying it to the log. For the name "-inp" it prints the sample control
// file to the screen and the log and stops.
// Given: the first command-line argument. Returns: only on success.
// Fails: a missing file gets the file-not-found report ("input"); a file that
// ends before line 7, or a line 7 that is no 0 or 1, gets the failure report
// with the sample, then a stop.
// Calls: text_open, read_line, cut_comment, ff_read, print_sample.
void read_control_file(const std::string& name);

// print_sample: the sample control file, to the screen and then to the log.
void print_sample();
