#include "ZOLSystemData.h"

#include <rapidjson/document.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <vconf.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ZOLConcurrentMode.h"
#include "ZOLJson.h"
#include "ZOLSettings.h"
#include "ZOLTypedKeys.h"
#include "ZOLVconfKeys.h"
#include "log.h"

namespace key = ZOLVconfKey;

// ---- typed key access -----------------------------------------------------------------------------------------------

// cppcheck-suppress passedByValue ; the exported signature takes it by value
// NOLINTNEXTLINE(performance-unnecessary-value-param): the same
bool setString(const char* key, std::string value)
{
    if (value.empty()) {
        dlog_print(ZOL_LINE("value is empty"));
        return false;
    }
    dlog_print(ZOL_LINE("key[%s] Value [%s]"), key, value.c_str());
    vconf_set_str(key, value.c_str());  // the result is true whether or not vconf accepts it
    return true;
}

// Copies vconf's text and frees it, even when there is no memory for the copy.
static std::string copyAndFree(char* text)
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
    value = copyAndFree(text);
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

// NOLINTBEGIN(cppcoreguidelines-macro-usage): the accessors are named after their setting
#define GETTER_STRING(name) \
    bool ZOLSystemData::Get##name(std::string& value) { return getString(key::name, value); }
#define GETTER_INT(name) \
    bool ZOLSystemData::Get##name(int& value) { return getInt(key::name, value); }
#define GETTER_BOOL(name) \
    bool ZOLSystemData::Get##name() { return getBool(key::name); }
#define IS_GETTER(name) \
    bool ZOLSystemData::Is##name() { return getBool(key::name); }
#define SETTER_STRING(name) \
    bool ZOLSystemData::Set##name(std::string value) { return setString(key::name, std::move(value)); }
#define SETTER_BOOL(name) \
    bool ZOLSystemData::Set##name(bool value) { return setBool(key::name, value); }

#define GETTERS_READ(name, type) GETTER_##type(name)
#define GETTERS_READ_IS(name, type) GETTER_##type(name) IS_GETTER(name)
#define GETTERS_READ_LIST(name, type)  // below
#define GETTERS_(name, type)
#define SETTERS_WRITE(name, type) SETTER_##type(name)
#define SETTERS_(name, type)
#define ACCESSORS(name, type, read, write, watch, key, description) \
    GETTERS_##read(name, type) SETTERS_##write(name, type)
// NOLINTEND(cppcoreguidelines-macro-usage)
ZOL_SETTINGS(ACCESSORS)

// ---- concurrent-mode app list ---------------------------------------------------------------------------------------

// The list is read and copied as a stream of RapidJSON events, without recursion, so it may be nested to any depth.

namespace {

constexpr char kOn[] = "on";

using Utf8 = rapidjson::UTF8<>;

// RapidJSON does not check for a failed allocation, so this allocator throws.
struct ThrowingAllocator : rapidjson::CrtAllocator {
    void* Realloc(void* block, std::size_t oldSize, std::size_t newSize)
    {
        void* const grown = CrtAllocator::Realloc(block, oldSize, newSize);
        if (grown == nullptr) {
            throw std::bad_alloc();
        }
        return grown;
    }
};
using Buffer = rapidjson::GenericStringBuffer<Utf8, ThrowingAllocator>;
using Writer = rapidjson::Writer<Buffer, Utf8, Utf8, ThrowingAllocator>;

// An entry is an object directly in the list. If several members have the same name, the first one counts.
struct Member {
    bool exists = false;
    const char* text = nullptr;  // of a string, up to its first NUL; null for any other value
    std::size_t begin = 0;       // of the value in the copy, colon included; where one would be added if none exists
    std::size_t end = 0;
};
struct Entry {
    Member appid, mode, other;
};

// Passes a list's events to `Handler`, and each entry when it is complete.
template <class Handler>
class ListReader : public Handler {
public:
    using Handler::Handler;

    bool isList() const { return isList_; }  // valid after everything was read

    bool StartArray()
    {
        enter();
        return Handler::StartArray();
    }
    bool EndArray(rapidjson::SizeType elements)
    {
        --depth_;
        isList_ = depth_ == 0;
        return Handler::EndArray(elements);
    }
    bool StartObject()
    {
        enter();
        return Handler::StartObject();
    }
    bool EndObject(rapidjson::SizeType members)
    {
        if (isInEntry()) {
            member_->end = Handler::copied();
            if (!entry_.mode.exists) {
                entry_.mode.begin = entry_.mode.end = Handler::copied();
            }
            Handler::take(entry_);
        }
        --depth_;
        return Handler::EndObject(members);
    }
    bool Key(const char* name, rapidjson::SizeType length, bool copy)
    {
        if (!isInEntry()) {
            return Handler::Key(name, length, copy);
        }
        member_->end = Handler::copied();
        Handler::Key(name, length, copy);
        const std::string_view text(name, length);
        member_ = text == "appid" ? &entry_.appid : text == "concurrent" ? &entry_.mode : &entry_.other;
        member_ = member_->exists ? &entry_.other : member_;
        *member_ = {true, nullptr, Handler::copied(), 0};
        return true;
    }
    bool String(const char* text, rapidjson::SizeType length, bool copy)
    {
        if (isInEntry()) {
            member_->text = text;
        }
        return Handler::String(text, length, copy);
    }

private:
    // Not in anything nested inside it. Also true in an array in the list and in an object in an object, but the first
    // has no members, and the second is not a list.
    bool isInEntry() const { return depth_ == 2; }
    void enter()
    {
        ++depth_;
        if (isInEntry()) {
            entry_ = Entry();
        }
    }

