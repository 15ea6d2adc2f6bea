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
#include <memory>
#include <new>
#include <thread>

namespace vconf {
namespace {

constexpr size_t kBatchWrites = 256;
constexpr size_t kBatchBytes = size_t{1} << 20;
constexpr std::chrono::milliseconds kPauseAfterError{100};  // doubles from one error to the next,
constexpr std::chrono::seconds kLongestPause{10};           // up to this

// Sleeps until a signal file is written to, closed or removed.
// @return whether one may have been removed.
bool waitForSignal(int signals)
{
    alignas(inotify_event) char events[4096];
    ssize_t size = 0;
    do {
        size = read(signals, events, sizeof events);
    } while (size < 0 && errno == EINTR);
    if (size < 0) {
        throw Error(std::string("cannot wait for changes: ") + std::strerror(errno));
    }
    uint32_t found = 0;
    for (ssize_t at = 0; at < size;) {
        inotify_event event{};
        std::memcpy(&event, events + at, sizeof event);
        found |= event.mask;
        at += static_cast<ssize_t>(sizeof event + event.len);
    }
    return (found & (IN_ATTRIB | IN_Q_OVERFLOW)) != 0;
}

}  // namespace

Lifetime lifetimeOf(std::string_view key)
{
    return key.substr(0, 7) == "memory/" ? Lifetime::Volatile : Lifetime::Persistent;
}

// ---- subscriptions --------------------------------------------------------------------------------------------------

void Delivery::subscribe(Store& store, Lifetime lifetime, std::string_view key, vconf_callback_fn handler,
                         void* userData)
{
    const std::string signal = store.signalPath();  // opens the store, which may take a while, before the lock is taken
    const std::lock_guard<std::mutex> guard(lock_);
    const auto known = subscriptions_.find(key);
    if (known != subscriptions_.end()) {
        for (const Subscription& subscription : known->second) {
            if (subscription.handler == handler) {
                throw Error("key " + std::string(key) + " already has this handler; ignore it first");
            }
        }
    }
    reserveStandardDescriptors();
    if (signals_ < 0 && (signals_ = inotify_init1(IN_CLOEXEC)) < 0) {
        throw Error(std::string("cannot watch for changes: ") + std::strerror(errno) +
                    "; close files, or raise fs.inotify.max_user_instances");
    }
    Position& position = positions_[static_cast<size_t>(lifetime)];
    if (position.store == nullptr) {
        // Before the journal is read, or a write in between would go unnoticed. IN_CLOSE_WRITE reports a writer that
        // died between its commit and its signal, IN_ATTRIB a removal.
        if (inotify_add_watch(signals_, signal.c_str(), IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB) < 0) {
            throw Error("cannot watch " + signal + ": " + std::strerror(errno));
        }
        if (store.isRemoved()) {
            throw Error("cannot watch " + signal + ": it was removed; restart this program");
        }
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
    if (position.store == nullptr) {
        position.store = &store;
        position.seen = last;
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

void Delivery::startThread()
{
    // The application's signal handlers must not run on this thread.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread{};
    const auto body = [](void* self) -> void* {
        // Ends by pthread_exit or cancellation in a handler, or not at all.
        const std::unique_ptr<Delivery, void (*)(Delivery*)> ending(static_cast<Delivery*>(self),
                                                                    [](Delivery* of) { of->replaceThread(); });
        ending->run();
    };
    const int code = pthread_create(&thread, nullptr, body, this);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (code != 0) {
        throw Error(std::string("cannot start the delivery thread: ") + std::strerror(code));
    }
    pthread_detach(thread);
}

void Delivery::replaceThread()
{
    if (getpid() != pid_) {
        return;  // a child, where this was the parent's thread
    }
    logLine("delivery", "a handler has ended the delivery thread; another one continues with the next write");
    const std::lock_guard<std::mutex> guard(lock_);
    try {
        startThread();
    } catch (const std::exception& error) {
        running_ = false;  // the next subscription tries again
        logLine("delivery", error.what());
    }
}

// ---- the delivery thread --------------------------------------------------------------------------------------------

void Delivery::run()
{
    pthread_setname_np(pthread_self(), "vconf");
    std::chrono::milliseconds pause = kPauseAfterError;
    std::unique_lock<std::mutex> guard(lock_);
    const int signals = signals_;
    guard.unlock();
    bool mayBeRemoved = false;
    for (;;) {
        try {
            if (mayBeRemoved) {
                forgetRemoved();
            }
            for (bool more = true; more;) {
                more = false;
                for (Position& from : positions_) {
                    more = deliverSome(from) || more;
                }
            }
            mayBeRemoved = waitForSignal(signals);
            pause = kPauseAfterError;
        } catch (const std::exception& error) {
            logLine("delivery", error.what());
            std::this_thread::sleep_for(pause);
            pause = std::min<std::chrono::milliseconds>(pause * 2, kLongestPause);
        }
    }
}

void Delivery::forgetRemoved()
{
    const std::lock_guard<std::mutex> guard(lock_);
    for (Position& position : positions_) {
        if (position.store != nullptr && position.store->isRemoved()) {
            const std::string message =
                position.store->signalPath() + " was removed; restart this program to receive further changes";
            position.store = nullptr;
            logLine("delivery", message.c_str());
        }
    }
}

// Looks at a journal once; false when there was nothing new.
bool Delivery::deliverSome(Position& from)
{
    Batch batch;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (from.store == nullptr) {
            return false;
        }
        batch = collect(from);
    }
    if (batch.missed > 0) {
        const std::string message = "this process fell behind by more than the journal holds; " +
                                    std::to_string(batch.missed) +
                                    " writes were dropped, and each key that changed gets its newest value";
        logLine("delivery", message.c_str());
    }
    const bool found = batch.upTo > from.seen;
    for (const Write& write : batch.writes) {
        from.seen = write.sequence;
        deliver(write);
    }
    from.seen = batch.upTo;
    return found;
}

Delivery::Batch Delivery::collect(const Position& from)
{
    Batch batch;
    const ReadTransaction transaction(*from.store);
    batch.upTo = from.seen;
    Record record;
    if (!transaction.writeAfter(from.seen, record)) {
        return batch;
    }
    if (record.sequence > from.seen + 1) {
        for (const auto& [key, list] : subscriptions_) {
            if (&positions_[static_cast<size_t>(lifetimeOf(key))] == &from && transaction.value(key, record) &&
                record.sequence > from.seen) {
                batch.writes.push_back({record.sequence, record.type, key, std::string(record.data)});
            }
        }
        std::sort(batch.writes.begin(), batch.writes.end(),
                  [](const Write& a, const Write& b) { return a.sequence < b.sequence; });
        batch.upTo = transaction.lastSequence();
        batch.missed = batch.upTo - from.seen - batch.writes.size();
        return batch;
    }
    size_t bytes = 0;
    do {
        batch.upTo = record.sequence;
        if (subscriptions_.find(record.key) != subscriptions_.end()) {
            batch.writes.push_back({record.sequence, record.type, std::string(record.key), std::string(record.data)});
            bytes += record.data.size();
        }
    } while (batch.writes.size() < kBatchWrites && bytes < kBatchBytes && transaction.writeAfter(batch.upTo, record));
    return batch;
}

void Delivery::deliver(const Write& write)
{
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
        next.handler(&node, next.userData);
        if (getpid() != pid_) {
            pthread_exit(nullptr);  // the handler forked, and in the child this would be a second delivery thread
        }
    }
}

}  // namespace vconf
