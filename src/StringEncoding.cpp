#include "tavrel/StringEncoding.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "Log.h"

namespace tavrel {
namespace {

const Logger logger("string_encoding");

constexpr std::size_t kLongest = 127;  // bytes

template <typename T>
using Allocated = std::unique_ptr<T, void (*)(void*)>;

}  // namespace

berval* StringEncoding::EncodeUtf8to16Octetstring(const char* data, std::size_t length) {
  if (length > kLongest) {
    logger.Error("support for encoded data larger than ", kLongest, " not implemented");
    return nullptr;
  }
  if (std::any_of(data, data + length, [](char c) { return (c & 0x80) != 0; })) {
    logger.Error("support for UTF8 encoded with more than 1 byte not implemented");
    return nullptr;
  }

  Allocated<berval> value(static_cast<berval*>(std::malloc(sizeof(berval))), std::free);
  Allocated<char> buffer(static_cast<char*>(std::malloc(2 * length)), std::free);
  if (!value || (!buffer && length > 0)) return nullptr;
  for (std::size_t i = 0; i < length; ++i) {
    buffer.get()[2 * i] = data[i];
    buffer.get()[2 * i + 1] = 0;
  }
  value->bv_len = 2 * length;
  value->bv_val = buffer.release();
  return value.release();
}

}  // namespace tavrel