    int depth_ = 0;
    Entry entry_;
    Member* member_ = &entry_.other;  // of `entry_`, the one that is being read
    bool isList_ = false;
};

// Collects the ids of the apps in concurrent mode. They point into the parsed text.
struct IdCollector : rapidjson::BaseReaderHandler<> {
    static std::size_t copied() { return {}; }  // it makes no copy
    void take(const Entry& entry)
    {
        if (entry.appid.text != nullptr && entry.mode.text != nullptr && std::strcmp(entry.mode.text, kOn) == 0) {
            ids.push_back(entry.appid.text);
        }
    }

    std::vector<const char*> ids;
};

// Copies a list and finds the place of an app's mode in the copy.
struct ListCopier : Writer {
    ListCopier(Buffer& copy, const std::string& app) : Writer(copy), appid(app) {}

    // A number just above the largest double is parsed as infinity, which JSON cannot express; the largest is used.
    bool Double(double value)
    {
        constexpr double kLargest = std::numeric_limits<double>::max();
        return Writer::Double(std::clamp(value, -kLargest, kLargest));
    }
    std::size_t copied() const { return os_->GetSize(); }
    void take(const Entry& entry)
    {
        const char* const text = entry.appid.text;
        if (!mode && text != nullptr && *text != '\0' && appid == text) {  // an empty id never matches
            mode = entry.mode;
        }
    }

    const std::string& appid;
    std::optional<Member> mode;
};

// Parses a JSON text, unescaping its strings in place; false when it is not JSON.
template <class Handler>
bool parse(std::string& text, ListReader<Handler>& handler)
{
    constexpr unsigned kFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseInsituFlag;
    rapidjson::GenericReader<Utf8, Utf8, ThrowingAllocator> reader;
    rapidjson::InsituStringStream stream(text.data());
    return !reader.template Parse<kFlags>(stream, handler).IsError();
}

// Copies the stored text; false when it is not JSON.
bool copyStored(ListReader<ListCopier>& list)
{
    std::string text;
    getString(key::ZOLConcurrentAppList, text);
    return parse(text, list);
}

std::string toText(const rapidjson::Value& value)
{
    Buffer buffer;
    Writer writer(buffer);
    value.Accept(writer);
    return {buffer.GetString(), buffer.GetSize()};
}

// The text up to its first NUL as a JSON string.
std::string quoted(const std::string& text) { return toText(rapidjson::Value(rapidjson::StringRef(text.c_str()))); }

// Replaces an app's mode in the list or, if it has no entry, adds one at the end.
std::string withMode(std::string_view list, const std::optional<Member>& place, const std::string& appid,
                     const std::string& mode)
{
    std::string value = ':' + quoted(mode);
    if (!place || !place->exists) {
        value.insert(0, R"(,"concurrent")");
    }
    if (!place) {
        value = (list == "[]" ? R"({"appid":)" : R"(,{"appid":)") + quoted(appid) + value + '}';
    }
    const std::size_t begin = place ? place->begin : list.size() - 1;
    const std::size_t end = place ? place->end : begin;
    std::string changed;
    changed.reserve(list.size() + value.size());
    for (const std::string_view part : {list.substr(0, begin), std::string_view(value), list.substr(end)}) {
        changed.append(part);
    }
    return changed;
}

}  // namespace

// cppcheck-suppress constParameter ; the exported signature
void toString(rapidjson::Value& value, std::string& out) { out = toText(value); }

// cppcheck-suppress passedByValue ; the exported signature takes both by value
// NOLINTNEXTLINE(performance-unnecessary-value-param): the same
bool SetZOLConcurrentMode(std::string appid, std::string mode)
{
    Buffer copy;
    ListReader<ListCopier> list(copy, appid);
    const bool parsed = copyStored(list);
    if (!parsed) {
        dlog_print(ZOL_LINE("json parsing is failed"));
    } else if (!list.isList()) {
        dlog_print(ZOL_LINE("json is invalid (root.isArray())"));
    }
    setString(key::ZOLConcurrentAppList, parsed && list.isList()
                                             ? withMode({copy.GetString(), copy.GetSize()}, list.mode, appid, mode)
                                             : withMode("[]", std::nullopt, appid, mode));
    return true;
}

bool ZOLSystemData::EnableZOLConcurrentMode(std::string appid) { return SetZOLConcurrentMode(std::move(appid), kOn); }
bool ZOLSystemData::DisableZOLConcurrentMode(std::string appid)
{
    return SetZOLConcurrentMode(std::move(appid), "off");
}

bool ZOLSystemData::GetZOLConcurrentAppList(std::vector<std::string>& list)
{
    // cppcheck-suppress variableScope ; the reader's ids stand in it
    std::string parsed;
    ListReader<IdCollector> reader;
    {
        std::string text;
        if (!getString(key::ZOLConcurrentAppList, text)) {
            return false;
        }
        parsed = text;
        if (!parse(parsed, reader) || !reader.isList()) {
            dlog_print(ZOL_LINE("data is not valid : %s"), text.c_str());
            return false;
        }
    }  // frees the original text before the ids are copied
    const std::size_t before = list.size();
    try {
        for (const char* id : reader.ids) {
            list.emplace_back(id);
        }
    } catch (...) {
        list.resize(before);  // the caller's list changes completely or not at all
        throw;
    }
    return true;
}
