// The slots that hold the registry's watchers; see WatcherSlot.h.
#include "WatcherSlot.h"

#include <cstdint>
#include <utility>

namespace zol {

WatcherSlot slots[kTopicCount];
static_assert(std::is_trivially_destructible_v<WatcherSlot>);

namespace {

// The slot that contains an address, or null.
WatcherSlot* slotAt(const void* address)
{
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): unrelated addresses can be compared only as numbers
    const auto offset = reinterpret_cast<std::uintptr_t>(address) - reinterpret_cast<std::uintptr_t>(slots);
    return offset < sizeof slots ? &slots[offset / sizeof(WatcherSlot)] : nullptr;
}

}  // namespace

VconfCallbackGenerator* WatcherSlot::enter(const void* address)
{
    const std::lock_guard<std::mutex> guard(keyLock);
    if (watcher != address) {
        return nullptr;
    }
    ++dispatches;
    return watcher;
}

void WatcherSlot::leave()
{
    const std::lock_guard<std::mutex> guard(keyLock);
    --dispatches;
    if (isDestroying && dispatches == 0) {
        pthread_cond_broadcast(&changed);
    }
}

VconfCallbackGenerator* WatcherSlot::beginDestroying(std::unique_lock<std::mutex>& keyGuard)
{
    VconfCallbackGenerator* const taken = std::exchange(watcher, nullptr);
    nextStorage = 1 - nextStorage;
    isDestroying = true;
    while (dispatches > 0) {
        pthread_cond_wait(&changed, keyGuard.mutex()->native_handle());
    }
    return taken;
}

void WatcherSlot::finishDestroying()
{
    isDestroying = false;
    pthread_cond_broadcast(&changed);
}

void WatcherSlot::waitForDestruction(std::unique_lock<std::mutex>& keyGuard)
{
    while (isDestroying) {
        pthread_cond_wait(&changed, keyGuard.mutex()->native_handle());
    }
}

DispatchGuard::DispatchGuard(void* address)
    : slot_(slotAt(address)), watcher_(static_cast<VconfCallbackGenerator*>(address))
{
    if (slot_ != nullptr) {
        watcher_ = slot_->enter(address);
    }
}

DispatchGuard::~DispatchGuard()
{
    if (slot_ != nullptr && watcher_ != nullptr) {
        slot_->leave();
    }
}

}  // namespace zol
