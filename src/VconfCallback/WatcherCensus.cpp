#include "WatcherCensus.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

#include "VconfCallbackGenerator.h"

// Never destroyed: threads may deliver until the very end of the process. Made at the first use, since other libraries
// may be initialised before this one; and without an allocation, since fork() may be the first to come here.
std::array<WatcherCensus, WatcherCensus::kCensuses>& WatcherCensus::all()
{
    using All = std::array<WatcherCensus, kCensuses>;
    alignas(All) static unsigned char place[sizeof(All)];
    static All& the = *new (place) All;
    return the;
}

void WatcherCensus::lockAll()
{
    for (WatcherCensus& each : all()) {
        each.lock_.lock();
    }
}

void WatcherCensus::unlockAll()
{
    for (WatcherCensus& each : all()) {
        each.lock_.unlock();
    }
}

void WatcherCensus::startAllAfreshInChild()
{
    for (WatcherCensus& each : all()) {
        each.startAfreshInChild();
    }
}

WatcherCensus& WatcherCensus::of(const void* address)
{
    // Neighbours on the heap differ in some middle bits; multiplied, these decide the topmost ones.
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): a number is wanted, and no object
    const std::uint64_t spread = reinterpret_cast<std::uintptr_t>(address) * 0x9E3779B97F4A7C15U;
    return all()[spread >> (64U - kCensusBits)];
}

void WatcherCensus::arrive(VconfCallbackGenerator& watcher)
{
    const std::lock_guard<std::mutex> guard(lock_);
    present_[&watcher];
}

void WatcherCensus::depart(VconfCallbackGenerator& watcher, std::string&& key) noexcept
{
    std::unique_lock<std::mutex> guard(lock_);
    const auto found = present_.find(&watcher);
    Presence& presence = found->second;
    presence.dispatches |= kLeaving;
    changed_.wait(guard, [&] { return presence.dispatches == kLeaving; });
    if (presence.wasSubscribed) {
        auto* const place = std::find_if(departed_.begin(), departed_.end() - 1,
                                         [&](const Departed& departed) { return departed.was(&watcher, key.c_str()); });
        *place = {&watcher, std::move(key)};
        std::rotate(departed_.begin(), place, place + 1);  // to the front
    }
    present_.erase(found);
}

bool WatcherCensus::hasDeparted(const void* address, const char* key) const
{
    return std::any_of(departed_.begin(), departed_.end(),
                       [=](const Departed& departed) { return departed.was(address, key); });
}

// In the child only the forking thread is left, and it is not subscribed to anything. The other threads' dispatches,
// turns and locks are gone with them.
void WatcherCensus::startAfreshInChild()
{
    new (&changed_) std::condition_variable;
    for (auto& [address, presence] : present_) {
        auto& watcher = *static_cast<VconfCallbackGenerator*>(address);
        const bool here = presence.listHolder.load(std::memory_order_relaxed) == std::this_thread::get_id();
        presence.dispatches = (presence.dispatches & kLeaving) + (here ? 1 : 0);
        presence.turnTaken = false;
        if (!here) {
            new (&watcher.listMutex) std::mutex;
            presence.listHolder.store({}, std::memory_order_relaxed);  // a thread of the child may get that id again
        }
        watcher.forgetCallbacks();
        watcher.isExistVconfCallback = false;
    }
}

// ---- visits and turns -----------------------------------------------------------------------------------------------

// An event that was meant for a watcher that is gone can find another watcher at the same address. It carries the gone
// one's key. Whether the key is the present watcher's does not tell the two apart, since an event under another name is
// delivered; whether it is that of a watcher that was there before does. What remains:
// - a late event is delivered when its key is the present watcher's too, as a value of before the registration (in the
//   registry such watchers have one type; who makes watchers of one key in two types must not reuse the address);
// - a late event is delivered when 32 watchers of the same census, at other addresses or of other keys, have been
//   destroyed since its own, or when it did not bear its key;
// - an event that is on time but bears the key of a watcher that was at that address before is dropped.
WatcherCensus::Visit::Visit(void* address, const char* key) : census_(of(address))
{
    const std::lock_guard<std::mutex> guard(census_.lock_);
    const auto found = census_.present_.find(address);
    if (found == census_.present_.end() || (found->second.dispatches & kLeaving) != 0) {
        return;
    }
    auto* present = static_cast<VconfCallbackGenerator*>(address);
    if (std::strcmp(present->vconfPath.c_str(), key) != 0 && census_.hasDeparted(address, key)) {
        return;
    }
    watcher_ = present;
    presence_ = &found->second;  // stays where it is until the watcher departs
    ++presence_->dispatches;
}

void WatcherCensus::Visit::lockList()
{
    watcher_->listMutex.lock();
    presence_->listHolder.store(std::this_thread::get_id(), std::memory_order_relaxed);
    listLocked_ = true;
}

WatcherCensus::Visit::~Visit()
{
    if (watcher_ == nullptr) {
        return;
    }
    if (listLocked_) {
        presence_->listHolder.store({}, std::memory_order_relaxed);
        watcher_->listMutex.unlock();
    }
    if (--presence_->dispatches == kLeaving) {
        census_.change([] {});  // the watcher's thread waits already, or has not looked yet while it holds the lock
    }
}

// cppcheck-suppress constParameter ; the census keeps addresses of what it may change
WatcherCensus::Turn::Turn(VconfCallbackGenerator& watcher) : census_(of(&watcher))
{
    std::unique_lock<std::mutex> guard(census_.lock_);
    presence_ = &census_.present_.find(&watcher)->second;
    census_.changed_.wait(guard, [this] { return !presence_->turnTaken; });
    presence_->turnTaken = true;
}

WatcherCensus::Turn::~Turn()
{
    census_.change([this] { presence_->turnTaken = false; });
}
