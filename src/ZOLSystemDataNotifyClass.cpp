// The notification registry: makes and destroys the watcher of each topic. The operations, such as
// RegisterZOLLanguageCallback, are made from the rows of ZOLSettings.h by the macro OPERATIONS at the end of this file.
#include "ZOLSystemDataNotify.h"

#include <pthread.h>

#include <mutex>
#include <new>
#include <utility>

#include "VconfCallback/WatcherSlot.h"  // describes the locks
#include "VconfCallbackGenerator.h"
#include "ZOLSettings.h"
#include "log.h"

namespace {

struct TopicRow {
    const char* key;
    DataValueType type;
    const char* registerOperation;  // for the log
    const char* unregisterOperation;
};

// In the order of zol::Topic.
#define ROW_WATCH(name, type, key) {key, DATA_TYPE_##type, "Register" #name "Callback", "Unregister" #name "Callback"},
#define ROW_(name, type, key)
#define ROW(name, type, read, write, watch, key, description) ROW_##watch(name, type, key)
constexpr TopicRow kTopics[] = {ZOL_SETTINGS(ROW)};
#undef ROW
#undef ROW_
#undef ROW_WATCH

// Log lines are points of cancellation on some platforms. A thread that is cancelled between two steps of a release
// would leave the slot blocked.
class CancellationBlocker {
public:
    CancellationBlocker() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous_); }
    ~CancellationBlocker() { pthread_setcancelstate(previous_, nullptr); }
    CancellationBlocker(const CancellationBlocker&) = delete;
    CancellationBlocker& operator=(const CancellationBlocker&) = delete;

private:
    int previous_ = 0;
};

// A register or unregister operation's use of its topic's slot. The last one to leave releases the watcher.
class Operation {
public:
    // The caller holds the key lock.
    explicit Operation(zol::Topic topic) : topic_(topic) { ++zol::slots[topic].operations; }

    ~Operation()
    {
        zol::WatcherSlot& slot = zol::slots[topic_];
        std::unique_lock<std::mutex> keyGuard(slot.keyLock);
        --slot.operations;
        if (slot.operations == 0 && std::exchange(slot.isReleaseRequested, false)) {
            releaseUnsubscribed(slot, keyGuard);
        }
    }

    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;

private:
    void releaseUnsubscribed(zol::WatcherSlot& slot, std::unique_lock<std::mutex>& keyGuard) const
    {
        if (slot.watcher == nullptr || slot.watcher->IsExistVconfCallback()) {
            return;
        }
        const CancellationBlocker blocker;
        dlog_print(ZOL_LINE_OF(kTopics[topic_].unregisterOperation, "Remove callbackGenerator"));
        VconfCallbackGenerator* const watcher = slot.beginDestroying(keyGuard);
        watcher->~VconfCallbackGenerator();
        slot.finishDestroying();
    }

    zol::Topic topic_;
};

// This and the next function are not inlined: two dozen copies gain nothing.
[[gnu::noinline]] int registerCallback(zol::Topic topic, void* callback, void* userData)
{
    zol::WatcherSlot& slot = zol::slots[topic];
    std::unique_lock<std::mutex> keyGuard(slot.keyLock);
    slot.waitForDestruction(keyGuard);
    if (slot.watcher == nullptr) {
        const TopicRow& row = kTopics[topic];
        dlog_print(ZOL_LINE_OF(row.registerOperation, "Create VconfCallbackGenerator : %s"), row.key);
        slot.watcher = new (&slot.storages[slot.nextStorage]) VconfCallbackGenerator(row.type, row.key);
    }
    VconfCallbackGenerator* const watcher = slot.watcher;
    const Operation operation(topic);
    keyGuard.unlock();
    return watcher->RegisterCallback(callback, userData);
}

[[gnu::noinline]] int unregisterCallback(zol::Topic topic, void* callback)
{
    zol::WatcherSlot& slot = zol::slots[topic];
    std::unique_lock<std::mutex> keyGuard(slot.keyLock);
    VconfCallbackGenerator* const watcher = slot.watcher;
    slot.isReleaseRequested = true;
    const Operation operation(topic);
    keyGuard.unlock();
    return __unRegisterVconfCallback(watcher, callback, slot.keyLock);
}

template <class Callback>
void* untyped(Callback callback)
{
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): a watcher stores callbacks untyped
    return reinterpret_cast<void*>(callback);
}

}  // namespace

int __unRegisterVconfCallback(VconfCallbackGenerator* watcher, void* callback, std::mutex& /*keyLock*/)
{
    return watcher == nullptr ? 0 : watcher->UnregisterCallback(callback);
}

#define CALLBACK_BOOL ZOLBoolCallback
#define CALLBACK_INT ZOLIntCallback
#define CALLBACK_STRING ZOLStringCallback
#define OPERATIONS_WATCH(name, type)                                                            \
    int ZOLSystemDataNotify::Register##name##Callback(CALLBACK_##type callback, void* userData) \
    {                                                                                           \
        return registerCallback(zol::name, untyped(callback), userData);                        \
    }                                                                                           \
    int ZOLSystemDataNotify::Unregister##name##Callback(CALLBACK_##type callback)               \
    {                                                                                           \
        return unregisterCallback(zol::name, untyped(callback));                                \
    }
#define OPERATIONS_(name, type)
#define OPERATIONS(name, type, read, write, watch, key, description) OPERATIONS_##watch(name, type)
ZOL_SETTINGS(OPERATIONS)
