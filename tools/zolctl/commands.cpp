#include "commands.h"

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <utility>

#include "ZOLSystemData.h"
#include "error.h"
#include "output.h"
#include "settings.h"
#include "value.h"

namespace zolctl {
namespace {

using Buffer = JsonBuffer;

// What the library lets its callers do. The counters can only be watched; the tool reads them by their keys.
std::vector<std::string> accessOf(const Setting& setting)
{
    std::vector<std::string> access;
    if (setting.readable()) {
        access.emplace_back("read");
    }
    if (setting.writable()) {
        access.emplace_back("write");
    }
    if (setting.watchable()) {
        access.emplace_back("watch");
    }
    return access;
}

std::string joined(const std::vector<std::string>& words)
{
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : ",") + word;
    }
    return text;
}

// What reads does not tell whether there is no value or no store.
void warnIfNothing(bool anyRead)
{
    if (!anyRead) {
        printError("no setting has a value; add -v to see whether the store could be read");
    }
}

int listAsJson()
{
    int result = 0;
    bool anyRead = false;
    Buffer buffer;
    rapidjson::PrettyWriter<Buffer> writer(buffer);
    writer.SetFormatOptions(rapidjson::kFormatSingleLineArray);
    writer.StartArray();
    for (const Setting& setting : allSettings()) {
        writer.StartObject();
        writer.Key("name");
        writer.String(setting.name);
        writer.Key("type");
        writer.String(setting.type());
        writer.Key("access");
        writer.StartArray();
        for (const std::string& word : accessOf(setting)) {
            writeJson(writer, word);
        }
        writer.EndArray();
        writer.Key("key");
        writer.String(setting.key);
        const std::optional<Value> value = read(setting);
        anyRead = anyRead || value;
        if (!value) {
            writer.Key("value");
            writer.Null();
        } else if (checkJson(setting, *value)) {
            writer.Key("value");
            writeJson(writer, *value);
        } else {
            result = kExitFailed;
        }
        writer.EndObject();
    }
    writer.EndArray();
    warnIfNothing(anyRead);
    print(std::string(buffer.GetString(), buffer.GetSize()) + "\n");
    return result;
}

// Pads before styling, so that the style does not count.
std::string padded(std::string text, std::size_t width)
{
    text.resize(std::max(width, text.size()), ' ');
    return text;
}

// Some settings as one JSON object; what cannot be read is left out.
int printObject(const std::vector<std::pair<const Setting*, Value>>& settings)
{
    int result = 0;
    Buffer buffer;
    rapidjson::PrettyWriter<Buffer> writer(buffer);
    writer.StartObject();
    for (const auto& [setting, value] : settings) {
        if (checkJson(*setting, value)) {
            writer.Key(setting->name);
            writeJson(writer, value);
        } else {
            result = kExitFailed;
        }
    }
    writer.EndObject();
    print(std::string(buffer.GetString(), buffer.GetSize()) + "\n");
    return result;
}

}  // namespace

int list(bool withKey, bool json)
{
    if (json) {
        return listAsJson();
    }
    using Row = std::array<std::string, 5>;  // name, type, access, key, value
    std::vector<Row> rows = {{"NAME", "TYPE", "ACCESS", "KEY", "VALUE"}};
    bool anyRead = false;
    for (const Setting& setting : allSettings()) {
        const std::optional<Value> value = read(setting);
        anyRead = anyRead || value;
        rows.push_back({setting.name, setting.type(), joined(accessOf(setting)), setting.key,
                        value ? escaped(toText(*value)) : styled(Style::Dim, "-")});
    }
    warnIfNothing(anyRead);
    std::array<std::size_t, 4> widths{};
    for (const Row& row : rows) {
        for (std::size_t column = 0; column < widths.size(); ++column) {
            widths.at(column) = std::max(widths.at(column), row.at(column).size());
        }
    }
    std::string text;
    for (const Row& row : rows) {
        std::string line;
        for (std::size_t column = 0; column < widths.size(); ++column) {
            if (column != 3 || withKey) {
                line += padded(row.at(column), widths.at(column) + 2);
            }
        }
        line += row.back();
        text += (text.empty() ? styled(Style::Bold, line) : line) + "\n";
    }
    print(text);
    return 0;
}

