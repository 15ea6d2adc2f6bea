#include "ZOLSystemData.h"

#include <rapidjson/document.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <vconf.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "ZOLConcurrentMode.h"
#include "ZOLJson.h"
#include "ZOLTypedKeys.h"
#include "ZOLVconfKeys.h"
#include "log.h"

namespace key = ZOLVconfKey;

// ---- typed key access -----------------------------------------------------------------------------------------------

// cppcheck-suppress passedByValue ; the exported signature takes the value as its own
// NOLINTNEXTLINE(performance-unnecessary-value-param): the same
bool setString(const char* key, std::string value)
{
    if (value.empty()) {
        dlog_print(ZOL_LINE("value is empty"));
        return false;
    }
    dlog_print(ZOL_LINE("key[%s] Value [%s]"), key, value.c_str());
    vconf_set_str(key, value.c_str());  // callers are told true once the value has been handed over, accepted or not
    return true;
}

// Copies vconf's text and releases it, also when there is no memory for the copy.
static std::string takeOver(char* text)
{
    struct Free {
        void operator()(char* block) const { std::free(block); }
    };
    const std::unique_ptr<char, Free> owned(text);
    return owned.get();
}

bool getString(const char* key, std::string& value)
{
    char* const text = vconf_get_str(key);
    if (text == nullptr) {
        dlog_print(ZOL_LINE("vconf_get_str is failed"));
        return false;
    }
    value = takeOver(text);
    dlog_print(ZOL_LINE("key[%s] Value [%s]"), key, value.c_str());
    return true;
}

bool setInt(const char* key, int value)
{
    dlog_print(ZOL_LINE("key[%s] Value [%d]"), key, value);
    if (vconf_set_int(key, value) != 0) {
        dlog_print(ZOL_LINE("failed to set vconf key (%s)"), key);
        return false;
    }
    return true;
}

bool getInt(const char* key, int& value)
{
    int stored = 0;
    if (vconf_get_int(key, &stored) != 0) {
        dlog_print(ZOL_LINE("failed to get vconf key (%s)"), key);
        return false;
    }
    value = stored;
    dlog_print(ZOL_LINE("Background volume is %d"), value);  // written for every key; log readers match this text
    return true;
}

bool setBool(const char* key, bool value)
{
    const int number = value ? 1 : 0;
    dlog_print(ZOL_LINE("key[%s] Value [%d]"), key, number);
    if (vconf_set_bool(key, number) != 0) {
        dlog_print(ZOL_LINE("failed to set vconf key (%s)"), key);
        return false;
    }
    return true;
}

bool getBool(const char* key)
{
    int stored = 0;
    if (vconf_get_bool(key, &stored) != 0) {
        dlog_print(ZOL_LINE("failed to get vconf key (%s)"), key);
        return false;
    }
    const bool value = stored == 1;
    dlog_print(ZOL_LINE("%s"), value ? "true" : "false");
    return value;
}

// ---- accessors ------------------------------------------------------------------------------------------------------

// Strings that can be read and written
bool ZOLSystemData::GetAovModeSetter(std::string& value) { return getString(key::AovModeSetter, value); }
bool ZOLSystemData::SetAovModeSetter(std::string value) { return setString(key::AovModeSetter, std::move(value)); }
bool ZOLSystemData::GetOSDLanguage(std::string& value) { return getString(key::OSDLanguage, value); }
bool ZOLSystemData::SetOSDLanguage(std::string value) { return setString(key::OSDLanguage, std::move(value)); }
bool ZOLSystemData::GetAssistantFarField(std::string& value) { return getString(key::AssistantFarField, value); }
bool ZOLSystemData::SetAssistantFarField(std::string value)
{
    return setString(key::AssistantFarField, std::move(value));
}
bool ZOLSystemData::GetZOLSituationalHintSupported(std::string& value)
{
    return getString(key::ZOLSituationalHintSupported, value);
}
bool ZOLSystemData::SetZOLSituationalHintSupported(std::string value)
{
    return setString(key::ZOLSituationalHintSupported, std::move(value));
}
bool ZOLSystemData::GetZOLLanguage(std::string& value) { return getString(key::ZOLLanguage, value); }
bool ZOLSystemData::SetZOLLanguage(std::string value) { return setString(key::ZOLLanguage, std::move(value)); }
bool ZOLSystemData::GetZOLDefaultAssistantAppid(std::string& value)
{
    return getString(key::ZOLDefaultAssistantAppid, value);
}
bool ZOLSystemData::SetZOLDefaultAssistantAppid(std::string value)
{
    return setString(key::ZOLDefaultAssistantAppid, std::move(value));
}

