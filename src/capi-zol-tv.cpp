// The flat functions: each calls the class operation of the same name and does nothing else.
// ZOLSystemDataGetOSDLanguage and the other accessors are made from the rows of ZOLSettings.h by the macro FLAT, and so
// are the functions that register and unregister callbacks.
#include "capi-zol-tv.h"

#include <type_traits>

#include "ZOLSettings.h"
#include "ZOLSystemData.h"
#include "ZOLSystemDataNotify.h"

// A function that the header does not declare as `extern "C"` with the type of the class operation does not compile.
#define DECLARED(class_name, operation) \
    static_assert(std::is_same_v<decltype(&class_name##operation), decltype(&class_name::operation)>)

#define GETTER_STRING(name)             \
    DECLARED(ZOLSystemData, Get##name); \
    bool ZOLSystemDataGet##name(std::string& value) { return ZOLSystemData::Get##name(value); }
#define GETTER_INT(name)                \
    DECLARED(ZOLSystemData, Get##name); \
    bool ZOLSystemDataGet##name(int& value) { return ZOLSystemData::Get##name(value); }
#define GETTER_BOOL(name)               \
    DECLARED(ZOLSystemData, Get##name); \
    bool ZOLSystemDataGet##name() { return ZOLSystemData::Get##name(); }
#define IS_GETTER(name)                \
    DECLARED(ZOLSystemData, Is##name); \
    bool ZOLSystemDataIs##name() { return ZOLSystemData::Is##name(); }
// A copy, not a move: a foreign function interface may pass the caller's own string.
#define SETTER_STRING(name)             \
    DECLARED(ZOLSystemData, Set##name); \
    bool ZOLSystemDataSet##name(std::string value) { return ZOLSystemData::Set##name(value); }
#define SETTER_BOOL(name)               \
    DECLARED(ZOLSystemData, Set##name); \
    bool ZOLSystemDataSet##name(bool value) { return ZOLSystemData::Set##name(value); }
#define CALLBACK_BOOL ZOLBoolCallback
#define CALLBACK_INT ZOLIntCallback
#define CALLBACK_STRING ZOLStringCallback

#define GETTERS_READ(name, type) GETTER_##type(name)
#define GETTERS_READ_IS(name, type) GETTER_##type(name) IS_GETTER(name)
#define GETTERS_READ_LIST(name, type)  // below
#define GETTERS_(name, type)
#define SETTERS_WRITE(name, type) SETTER_##type(name)
#define SETTERS_(name, type)
#define WATCHERS_WATCH(name, type)                                                            \
    DECLARED(ZOLSystemDataNotify, Register##name##Callback);                                  \
    int ZOLSystemDataNotifyRegister##name##Callback(CALLBACK_##type callback, void* userData) \
    {                                                                                         \
        return ZOLSystemDataNotify::Register##name##Callback(callback, userData);             \
    }                                                                                         \
    DECLARED(ZOLSystemDataNotify, Unregister##name##Callback);                                \
    int ZOLSystemDataNotifyUnregister##name##Callback(CALLBACK_##type callback)               \
    {                                                                                         \
        return ZOLSystemDataNotify::Unregister##name##Callback(callback);                     \
    }
#define WATCHERS_(name, type)
#define FLAT(name, type, read, write, watch, key, description) \
    GETTERS_##read(name, type) SETTERS_##write(name, type) WATCHERS_##watch(name, type)
// NOLINTNEXTLINE(performance-unnecessary-value-param): the exported signature takes strings by value
ZOL_SETTINGS(FLAT)

// NOLINTBEGIN(performance-unnecessary-value-param): the exported signature takes it by value
bool ZOLSystemDataEnableZOLConcurrentMode(std::string appid) { return ZOLSystemData::EnableZOLConcurrentMode(appid); }
bool ZOLSystemDataDisableZOLConcurrentMode(std::string appid) { return ZOLSystemData::DisableZOLConcurrentMode(appid); }
// NOLINTEND(performance-unnecessary-value-param)
bool ZOLSystemDataGetZOLConcurrentAppList(std::vector<std::string>& list)
{
    return ZOLSystemData::GetZOLConcurrentAppList(list);
}