int get(const std::string& name, bool json)
{
    const Setting& setting = findSetting(name);
    const std::optional<Value> value = read(setting);
    if (!value) {
        throw Failure(name + " cannot be read: its key " + setting.key +
                      " is not there, holds another type, or the store cannot be used; write it with zolctl " +
                      (setting.writable() ? "set " : "inject ") + name + " VALUE, or add -v to see the store's reason");
    }
    if (json) {
        return printObject({{&setting, *value}});
    }
    const std::string text = toText(*value);
    print((outputIsTerminal() ? escaped(text) : text) + "\n");  // a script gets the bytes as they are
    return 0;
}

int set(const std::string& name, const std::string& value)
{
    const Setting& setting = findSetting(name);
    if (!setting.writable()) {
        const bool isAppList = name == "ZOLConcurrentAppList";
        throw UsageError(name + " has no setter; use zolctl " +
                         (isAppList ? "concurrent enable|disable APPID, or zolctl " : "") + "inject " + name +
                         " VALUE");
    }
    const Value parsed = parseValue(setting, value);
    if (value.empty()) {
        throw UsageError("the library refuses empty values; zolctl inject " + name + " '' writes one");
    }
    write(setting, parsed);
    return 0;
}

int injectValue(const std::string& name, const std::string& value)
{
    const Setting& setting = findSetting(name);
    if (!inject(setting, parseValue(setting, value))) {
        throw Failure(name + " was not written, because the store refused it; add -v to see its reason");
    }
    return 0;
}

int dump()
{
    std::vector<std::pair<const Setting*, Value>> readable;
    for (const Setting& setting : allSettings()) {
        if (std::optional<Value> value = read(setting)) {
            readable.emplace_back(&setting, *std::move(value));
        }
    }
    warnIfNothing(!readable.empty());
    return printObject(readable);
}

// ---- load -----------------------------------------------------------------------------------------------------------

namespace {

std::string readFile(const std::string& path)
{
    struct Close {
        void operator()(std::FILE* file) const { (void)std::fclose(file); }
    };
    std::unique_ptr<std::FILE, Close> opened(path == "-" ? nullptr : std::fopen(path.c_str(), "re"));
    std::FILE* const file = path == "-" ? stdin : opened.get();
    std::string text;
    std::array<char, 65536> block{};
    while (file != nullptr && std::ferror(file) == 0 && std::feof(file) == 0) {
        text.append(block.data(), std::fread(block.data(), 1, block.size(), file));
    }
    if (file == nullptr || std::ferror(file) != 0) {
        throw UsageError("cannot read " + path + ": " + std::strerror(errno));
    }
    return text;
}

Document parseFile(const std::string& source, const std::string& text)
{
    // Without recursion, so that no file can be nested too deep.
    constexpr unsigned kFlags = rapidjson::kParseValidateEncodingFlag | rapidjson::kParseIterativeFlag;
    Document document;
    document.Parse<kFlags>(text.data(), text.size());
    const std::size_t nul = text.find('\0');  // where the parser takes the text to end
    if (document.HasParseError() || nul != std::string::npos) {
        const std::size_t offset = document.HasParseError() ? document.GetErrorOffset() : nul;
        const auto end = text.begin() + static_cast<std::ptrdiff_t>(std::min(offset, text.size()));
        throw UsageError(source + ", line " + std::to_string(std::count(text.begin(), end, '\n') + 1) + ": not JSON: " +
                         (document.HasParseError() ? rapidjson::GetParseError_En(document.GetParseError())
                                                   : "a NUL character; take it out"));
    }
    if (!document.IsObject()) {
        throw UsageError(source + R"(: must hold one JSON object, like {"OSDLanguage": "en_US"})");
    }
    return document;
}

constexpr std::size_t kMaxTextSize = std::size_t{64} << 20;  // of the store on a desk

Value valueFrom(const Setting& setting, const Document::ValueType& json)
{
    const std::string type = setting.type();
    const std::string name = setting.name;
    if (type == "boolean") {
        if (!json.IsBool()) {
            throw UsageError(name + " must be true or false");
        }
        return json.GetBool();
    }
    if (type == "integer") {
        if (!json.IsInt()) {
            throw UsageError(name + " must be a whole number from -2147483648 to 2147483647");
        }
        return json.GetInt();
    }
    if (!json.IsString()) {
        throw UsageError(name + " must be a string");
    }
    if (std::strlen(json.GetString()) != json.GetStringLength()) {
        throw UsageError(name + " holds a NUL character, which the store cannot hold; take it out");
    }
    if (json.GetStringLength() > kMaxTextSize) {
        throw UsageError(name + " is longer than 64 MiB; shorten it");
    }
    return std::string(json.GetString());
}

}  // namespace

