/// @file
/// The library's JSON writer. This is the one public header that needs RapidJSON.
#ifndef ZOL_JSON_H
#define ZOL_JSON_H

#include <rapidjson/fwd.h>

#include <string>

#include "ZOLExport.h"

/// Turns a JSON value into compact text: no white space, members and elements in their order, UTF-8 copied unchanged.
/// @param value     The value; it is not changed. Writing recurses once per level of nesting.
/// @param[out] out  Receives the text in place of its old content.
/// Threads: any, as long as nobody changes `value` meanwhile. Throws nothing of its own.
ZOL_API void toString(rapidjson::Value& value, std::string& out);

#endif
