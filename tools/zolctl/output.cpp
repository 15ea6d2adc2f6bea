#include "output.h"

#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace zolctl {
namespace {

struct Character {
    std::string bytes;
    unsigned code;
    bool isValid;  // otherwise this is one byte that is not UTF-8

    // Those from U+0080 on steer a terminal as well.
    bool isControl() const { return code < 0x20 || (code >= 0x7f && code <= 0x9f); }
};

Character characterAt(const std::string& text, std::size_t at)
{
    rapidjson::MemoryStream rest(&text[at], text.size() - at);
    unsigned code = 0;
    if (!rapidjson::UTF8<>::Decode(rest, &code)) {
        return {text.substr(at, 1), 0, false};
    }
    return {text.substr(at, rest.Tell()), code, true};
}

std::string hex(char byte)
{
    constexpr char kDigits[] = "0123456789abcdef";
    const auto number = static_cast<unsigned char>(byte);
    return {kDigits[number / 16], kDigits[number % 16]};
}

// RapidJSON escapes the other control characters.
std::string withControlsEscaped(const std::string& json)
{
    std::string result;
    for (std::size_t at = 0; at < json.size();) {
        const Character character = characterAt(json, at);
        at += character.bytes.size();
        if (character.isControl() && character.code >= 0x7f) {
            result += "\\u00" + hex(character.bytes.back());
        } else {
            result += character.bytes;
        }
    }
    return result;
}

bool mayColour()
{
    const char* noColour = std::getenv("NO_COLOR");
    const char* terminal = std::getenv("TERM");
    return outputIsTerminal() && (noColour == nullptr || *noColour == '\0') &&
           (terminal == nullptr || std::strcmp(terminal, "dumb") != 0);
}

}  // namespace

bool isUtf8(const std::string& text)
{
    for (std::size_t at = 0; at < text.size();) {
        const Character character = characterAt(text, at);
        if (!character.isValid) {
            return false;
        }
        at += character.bytes.size();
    }
    return true;
}

std::string escaped(const std::string& text)
{
    std::string result;
    for (std::size_t at = 0; at < text.size();) {
        const Character character = characterAt(text, at);
        at += character.bytes.size();
        if (character.bytes == "\\") {
            result += "\\\\";
        } else if (character.isValid && !character.isControl()) {
            result += character.bytes;
        } else {
            for (const char byte : character.bytes) {
                result += "\\x" + hex(byte);
            }
        }
    }
    return result;
}

bool outputIsTerminal()
{
    static const bool is = isatty(STDOUT_FILENO) == 1;
    return is;
}

std::string styled(Style style, const std::string& text)
{
    static const bool colour = mayColour();
    if (!colour) {
        return text;
    }
    const char* code = "36";
    if (style == Style::Bold) {
        code = "1";
    } else if (style == Style::Dim) {
        code = "2";
    }
    return std::string("\x1b[") + code + "m" + text + "\x1b[0m";
}

void print(const std::string& text)
{
    std::cout << text << std::flush;
    if (!std::cout) {
        throw Failure(std::string("cannot write to standard output: ") + std::strerror(errno));
    }
}

void printError(const std::string& message) { std::cerr << "zolctl: " + escaped(message) + "\n"; }

std::string joined(const std::vector<std::string>& words, const char* separator)
{
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : separator) + word;
    }
    return text;
}

void Json::add(Node& object, const char* name, Node value)
{
    object.AddMember(rapidjson::StringRef(name), value, root.GetAllocator());
}

void Json::add(Node& object, const char* name, const Value& value, const std::string& what)
{
    if (const auto* text = std::get_if<std::string>(&value)) {
        if (check(what, *text)) {
            add(object, name, textNode(*text));
        }
    } else if (const auto* number = std::get_if<int>(&value)) {
        add(object, name, Node(*number));
    } else {
        add(object, name, Node(std::get<bool>(value)));
    }
}

void Json::append(Node& array, Node value) { array.PushBack(value, root.GetAllocator()); }

void Json::append(Node& array, const std::vector<std::string>& texts)
{
    for (const std::string& text : texts) {
        if (check(text, text)) {
            append(array, textNode(text));
        }
    }
}

std::string Json::text(Layout layout) const
{
    rapidjson::StringBuffer buffer;
    if (layout == Layout::OneLine) {
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        root.Accept(writer);
    } else {
        rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
        writer.SetFormatOptions(rapidjson::kFormatSingleLineArray);
        root.Accept(writer);
    }
    const std::string json(buffer.GetString(), buffer.GetSize());
    return (outputIsTerminal() ? withControlsEscaped(json) : json) + "\n";
}

bool Json::check(const std::string& what, const std::string& text)
{
    const bool can = isUtf8(text);
    if (!can) {
        printError(what + " is not UTF-8 and is left out of the JSON; zolctl list shows it");
        isComplete_ = false;
    }
    return can;
}

Json::Node Json::textNode(const std::string& text)
{
    return {text.data(), static_cast<rapidjson::SizeType>(text.size()), root.GetAllocator()};
}

}  // namespace zolctl
