#include "platform/bounded_memory.h"

#include <algorithm>
#include <cstring>

void __memset_to_buf(std::size_t destination_size, void* destination, int value,
                     std::size_t count) {
  std::memset(destination, value, std::min(destination_size, count));
}
