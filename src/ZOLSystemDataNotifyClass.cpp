#include "ZOLSystemDataNotify.h"

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <mutex>
#include <new>
#include <type_traits>

#include "VconfCallback/WatcherUse.h"  // describes the locks
#include "VconfCallbackGenerator.h"
#include "ZOLVconfKeys.h"
#include "log.h"

namespace key = ZOLVconfKey;

// A topic's watcher and what its key lock protects. Aligned so that topics do not share cache lines.
struct alignas(64) WatcherSlot {
    std::mutex keyLock;
    int users = 0;                              // operations and dispatches using the watcher
    const char* releaseFor = nullptr;           // the unregister operation that asks to destroy the watcher
    VconfCallbackGenerator* watcher = nullptr;  // in one of the places, which are used in turn
    std::size_t nextPlace = 0;
    std::aligned_storage_t<sizeof(VconfCallbackGenerator), alignof(VconfCallbackGenerator)> places[2] = {};
};

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

// The row of a key, which must be the same constant as in the table. A key without a row does not compile.
template <const char* path>
constexpr std::size_t rowOf = [] {
    std::size_t row = 0;
    for (; kTopics[row].key != path; ++row) {
    }
    return row;
}();

// Never destroyed, like the watchers in them: callbacks may still come while the process exits.
WatcherSlot slots[std::size(kTopics)];
static_assert(std::is_trivially_destructible_v<WatcherSlot>);

// The slot that contains an address, or null.
WatcherSlot* slotAt(const void* address)
{
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): unrelated addresses can be compared only as numbers
    const auto offset = reinterpret_cast<std::uintptr_t>(address) - reinterpret_cast<std::uintptr_t>(slots);
    return offset < sizeof slots ? &slots[offset / sizeof(WatcherSlot)] : nullptr;
}

template <class Callback>
void* untyped(Callback callback)
{
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): a watcher stores callbacks untyped
    return reinterpret_cast<void*>(callback);
}

// This and the next function are not inlined: two dozen copies gain nothing.
[[gnu::noinline]] int registerCallback(std::size_t row, const char* operation, void* callback, void* userData)
{
    WatcherSlot& slot = slots[row];
    std::unique_lock<std::mutex> guard(slot.keyLock);
    if (slot.watcher == nullptr) {
        const auto& [path, type] = kTopics[row];
        dlog_print(ZOL_LINE_OF(operation, "Create VconfCallbackGenerator : %s"), path);
        slot.watcher = new (&slot.places[slot.nextPlace]) VconfCallbackGenerator(type, path);
    }
    const WatcherUse use(slot, nullptr);
    guard.unlock();
    return use.watcher()->RegisterCallback(callback, userData);
}

[[gnu::noinline]] int unregisterCallback(std::size_t row, const char* operation, void* callback)
{
    WatcherSlot& slot = slots[row];
    std::unique_lock<std::mutex> guard(slot.keyLock);
    const WatcherUse use(slot, operation);
    guard.unlock();
    return __unRegisterVconfCallback(use.watcher(), callback, slot.keyLock);
}

}  // namespace

WatcherUse::WatcherUse(void* address) : slot_(slotAt(address)), watcher_(static_cast<VconfCallbackGenerator*>(address))
{
    if (slot_ != nullptr) {
        const std::lock_guard<std::mutex> guard(slot_->keyLock);
        ++slot_->users;
        watcher_ = slot_->watcher == address ? slot_->watcher : nullptr;
    }
}

WatcherUse::WatcherUse(WatcherSlot& slot, const char* unregistration)
    : slot_(&slot), watcher_(slot.watcher), unregistration_(unregistration)
{
    ++slot.users;
}

WatcherUse::~WatcherUse()
{
    if (slot_ == nullptr) {
        return;
    }
    const std::lock_guard<std::mutex> guard(slot_->keyLock);
    if (unregistration_ != nullptr) {
        slot_->releaseFor = unregistration_;
    }
    if (--slot_->users > 0 || slot_->releaseFor == nullptr) {
        return;
    }
    if (slot_->watcher != nullptr && !slot_->watcher->IsExistVconfCallback()) {
        int cancelState = 0;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);  // a thread may be cancelled in a log line
        dlog_print(ZOL_LINE_OF(slot_->releaseFor, "Remove callbackGenerator"));
        slot_->watcher->~VconfCallbackGenerator();
        slot_->watcher = nullptr;
        slot_->nextPlace = 1 - slot_->nextPlace;
        pthread_setcancelstate(cancelState, nullptr);
    }
    slot_->releaseFor = nullptr;
}

