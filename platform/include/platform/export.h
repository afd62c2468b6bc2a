/// @file
/// Marks what the platform's library exports; everything else in it is hidden.
#ifndef PLATFORM_EXPORT_H
#define PLATFORM_EXPORT_H

#define PLATFORM_EXPORT __attribute__((visibility("default")))

#endif
