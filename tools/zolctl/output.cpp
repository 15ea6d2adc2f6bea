#include "output.h"

#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "error.h"

namespace zolctl {
namespace {

// Reads one character from the stream; false when it is not UTF-8, and then an unknown number of bytes has been read.
bool decode(rapidjson::MemoryStream& stream, unsigned& codepoint)
{
    return rapidjson::UTF8<>::Decode(stream, &codepoint);
}

bool isControl(unsigned codepoint) { return codepoint < 0x20 || (codepoint >= 0x7f && codepoint < 0xa0); }

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
    rapidjson::MemoryStream stream(text.data(), text.size());
    unsigned codepoint = 0;
    while (stream.Tell() < text.size()) {
        if (!decode(stream, codepoint)) {
            return false;
        }
    }
    return true;
}

std::string escaped(const std::string& text)
{
    std::string result;
    for (std::size_t at = 0; at < text.size();) {
        rapidjson::MemoryStream stream(text.data() + at, text.size() - at);
        unsigned codepoint = 0;
        const bool valid = decode(stream, codepoint);
        const std::string bytes = text.substr(at, valid ? stream.Tell() : 1);
        at += bytes.size();
        if (valid && !isControl(codepoint)) {
            result += bytes;
            continue;
        }
        for (const char byte : bytes) {
            char spelled[5];
            (void)std::snprintf(spelled, sizeof spelled, "\\x%02x",
                                static_cast<unsigned>(static_cast<unsigned char>(byte)));
            result += spelled;
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
    const char* const code = style == Style::Bold ? "1" : style == Style::Dim ? "2" : "36";
    return std::string("\x1b[") + code + "m" + text + "\x1b[0m";
}

void print(const std::string& text)
{
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
        throw Failure(std::string("cannot write to standard output: ") + std::strerror(errno));
    }
}

void printError(const std::string& message) { (void)std::fprintf(stderr, "zolctl: %s\n", escaped(message).c_str()); }

bool checkJson(const Setting& setting, const Value& value)
{
    const auto* text = std::get_if<std::string>(&value);
    if (text == nullptr || isUtf8(*text)) {
        return true;
    }
    printError(std::string(setting.name) + " is not UTF-8 and is left out of the JSON; zolctl get " + setting.name +
               " shows it");
    return false;
}

}  // namespace zolctl