int load(const std::string& path)
{
    const std::string source = path == "-" ? "standard input" : path;
    const Document document = parseFile(source, readFile(path));

    std::vector<std::pair<const Setting*, Value>> values;
    std::set<std::string> names;
    bool valid = true;
    for (const auto& [jsonName, jsonValue] : document.GetObject()) {
        try {
            const std::string name(jsonName.GetString(), jsonName.GetStringLength());
            const Setting& setting = findSetting(name);
            if (!names.insert(name).second) {
                throw UsageError(name + " stands there twice; remove one");
            }
            values.emplace_back(&setting, valueFrom(setting, jsonValue));
        } catch (const UsageError& error) {
            printError(source + ": " + error.what());
            valid = false;
        }
    }
    if (!valid) {
        throw UsageError(source + ": nothing was written; correct the file and load it again");
    }
    for (std::size_t done = 0; done < values.size(); ++done) {
        const auto& [setting, value] = values[done];
        if (!inject(*setting, value)) {
            throw Failure(std::string(setting->name) + " was not written, because the store refused it (" +
                          std::to_string(done) + " of " + std::to_string(values.size()) +
                          " settings were written before); add -v to see its reason");
        }
    }
    return 0;
}

// ---- concurrent mode ------------------------------------------------------------------------------------------------

int listConcurrent(bool json)
{
    std::vector<std::string> apps;
    if (!ZOLSystemData::GetZOLConcurrentAppList(apps)) {
        throw Failure(
            "the app list cannot be read: it is not there or not a JSON array; zolctl concurrent enable APPID starts a "
            "new one, and zolctl get ZOLConcurrentAppList shows what is stored");
    }
    int result = 0;
    if (json) {
        Buffer buffer;
        rapidjson::Writer<Buffer> writer(buffer);
        writer.StartArray();
        for (const std::string& app : apps) {
            if (isUtf8(app)) {
                writeJson(writer, app);
            } else {
                printError("the app id " + app + " is not UTF-8 and is left out of the JSON");
                result = kExitFailed;
            }
        }
        writer.EndArray();
        print(std::string(buffer.GetString(), buffer.GetSize()) + "\n");
        return result;
    }
    std::string text;
    for (const std::string& app : apps) {
        text += (outputIsTerminal() ? escaped(app) : app) + "\n";
    }
    print(text);
    return result;
}

int switchConcurrent(const std::vector<std::string>& apps, bool on)
{
    for (const std::string& app : apps) {
        if (app.empty() || !isUtf8(app)) {
            throw UsageError("'" + app + "' is no app id; give one that is not empty and is UTF-8");
        }
    }
    for (const std::string& app : apps) {
        on ? ZOLSystemData::EnableZOLConcurrentMode(app) : ZOLSystemData::DisableZOLConcurrentMode(app);
        // The library says yes whatever happens, so only the stored list can tell.
        std::vector<std::string> stored;
        const bool isList = ZOLSystemData::GetZOLConcurrentAppList(stored);
        const bool isOn = std::find(stored.begin(), stored.end(), app) != stored.end();
        if (!isList || isOn != on) {
            throw Failure(app + " does not read back as " + (on ? "on" : "off") +
                          ": the store refused the list, the list names the app twice, or somebody else wrote "
                          "meanwhile; look at zolctl get ZOLConcurrentAppList and try again with -v");
        }
    }
    return 0;
}

}  // namespace zolctl
