// Text input.
#include "base/text_io.hpp"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace quolvent {

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

// -------------------------------------------------------------- text helpers

std::string rtrim(std::string_view text) {
  std::size_t n = text.size();
  while (n > 0 && is_blank(text[n - 1])) --n;
  return std::string(text.substr(0, n));
}

bool is_null_name(std::string_view text) {
  return text.substr(0, 4) == "null" || text.substr(0, 4) == "NULL";
}

void cut_comment(std::string& text) {
  const std::size_t p = text.find('!');
  if (p != std::string::npos) {
    for (std::size_t i = p; i < text.size(); ++i) text[i] = ' ';
  }
}

// ------------------------------------------------------------- text files

bool text_open(text_file& t, std::string_view name) {
  text_close(t);
  t.name = rtrim(name);
  t.lines_read = 0;
  std::FILE* f = std::fopen(t.name.c_str(), "r");
  if (!f) return false;
  struct stat st {};
  if (fstat(fileno(f), &st) != 0 || S_ISDIR(st.st_mode)) {
    std::fclose(f);
    return false;
  }
  t.f = f;
  return true;
}

text_file::~text_file() { text_close(*this); }

void text_close(text_file& t) {
  if (t.f) std::fclose(t.f);
  t.f = nullptr;
}

void text_rewind(text_file& t) {
  if (t.f) std::rewind(t.f);
  t.lines_read = 0;
}

namespace {

// byte_order_mark: at the start of a file, passes over the UTF-8 byte order
// mark that some editors write there. Bytes that only begin like one are the
// start of the first line: they go to line, and the byte that broke the match
// goes back to the file. Returns true when line got any.
bool byte_order_mark(std::FILE* f, std::string& line) {
  constexpr unsigned char bom[3] = {0xEF, 0xBB, 0xBF};
  for (int n = 0; n < 3; ++n) {
    const int c = std::getc(f);
    if (c == bom[n]) continue;
    for (int k = 0; k < n; ++k) line.push_back(static_cast<char>(bom[k]));
    if (c != EOF) std::ungetc(c, f);
    return n > 0;
  }
  return false;
}

// get_line: the next whole line of t, without line end or trailing CR; the
// first line without a byte order mark in front of it.
// Returns 0, -1 at end of file, 1 on a read error.
int get_line(text_file& t, std::string& line) {
  line.clear();
  if (!t.f) return 1;
  bool any = t.lines_read == 0 && byte_order_mark(t.f, line);
  int c = 0;
  while ((c = std::getc(t.f)) != EOF) {
    any = true;
    if (c == '\n') break;
    line.push_back(static_cast<char>(c));
  }
  if (c == EOF) {
    if (std::ferror(t.f)) return 1;
    if (!any) return -1;
  }
  if (!line.empty() && line.back() == '\r') line.pop_back();
  ++t.lines_read;
  return 0;
}

}  // namespace

int read_line(text_file& t, std::string& buffer, std::size_t width) {
  const int st = get_line(t, buffer);
  if (st != 0) {
    buffer.clear();
    return st;
  }
  if (buffer.size() > width) buffer.resize(width);
  return 0;
}

bool next_data_line(text_file& t, std::string& buffer, std::size_t width, long* counter) {
  for (;;) {
    if (read_line(t, buffer, width) != 0) return false;
    if (counter) ++*counter;
    if (!buffer.empty() && buffer[0] == '!') continue;
    if (rtrim(buffer).empty()) continue;
    return true;
  }
}

// ------------------------------------------------------- free-format reads

