#include "output.h"

#include <rapidjson/writer.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "settings.h"

namespace zolctl {
namespace {

// A character that JSON can hold as it is: of control characters, those from U+0080 on could steer a terminal.
bool isPlain(const std::string& character)
{
    const auto first = static_cast<unsigned char>(character[0]);
    const bool isControl = first < 0x20 || first == 0x7f || (first == 0xc2 && character < "\xc2\xa0");
    return !isControl && first != '\\' && (first < 0x80 || isUtf8(character));
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
    JsonBuffer buffer;
    rapidjson::Writer<JsonBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>, ThrowingAllocator,
                      rapidjson::kWriteValidateEncodingFlag>
        writer(buffer);
    return writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

std::string escaped(const std::string& text)
{
    std::string result;
    for (std::size_t at = 0; at < text.size();) {
        const auto first = static_cast<unsigned char>(text[at]);
        const std::string character = text.substr(at, first < 0xc0 ? 1 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4);
        if (isPlain(character)) {
            result += character;
            at += character.size();
            continue;
        }
        std::array<char, 5> spelled{'\\', '\\'};
        if (first != '\\') {
            (void)std::snprintf(spelled.data(), spelled.size(), "\\x%02x", static_cast<unsigned>(first));
        }
        result += spelled.data();
        ++at;
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
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t written = ::write(STDOUT_FILENO, &text[done], text.size() - done);
        if (written < 0 && errno != EINTR) {
            throw Failure(std::string("cannot write to standard output: ") + std::strerror(errno));
        }
        done += written < 0 ? 0 : static_cast<std::size_t>(written);
    }
}

void printError(const std::string& message) { (void)std::fprintf(stderr, "zolctl: %s\n", escaped(message).c_str()); }

bool checkJson(const std::string& what, const Value& value)
{
    const auto* text = std::get_if<std::string>(&value);
    const bool can = text == nullptr || isUtf8(*text);
    if (!can) {
        printError(what + " is not UTF-8 and is left out of the JSON; without --json it is shown");
    }
    return can;
}

std::string joined(const std::vector<std::string>& words, const char* separator)
{
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : separator) + word;
    }
    return text;
}

}  // namespace zolctl