// Strings that can only be read
bool ZOLSystemData::GetWebAppUninstall(std::string& value) { return getString(key::WebAppUninstall, value); }
bool ZOLSystemData::GetWebAppInstall(std::string& value) { return getString(key::WebAppInstall, value); }
bool ZOLSystemData::GetMultiViewMode(std::string& value) { return getString(key::MultiViewMode, value); }
bool ZOLSystemData::GetModelId(std::string& value) { return getString(key::ModelId, value); }
bool ZOLSystemData::GetTVName(std::string& value) { return getString(key::TVName, value); }
bool ZOLSystemData::GetOSDCountry(std::string& value) { return getString(key::OSDCountry, value); }

// The integer
bool ZOLSystemData::GetBackgroundVolume(int& value) { return getInt(key::BackgroundVolume, value); }

// Switches that can be read and written; the Is and Get forms are the same
bool ZOLSystemData::SetZOLActivated(bool value) { return setBool(key::ZOLActivated, value); }
bool ZOLSystemData::GetZOLActivated() { return getBool(key::ZOLActivated); }
bool ZOLSystemData::IsZOLActivated() { return getBool(key::ZOLActivated); }
bool ZOLSystemData::SetZOLMultipleMode(bool value) { return setBool(key::ZOLMultipleMode, value); }
bool ZOLSystemData::GetZOLMultipleMode() { return getBool(key::ZOLMultipleMode); }
bool ZOLSystemData::IsZOLMultipleMode() { return getBool(key::ZOLMultipleMode); }

// Switches that can only be read
bool ZOLSystemData::GetPowerOffStatus() { return getBool(key::PowerOffStatus); }
bool ZOLSystemData::GetMultiOutputAudio() { return getBool(key::MultiOutputAudio); }
bool ZOLSystemData::GetAccessibilityVoiceGuide() { return getBool(key::AccessibilityVoiceGuide); }
bool ZOLSystemData::GetAccessibilityAudioDescription() { return getBool(key::AccessibilityAudioDescription); }
bool ZOLSystemData::GetAccessibilityHighContrast() { return getBool(key::AccessibilityHighContrast); }
bool ZOLSystemData::GetAccessibilityGrayScale() { return getBool(key::AccessibilityGrayScale); }
bool ZOLSystemData::GetAccessibilityEnlarge() { return getBool(key::AccessibilityEnlarge); }
bool ZOLSystemData::GetAccessibilityColorInversion() { return getBool(key::AccessibilityColorInversion); }
bool ZOLSystemData::GetArtAppStatus() { return getBool(key::ArtAppStatus); }
bool ZOLSystemData::GetAmbientMode() { return getBool(key::AmbientMode); }

// ---- concurrent-mode app list ---------------------------------------------------------------------------------------

namespace {

constexpr char kAppid[] = "appid";
constexpr char kConcurrent[] = "concurrent";
constexpr char kOn[] = "on";

// RapidJSON's parser and writer recurse once per level of nesting, so a text nested deep enough would end the process.
// A list needs two levels; a text beyond this many counts as one that does not parse.
constexpr int kMaxDepth = 64;

// RapidJSON does not look whether its allocator had memory to give, so this one throws when it had none.
struct ThrowingAllocator : rapidjson::CrtAllocator {
    void* Malloc(std::size_t size) { return checked(CrtAllocator::Malloc(size)); }
    void* Realloc(void* block, std::size_t oldSize, std::size_t newSize)
    {
        return checked(CrtAllocator::Realloc(block, oldSize, newSize));
    }

private:
    static void* checked(void* block)
    {
        if (block == nullptr) {
            throw std::bad_alloc();
        }
        return block;
    }
};

using Utf8 = rapidjson::UTF8<>;
using Pool = rapidjson::MemoryPoolAllocator<ThrowingAllocator>;
using Document = rapidjson::GenericDocument<Utf8, Pool, ThrowingAllocator>;
using Value = Document::ValueType;

// Builds a document from the parser's events and stops the parser where the text is nested too deep. A number just
// above the largest double arrives as infinity, which JSON has no form for, so the largest is taken: otherwise the list
// would be written up to that number only.
class DocumentBuilder {
public:
    explicit DocumentBuilder(Document& document) : document_(document) {}

    bool Null() { return document_.Null(); }
    bool Bool(bool value) { return document_.Bool(value); }
    bool Int(int value) { return document_.Int(value); }
    bool Uint(unsigned value) { return document_.Uint(value); }
    bool Int64(int64_t value) { return document_.Int64(value); }
    bool Uint64(uint64_t value) { return document_.Uint64(value); }
    bool Double(double value) { return document_.Double(std::clamp(value, -kLargest, kLargest)); }
    bool RawNumber(const char* text, rapidjson::SizeType length, bool copy)
    {
        return document_.RawNumber(text, length, copy);
    }
    bool String(const char* text, rapidjson::SizeType length, bool copy)
    {
        return document_.String(text, length, copy);
    }
    bool Key(const char* text, rapidjson::SizeType length, bool copy) { return document_.Key(text, length, copy); }
    bool StartObject() { return enter() && document_.StartObject(); }
    bool StartArray() { return enter() && document_.StartArray(); }
    bool EndObject(rapidjson::SizeType members) { return --depth_, document_.EndObject(members); }
    bool EndArray(rapidjson::SizeType elements) { return --depth_, document_.EndArray(elements); }

private:
    static constexpr double kLargest = std::numeric_limits<double>::max();

