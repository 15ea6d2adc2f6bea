// What the tool prints: text that cannot steer a terminal, JSON that is always valid, and colour where it is wanted.
#ifndef ZOLCTL_OUTPUT_H
#define ZOLCTL_OUTPUT_H

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>

#include <cstddef>
#include <new>
#include <string>
#include <variant>
#include <vector>

#include "settings.h"

namespace zolctl {

/// For RapidJSON, which does not look whether it got the memory that it asked for.
struct ThrowingAllocator : rapidjson::CrtAllocator {
    static void* Malloc(std::size_t size) { return checked(CrtAllocator().Malloc(size), size); }
    static void* Realloc(void* old, std::size_t oldSize, std::size_t size)
    {
        return checked(CrtAllocator().Realloc(old, oldSize, size), size);
    }
    static void* checked(void* block, std::size_t size)
    {
        return block == nullptr && size != 0 ? throw std::bad_alloc() : block;
    }
};

using Document =
    rapidjson::GenericDocument<rapidjson::UTF8<>, rapidjson::MemoryPoolAllocator<ThrowingAllocator>, ThrowingAllocator>;
using JsonBuffer = rapidjson::GenericStringBuffer<rapidjson::UTF8<>, ThrowingAllocator>;
inline std::string toString(const JsonBuffer& buffer) { return {buffer.GetString(), buffer.GetSize()}; }

bool isUtf8(const std::string& text);

/// Spells out control characters and what is not UTF-8, byte by byte, as \x1b, and a backslash as two, so that no two
/// texts look the same.
std::string escaped(const std::string& text);

bool outputIsTerminal();

enum class Style { Bold, Dim, Name };

/// The text in that style where the output is a terminal and colour is not switched off, otherwise the text alone.
std::string styled(Style style, const std::string& text);

/// Writes to standard output.
/// @throws Failure when it cannot be written.
void print(const std::string& text);

/// Writes a line to standard error, with the tool's name in front.
void printError(const std::string& message);

template <class Writer>
void writeJson(Writer& writer, const Value& value)
{
    if (const auto* text = std::get_if<std::string>(&value)) {
        writer.String(text->data(), static_cast<rapidjson::SizeType>(text->size()));
    } else if (const auto* number = std::get_if<int>(&value)) {
        writer.Int(*number);
    } else {
        writer.Bool(std::get<bool>(value));
    }
}

/// Whether that can stand in JSON; if not, a line on standard error says that it is left out.
bool checkJson(const std::string& what, const Value& value);

/// Writes texts as an array, but for those that cannot stand in JSON.
/// @return whether all could.
template <class Writer>
bool writeArray(Writer& writer, const std::vector<std::string>& texts)
{
    bool all = true;
    writer.StartArray();
    for (const std::string& text : texts) {
        checkJson(text, text) ? writeJson(writer, text) : void(all = false);
    }
    writer.EndArray();
    return all;
}

/// Writes a setting's value as a member of an object, null for none, if it can stand in JSON.
/// @return whether it could.
template <class Writer>
bool writeMember(Writer& writer, const char* name, const Setting& setting, const std::optional<Value>& value)
{
    const bool can = !value || checkJson(setting.name, *value);
    if (can) {
        writer.Key(name);
        value ? writeJson(writer, *value) : void(writer.Null());
    }
    return can;
}

/// Words with something between.
std::string joined(const std::vector<std::string>& words, const char* separator);

}  // namespace zolctl

#endif
