#include "ZOLSystemDataNotify.h"

#include <pthread.h>

#include <cstddef>
#include <cstdlib>
#include <iterator>
#include <mutex>

#include "VconfCallback/WatcherCensus.h"
#include "VconfCallbackGenerator.h"
#include "ZOLVconfKeys.h"
#include "log.h"

// The locks are described in VconfCallback/WatcherCensus.h.

namespace key = ZOLVconfKey;

namespace {

// What can be watched.
struct Topic {
    const char* key;
    DataValueType type;
};
constexpr Topic kTopics[] = {
    {key::ZOLConcurrentAppList, DATA_TYPE_STRING},
    {key::DravixResetCount, DATA_TYPE_INT},
    {key::ServiceResetCount, DATA_TYPE_INT},
    {key::FactoryResetCount, DATA_TYPE_INT},
    {key::WebAppUninstall, DATA_TYPE_STRING},
    {key::WebAppInstall, DATA_TYPE_STRING},
    {key::OSDCountry, DATA_TYPE_STRING},
    {key::BackgroundVolume, DATA_TYPE_INT},
    {key::ZOLSituationalHintSupported, DATA_TYPE_STRING},
    {key::ZOLLanguage, DATA_TYPE_STRING},
    {key::ZOLDefaultAssistantAppid, DATA_TYPE_STRING},
    {key::ZOLActivated, DATA_TYPE_BOOL},
    {key::ZOLMultipleMode, DATA_TYPE_BOOL},
};

// The row of a key, which is named by the very constant that stands in the table. A key without a row does not compile.
constexpr std::size_t findRow(const char* path)
{
    std::size_t row = 0;
    while (kTopics[row].key != path) {
        ++row;
    }
    return row;
}
template <const char* path>
constexpr std::size_t rowOf = findRow(path);

// A topic's watcher, protected by the key lock. It is not destroyed while operations are inside it; the unregister
// operation that finds it in use leaves its name, so that the last one out looks again.
struct Slot {
    std::mutex lock;
    int inside = 0;
    VconfCallbackGenerator* watcher = nullptr;
    const char* releaseFor = nullptr;
};

// Never destroyed, like the watchers in them: callbacks may still come while the process ends.
Slot slots[std::size(kTopics)];

// Without these a child could find a lock taken for ever by a thread that it does not have.
void lockAll()
{
    for (Slot& slot : slots) {
        slot.lock.lock();
    }
    WatcherCensus::lockAll();
}

void unlockAll()
{
    WatcherCensus::unlockAll();
    for (Slot& slot : slots) {
        slot.lock.unlock();
    }
}

void startAfreshInChild()
{
    WatcherCensus::startAllAfreshInChild();
    for (Slot& slot : slots) {
        slot.inside = 0;  // the threads that were inside are not in the child, nor are those that asked for a release
        slot.releaseFor = nullptr;
    }
    unlockAll();
}

// When the library is loaded, before any thread can fork beside an operation.
[[gnu::constructor]] void setUpFork()
{
    if (pthread_atfork(lockAll, unlockAll, startAfreshInChild) != 0) {
        std::abort();  // out of memory before the program has even begun
    }
}

// Releases a watcher that stopped watching, on behalf of an unregister operation. The last operation to leave the
// watcher does it; the key lock is held.
void releaseIfWanted(Slot& slot)
{
    if (slot.inside > 0) {
        return;
    }
    if (slot.releaseFor != nullptr && slot.watcher != nullptr && !slot.watcher->IsExistVconfCallback()) {
        dlog_print(ZOL_LINE_OF(slot.releaseFor, "Remove callbackGenerator"));
        delete slot.watcher;
        slot.watcher = nullptr;
    }
    slot.releaseFor = nullptr;
}

// Leaves the watcher at the end of an operation, also when the thread is cancelled.
class Leaving {
public:
    /// @param releaseFor  The operation that asks for a release, or null.
    Leaving(Slot& slot, const char* releaseFor) : slot_(slot), releaseFor_(releaseFor) {}
    ~Leaving()
    {
        const std::lock_guard<std::mutex> guard(slot_.lock);
        --slot_.inside;
        if (releaseFor_ != nullptr) {
            slot_.releaseFor = releaseFor_;
        }
        releaseIfWanted(slot_);
    }
    Leaving(const Leaving&) = delete;
    Leaving& operator=(const Leaving&) = delete;

private:
    Slot& slot_;
    const char* releaseFor_;
};

template <class Callback>
void* untyped(Callback callback)
{
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): a watcher keeps callbacks without their types
    return reinterpret_cast<void*>(callback);
}