    bool enter() { return ++depth_ <= kMaxDepth; }

    Document& document_;
    int depth_ = 0;
};

// Parses `text` into `document`; false when it is not JSON or nested too deep.
bool parse(const std::string& text, Document& document)
{
    rapidjson::GenericReader<Utf8, Utf8, ThrowingAllocator> reader;
    auto events = [&](Document& target) {
        rapidjson::StringStream stream(text.c_str());
        DocumentBuilder guard(target);
        return !reader.Parse(stream, guard).IsError();
    };
    document.Populate(events);
    return !reader.HasParseError();
}

// The text of an entry's first member of that name, up to its first NUL, or null when the entry has no such text.
// A member that holds something other than a string counts as missing here: such an entry matches no app and is not
// listed, and a rewrite of the list keeps it as it is.
const char* memberText(const Value& entry, const char* name)
{
    if (!entry.IsObject()) {
        return nullptr;
    }
    const auto member = entry.FindMember(name);
    return member != entry.MemberEnd() && member->value.IsString() ? member->value.GetString() : nullptr;
}

Value* findApp(Document& list, const std::string& appid)
{
    for (Value& entry : list.GetArray()) {
        const char* text = memberText(entry, kAppid);
        if (text != nullptr && *text != '\0' && appid == text) {  // an empty id never matches
            return &entry;
        }
    }
    return nullptr;
}

// The stored text is not kept beside the one that takes its place.
bool parseStored(Document& list)
{
    std::string text;
    getString(key::ZOLConcurrentAppList, text);
    return parse(text, list);
}

void setMode(Value& entry, const std::string& mode, Pool& allocator)
{
    Value text(mode.c_str(), allocator);
    const auto member = entry.FindMember(kConcurrent);
    if (member != entry.MemberEnd()) {
        member->value = text;
    } else {
        entry.AddMember(kConcurrent, text, allocator);
    }
}

template <class AnyValue>
void writeText(const AnyValue& value, std::string& out)
{
    using Buffer = rapidjson::GenericStringBuffer<Utf8, ThrowingAllocator>;
    Buffer buffer;
    rapidjson::Writer<Buffer, Utf8, Utf8, ThrowingAllocator> writer(buffer);
    value.Accept(writer);
    out.assign(buffer.GetString(), buffer.GetSize());
}

}  // namespace

// cppcheck-suppress constParameter ; the exported signature
void toString(rapidjson::Value& value, std::string& out) { writeText(value, out); }

// cppcheck-suppress passedByValue ; the exported signature takes both as its own
// NOLINTNEXTLINE(performance-unnecessary-value-param): the same
bool SetZOLConcurrentMode(std::string appid, std::string mode)
{
    Document list;
    Pool& allocator = list.GetAllocator();

    bool valid = parseStored(list);
    if (!valid) {
        dlog_print(ZOL_LINE("json parsing is failed"));
    } else if (!list.IsArray()) {
        dlog_print(ZOL_LINE("json is invalid (root.isArray())"));
        valid = false;
    }
    if (!valid) {
        list.SetArray();
    }

    if (Value* entry = findApp(list, appid)) {
        setMode(*entry, mode, allocator);
    } else {
        Value added(rapidjson::kObjectType);
        added.AddMember(kAppid, Value(appid.c_str(), allocator), allocator);
        added.AddMember(kConcurrent, Value(mode.c_str(), allocator), allocator);
        list.PushBack(added, allocator);
    }
    std::string text;
    writeText(list, text);
    setString(key::ZOLConcurrentAppList, std::move(text));
    return true;
}

bool ZOLSystemData::EnableZOLConcurrentMode(std::string appid) { return SetZOLConcurrentMode(std::move(appid), kOn); }
bool ZOLSystemData::DisableZOLConcurrentMode(std::string appid)
{
    return SetZOLConcurrentMode(std::move(appid), "off");
}

bool ZOLSystemData::GetZOLConcurrentAppList(std::vector<std::string>& list)
{
    std::string text;
    if (!getString(key::ZOLConcurrentAppList, text)) {
        return false;
    }
    Document document;
    if (!parse(text, document) || !document.IsArray()) {
        dlog_print(ZOL_LINE("data is not valid : %s"), text.c_str());
        return false;
    }
    const std::size_t before = list.size();
    try {
        for (const Value& entry : document.GetArray()) {
            const char* appid = memberText(entry, kAppid);
            const char* concurrent = memberText(entry, kConcurrent);
            if (appid != nullptr && concurrent != nullptr && std::strcmp(concurrent, kOn) == 0) {
                list.emplace_back(appid);
            }
        }
    } catch (...) {
        list.resize(before);  // the caller's list changes as a whole or not at all
        throw;
    }
    return true;
}
