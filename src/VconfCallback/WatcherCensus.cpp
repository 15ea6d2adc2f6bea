#include "WatcherCensus.h"

#include <pthread.h>

#include <new>
#include <utility>

#include "VconfCallbackGenerator.h"

// Never destroyed: threads may deliver until the very end of the process.
WatcherCensus& WatcherCensus::instance()
{
    static auto* const the = new WatcherCensus;
    return *the;
}

WatcherCensus::WatcherCensus()
{
    if (pthread_atfork([] { instance().lock_.lock(); }, [] { instance().lock_.unlock(); },
                       [] { instance().startAfreshInChild(); }) != 0) {
        throw std::bad_alloc();
    }
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
    presence.leaving = true;
    changed_.wait(guard, [&] { return presence.dispatches == 0; });
    if (presence.wasSubscribed) {
        departed_[nextDeparted_] = {&watcher, std::move(key)};
        nextDeparted_ = (nextDeparted_ + 1) % kRemembered;
    }
    present_.erase(found);
}

bool WatcherCensus::hasDeparted(const void* address, const char* key) const
{
    for (const Departed& departed : departed_) {
        if (departed.address == address && departed.key == key) {
            return true;
        }
    }
    return false;
}

// In the child only the forking thread is left, and it is not subscribed to anything. The other threads' dispatches,
// turns and locks are gone with them.
void WatcherCensus::startAfreshInChild()
{
    new (&changed_) std::condition_variable;
    for (auto& [address, presence] : present_) {
        auto& watcher = *static_cast<VconfCallbackGenerator*>(address);
        const bool here = presence.listHolder.load(std::memory_order_relaxed) == std::this_thread::get_id();
        presence.dispatches = here ? 1 : 0;
        presence.turnTaken = false;
        if (!here) {
            new (&watcher.listMutex) std::mutex;
        }
        watcher.forgetCallbacks();
        watcher.isExistVconfCallback = false;
    }
    lock_.unlock();
}

// ---- visits and turns -----------------------------------------------------------------------------------------------

// An event that was meant for a watcher that is gone can find another watcher at the same address. It carries the gone
// one's key. Whether the key is the present watcher's does not tell the two apart, since an event under another name is
// delivered; whether it is that of a watcher that was there before does. What remains:
// - a late event is delivered when its key is the present watcher's too, as a value of before the registration (in the
//   registry such watchers have one type; who makes watchers of one key in two types must not reuse the address);
// - a late event is delivered when 1,024 watchers have been destroyed since its own, or when it did not bear its key;
// - an event that is on time but bears the key of a watcher that was at that address before is dropped.
WatcherCensus::Visit::Visit(void* address, const char* key)
{
    WatcherCensus& census = instance();
    const std::lock_guard<std::mutex> guard(census.lock_);
    const auto found = census.present_.find(address);
    if (found == census.present_.end() || found->second.leaving) {
        return;
    }
    auto* present = static_cast<VconfCallbackGenerator*>(address);
    if (present->vconfPath != key && census.hasDeparted(address, key)) {
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
    WatcherCensus& census = instance();
    const std::lock_guard<std::mutex> guard(census.lock_);
    --presence_->dispatches;
    if (presence_->leaving) {
        census.changed_.notify_all();
    }
}

// cppcheck-suppress constParameter ; the census keeps addresses of what it may change
WatcherCensus::Turn::Turn(VconfCallbackGenerator& watcher)
{
    WatcherCensus& census = instance();
    std::unique_lock<std::mutex> guard(census.lock_);
    presence_ = &census.present_.find(&watcher)->second;
    census.changed_.wait(guard, [this] { return !presence_->turnTaken; });
    presence_->turnTaken = true;
}

WatcherCensus::Turn::~Turn()
{
    WatcherCensus& census = instance();
    const std::lock_guard<std::mutex> guard(census.lock_);
    presence_->turnTaken = false;
    census.changed_.notify_all();
}
