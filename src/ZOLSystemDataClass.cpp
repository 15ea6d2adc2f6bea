// The typed key functions, the accessors of each setting, and the operations on the app list. The accessors, such as
// GetOSDLanguage, are made from the rows of ZOLSettings.h by the macro ACCESSORS.
#include "ZOLSystemData.h"

#include <vconf.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "AppList.h"
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
ZOL_SETTINGS(ACCESSORS)

// ---- concurrent-mode app list ---------------------------------------------------------------------------------------

// cppcheck-suppress constParameter ; the exported signature
void toString(rapidjson::Value& value, std::string& out) { out = zol::toText(value); }

// cppcheck-suppress passedByValue ; the exported signature takes both by value
// NOLINTNEXTLINE(performance-unnecessary-value-param): the same
bool SetZOLConcurrentMode(std::string appid, std::string mode)
{
    std::string stored;
    getString(key::ZOLConcurrentAppList, stored);
    zol::ChangedAppList changed = zol::withMode(std::move(stored), appid, mode);
    if (changed.storedForm == zol::AppListForm::notJson) {
        dlog_print(ZOL_LINE("json parsing is failed"));
    } else if (changed.storedForm == zol::AppListForm::notArray) {
        dlog_print(ZOL_LINE("json is invalid (root.isArray())"));
    }
    setString(key::ZOLConcurrentAppList, std::move(changed.text));
    return true;
}

bool ZOLSystemData::EnableZOLConcurrentMode(std::string appid) { return SetZOLConcurrentMode(std::move(appid), "on"); }
bool ZOLSystemData::DisableZOLConcurrentMode(std::string appid)
{
    return SetZOLConcurrentMode(std::move(appid), "off");
}

bool ZOLSystemData::GetZOLConcurrentAppList(std::vector<std::string>& list)
{
    std::string stored;
    if (!getString(key::ZOLConcurrentAppList, stored)) {
        return false;
    }
    std::string parsed = stored;  // the parser changes it, and the log line needs it as it was
    const std::optional<std::vector<const char*>> ids = zol::appsThatAreOn(parsed);
    if (!ids) {
        dlog_print(ZOL_LINE("data is not valid : %s"), stored.c_str());
        return false;
    }
    stored = std::string();  // its memory is needed no more, and the list may be large
    const std::size_t before = list.size();
    try {
        for (const char* id : *ids) {
            list.emplace_back(id);
        }
    } catch (...) {
        list.resize(before);  // the caller's list changes completely or not at all
        throw;
    }
    return true;
}
