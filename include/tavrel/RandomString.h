/// @file
/// Random text for passwords.
#ifndef TAVREL_RANDOMSTRING_H
#define TAVREL_RANDOMSTRING_H

#include <cstddef>
#include <string>

#include "tavrel/Export.h"

namespace tavrel {

/// Makes random text from the bytes of "/dev/urandom", and from the kernel's own (getrandom())
/// where the device gives fewer than asked for. May be called from any thread.
/// @param length number of characters
/// @return `length` characters of the base64 alphabet (RFC 4648, 4), never "="; empty when `length`
///   is 0 or above 2147483647, and on failure. That the device cannot be opened is logged at
///   level 4.
TAVREL_EXPORT std::string RandomString(std::size_t length);

}  // namespace tavrel

#endif
