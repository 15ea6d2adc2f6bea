// What the tool prints: text that cannot steer a terminal, JSON that is always valid, and colour where it is wanted.
#ifndef ZOLCTL_OUTPUT_H
#define ZOLCTL_OUTPUT_H

#include <rapidjson/document.h>

#include <string>
#include <vector>

#include "settings.h"

namespace zolctl {

bool isUtf8(const std::string& text);

/// Replaces each byte of a control character, and each that is not UTF-8, by \x and two digits, and a backslash by two.
/// So no two texts look the same.
std::string escaped(const std::string& text);

bool outputIsTerminal();

enum class Style { Bold, Dim, Name };

/// The text in that style if the output is a terminal and colour is not switched off, otherwise the text alone.
std::string styled(Style style, const std::string& text);

/// Writes to standard output.
/// @throws Failure when it cannot be written.
void print(const std::string& text);

/// Writes a line to standard error, with the tool's name in front.
void printError(const std::string& message);

/// Words with something between.
std::string joined(const std::vector<std::string>& words, const char* separator);

/// A JSON document in the making. It leaves out texts that are not UTF-8, with a line on standard error.
class Json {
public:
    using Node = rapidjson::Value;
    enum class Layout { Indented, OneLine };

    explicit Json(rapidjson::Type type) : root(type) {}

    /// @param name  Must outlive the document.
    void add(Node& object, const char* name, Node value);
    /// @param what  What the value belongs to, for the line on standard error.
    void add(Node& object, const char* name, const Value& value, const std::string& what);
    void append(Node& array, Node value);
    void append(Node& array, const std::vector<std::string>& texts);

    bool isComplete() const { return isComplete_; }
    /// On a terminal, control characters that JSON allows are escaped as well.
    std::string text(Layout layout) const;

    rapidjson::Document root;

private:
    bool check(const std::string& what, const std::string& text);
    Node textNode(const std::string& text);

    bool isComplete_ = true;
};

}  // namespace zolctl

#endif
