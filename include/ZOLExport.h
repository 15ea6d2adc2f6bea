/// @file
/// Marks what the library exports, for C++; everything else is hidden.
#ifndef ZOL_EXPORT_H
#define ZOL_EXPORT_H

#include <string>

#if defined(_GLIBCXX_USE_CXX11_ABI) && !_GLIBCXX_USE_CXX11_ABI
#error "libcapi-zol-tv passes the std::string of C++11; compile without -D_GLIBCXX_USE_CXX11_ABI=0"
#endif

#ifdef _GLIBCXX_DEBUG
#error "libcapi-zol-tv passes the ordinary std::vector; compile without -D_GLIBCXX_DEBUG"
#endif

/// Stands before what is exported.
#define ZOL_API __attribute__((visibility("default")))

#endif
