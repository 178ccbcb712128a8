// What the machine has room for.
#include "base/resources.hpp"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>
#include <sys/mman.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace quolvent {

namespace {

constexpr int64_t no_limit = std::numeric_limits<int64_t>::max();

// number_from_env: the value of a test variable, or -1 when it is not set
// or not a number.
int64_t number_from_env(const char* name) {
  const char* v = std::getenv(name);
  if (v == nullptr) return -1;
  int64_t x = -1;
  const char* end = v + std::char_traits<char>::length(v);
  const auto r = std::from_chars(v, end, x);
  return (r.ec == std::errc() && r.ptr == end && x >= 0) ? x : -1;
}

// first_number: the first whole number of the file, or -1 ("max" and an
// unreadable file give -1).
int64_t first_number(const std::string& path) {
  std::ifstream f(path);
  long long v = -1;
  if (!(f >> v)) return -1;
  return v;
}

// meminfo_available: MemAvailable in bytes, or -1.
int64_t meminfo_available() {
  std::ifstream f("/proc/meminfo");
  std::string key;
  long long kb = 0;
  std::string unit;
  while (f >> key >> kb) {
    std::getline(f, unit);
    if (key == "MemAvailable:") return mul_sizes(kb, 1024);
  }
  return -1;
}

// group_room: the least room (limit less use) of the control group at path
// and of the groups above it, under the mount root; no_limit when none has
// a limit.
int64_t group_room(const std::string& root, std::string path, const char* limit_file,
                   const char* usage_file) {
  int64_t room = no_limit;
  for (;;) {
    const std::string dir = root + path;
    const int64_t limit = first_number(dir + "/" + limit_file);
    const int64_t used = first_number(dir + "/" + usage_file);
    // A v1 group without a limit reads a number near 2^63.
    if (limit > 0 && limit < (int64_t{1} << 60) && used >= 0)
      room = std::min(room, std::max<int64_t>(limit - used, 0));
    if (path.empty() || path == "/") break;
    const std::size_t slash = path.find_last_of('/');
    path = slash == std::string::npos ? std::string() : path.substr(0, slash);
  }
  return room;
}

// cgroup_room: the room left by the memory limits of this process's control
// group (v2, or the v1 memory controller), no_limit when there is none.
int64_t cgroup_room() {
  std::ifstream f("/proc/self/cgroup");
  std::string line;
  int64_t room = no_limit;
  while (std::getline(f, line)) {
    // "0::/path" (v2) or "N:memory:/path" (v1; the list may name several controllers)
    const std::size_t a = line.find(':');
    const std::size_t b = a == std::string::npos ? a : line.find(':', a + 1);
    if (b == std::string::npos) continue;
    const std::string controllers = line.substr(a + 1, b - a - 1);
    const std::string path = line.substr(b + 1);
    if (controllers.empty()) {
      room = std::min(room, group_room("/sys/fs/cgroup", path, "memory.max", "memory.current"));
    } else {
      std::stringstream list(controllers);
      for (std::string c; std::getline(list, c, ',');) {
        if (c == "memory")
          room = std::min(room, group_room("/sys/fs/cgroup/memory", path,
                                           "memory.limit_in_bytes", "memory.usage_in_bytes"));
      }
    }
  }
  return room;
}

}  // namespace

int64_t free_disk_bytes(const std::string& dir) {
  // Tests only: a file system as full as the test needs.
  const int64_t test = number_from_env("QUOLVENT_TEST_FREE_BYTES");
  if (test >= 0) return test;
  struct statvfs fs {};
  if (statvfs(dir.c_str(), &fs) != 0) return -1;
  return mul_sizes(static_cast<int64_t>(fs.f_bavail), static_cast<int64_t>(fs.f_frsize));
}

int64_t available_memory_bytes() {
  // Tests only: a machine as small as the test needs.
  const int64_t test = number_from_env("QUOLVENT_TEST_AVAILABLE_BYTES");
  if (test >= 0) return test;
  int64_t avail = meminfo_available();
  const int64_t group = cgroup_room();
  if (group != no_limit) avail = avail < 0 ? group : std::min(avail, group);
  return avail;
}

std::string bytes_text(int64_t bytes) {
  std::string text = std::to_string(bytes) + " bytes";
  if (bytes < 1024) return text;
  double v = static_cast<double>(bytes);
  int u = -1;
  while (v >= 1024.0 && u < 5) {
    v /= 1024.0;
    ++u;
  }
  char shown[32];
  std::snprintf(shown, sizeof shown, " (%.1f %ciB)", v, "KMGTPE"[u]);
  return text + shown;
}

int64_t add_sizes(int64_t a, int64_t b) {
  int64_t r = 0;
  return __builtin_add_overflow(a, b, &r) ? no_limit : r;
}

int64_t mul_sizes(int64_t a, int64_t b) {
  int64_t r = 0;
  return __builtin_mul_overflow(a, b, &r) ? no_limit : r;
}

void back_with_pages(void* p, std::size_t bytes) {
#ifndef MADV_POPULATE_WRITE
  constexpr int MADV_POPULATE_WRITE = 23;
#endif
  const long page_size = sysconf(_SC_PAGESIZE);
  if (p == nullptr || page_size <= 0) return;
  const std::uintptr_t page = static_cast<std::uintptr_t>(page_size);
  const std::uintptr_t begin = (reinterpret_cast<std::uintptr_t>(p) + page - 1) / page * page;
  const std::uintptr_t end = (reinterpret_cast<std::uintptr_t>(p) + bytes) / page * page;
  if (end <= begin) return;
  // Failure is harmless: the pages then fault in as they are written.
  (void)madvise(reinterpret_cast<void*>(begin), end - begin, MADV_POPULATE_WRITE);
}

}  // namespace quolvent
