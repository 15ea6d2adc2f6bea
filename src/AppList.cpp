// Reads and rewrites the app list. The stored text is parsed as a stream of RapidJSON events, without recursion and
// without a document in memory, so the list may be nested to any depth.
#include "AppList.h"

#include <rapidjson/document.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <string_view>

namespace zol {
namespace {

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

// One member of an entry.
struct Member {
    bool exists = false;
    const char* text = nullptr;  // of a string, up to its first NUL; null for any other value
    std::size_t begin = 0;       // of the value in the output, colon included; where one would be added if none exists
    std::size_t end = 0;
};

// An object that is an element of the list. If several members have the same name, the first one counts.
struct Entry {
    Member appid;
    Member mode;
    Member other;  // the latest member that is none of the above
};

// Recognises the entries in a stream of events. Passes each event on to `Sink`, and each entry when it is complete.
template <class Sink>
class EntryReader : public Sink {
public:
    using Sink::Sink;

    bool isList() const { return isList_; }  // valid after everything was read

    bool StartArray()
    {
        descend();
        return Sink::StartArray();
    }
    bool EndArray(rapidjson::SizeType elements)
    {
        --depth_;
        isList_ = depth_ == 0;
        return Sink::EndArray(elements);
    }
    bool StartObject()
    {
        descend();
        return Sink::StartObject();
    }
    bool EndObject(rapidjson::SizeType members)
    {
        if (isInEntry()) {
            const std::size_t end = Sink::outputSize();
            member_->end = end;
            if (!entry_.mode.exists) {
                entry_.mode.begin = end;
                entry_.mode.end = end;
            }
            Sink::onEntry(entry_);
        }
        --depth_;
        return Sink::EndObject(members);
    }
    bool Key(const char* name, rapidjson::SizeType length, bool copy)
    {
        if (!isInEntry()) {
            return Sink::Key(name, length, copy);
        }
        member_->end = Sink::outputSize();
        Sink::Key(name, length, copy);
        member_ = &memberNamed(std::string_view(name, length));
        *member_ = Member();
        member_->exists = true;
        member_->begin = Sink::outputSize();
        return true;
    }
    bool String(const char* text, rapidjson::SizeType length, bool copy)
    {
        if (isInEntry()) {
            member_->text = text;
        }
        return Sink::String(text, length, copy);
    }

private:
    // Directly in an entry, not in anything nested inside it. Also true in an array in the list and in an object in an
    // object, but the first has no members, and the second is not a list.
    bool isInEntry() const { return depth_ == 2; }

    void descend()
    {
        ++depth_;
        if (isInEntry()) {
            entry_ = Entry();
        }
    }

    Member& memberNamed(std::string_view name)
    {
        if (name == "appid" && !entry_.appid.exists) {
            return entry_.appid;
        }
        if (name == "concurrent" && !entry_.mode.exists) {
            return entry_.mode;
        }
        return entry_.other;
    }

    int depth_ = 0;
    Entry entry_;
    Member* member_ = &entry_.other;  // the member of `entry_` that is being read
    bool isList_ = false;
};

// Collects the ids of the apps that are on. They point into the parsed text.
struct IdCollector : rapidjson::BaseReaderHandler<> {
    static std::size_t outputSize() { return 0; }  // it writes nothing
    void onEntry(const Entry& entry)
    {
        if (entry.appid.text != nullptr && entry.mode.text != nullptr && std::strcmp(entry.mode.text, "on") == 0) {
            ids.push_back(entry.appid.text);
        }
    }

    std::vector<const char*> ids;
};

// Writes the list as compact JSON, and remembers where in this output the mode of an app is.
struct ListWriter : Writer {
    ListWriter(Buffer& output, const std::string& app) : Writer(output), appid(app) {}

    // A number just above the largest double is parsed as infinity, which JSON cannot express; the largest is used.
    bool Double(double value)
    {
        constexpr double kLargest = std::numeric_limits<double>::max();
        return Writer::Double(std::clamp(value, -kLargest, kLargest));
    }
    std::size_t outputSize() const { return os_->GetSize(); }
    void onEntry(const Entry& entry)
    {
        const char* const text = entry.appid.text;
        if (!mode && text != nullptr && *text != '\0' && appid == text) {  // an empty id never matches
            mode = entry.mode;
        }
    }

    const std::string& appid;
    std::optional<Member> mode;  // of the app's first entry
};

// Parses a text and unescapes its strings in place.
template <class Sink>
AppListForm parse(std::string& text, EntryReader<Sink>& reader)
{
    constexpr unsigned kFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseInsituFlag;
    rapidjson::GenericReader<Utf8, Utf8, ThrowingAllocator> parser;
    rapidjson::InsituStringStream stream(text.data());
    if (parser.template Parse<kFlags>(stream, reader).IsError()) {
        return AppListForm::notJson;
    }
    return reader.isList() ? AppListForm::list : AppListForm::notArray;
}

// The text up to its first NUL, as a JSON string.
std::string quoted(const std::string& text) { return toText(rapidjson::Value(rapidjson::StringRef(text.c_str()))); }

std::string newEntry(const std::string& appid, const std::string& mode)
{
    return R"({"appid":)" + quoted(appid) + R"(,"concurrent":)" + quoted(mode) + '}';
}

// `list` with the part from `begin` to `end` replaced.
std::string replaced(std::string_view list, std::size_t begin, std::size_t end, const std::string& replacement)
{
    std::string result;
    result.reserve(list.size() - (end - begin) + replacement.size());
    result.append(list.substr(0, begin));
    result.append(replacement);
    result.append(list.substr(end));
    return result;
}

}  // namespace

std::optional<std::vector<const char*>> appsThatAreOn(std::string& text)
{
    EntryReader<IdCollector> reader;
    if (parse(text, reader) != AppListForm::list) {
        return std::nullopt;
    }
    return std::move(reader.ids);
}

ChangedAppList withMode(std::string stored, const std::string& appid, const std::string& mode)
{
    Buffer output;
    EntryReader<ListWriter> writer(output, appid);
    const AppListForm form = parse(stored, writer);
    if (form != AppListForm::list) {
        return {form, '[' + newEntry(appid, mode) + ']'};
    }
    stored = std::string();  // its memory is needed no more, and the list may be large
    const std::string_view list(output.GetString(), output.GetSize());
    if (!writer.mode) {
        const std::size_t end = list.size() - 1;  // before the bracket
        const char* const separator = list == "[]" ? "" : ",";
        return {form, replaced(list, end, end, separator + newEntry(appid, mode))};
    }
    const Member& place = *writer.mode;
    if (!place.exists) {
        return {form, replaced(list, place.begin, place.end, R"(,"concurrent":)" + quoted(mode))};
    }
    return {form, replaced(list, place.begin, place.end, ':' + quoted(mode))};
}

std::string toText(const rapidjson::Value& value)
{
    Buffer buffer;
    Writer writer(buffer);
    value.Accept(writer);
    return {buffer.GetString(), buffer.GetSize()};
}

}  // namespace zol
