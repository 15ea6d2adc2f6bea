#include "commands.h"

#include <fcntl.h>
#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <sys/file.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <utility>

#include "ZOLSystemData.h"
#include "output.h"
#include "platform.h"
#include "settings.h"

namespace zolctl {
namespace {

struct Row {
    const Setting* setting;
    Reading reading;
};
using Rows = std::vector<Row>;

bool holds(const Rows& rows, const Setting& setting)
{
    return std::any_of(rows.begin(), rows.end(), [&](const Row& row) { return row.setting == &setting; });
}

// A text that looks like one of the marks for no value has its first character replaced.
std::string shown(const Reading& reading)
{
    if (!reading.value) {
        return styled(Style::Dim, reading.otherType.empty() ? "-" : "(" + reading.otherType + ")");
    }
    const std::string text = escaped(toText(*reading.value));
    if (text == "-") {
        return "\\x2d";
    }
    const bool isMark = text == "(a string)" || text == "(an integer)" || text == "(a boolean)";
    return isMark ? "\\x28" + text.substr(1) : text;
}

int printJson(const Json& json)
{
    print(json.text(Json::Layout::Indented));
    return json.isComplete() ? 0 : kExitFailed;
}

int printObject(const Rows& rows)
{
    Json json(rapidjson::kObjectType);
    for (const auto& [setting, reading] : rows) {
        if (reading.value) {
            json.add(json.root, setting->name, *reading.value, setting->name);
        }
    }
    return printJson(json);
}

int printArray(const Rows& rows)
{
    Json json(rapidjson::kArrayType);
    for (const auto& [setting, reading] : rows) {
        Json::Node entry(rapidjson::kObjectType);
        Json::Node access(rapidjson::kArrayType);
        json.append(access, setting->access());
        json.add(entry, "name", Json::Node(rapidjson::StringRef(setting->name)));
        json.add(entry, "type", Json::Node(rapidjson::StringRef(setting->type())));
        json.add(entry, "key", Json::Node(rapidjson::StringRef(setting->key)));
        json.add(entry, "access", std::move(access));
        if (reading.value) {
            json.add(entry, "value", *reading.value, setting->name);
        } else {
            json.add(entry, "value", Json::Node());
        }
        json.append(json.root, std::move(entry));
    }
    return printJson(json);
}

int printTable(const Rows& rows, bool withKey)
{
    std::vector<std::vector<std::string>> lines = {{"NAME", "TYPE", "ACCESS", "KEY", "VALUE"}};
    for (const auto& [setting, reading] : rows) {
        lines.push_back({setting->name, setting->type(), joined(setting->access(), ","), setting->key, shown(reading)});
    }
    const std::size_t key = 3;
    for (std::size_t column = 0; column <= key; ++column) {
        std::size_t width = 0;
        for (const auto& line : lines) {
            width = std::max(width, line[column].size() + 2);
        }
        if (column == key && !withKey) {
            width = 0;
        }
        for (auto& line : lines) {
            line[column].resize(width, ' ');
        }
    }
    std::string text;
    for (const auto& cells : lines) {
        const std::string line = joined(cells, "");
        text += (text.empty() ? styled(Style::Bold, line) : line) + "\n";
    }
    print(text);
    return 0;
}

// Several settings, a line each.
int printLines(const Rows& rows)
{
    std::string text;
    for (const auto& [setting, reading] : rows) {
        if (reading.value) {
            text += std::string(setting->name) + "=" + escaped(toText(*reading.value)) + "\n";
        }
    }
    print(text);
    return 0;
}

Rows readLike(const std::string& pattern)
{
    Rows rows;
    bool holdsAny = false;
    for (const Setting* setting : settingsLike(pattern)) {
        const Reading reading = read(*setting);
        holdsAny = holdsAny || reading.value || !reading.otherType.empty();
        rows.push_back({setting, reading});
    }
    if (rows.empty()) {
        throw UsageError("no setting matches " + pattern + "; zolctl list shows them all");
    }
    if (!holdsAny) {
        printError("none of these settings has a value");
    }
    return rows;
}

std::string nameOf(const std::string& path) { return path == "-" ? "standard input" : path; }

std::string readFile(const std::string& path)
{
    std::ifstream file;
    if (path != "-") {
        file.open(path);
    }
    std::istream& input = path == "-" ? std::cin : file;
    std::string text;
    std::array<char, 65536> block{};
    while (input) {
        input.read(block.data(), block.size());
        text.append(block.data(), static_cast<std::size_t>(input.gcount()));
    }
    if (input.bad() || !input.eof()) {
        throw UsageError("cannot read " + nameOf(path) + ": " + std::strerror(errno));
    }
    return text;
}

rapidjson::Document parseFile(const std::string& source, const std::string& text)
{
    // Without recursion, so that no file can be nested too deep.
    constexpr unsigned kFlags = rapidjson::kParseValidateEncodingFlag | rapidjson::kParseIterativeFlag;
    rapidjson::Document document;
    document.Parse<kFlags>(text.data(), text.size());
    std::size_t faultAt = text.find('\0');  // where the parser takes the text to end
    std::string fault = faultAt == std::string::npos ? "" : "a NUL character; take it out";
    if (document.HasParseError()) {
        faultAt = document.GetErrorOffset();
        fault = rapidjson::GetParseError_En(document.GetParseError());
    }
    if (!fault.empty()) {
        const auto end = text.begin() + static_cast<std::ptrdiff_t>(std::min(faultAt, text.size()));
        const std::string line = std::to_string(std::count(text.begin(), end, '\n') + 1);
        throw UsageError(source + ", line " + line + ": not JSON: " + fault);
    }
    if (!document.IsObject()) {
        throw UsageError(source + R"(: must hold one JSON object, like {"OSDLanguage": "en_US"})");
    }
    return document;
}

constexpr std::size_t kMaxTextSize = std::size_t{64} << 20;  // of the store on a desk

Value valueFrom(const Setting& setting, const rapidjson::Value& json)
{
    const std::string name = setting.name;
    const std::string type = setting.type();
    if (type == "boolean" && json.IsBool()) {
        return json.GetBool();
    }
    if (type == "integer" && json.IsInt()) {
        return json.GetInt();
    }
    if (type == "string" && json.IsString()) {
        if (json.GetStringLength() > kMaxTextSize) {
            throw UsageError(name + " is longer than 64 MiB; shorten it");
        }
        return parseValue(setting, {json.GetString(), json.GetStringLength()});
    }
    const std::map<std::string, const char*> expected = {{"boolean", "true or false"},
                                                         {"integer", "a whole number from -2147483648 to 2147483647"},
                                                         {"string", "a string"}};
    throw UsageError(name + " must be " + expected.at(type));
}

}  // namespace

int list(const std::string& pattern, bool withKey, bool json)
{
    const Rows rows = readLike(pattern);
    return json ? printArray(rows) : printTable(rows, withKey);
}

int dump()
{
    const Rows rows = readLike("");
    int result = 0;
    for (const auto& [setting, reading] : rows) {
        if (!reading.otherType.empty()) {
            printError(otherTypeMessage(*setting, reading) + ", and is left out");
            result = kExitFailed;
        }
    }
    return std::max(result, printObject(rows));
}

int get(const std::vector<std::string>& names, bool json)
{
    Rows rows;
    for (const std::string& name : names) {
        const Setting& setting = findSetting(name);
        if (!holds(rows, setting)) {  // it may be given both by its name and by its key
            rows.push_back({&setting, {}});
        }
    }
    int result = 0;
    for (auto& [setting, reading] : rows) {
        reading = read(*setting);
        if (!reading.value) {
            printError(whyNoValue(*setting, reading));
            result = kExitFailed;
        }
    }
    if (names.size() > 1 || (json && result == 0)) {
        return std::max(result, json ? printObject(rows) : printLines(rows));
    }
    if (result == 0) {
        const std::string text = toText(*rows[0].reading.value);
        print((outputIsTerminal() ? escaped(text) : text) + "\n");  // a script gets the bytes as they are
    }
    return result;
}

int set(const std::string& name, const std::string& text, bool throughLibrary)
{
    const Setting& setting = findSetting(name);
    const std::string direct = std::string("zolctl inject ") + setting.name;
    if (throughLibrary && !setting.writable()) {
        const std::string other = setting.isAppList() ? "zolctl concurrent enable|disable APPID, or " : "";
        throw UsageError(std::string(setting.name) + " has no setter; use " + other + direct + " VALUE");
    }
    std::string given = text == "-" ? readFile("-") : text;
    if (text == "-" && !given.empty() && given.back() == '\n') {
        given.pop_back();
    }
    const Value value = parseValue(setting, given);
    if (throughLibrary && given.empty()) {
        throw UsageError("the library refuses empty values; " + direct + " '' writes one");
    }
    if (throughLibrary) {
        write(setting, value);
    } else {
        inject(setting, value);
    }
    return 0;
}

int describe(const std::vector<std::string>& names)
{
    std::string text;
    for (const std::string& name : names) {
        const Setting& setting = findSetting(name);
        const std::string stem = setting.name;
        const bool isFlag = setting.type() == std::string("boolean");
        const std::vector<std::pair<bool, std::string>> operations = {
            {setting.readable(), "ZOLSystemData::Get" + stem},
            {setting.writable() && isFlag, "ZOLSystemData::Is" + stem},
            {setting.writable(), "ZOLSystemData::Set" + stem},
            {setting.isAppList(), "ZOLSystemData::EnableZOLConcurrentMode"},
            {setting.isAppList(), "ZOLSystemData::DisableZOLConcurrentMode"},
            {setting.watchable(), "ZOLSystemDataNotify::Register" + stem + "Callback"},
            {setting.watchable(), "ZOLSystemDataNotify::Unregister" + stem + "Callback"},
            {setting.watchable(), "ZOLWatch::" + stem}};
        std::string calls;
        for (const auto& [exists, operation] : operations) {
            calls += exists ? "\n    " + operation : "";
        }
        const bool isText = setting.type() == std::string("string") && !setting.isAppList();
        text += (text.empty() ? "" : "\n") + stem + ": " + setting.text + "\n  type    " + setting.type() +
                (isText ? "; the platform decides which texts are allowed" : "") + "\n  access  " +
                joined(setting.access(), ", ") + "\n  key     " + setting.key + "\n  value   " + shown(read(setting)) +
                "\n  calls" + calls + "\n";
    }
    print(text +
          "\nA call of ZOLSystemData or ZOLSystemDataNotify is also a flat function, named without the colons.\n");
    return 0;
}

int load(const std::string& path, bool dry)
{
    const std::string source = nameOf(path);
    const rapidjson::Document document = parseFile(source, readFile(path));

    Rows rows;
    bool valid = true;
    for (const auto& [jsonName, jsonValue] : document.GetObject()) {
        try {
            const Setting& setting = findSetting({jsonName.GetString(), jsonName.GetStringLength()});
            if (holds(rows, setting)) {
                throw UsageError(std::string(setting.name) + " appears twice; remove one");
            }
            rows.push_back({&setting, {valueFrom(setting, jsonValue), ""}});
        } catch (const UsageError& error) {
            printError(source + ": " + error.what());
            valid = false;
        }
    }
    if (!valid) {
        throw UsageError(source + ": nothing was written; correct the file and load it again");
    }
    if (dry) {
        return printLines(rows);
    }
    std::size_t written = 0;
    try {
        for (const auto& [setting, reading] : rows) {
            inject(*setting, *reading.value);
            ++written;
        }
    } catch (...) {
        printError(std::to_string(written) + " of " + std::to_string(rows.size()) + " settings were written");
        throw;
    }
    return 0;
}

std::optional<Apps> appsThatAreOn(const std::string& text)
{
    rapidjson::Document document;
    document.Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
    if (document.HasParseError() || !document.IsArray()) {
        return std::nullopt;
    }
    const auto textOf = [](const rapidjson::Value& entry, const char* name) -> std::string {
        const auto member = entry.FindMember(name);
        return member != entry.MemberEnd() && member->value.IsString() ? member->value.GetString() : "";
    };
    Apps apps;
    for (const rapidjson::Value& entry : document.GetArray()) {
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
        const Reading reading = read(setting);
        throw Failure(reading.value ? "the app list is not a JSON array; zolctl get ZOLConcurrentAppList shows it, and "
                                      "zolctl concurrent enable APPID starts a new one"
                                    : whyNoValue(setting, reading));
    }
    if (json) {
        Json array(rapidjson::kArrayType);
        array.append(array.root, apps);
        return printJson(array);
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
            throw UsageError("'" + app + "' is not a valid app id: it must be non-empty UTF-8");
        }
    }
    // The library reads the list, changes it and writes it back, so only one zolctl at a time may do that. They lock
    // the folder around the store's or, if it is not known, the program itself, which all can open. The kernel
    // releases the lock when the process exits.
    const Setting& setting = findSetting("ZOLConcurrentAppList");
    const std::string folder = checkStore(setting.key);
    const std::string locked = folder.empty() ? "/proc/self/exe" : folder + "/..";
    const WaitNotice notice(setting.key);
    const int file = open(locked.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0 || flock(file, LOCK_EX) != 0) {
        throw Failure("cannot take turns with other zolctl by a lock on " + locked + ": " + std::strerror(errno));
    }
    for (const std::string& app : apps) {
        if (on) {
            ZOLSystemData::EnableZOLConcurrentMode(app);
        } else {
            ZOLSystemData::DisableZOLConcurrentMode(app);
        }
        checkAccepted(setting, lastTextWrite().result == 0);
        const Apps now = appsThatAreOn(lastTextWrite().text).value_or(Apps());
        if ((now.count(app) != 0) != on) {
            throw Failure(app + " is still " + (on ? "off" : "on") +
                          ", since the list names it twice; zolctl get ZOLConcurrentAppList shows it, and zolctl "
                          "inject replaces it");
        }
    }
    return 0;
}

}  // namespace zolctl
