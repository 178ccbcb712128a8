// Text input and failure stops: how every input file is read, and how every
// failure ends the run.
//
// Conventions of the whole program:
//  - The screen is standard output; the log is "quolvent.log" in the current
//    directory, open from the start of a run to its end.
//  - A report goes to the screen first, then to the log.
//  - Every stop exits with status 0, after flushing every open stream.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>

// ---------------------------------------------------------------- channels

// screen_out: the stream the program calls the screen (stdout unless a test
// redirected it). log_out: the log, or nullptr before it is created.
std::FILE* screen_out();
std::FILE* log_out();

// set_screen / set_log: redirect the channels (tests; nullptr restores stdout
// for the screen and "no log" for the log).
void set_screen(std::FILE* f);
void set_log(std::FILE* f);

// log_create: create "quolvent.log" in the current directory, replacing one
// that exists. A log that can't be created ends the run (platform error).
void log_create();
// log_close: flush and close the log.
void log_close();

// put_line: write text and a line end to f; nothing when f is nullptr.
void put_line(std::FILE* f, std::string_view text);
// say_screen / say_log: one line to one channel.
void say_screen(std::string_view text);
void say_log(std::string_view text);
// report: the lines to the screen, then the same lines to the log.
void report(std::initializer_list<std::string_view> lines);
// report_log: the lines to the log alone.
void report_log(std::initializer_list<std::string_view> lines);

// ------------------------------------------------------------------- stops

// stop_plain: flush every open stream and end the process with status 0.
[[noreturn]] void stop_plain();
// stop_text: the text on the error stream (not the log), then a plain stop.
// Used for the internal consistency checks.
[[noreturn]] void stop_text(std::string_view text);
// file_not_found: empty line, " ERROR: <label> file not found: <name>" to
// screen and log, then a plain stop.
[[noreturn]] void file_not_found(std::string_view label, std::string_view name);
// alloc_failed: empty line, "Memory allocation error in: <name>", empty line
// to screen and log, then a plain stop.
[[noreturn]] void alloc_failed(std::string_view name);

// set_stop_handler: tests replace the process exit by a handler of their own
// (one that throws, typically). The handler runs after the streams are flushed
// and must not return; nullptr restores the exit.
using stop_handler_fn = void (*)();
void set_stop_handler(stop_handler_fn fn);

// -------------------------------------------------------------- text helpers

// rtrim: the text with trailing blanks (and tabs) cut.
std::string rtrim(std::string_view text);
// is_null_name: the first four characters are exactly "null" or "NULL".
bool is_null_name(std::string_view text);
// cut_comment: blanks the text from its first "!" on; the text keeps its length.
void cut_comment(std::string& text);

// ------------------------------------------------------------- text files

// text_file: a text file open for reading, by name, with a count of lines read.
struct text_file {
  std::FILE* f = nullptr;
  std::string name;
  long lines_read = 0;
};

// text_open: opens name (trailing blanks cut) for reading. Returns false when
// that fails for any reason, a directory included; the caller reports it.
bool text_open(text_file& t, std::string_view name);
void text_close(text_file& t);
void text_rewind(text_file& t);

// read_line: the next line, without its line end (a trailing carriage return
// is dropped too), cut at width characters. Returns 0 when a line was read,
// -1 at the end of the file, above 0 on a read error.
int read_line(text_file& t, std::string& buffer, std::size_t width);

// next_data_line: reads lines until one is neither blank nor has "!" in its
// first column. Each line read, skipped or not, adds one to *counter when
// counter is given. Returns true with the line in buffer, false at the end of
// the file.
bool next_data_line(text_file& t, std::string& buffer, std::size_t width,
                    long* counter = nullptr);

// ------------------------------------------------------- free-format reads
//
// One read takes values of given types in order, across as many lines as it
// needs, and throws away the rest of the line it ends on. Separators are
// blanks, tabs, one comma with optional blanks beside it, and line ends.
// "r*c" is r copies of c, "r*" r empty values; "/" ends the read, leaving the
// values not yet read as they were; an empty place between commas leaves its
// value as it was. Integers are plain integers; floats may have a point and
// an exponent in E or D, either case. Non-finite and out-of-range values are
// bad tokens. Status: 0 read, -1 end of the file (or of the text), above 0 a
// token that doesn't fit its type.

enum class ff_kind { i32, f64 };

// ff_target: one value or one array of values to be read.
struct ff_target {
  ff_kind kind;
  void* p;
  std::size_t count;
  ff_target(int32_t& v) : kind(ff_kind::i32), p(&v), count(1) {}
  ff_target(double& v) : kind(ff_kind::f64), p(&v), count(1) {}
  ff_target(std::span<int32_t> a) : kind(ff_kind::i32), p(a.data()), count(a.size()) {}
  ff_target(std::span<double> a) : kind(ff_kind::f64), p(a.data()), count(a.size()) {}
};

// ff_read: one read from a file, starting at its next line.
int ff_read(text_file& t, std::initializer_list<ff_target> targets);
// ff_read_text: one read from a text buffer; the end of the text is the end.
int ff_read_text(std::string_view text, std::initializer_list<ff_target> targets);
