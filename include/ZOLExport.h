/// @file
/// Marks what the library exports, for C++; everything else is hidden.
#ifndef ZOL_EXPORT_H
#define ZOL_EXPORT_H

/// Stands before what is exported.
#define ZOL_API __attribute__((visibility("default")))

#endif
