// What this program puts in front of the shared libraries' functions: a logger that discards unless
// told otherwise, and a heap that counts.

#include <dlfcn.h>
#include <malloc.h>

#include <cstddef>

#include "Race.h"
#include "platform/logger.h"

namespace tavrel::bench {

bool use_platform_logger = false;
thread_local std::size_t allocations = 0;

namespace {

// A heap that shrinks whenever a large block on its top is freed, and grows again for the next one,
// would make chance decide which lane pays for the pages.
const bool steady_heap = [] {
  mallopt(M_TRIM_THRESHOLD, 1 << 28);
  mallopt(M_MMAP_THRESHOLD, 1 << 28);
  return true;
}();

}  // namespace
}  // namespace tavrel::bench

using tavrel::bench::allocations;

void platformlogger_log(const char* function, int line, const char* file, LogLevel level,
                        const char* logger, const char* message) {
  if (!tavrel::bench::use_platform_logger) return;
  static const auto real = reinterpret_cast<decltype(&platformlogger_log)>(
      dlsym(RTLD_NEXT, "_Z18platformlogger_logPKciS0_8LogLevelS0_S0_"));
  real(function, line, file, level, logger, message);
}

extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);

void* malloc(std::size_t size) {
  ++allocations;
  return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
  ++allocations;
  return __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
  ++allocations;
  return __libc_realloc(block, size);
}
}
