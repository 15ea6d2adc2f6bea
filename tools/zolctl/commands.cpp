#include "commands.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/prettywriter.h>
#include <sys/file.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <tuple>
#include <utility>

#include "ZOLSystemData.h"
#include "output.h"
#include "platform.h"
#include "settings.h"

namespace zolctl {
namespace {

// Settings, some of them without a value.
using Values = std::vector<std::pair<const Setting*, std::optional<Value>>>;

bool holds(const Values& values, const Setting& setting)
{
    return std::any_of(values.begin(), values.end(), [&](const auto& each) { return each.first == &setting; });
}

// No value is shown as -, so a text of that one character is spelled out.
std::string shown(const std::optional<Value>& value)
{
    const std::string text = value ? toText(*value) : "";
    return !value ? styled(Style::Dim, "-") : text == "-" ? "\\x2d" : escaped(text);
}

// What `write` writes, as JSON; it returns whether it could write all.
template <class Write>
int printJson(Write write)
{
    JsonBuffer buffer;
    rapidjson::PrettyWriter<JsonBuffer> writer(buffer);
    writer.SetFormatOptions(rapidjson::kFormatSingleLineArray);
    const bool all = write(writer);
    print(toString(buffer) + "\n");
    return all ? 0 : kExitFailed;
}

int printObject(const Values& values)
{
    return printJson([&](auto& writer) {
        bool all = true;
        writer.StartObject();
        for (const auto& [setting, value] : values) {
            all = (!value || writeMember(writer, setting->name, *setting, value)) && all;
        }
        writer.EndObject();
        return all;
    });
}

int printArray(const Values& values)
{
    return printJson([&](auto& writer) {
        bool all = true;
        writer.StartArray();
        for (const auto& [setting, value] : values) {
            const std::array<std::array<const char*, 2>, 3> texts = {
                {{"name", setting->name}, {"type", setting->type()}, {"key", setting->key}}};
            writer.StartObject();
            for (const auto& [name, text] : texts) {
                writer.Key(name);
                writer.String(text);
            }
            writer.Key("access");
            writeArray(writer, setting->access());
            all = writeMember(writer, "value", *setting, value) && all;
            writer.EndObject();
        }
        writer.EndArray();
        return all;
    });
}

int printTable(const Values& values, bool withKey)
{
    std::vector<std::array<std::string, 5>> lines = {{"NAME", "TYPE", "ACCESS", "KEY", "VALUE"}};
    for (const auto& [setting, value] : values) {
        lines.push_back({setting->name, setting->type(), joined(setting->access(), ","), setting->key, shown(value)});
    }
    for (std::size_t column = 0; column < 4; ++column) {
        std::size_t width = 0;
        for (const auto& line : lines) {
            width = std::max(width, line.at(column).size());
        }
        for (auto& line : lines) {
            std::string& cell = line.at(column);
            cell.resize(column == 3 && !withKey ? 0 : width + 2, ' ');
        }
    }
    std::string text;
    for (const auto& cells : lines) {
        const std::string line = joined({cells.begin(), cells.end()}, "");
        text += (text.empty() ? styled(Style::Bold, line) : line) + "\n";
    }
    print(text);
    return 0;
}

// Several settings, a line each.
int printLines(const Values& values)
{
    std::string text;
    for (const auto& [setting, value] : values) {
        text += value ? std::string(setting->name) + "=" + escaped(toText(*value)) + "\n" : "";
    }
    print(text);
    return 0;
}

Values readLike(const std::string& pattern)
{
    const std::string part = "*" + pattern + "*";
    Values values;
    bool any = false;
    for (const Setting& setting : allSettings()) {
        if (fnmatch(part.c_str(), setting.name, FNM_CASEFOLD) == 0 ||
            fnmatch(part.c_str(), setting.key, FNM_CASEFOLD) == 0) {
            any = values.emplace_back(&setting, read(setting)).second || any;
        }
    }
    if (values.empty()) {
        throw UsageError("no setting matches " + pattern + "; zolctl list shows them all");
    }
    if (!any) {
        printError("none of these settings has a value");
    }
    return values;
}

std::string readFile(const std::string& path)
{
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(path == "-" ? stdin : std::fopen(path.c_str(), "re"),
                                                               std::fclose);
    std::string text;
    std::array<char, 65536> block{};
    while (file && std::ferror(file.get()) == 0 && std::feof(file.get()) == 0) {
        text.append(block.data(), std::fread(block.data(), 1, block.size(), file.get()));
    }
    if (!file || std::ferror(file.get()) != 0) {
        throw UsageError("cannot read " + (path == "-" ? "standard input" : path) + ": " + std::strerror(errno));
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
    const std::string name = setting.name;
    const std::string type = setting.type();
    if (!(type == "boolean" ? json.IsBool() : type == "integer" ? json.IsInt() : json.IsString())) {
        throw UsageError(name + (type == "boolean"   ? " must be true or false"
                                 : type == "integer" ? " must be a whole number from -2147483648 to 2147483647"
                                                     : " must be a string"));
    }
    if (!json.IsString()) {
        return json.IsBool() ? Value(json.GetBool()) : Value(json.GetInt());
    }
    if (json.GetStringLength() > kMaxTextSize) {
        throw UsageError(name + " is longer than 64 MiB; shorten it");
    }
    return parseValue(setting, {json.GetString(), json.GetStringLength()});
}

}  // namespace

int list(const std::string& pattern, bool withKey, bool json)
{
    const Values values = readLike(pattern);
    return json ? printArray(values) : printTable(values, withKey);
}

int dump() { return printObject(readLike("")); }

int get(const std::vector<std::string>& names, bool json)
{
    Values values;
    for (const std::string& name : names) {
        const Setting& setting = findSetting(name);
        if (!holds(values, setting)) {  // by its name and its key, it would come twice
            values.emplace_back(&setting, std::nullopt);
        }
    }
    int result = 0;
    for (auto& [setting, value] : values) {
        value = read(*setting);
        if (!value) {
            printError(whyNoValue(*setting));
            result = kExitFailed;
        }
    }
    if (names.size() > 1 || (json && result == 0)) {
        return std::max(result, json ? printObject(values) : printLines(values));
    }
    if (result == 0) {
        const std::string text = toText(*values[0].second);
        print((outputIsTerminal() ? escaped(text) : text) + "\n");  // a script gets the bytes as they are
    }
    return result;
}

int set(const std::string& name, const std::string& text, bool throughLibrary)
{
    const Setting& setting = findSetting(name);
    if (throughLibrary && !setting.writable()) {
        throw UsageError(name + " has no setter; use zolctl " +
                         (setting.isAppList() ? "concurrent enable|disable APPID, or zolctl " : "") + "inject " + name +
                         " VALUE");
    }
    std::string given = text == "-" ? readFile("-") : text;
    if (text == "-" && !given.empty() && given.back() == '\n') {
        given.pop_back();
    }
    const Value value = parseValue(setting, given);
    if (throughLibrary && given.empty()) {
        throw UsageError("the library refuses empty values; zolctl inject " + name + " '' writes one");
    }
    throughLibrary ? write(setting, value) : inject(setting, value);
    return 0;
}

int describe(const std::string& name)
{
    const Setting& setting = findSetting(name);
    const std::string stem = setting.name;
    const bool isFlag = setting.type() == std::string("boolean");
    const std::vector<std::tuple<bool, std::string, std::string>> operations = {
        {setting.readable(), "ZOLSystemData", "Get" + stem},
        {setting.writable() && isFlag, "ZOLSystemData", "Is" + stem},
        {setting.writable(), "ZOLSystemData", "Set" + stem},
        {setting.isAppList(), "ZOLSystemData", "EnableZOLConcurrentMode"},
        {setting.isAppList(), "ZOLSystemData", "DisableZOLConcurrentMode"},
        {setting.watchable(), "ZOLSystemDataNotify", "Register" + stem + "Callback"},
        {setting.watchable(), "ZOLSystemDataNotify", "Unregister" + stem + "Callback"}};
    std::string calls;
    for (const auto& [exists, owner, operation] : operations) {
        calls += exists ? joined({"\n    ", owner, "::", operation, "\n    ", owner, operation}, "") : "";
    }
    const bool isText = setting.type() == std::string("string") && !setting.isAppList();
    const std::optional<Value> value = read(setting);
    print(stem + ": " + setting.text + "\n  type    " + setting.type() +
          (isText ? "; the platform decides which texts are allowed" : "") + "\n  access  " +
          joined(setting.access(), ", ") + "\n  key     " + setting.key + "\n  value   " + shown(value) +
          "\n  calls, each as a class member and as a flat function" + calls + "\n");
    return 0;
}

int load(const std::string& path, bool dry)
{
    const std::string source = path == "-" ? "standard input" : path;
    const Document document = parseFile(source, readFile(path));

    Values values;
    bool valid = true;
    for (const auto& [jsonName, jsonValue] : document.GetObject()) {
        try {
            const Setting& setting = findSetting({jsonName.GetString(), jsonName.GetStringLength()});
            if (holds(values, setting)) {
                throw UsageError(std::string(setting.name) + " appears twice; remove one");
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
    if (dry) {
        return printLines(values);
    }
    for (std::size_t done = 0; done < values.size(); ++done) {
        try {
            inject(*values[done].first, *values[done].second);
        } catch (...) {
            printError(std::to_string(done) + " of " + std::to_string(values.size()) + " settings were written");
            throw;
        }
    }
    return 0;
}

std::optional<Apps> appsThatAreOn(const std::string& text)
{
    Document document;
    document.Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
    if (document.HasParseError() || !document.IsArray()) {
        return std::nullopt;
    }
    const auto textOf = [](const Document::ValueType& entry, const char* name) -> std::string {
        const auto member = entry.FindMember(name);
        return member != entry.MemberEnd() && member->value.IsString() ? member->value.GetString() : "";
    };
    Apps apps;
    for (const Document::ValueType& entry : document.GetArray()) {
        if (entry.IsObject() && textOf(entry, "concurrent") == "on") {
            apps.insert(textOf(entry, "appid"));
        }
    }
    return apps;
}

int listConcurrent(bool json)
{
    std::vector<std::string> apps;
    if (!ZOLSystemData::GetZOLConcurrentAppList(apps)) {
        const Setting& setting = findSetting("ZOLConcurrentAppList");
        throw Failure(read(setting) ? "the app list is not a JSON array; zolctl get ZOLConcurrentAppList shows it, and "
                                      "zolctl concurrent enable APPID starts a new one"
                                    : whyNoValue(setting));
    }
    if (json) {
        return printJson([&](auto& writer) { return writeArray(writer, apps); });
    }
    std::string text;
    for (const std::string& app : apps) {
        text += (outputIsTerminal() ? escaped(app) : app) + "\n";
    }
    print(text);
    return 0;
}

int switchConcurrent(const std::vector<std::string>& apps, bool on)
{
    for (const std::string& app : apps) {
        if (app.empty() || !isUtf8(app)) {
            throw UsageError("'" + app + "' is no app id; give one that is not empty and is UTF-8");
        }
    }
    // The library reads the list, changes it and writes it back, so one zolctl at a time. They lock the folder around
    // the store's, or, where there is none, the program itself, which all can open; the lock ends with the process.
    const Setting& setting = findSetting("ZOLConcurrentAppList");
    const std::string folder = checkStore(setting.key);
    const std::string locked = folder.empty() ? "/proc/self/exe" : folder + "/..";
    const int file = open(locked.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0 || flock(file, LOCK_EX) != 0) {
        throw Failure("cannot take turns with other zolctl by a lock on " + locked + ": " + std::strerror(errno));
    }
    for (const std::string& app : apps) {
        on ? ZOLSystemData::EnableZOLConcurrentMode(app) : ZOLSystemData::DisableZOLConcurrentMode(app);
        checkTaken(setting, lastTextWrite().result == 0);
        if ((appsThatAreOn(lastTextWrite().text).value_or(Apps()).count(app) != 0) != on) {
            throw Failure(app + " is still " + (on ? "off" : "on") +
                          ", since the list names it twice; zolctl get ZOLConcurrentAppList shows it, and zolctl "
                          "inject replaces it");
        }
    }
    return 0;
}

}  // namespace zolctl
