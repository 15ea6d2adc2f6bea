#include "VconfCallbackGenerator.h"

#include <cxxabi.h>
#include <vconf.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>

#include "../log.h"
#include "WatcherCensus.h"

// The locks are described in WatcherCensus.h.

namespace {

// Calls one callback. What it throws stops here: vconf is C code, and the other callbacks are to be called all the
// same. The same goes for a text that cannot be copied. The node is a copy, because a callback that forks finds the
// list at its end in the child.
template <class Value, class From>
void call(CallbackNode node, const From& value)
{
    dlog_print(ZOL_LINE_OF("VconfCallbackMethod", "call cb (%p)"), node.callback);
    try {
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): callbacks are kept without their types
        reinterpret_cast<void (*)(Value, void*)>(node.callback)(Value(value), node.userData);
    } catch (abi::__forced_unwind&) {
        throw;  // the thread is being cancelled, which cannot be stopped
    } catch (...) {
        dlog_print(ZOL_LINE_OF("VconfCallbackMethod", "exception in cb (%p)"), node.callback);
    }
}

}  // namespace

VconfCallbackGenerator::VconfCallbackGenerator(DataValueType type, const std::string& path)
    : vconfPath(path), isExistVconfCallback(false), valueType(type)
{
    dlog_print(ZOL_LINE("VconfCallbackGenerator type(%d) : %s"), static_cast<int>(type), path.c_str());
    WatcherCensus::of(this).arrive(*this);
}

VconfCallbackGenerator::~VconfCallbackGenerator()
{
    dlog_print(ZOL_BARE_LINE("Start"));
    WatcherCensus::of(this).depart(*this, std::move(vconfPath));
    forgetCallbacks();
}

void VconfCallbackGenerator::forgetCallbacks()
{
    for (CallbackNode* node : nodeList) {
        std::free(node);
    }
    nodeList.clear();
}

int VconfCallbackGenerator::RegisterCallback(void* callback, void* userData)
{
    if (callback == nullptr) {
        dlog_print(ZOL_LINE("callback is NULL"));
        return 0;
    }
    for (;;) {
        if (!isExistVconfCallback) {
            WatcherCensus::Turn turn(*this);
            if (!isExistVconfCallback) {
                if (vconf_notify_key_changed(vconfPath.c_str(), VconfCallbackMethod, this) != 0) {
                    dlog_print(ZOL_LINE("failed to vconf_notify_key_changed"));
                    return 0;
                }
                turn.subscribed();
                isExistVconfCallback = true;
            }
        }

        const std::lock_guard<std::mutex> guard(listMutex);
        if (!isExistVconfCallback) {
            continue;  // the last callback left meanwhile, and the subscription with it
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
            const auto still = WatcherCensus::of(this).holdStill();
            nodeList.push_back(node);
        } catch (const std::bad_alloc&) {
            std::free(node);
            dlog_print(ZOL_LINE("Fail to grow nodeList"));
            return 0;
        }
        dlog_print(ZOL_LINE("RegisterCallback SUCCESS"));
        return 1;
    }
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
    {
        const auto still = WatcherCensus::of(this).holdStill();
        std::free(*found);
        nodeList.erase(found);
    }
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
    const char* key = node->keyname != nullptr ? node->keyname : "";
    dlog_print(ZOL_LINE("Vconf cb invoked : %s"), key);
    if (userData == nullptr) {
        dlog_print(ZOL_LINE("This can not be a null pointer"));
        return;
    }
    WatcherCensus::Visit visit(userData, key);
    VconfCallbackGenerator* const watcher = visit.watcher();
    if (watcher == nullptr) {
        return;  // the event was on its way when its watcher was destroyed
    }
    if (!watcher->isExistVconfCallback) {
        dlog_print(ZOL_LINE("isExistVconfCallback is FALSE"));
        return;
    }

    visit.lockList();
    // By index, because a callback may fork, and the child starts with an empty list.
    const auto& list = watcher->nodeList;
    const auto callAll = [&list](auto callOne) {
        for (std::size_t i = 0; i < list.size(); ++i) {
            if (list[i]->callback != nullptr) {
                callOne(*list[i]);
            }
        }
    };
    switch (watcher->valueType) {
        case DATA_TYPE_BOOL:
            callAll([value = node->value.i == 1](const CallbackNode& each) { call<bool>(each, value); });
            break;
        case DATA_TYPE_INT:
            callAll([value = node->value.i](const CallbackNode& each) { call<int>(each, value); });
            break;
        case DATA_TYPE_STRING:
            if (node->value.s == nullptr) {
                dlog_print(ZOL_LINE("vconf keynode_t has no text"));  // no value, so there is nothing to tell
                break;
            }
            callAll([value = node->value.s](const CallbackNode& each) { call<std::string>(each, value); });
            break;
        default:
            dlog_print(ZOL_LINE("Unknown Type"));
            break;
    }
}

std::string VconfCallbackGenerator::GetVconfPath() { return vconfPath; }
bool VconfCallbackGenerator::IsExistVconfCallback() { return isExistVconfCallback; }