bool WatcherUse::isOfRegistry(const VconfCallbackGenerator* watcher) { return slotAt(watcher) != nullptr; }

int __unRegisterVconfCallback(VconfCallbackGenerator* watcher, void* callback, std::mutex& /*keyLock*/)
{
    return watcher == nullptr ? 0 : watcher->UnregisterCallback(callback);
}

int ZOLSystemDataNotify::RegisterZOLConcurrentAppListCallback(ZOLStringCallback callback, void* userData)
{
    return registerCallback(rowOf<key::ZOLConcurrentAppList>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterZOLConcurrentAppListCallback(ZOLStringCallback callback)
{
    return unregisterCallback(rowOf<key::ZOLConcurrentAppList>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterDravixResetCountCallback(ZOLIntCallback callback, void* userData)
{
    return registerCallback(rowOf<key::DravixResetCount>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterDravixResetCountCallback(ZOLIntCallback callback)
{
    return unregisterCallback(rowOf<key::DravixResetCount>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterServiceResetCountCallback(ZOLIntCallback callback, void* userData)
{
    return registerCallback(rowOf<key::ServiceResetCount>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterServiceResetCountCallback(ZOLIntCallback callback)
{
    return unregisterCallback(rowOf<key::ServiceResetCount>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterFactoryResetCountCallback(ZOLIntCallback callback, void* userData)
{
    return registerCallback(rowOf<key::FactoryResetCount>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterFactoryResetCountCallback(ZOLIntCallback callback)
{
    return unregisterCallback(rowOf<key::FactoryResetCount>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterWebAppUninstallCallback(ZOLStringCallback callback, void* userData)
{
    return registerCallback(rowOf<key::WebAppUninstall>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterWebAppUninstallCallback(ZOLStringCallback callback)
{
    return unregisterCallback(rowOf<key::WebAppUninstall>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterWebAppInstallCallback(ZOLStringCallback callback, void* userData)
{
    return registerCallback(rowOf<key::WebAppInstall>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterWebAppInstallCallback(ZOLStringCallback callback)
{
    return unregisterCallback(rowOf<key::WebAppInstall>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterOSDCountryCallback(ZOLStringCallback callback, void* userData)
{
    return registerCallback(rowOf<key::OSDCountry>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterOSDCountryCallback(ZOLStringCallback callback)
{
    return unregisterCallback(rowOf<key::OSDCountry>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterBackgroundVolumeCallback(ZOLIntCallback callback, void* userData)
{
    return registerCallback(rowOf<key::BackgroundVolume>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterBackgroundVolumeCallback(ZOLIntCallback callback)
{
    return unregisterCallback(rowOf<key::BackgroundVolume>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterZOLSituationalHintSupportedCallback(ZOLStringCallback callback, void* userData)
{
    return registerCallback(rowOf<key::ZOLSituationalHintSupported>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterZOLSituationalHintSupportedCallback(ZOLStringCallback callback)
{
    return unregisterCallback(rowOf<key::ZOLSituationalHintSupported>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterZOLLanguageCallback(ZOLStringCallback callback, void* userData)
{
    return registerCallback(rowOf<key::ZOLLanguage>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterZOLLanguageCallback(ZOLStringCallback callback)
{
    return unregisterCallback(rowOf<key::ZOLLanguage>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterZOLDefaultAssistantAppidCallback(ZOLStringCallback callback, void* userData)
{
    return registerCallback(rowOf<key::ZOLDefaultAssistantAppid>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterZOLDefaultAssistantAppidCallback(ZOLStringCallback callback)
{
    return unregisterCallback(rowOf<key::ZOLDefaultAssistantAppid>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterZOLActivatedCallback(ZOLBoolCallback callback, void* userData)
{
    return registerCallback(rowOf<key::ZOLActivated>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterZOLActivatedCallback(ZOLBoolCallback callback)
{
    return unregisterCallback(rowOf<key::ZOLActivated>, __func__, untyped(callback));
}
int ZOLSystemDataNotify::RegisterZOLMultipleModeCallback(ZOLBoolCallback callback, void* userData)
{
    return registerCallback(rowOf<key::ZOLMultipleMode>, __func__, untyped(callback), userData);
}
int ZOLSystemDataNotify::UnregisterZOLMultipleModeCallback(ZOLBoolCallback callback)
{
    return unregisterCallback(rowOf<key::ZOLMultipleMode>, __func__, untyped(callback));
}
