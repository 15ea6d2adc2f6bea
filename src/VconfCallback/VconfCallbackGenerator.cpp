// The watcher of one vconf key.
#include "VconfCallbackGenerator.h"

#include <vconf.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <new>

#include "../log.h"
#include "WatcherSlot.h"  // describes the locks

namespace {

// Calls the callbacks, first registered first. Exceptions stop here, also that of a text that cannot be copied: vconf
// is C code, and the other callbacks must still be called. Each callback gets a new Value made from `value`.
template <class Value, class From>
void callAll(const std::vector<CallbackNode*>& list, From value)
{
    for (const CallbackNode* node : list) {
        if (node->callback == nullptr) {
            continue;
        }
        dlog_print(ZOL_LINE_OF("VconfCallbackMethod", "call cb (%p)"), node->callback);
        try {
            // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): callbacks are kept without their types
            reinterpret_cast<void (*)(Value, void*)>(node->callback)(Value(value), node->userData);
        } catch (...) {
            if (std::current_exception() == nullptr) {
                throw;  // not a C++ exception: the thread is exiting, which must go on
            }
            dlog_print(ZOL_LINE_OF("VconfCallbackMethod", "exception in cb (%p)"), node->callback);
        }
    }
}

}  // namespace

VconfCallbackGenerator::VconfCallbackGenerator(DataValueType type, const std::string& path)
    : vconfPath(path), isExistVconfCallback(false), valueType(type)
{
    dlog_print(ZOL_LINE("VconfCallbackGenerator type(%d) : %s"), static_cast<int>(type), path.c_str());
}

VconfCallbackGenerator::~VconfCallbackGenerator()
{
    dlog_print(ZOL_BARE_LINE("Start"));
    for (CallbackNode* node : nodeList) {
        std::free(node);
    }
}

int VconfCallbackGenerator::RegisterCallback(void* callback, void* userData)
{
    if (callback == nullptr) {
        dlog_print(ZOL_LINE("callback is NULL"));
        return 0;
    }
    const std::lock_guard<std::mutex> guard(listMutex);
    if (!isExistVconfCallback) {
        if (vconf_notify_key_changed(vconfPath.c_str(), VconfCallbackMethod, this) != 0) {
            dlog_print(ZOL_LINE("failed to vconf_notify_key_changed"));
            return 0;
        }
        isExistVconfCallback = true;
    }
    for (const CallbackNode* node : nodeList) {
        if (node->callback == callback) {
            dlog_print(ZOL_LINE("failed to register callback, it is already existed"));
            return 1;
        }
    }
    auto* node = static_cast<CallbackNode*>(std::malloc(sizeof(CallbackNode)));
    if (node == nullptr) {
        dlog_print(ZOL_LINE("Fail to malloc, poitner is NULL"));
        return 0;
    }
    *node = {callback, userData};
    try {
        nodeList.push_back(node);
    } catch (const std::bad_alloc&) {
        std::free(node);
        dlog_print(ZOL_LINE("Fail to grow nodeList"));
        return 0;
    }
    dlog_print(ZOL_LINE("RegisterCallback SUCCESS"));
    return 1;
}

int VconfCallbackGenerator::UnregisterCallback(void* callback)
{
    dlog_print(ZOL_BARE_LINE("Start"));
    if (callback == nullptr) {
        dlog_print(ZOL_LINE("callback is NULL"));
        return 0;
    }
    if (!isExistVconfCallback) {
        dlog_print(ZOL_LINE("isExistVconfCallback is false"));
        return 0;
    }
    const std::lock_guard<std::mutex> guard(listMutex);
    if (nodeList.empty()) {
        dlog_print(ZOL_LINE("NodeList is emptry"));
        return 0;
    }
    const auto found = std::find_if(nodeList.begin(), nodeList.end(),
                                    [callback](const CallbackNode* node) { return node->callback == callback; });
    if (found == nodeList.end()) {
        dlog_print(ZOL_LINE("Can't find registered callback"));
        return 0;
    }
    std::free(*found);
    nodeList.erase(found);
    if (!nodeList.empty()) {
        return 1;
    }
    dlog_print(ZOL_LINE("nodeList is empty, call "));
    if (vconf_ignore_key_changed(vconfPath.c_str(), VconfCallbackMethod) != 0) {
        dlog_print(ZOL_LINE("failed to unregister cb for (%s)"), vconfPath.c_str());
        return 0;
    }
    isExistVconfCallback = false;
    return 1;
}

void VconfCallbackGenerator::VconfCallbackMethod(keynode_t* node, void* userData)
{
    if (node == nullptr) {
        dlog_print(ZOL_LINE("vconf keynode_t is NULL"));
        return;
    }
    dlog_print(ZOL_LINE("Vconf cb invoked : %s"), node->keyname);
    if (userData == nullptr) {
        dlog_print(ZOL_LINE("This can not be a null pointer"));
        return;
    }
    const zol::DispatchGuard dispatch(userData);
    VconfCallbackGenerator* const watcher = dispatch.watcher();
    if (watcher == nullptr || !watcher->isExistVconfCallback) {
        dlog_print(ZOL_LINE("isExistVconfCallback is FALSE"));
        return;
    }
    const std::lock_guard<std::mutex> guard(watcher->listMutex);
    const auto& list = watcher->nodeList;
    switch (watcher->valueType) {
        case DATA_TYPE_BOOL:
            callAll<bool>(list, node->value.i == 1);
            break;
        case DATA_TYPE_INT:
            callAll<int>(list, node->value.i);
            break;
        case DATA_TYPE_STRING:
            if (node->value.s != nullptr) {
                callAll<std::string>(list, node->value.s);
            } else if (!list.empty()) {
                dlog_print(ZOL_LINE("vconf keynode_t has no text"));  // so there is no value to pass on
            }
            break;
        default:
            dlog_print(ZOL_LINE("Unknown Type"));
    }
}

std::string VconfCallbackGenerator::GetVconfPath() { return vconfPath; }
bool VconfCallbackGenerator::IsExistVconfCallback() { return isExistVconfCallback; }