namespace {

// A source of lines: a file (more lines on demand) or one text.
struct ff_source {
  text_file* file = nullptr;
  std::string line;
  std::size_t pos = 0;
  bool at_text_end = false;  // text source: no more lines
};

// next_line: fetch the next line of the source. Returns 0 or -1 / >0.
int ff_next_line(ff_source& s) {
  s.pos = 0;
  if (!s.file) {
    s.line.clear();
    return -1;
  }
  return get_line(*s.file, s.line);
}

bool parse_int(std::string_view tok, int32_t& out) {
  std::size_t i = 0;
  bool neg = false;
  if (i < tok.size() && (tok[i] == '+' || tok[i] == '-')) neg = tok[i++] == '-';
  if (i == tok.size()) return false;
  long long v = 0;
  for (; i < tok.size(); ++i) {
    if (tok[i] < '0' || tok[i] > '9') return false;
    v = v * 10 + (tok[i] - '0');
    if (v > 2147483648LL) return false;
  }
  if (neg) v = -v;
  if (v > 2147483647LL || v < -2147483648LL) return false;
  out = static_cast<int32_t>(v);
  return true;
}

bool parse_real(std::string_view tok, double& out) {
  std::string s;
  s.reserve(tok.size());
  std::size_t i = 0;
  if (i < tok.size() && (tok[i] == '+' || tok[i] == '-')) s.push_back(tok[i++]);
  std::size_t digits = 0;
  while (i < tok.size() && tok[i] >= '0' && tok[i] <= '9') { s.push_back(tok[i++]); ++digits; }
  if (i < tok.size() && tok[i] == '.') {
    s.push_back(tok[i++]);
    while (i < tok.size() && tok[i] >= '0' && tok[i] <= '9') { s.push_back(tok[i++]); ++digits; }
  }
  if (digits == 0) return false;
  if (i < tok.size()) {
    const char e = tok[i];
    if (e != 'e' && e != 'E' && e != 'd' && e != 'D') return false;
    s.push_back('e');
    ++i;
    if (i < tok.size() && (tok[i] == '+' || tok[i] == '-')) s.push_back(tok[i++]);
    std::size_t edigits = 0;
    while (i < tok.size() && tok[i] >= '0' && tok[i] <= '9') { s.push_back(tok[i++]); ++edigits; }
    if (edigits == 0 || i != tok.size()) return false;
  }
  errno = 0;
  char* end = nullptr;
  const double v = std::strtod(s.c_str(), &end);
  if (end != s.c_str() + s.size()) return false;
  if (!std::isfinite(v)) return false;
  out = v;
  return true;
}

bool parse_value(std::string_view tok, ff_kind kind, void* p) {
  if (kind == ff_kind::i32) return parse_int(tok, *static_cast<int32_t*>(p));
  return parse_real(tok, *static_cast<double*>(p));
}

// The one reader of both sources.
int ff_run(ff_source& s, std::initializer_list<ff_target> targets) {
  // The flat list of places to fill.
  auto tgt = targets.begin();
  std::size_t elem = 0;
  auto skip_empty_targets = [&] {
    while (tgt != targets.end() && elem >= tgt->count) { ++tgt; elem = 0; }
  };
  auto place = [&]() -> void* {
    const std::size_t size = tgt->kind == ff_kind::i32 ? sizeof(int32_t) : sizeof(double);
    return static_cast<char*>(tgt->p) + elem * size;
  };
  skip_empty_targets();
  if (tgt == targets.end()) return 0;

  for (;;) {
    // Skip blanks and line ends up to the next value or separator.
    for (;;) {
      while (s.pos < s.line.size() && is_blank(s.line[s.pos])) ++s.pos;
      if (s.pos < s.line.size()) break;
      const int st = ff_next_line(s);
      if (st != 0) return st;
    }
    const char c = s.line[s.pos];
    std::size_t repeat = 1;
    bool null_value = false;
    std::string_view value;
    if (c == '/') return 0;
    if (c == ',') {
      // An empty place: the comma of the value before was taken with it, so
      // this comma closes an empty value (also at the start of a read).
      ++s.pos;
      null_value = true;
    } else {
      const std::size_t start = s.pos;
      while (s.pos < s.line.size() && !is_blank(s.line[s.pos]) && s.line[s.pos] != ',' &&
             s.line[s.pos] != '/')
        ++s.pos;
      std::string_view tok(s.line.data() + start, s.pos - start);
      const std::size_t star = tok.find('*');
      if (star != std::string_view::npos) {
        int32_t r = 0;
        const std::string_view rs = tok.substr(0, star);
        if (rs.empty() || rs[0] == '+' || rs[0] == '-' || !parse_int(rs, r) || r < 1) return 1;
        repeat = static_cast<std::size_t>(r);
        value = tok.substr(star + 1);
        null_value = value.empty();
      } else {
        value = tok;
      }
      // The separator behind the value: blanks, then at most one comma.
      while (s.pos < s.line.size() && is_blank(s.line[s.pos])) ++s.pos;
      if (s.pos < s.line.size() && s.line[s.pos] == ',') ++s.pos;
    }
    for (std::size_t r = 0; r < repeat; ++r) {
      if (!null_value && !parse_value(value, tgt->kind, place())) return 1;
      ++elem;
      skip_empty_targets();
      if (tgt == targets.end()) return 0;
    }
  }
}

}  // namespace

int ff_read(text_file& t, std::initializer_list<ff_target> targets) {
  ff_source s;
  s.file = &t;
  const int st = get_line(t, s.line);
  if (st != 0) return st;
  return ff_run(s, targets);
  // The rest of the line the read ended on is dropped with s.
}

int ff_read_text(std::string_view text, std::initializer_list<ff_target> targets) {
  ff_source s;
  s.line.assign(text);
  return ff_run(s, targets);
}

}  // namespace quolvent
