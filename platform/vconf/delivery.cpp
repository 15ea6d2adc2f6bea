#include "delivery.h"

#include <pthread.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <exception>
#include <new>
#include <thread>

#include "log.h"

namespace vconf {
namespace {

constexpr size_t kBatchWrites = 256;
constexpr size_t kBatchBytes = size_t{1} << 20;
constexpr std::chrono::milliseconds kPauseAfterError{100};  // doubles from one error to the next,
constexpr std::chrono::seconds kLongestPause{10};           // up to this

// Thrown where a handler returns in a child of fork(), to end what would be a second delivering thread there.
struct InChildOfFork {};

}  // namespace

Lifetime lifetimeOf(std::string_view key)
{
    constexpr std::string_view kVolatile = "memory/";
    return key.substr(0, kVolatile.size()) == kVolatile ? Lifetime::Volatile : Lifetime::Persistent;
}

// ---- subscriptions --------------------------------------------------------------------------------------------------

void Delivery::subscribe(Store& store, Lifetime lifetime, std::string_view key, vconf_callback_fn handler,
                         void* userData)
{
    const std::lock_guard<std::mutex> guard(lock_);
    const auto known = subscriptions_.find(key);
    if (known != subscriptions_.end()) {
        for (const Subscription& subscription : known->second) {
            if (subscription.handler == handler) {
                throw Error("key " + std::string(key) + " already has this handler; ignore it first");
            }
        }
    }
    occupyStandardFiles();
    if (signals_ < 0 && (signals_ = inotify_init1(IN_CLOEXEC)) < 0) {
        throw Error(std::string("cannot watch for changes: ") + std::strerror(errno) +
                    "; raise fs.inotify.max_user_instances");
    }
    Half& itsHalf = half(lifetime);
    if (itsHalf.store == nullptr) {
        watch(store);  // first, so that no write after the look at the journal goes unnoticed
    }
    const uint64_t last = ReadTransaction(store).lastSequence();
    if (!running_) {
        startThread();
        running_ = true;
    }
    const Subscription added{nextId_++, last, handler, userData};
    if (known != subscriptions_.end()) {
        known->second.push_back(added);
    } else {
        subscriptions_.emplace(std::string(key), std::vector<Subscription>{added});
    }
    if (itsHalf.store == nullptr) {
        itsHalf.store = &store;
        itsHalf.seen = last;
    }
}

bool Delivery::unsubscribe(std::string_view key, vconf_callback_fn handler)
{
    const std::lock_guard<std::mutex> guard(lock_);
    const auto known = subscriptions_.find(key);
    if (known == subscriptions_.end()) {
        return false;
    }
    auto& list = known->second;
    const auto found =
        std::find_if(list.begin(), list.end(), [handler](const Subscription& s) { return s.handler == handler; });
    if (found == list.end()) {
        return false;
    }
    list.erase(found);
    if (list.empty()) {
        subscriptions_.erase(known);
    }
    return true;
}

void Delivery::resetInChild()
{
    subscriptions_.clear();
    halves_ = {};
    running_ = false;
    ++forks_;
    if (signals_ >= 0) {
        close(signals_);  // it is shared with the parent, whose events must not be read here
        signals_ = -1;
    }
    lock_.unlock();
}

void Delivery::watch(const Store& store) const
{
    // The closing tells of a write whose writer was killed between its commit and its signal.
    if (inotify_add_watch(signals_, store.signalPath().c_str(), IN_MODIFY | IN_CLOSE_WRITE) < 0) {
        throw Error("cannot watch " + store.folder() + "/signal" + ": " + std::strerror(errno));
    }
}

void Delivery::startThread()
{
    // The application's signal handlers are not to run on this thread.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread{};
    const auto body = [](void* self) -> void* {
        static_cast<Delivery*>(self)->run();
        return nullptr;
    };
    const int code = pthread_create(&thread, nullptr, body, this);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (code != 0) {
        throw Error(std::string("cannot start the delivering thread: ") + std::strerror(code));
    }
    pthread_detach(thread);
}

// ---- the thread -----------------------------------------------------------------------------------------------------

void Delivery::run()
{
    pthread_setname_np(pthread_self(), "vconf");
    std::chrono::milliseconds pause = kPauseAfterError;
    int signals = -1;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        signals = signals_;
    }
    alignas(inotify_event) char events[4096];
    for (;;) {
        try {
            while (deliverOnce()) {
            }
            while (read(signals, events, sizeof events) < 0) {
                if (errno != EINTR) {
                    throw Error(std::string("cannot wait for changes: ") + std::strerror(errno));
                }
            }
            pause = kPauseAfterError;
        } catch (const InChildOfFork&) {
            return;
        } catch (const std::exception& error) {
            logLine("delivery", error.what());
            std::this_thread::sleep_for(pause);
            pause = std::min<std::chrono::milliseconds>(pause * 2, kLongestPause);
        }
    }
}

