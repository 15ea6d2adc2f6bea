/// @file
/// The library's JSON writer, for C++. This is the one public header that needs RapidJSON.
#ifndef ZOL_JSON_H
#define ZOL_JSON_H

#include <rapidjson/fwd.h>

#include <string>

#include "ZOLExport.h"

/// Writes a JSON value as compact text: no white space, members and elements in order, UTF-8 unchanged.
/// @param value     The value; it is not changed. Writing recurses once per level of nesting.
/// @param[out] out  Receives the text; its old content is replaced.
///
/// The library uses RapidJSON's default namespace. In a program that sets RAPIDJSON_NAMESPACE this header compiles, but
/// calls do not link; use RapidJSON's own Writer there.
///
/// Threads: any, as long as no other thread changes `value` meanwhile.
/// Errors: the only exception is std::bad_alloc; `out` is then unchanged.
ZOL_API void toString(RAPIDJSON_NAMESPACE::Value& value, std::string& out);

#endif
