/// @file
/// The library's JSON writer, for C++. This is the one public header that needs RapidJSON.
#ifndef ZOL_JSON_H
#define ZOL_JSON_H

#include <rapidjson/fwd.h>

#include <string>

#include "ZOLExport.h"

/// Turns a JSON value into compact text: no white space, members and elements in their order, UTF-8 copied unchanged.
/// @param value     The value; it is not changed. Writing recurses once per level of nesting.
/// @param[out] out  Receives the text in place of its old content.
///
/// The library takes values of RapidJSON's usual namespace. In a program that moves its RapidJSON to another one by
/// RAPIDJSON_NAMESPACE this header compiles, but a call does not link: write such a value with its own Writer.
///
/// Threads: any, as long as nobody changes `value` meanwhile. Throws nothing of its own; std::bad_alloc comes through,
/// with `out` as it was.
ZOL_API void toString(RAPIDJSON_NAMESPACE::Value& value, std::string& out);

#endif