// Looks at both journals once and delivers what can be put in order; false when there was nothing new.
//
// A write of one half may have been made after, and because of, a write of the other, and must not overtake it. Looking
// at the persistent journal first and at the volatile one second finds for every persistent write all volatile writes
// before it. Of the volatile writes, those that were there before the look at the persistent journal have nothing
// before them that was missed; younger ones wait for the next round, unless a persistent write that was found is
// younger still.
bool Delivery::deliverOnce()
{
    uint64_t settled = UINT64_MAX;
    Batch persistent;
    Batch fleeting;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (half(Lifetime::Persistent).store != nullptr && half(Lifetime::Volatile).store != nullptr) {
            settled = ReadTransaction(*half(Lifetime::Volatile).store).lastSequence();
        }
        persistent = collect(Lifetime::Persistent);
        fleeting = collect(Lifetime::Volatile);
    }
    if (persistent.missed + fleeting.missed > 0) {
        const std::string message = "this process fell behind by more than the journal holds; " +
                                    std::to_string(persistent.missed + fleeting.missed) +
                                    " writes are passed over, and each key that changed gets its newest value";
        logLine("delivery", message.c_str());
        // Without the writes between, there is no order across the halves left to keep.
        settled = UINT64_MAX;
        persistent.cutOff = fleeting.cutOff = false;
    }
    for (;;) {
        const bool persistentLeft = !persistent.empty();
        const bool fleetingLeft = !fleeting.empty();
        if ((!persistentLeft && persistent.cutOff) || (!fleetingLeft && fleeting.cutOff)) {
            break;
        }
        if (persistentLeft &&
            (!fleetingLeft || persistent.writes[persistent.next].time <= fleeting.writes[fleeting.next].time)) {
            deliver(Lifetime::Persistent, persistent.writes[persistent.next++]);
        } else if (fleetingLeft && (persistentLeft || fleeting.writes[fleeting.next].sequence <= settled)) {
            deliver(Lifetime::Volatile, fleeting.writes[fleeting.next++]);
        } else {
            break;
        }
    }
    settle(Lifetime::Persistent, persistent);
    settle(Lifetime::Volatile, fleeting);
    return persistent.found() || fleeting.found();
}

// Once all of a batch is delivered, the writes of other keys after it are done with too.
void Delivery::settle(Lifetime lifetime, const Batch& batch)
{
    if (batch.found() && batch.empty()) {
        half(lifetime).seen = batch.upTo;
    }
}

Delivery::Batch Delivery::collect(Lifetime lifetime)
{
    Batch batch;
    const Half& from = half(lifetime);
    if (from.store == nullptr) {
        return batch;
    }
    const ReadTransaction transaction(*from.store);
    batch.from = batch.upTo = from.seen;
    const uint64_t first = transaction.firstSequence();
    if (first > from.seen + 1) {
        batch.missed = first - from.seen - 1;
        collectNewest(lifetime, transaction, batch);
        return batch;
    }
    size_t bytes = 0;
    transaction.journalAfter(from.seen, [&](const Record& record) {
        if (batch.writes.size() >= kBatchWrites || bytes >= kBatchBytes) {
            batch.cutOff = true;
            return false;
        }
        batch.upTo = record.sequence;
        if (subscriptions_.find(record.key) != subscriptions_.end()) {
            batch.writes.push_back(
                {record.sequence, record.time, record.type, std::string(record.key), std::string(record.data)});
            bytes += record.data.size();
        }
        return true;
    });
    return batch;
}

void Delivery::collectNewest(Lifetime lifetime, const ReadTransaction& transaction, Batch& batch)
{
    Record record;
    for (const auto& [key, list] : subscriptions_) {
        if (lifetimeOf(key) == lifetime && transaction.value(key, record) && record.sequence > batch.upTo) {
            batch.writes.push_back({record.sequence, record.time, record.type, key, std::string(record.data)});
        }
    }
    std::sort(batch.writes.begin(), batch.writes.end(),
              [](const Write& a, const Write& b) { return a.sequence < b.sequence; });
    batch.upTo = transaction.lastSequence();
}

void Delivery::deliver(Lifetime lifetime, const Write& write)
{
    half(lifetime).seen = write.sequence;
    uint64_t called = 0;
    for (;;) {
        Subscription next{};
        {
            const std::lock_guard<std::mutex> guard(lock_);
            const auto known = subscriptions_.find(write.key);
            if (known == subscriptions_.end()) {
                return;
            }
            const auto found = std::find_if(known->second.begin(), known->second.end(), [&](const Subscription& s) {
                return s.id > called && s.after < write.sequence;
            });
            if (found == known->second.end()) {
                return;
            }
            next = *found;
        }
        called = next.id;
        keynode_t node{};
        node.keyname = write.key.c_str();
        node.type = write.type;
        if (write.type == VCONF_TYPE_STRING) {
            node.value.s = write.data.c_str();
        } else {
            std::memcpy(&node.value.i, write.data.data(), std::min(sizeof node.value.i, write.data.size()));
        }
        const unsigned forks = forks_;
        next.handler(&node, next.userData);
        // cppcheck-suppress knownConditionTrueFalse ; it rises where the handler forks, in the child
        if (forks_ != forks) {
            throw InChildOfFork();
        }
    }
}

}  // namespace vconf
