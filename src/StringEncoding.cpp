#include "tavrel/StringEncoding.h"

#include <algorithm>
#include <cstdlib>

#include "Log.h"

namespace tavrel {
namespace {

const Logger logger("string_encoding");

constexpr std::size_t kLongest = 127;  // bytes

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

  auto* const value = static_cast<berval*>(std::malloc(sizeof(berval)));
  if (value == nullptr) return nullptr;
  value->bv_len = 2 * length;
  value->bv_val = static_cast<char*>(std::malloc(value->bv_len));
  if (value->bv_val == nullptr && length > 0) {
    std::free(value);
    return nullptr;
  }
  for (std::size_t i = 0; i < length; ++i) {
    value->bv_val[2 * i] = data[i];
    value->bv_val[2 * i + 1] = 0;
  }
  return value;
}

}  // namespace tavrel
