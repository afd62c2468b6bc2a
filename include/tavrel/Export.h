/// @file
/// Marks what the library exports; everything else in it is hidden.
#ifndef TAVREL_EXPORT_H
#define TAVREL_EXPORT_H

#define TAVREL_EXPORT __attribute__((visibility("default")))

#endif
