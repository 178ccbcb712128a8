// Text input: how every input file is read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>

namespace quolvent {

// -------------------------------------------------------------- text helpers

// rtrim: the text with trailing blanks (and tabs) cut.
std::string rtrim(std::string_view text);
// is_null_name: the first four characters are exactly "null" or "NULL".
bool is_null_name(std::string_view text);
// cut_comment: blanks the text from its first "!" on; the text keeps its length.
void cut_comment(std::string& text);

// ------------------------------------------------------------- text files

// text_file: a text file open for reading, by name, with a count of lines
// read. It owns its handle: the file is closed when the object goes, a stop
// that unwinds through its reader included.
struct text_file {
  std::FILE* f = nullptr;
  std::string name;
  long lines_read = 0;
  text_file() = default;
  text_file(const text_file&) = delete;
  text_file& operator=(const text_file&) = delete;
  ~text_file();
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

}  // namespace quolvent
