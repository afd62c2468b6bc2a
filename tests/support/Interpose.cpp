#include "Interpose.h"

#include <dlfcn.h>
#include <link.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tavrel::tests {
namespace {

struct Range {
  std::uintptr_t first = 1;
  std::uintptr_t last = 0;
};

// Where the library is mapped.
Range LibraryRange() {
  Range range;
  dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* data) {
        if (std::strstr(info->dlpi_name, TAVREL_INTERPOSED_LIBRARY) == nullptr) return 0;
        auto& found = *static_cast<Range*>(data);
        for (int i = 0; i < info->dlpi_phnum; ++i) {
          const auto& header = info->dlpi_phdr[i];
          if (header.p_type != PT_LOAD || (header.p_flags & PF_X) == 0) continue;
          found.first = info->dlpi_addr + header.p_vaddr;
          found.last = found.first + header.p_memsz - 1;
        }
        return 1;
      },
      &range);
  return range;
}

}  // namespace

std::vector<std::string>* call_trace = nullptr;

// What put this program onto another library is not for the programs that it starts.
const bool children_run_as_they_are = unsetenv("LD_LIBRARY_PATH") == 0;

bool IsInLibrary(const void* address) {
  static const Range range = LibraryRange();
  const auto number = reinterpret_cast<std::uintptr_t>(address);
  return number >= range.first && number <= range.last;
}

void* RealSymbol(const char* name) {
  void* const symbol = dlsym(RTLD_NEXT, name);
  if (symbol == nullptr) {
    std::fprintf(stderr, "no real function %s\n", name);
    std::abort();
  }
  return symbol;
}

namespace calls {

#define TAVREL_CALL(result, name, parameters, arguments) Interposed<result parameters> name(#name);
#include TAVREL_INTERPOSED_CALLS
#undef TAVREL_CALL

}  // namespace calls
}  // namespace tavrel::tests

// <fcntl.h> is not included above: it declares open() variadic.
#define TAVREL_UNPACK(...) __VA_ARGS__
#define TAVREL_CALL(result, name, parameters, arguments)                                          \
  extern "C" result name parameters {                                                             \
    return tavrel::tests::calls::name.Call(__builtin_return_address(0), TAVREL_UNPACK arguments); \
  }
#include TAVREL_INTERPOSED_CALLS
