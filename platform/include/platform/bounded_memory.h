/// @file
/// The appliance's bounded memory operations.
#ifndef PLATFORM_BOUNDED_MEMORY_H
#define PLATFORM_BOUNDED_MEMORY_H

#include <cstddef>

#include "platform/export.h"

/// Sets the first `count` bytes at `destination` to `value`, as memset() does, but never more than
/// `destination_size` bytes.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the platform's name
extern "C" PLATFORM_EXPORT void __memset_to_buf(std::size_t destination_size, void* destination,
                                                int value, std::size_t count);

#endif
