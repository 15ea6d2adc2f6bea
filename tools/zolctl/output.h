// What the tool prints: text that cannot steer a terminal, JSON that is always valid, and colour where it is wanted.
#ifndef ZOLCTL_OUTPUT_H
#define ZOLCTL_OUTPUT_H

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>

#include <cstddef>
#include <cstdlib>
#include <new>
#include <string>
#include <variant>

#include "value.h"

namespace zolctl {

/// For RapidJSON, which does not look whether it got the memory that it asked for.
/// Its functions throw std::bad_alloc when there is none.
struct ThrowingAllocator {
    static const bool kNeedFree = true;
    static void* Malloc(std::size_t size) { return Realloc(nullptr, 0, size); }
    static void* Realloc(void* old, std::size_t /*oldSize*/, std::size_t size)
    {
        void* const block = size == 0 ? nullptr : std::realloc(old, size);
        if (size == 0) {
            std::free(old);
        } else if (block == nullptr) {
            throw std::bad_alloc();
        }
        return block;
    }
    static void Free(void* block) { std::free(block); }
};

using Document =
    rapidjson::GenericDocument<rapidjson::UTF8<>, rapidjson::MemoryPoolAllocator<ThrowingAllocator>, ThrowingAllocator>;
using JsonBuffer = rapidjson::GenericStringBuffer<rapidjson::UTF8<>, ThrowingAllocator>;

bool isUtf8(const std::string& text);

/// Spells out control characters and what is not UTF-8, byte by byte, as \x1b.
std::string escaped(const std::string& text);

bool outputIsTerminal();

enum class Style { Bold, Dim, Name };

/// The text in that style where the output is a terminal and colour is not switched off, otherwise the text alone.
std::string styled(Style style, const std::string& text);

/// Writes to standard output and flushes it.
/// @throws Failure when it cannot be written.
void print(const std::string& text);

/// Writes a line to standard error, with the tool's name in front.
void printError(const std::string& message);

/// Whether the value can stand in JSON; if not, a line on standard error says so.
bool checkJson(const Setting& setting, const Value& value);

template <class Writer>
void writeJson(Writer& writer, bool value)
{
    writer.Bool(value);
}

template <class Writer>
void writeJson(Writer& writer, int value)
{
    writer.Int(value);
}

template <class Writer>
void writeJson(Writer& writer, const std::string& value)
{
    writer.String(value.c_str(), static_cast<rapidjson::SizeType>(value.size()));
}

/// Writes a value that checkJson has passed.
template <class Writer>
void writeJson(Writer& writer, const Value& value)
{
    std::visit([&](const auto& each) { writeJson(writer, each); }, value);
}

}  // namespace zolctl

#endif