// Not inlined, as nothing is gained by two dozen copies.
[[gnu::noinline]] int add(std::size_t row, const char* operation, void* callback, void* userData)
{
    Slot& slot = slots[row];
    VconfCallbackGenerator* watcher = nullptr;
    {
        const std::lock_guard<std::mutex> guard(slot.lock);
        if (slot.watcher == nullptr) {
            const Topic& topic = kTopics[row];
            dlog_print(ZOL_LINE_OF(operation, "Create VconfCallbackGenerator : %s"), topic.key);
            slot.watcher = new VconfCallbackGenerator(topic.type, topic.key);
        }
        watcher = slot.watcher;
        ++slot.inside;
    }
    const Leaving leaving(slot, nullptr);
    return watcher->RegisterCallback(callback, userData);
}

[[gnu::noinline]] int remove(std::size_t row, const char* operation, void* callback)
{
    Slot& slot = slots[row];
    VconfCallbackGenerator* watcher = nullptr;
    {
        const std::lock_guard<std::mutex> guard(slot.lock);
        watcher = slot.watcher;
        ++slot.inside;
    }
    const Leaving leaving(slot, operation);
    return __unRegisterVconfCallback(watcher, callback, slot.lock);
}

}  // namespace

int __unRegisterVconfCallback(VconfCallbackGenerator* watcher, void* callback, std::mutex& /*keyLock*/)
{
    return watcher == nullptr ? 0 : watcher->UnregisterCallback(callback);
}

int ZOLSystemDataNotify::RegisterZOLConcurrentAppListCallback(ZOLStringCallback callback, void* userData)
{
    return add(rowOf<key::ZOLConcurrentAppList>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterZOLConcurrentAppListCallback(ZOLStringCallback callback)
{
    return remove(rowOf<key::ZOLConcurrentAppList>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterDravixResetCountCallback(ZOLIntCallback callback, void* userData)
{
    return add(rowOf<key::DravixResetCount>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterDravixResetCountCallback(ZOLIntCallback callback)
{
    return remove(rowOf<key::DravixResetCount>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterServiceResetCountCallback(ZOLIntCallback callback, void* userData)
{
    return add(rowOf<key::ServiceResetCount>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterServiceResetCountCallback(ZOLIntCallback callback)
{
    return remove(rowOf<key::ServiceResetCount>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterFactoryResetCountCallback(ZOLIntCallback callback, void* userData)
{
    return add(rowOf<key::FactoryResetCount>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterFactoryResetCountCallback(ZOLIntCallback callback)
{
    return remove(rowOf<key::FactoryResetCount>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterWebAppUninstallCallback(ZOLStringCallback callback, void* userData)
{
    return add(rowOf<key::WebAppUninstall>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterWebAppUninstallCallback(ZOLStringCallback callback)
{
    return remove(rowOf<key::WebAppUninstall>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterWebAppInstallCallback(ZOLStringCallback callback, void* userData)
{
    return add(rowOf<key::WebAppInstall>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterWebAppInstallCallback(ZOLStringCallback callback)
{
    return remove(rowOf<key::WebAppInstall>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterOSDCountryCallback(ZOLStringCallback callback, void* userData)
{
    return add(rowOf<key::OSDCountry>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterOSDCountryCallback(ZOLStringCallback callback)
{
    return remove(rowOf<key::OSDCountry>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterBackgroundVolumeCallback(ZOLIntCallback callback, void* userData)
{
    return add(rowOf<key::BackgroundVolume>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterBackgroundVolumeCallback(ZOLIntCallback callback)
{
    return remove(rowOf<key::BackgroundVolume>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterZOLSituationalHintSupportedCallback(ZOLStringCallback callback, void* userData)
{
    return add(rowOf<key::ZOLSituationalHintSupported>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterZOLSituationalHintSupportedCallback(ZOLStringCallback callback)
{
    return remove(rowOf<key::ZOLSituationalHintSupported>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterZOLLanguageCallback(ZOLStringCallback callback, void* userData)
{
    return add(rowOf<key::ZOLLanguage>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterZOLLanguageCallback(ZOLStringCallback callback)
{
    return remove(rowOf<key::ZOLLanguage>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterZOLDefaultAssistantAppidCallback(ZOLStringCallback callback, void* userData)
{
    return add(rowOf<key::ZOLDefaultAssistantAppid>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterZOLDefaultAssistantAppidCallback(ZOLStringCallback callback)
{
    return remove(rowOf<key::ZOLDefaultAssistantAppid>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterZOLActivatedCallback(ZOLBoolCallback callback, void* userData)
{
    return add(rowOf<key::ZOLActivated>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterZOLActivatedCallback(ZOLBoolCallback callback)
{
    return remove(rowOf<key::ZOLActivated>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterZOLMultipleModeCallback(ZOLBoolCallback callback, void* userData)
{
    return add(rowOf<key::ZOLMultipleMode>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterZOLMultipleModeCallback(ZOLBoolCallback callback)
{
    return remove(rowOf<key::ZOLMultipleMode>, __func__, untyped(callback));
}
