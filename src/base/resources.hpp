// What the machine has room for: the free space of a file system and the
// memory a run can still have, read before a long run so that one which
// can't finish is refused at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace quolvent {

// free_disk_bytes
// Given: a directory.
// Returns: the bytes of its file system that an unprivileged writer may still
//   fill (f_bavail x f_frsize), or -1 when the system doesn't say.
//   QUOLVENT_TEST_FREE_BYTES, when set to a number, stands in for it (the
//   test suite's full disk).
int64_t free_disk_bytes(const std::string& dir);

// available_memory_bytes
// Returns: the memory the system can give without swapping (MemAvailable of
//   /proc/meminfo), less where the process's control group has a memory
//   limit nearer (a batch system's job: cgroup v2 memory.max, or v1
//   memory.limit_in_bytes, less what the group uses); -1 when neither says.
//   QUOLVENT_TEST_AVAILABLE_BYTES, when set to a number, stands in for it
//   (the test suite's small machine).
int64_t available_memory_bytes();

// bytes_text: "123456789 bytes (117.7 MiB)"; the unit the largest that
// leaves at least 1.
std::string bytes_text(int64_t bytes);

// saturating sums and products of sizes: INT64_MAX where the exact value
// would not fit (a size from counts in a corrupt input).
int64_t add_sizes(int64_t a, int64_t b);
int64_t mul_sizes(int64_t a, int64_t b);

// back_with_pages
// Given: bytes of memory from p that the calling thread is about to write
//   for the first time.
// Returns: the whole pages among them given zeroed memory by the system now,
//   in one call, instead of one page fault a page as they are first written:
//   a third less time for the 500 MB of a large uncompressed matrix on the
//   development machine. The pages are then the calling thread's own, on
//   its memory node. Where the system can't (Linux before 5.14, or no
//   memory left), nothing happens, and the pages come one fault at a time.
void back_with_pages(void* p, std::size_t bytes);

}  // namespace quolvent
