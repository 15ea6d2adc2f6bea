// The subscriptions of this process, and the thread that delivers changes to them.
#ifndef VCONF_DELIVERY_H
#define VCONF_DELIVERY_H

#include <unistd.h>
#include <vconf.h>

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "store.h"

namespace vconf {

/// Delivers every write of a subscribed key to its handlers, in the order of each store's writes, on the delivery
/// thread. A child of fork() has another one.
///
/// The thread sleeps until a signal file is written to or closed (also by the kernel, when a writer dies). Then it
/// reads the journals from where it stopped. A process that falls behind by more than the journal holds gets the newest
/// value of each subscribed key that changed, once, and a line in the log. When a handler ends the thread, another one
/// continues with the next write.
class Delivery {
public:
    /// Starts the thread if it does not run yet.
    /// @throws std::exception when the subscription cannot be made; then there is none.
    void subscribe(Store& store, Lifetime lifetime, std::string_view key, vconf_callback_fn handler, void* userData);

    /// @return false when there is no such subscription.
    bool unsubscribe(std::string_view key, vconf_callback_fn handler);

private:
    struct Subscription {
        uint64_t id;     // rises with every subscription
        uint64_t after;  // sequence number of the last write before it
        vconf_callback_fn handler;
        void* userData;
    };
    struct Write {
        uint64_t sequence;
        int type;
        std::string key;
        std::string data;
    };
    // What one look at a journal found.
    struct Batch {
        std::vector<Write> writes;  // of subscribed keys
        uint64_t upTo = 0;          // the last write that was looked at
        uint64_t missed = 0;        // how many writes, of any key, are dropped
    };
    // How far the thread has read a store's journal.
    struct Position {
        Store* store = nullptr;  // set by the first subscription
        uint64_t seen =
            0;  // the last write that was delivered or dropped; only the thread uses it once there is a store
    };

    [[noreturn]] void run();
    void forgetRemoved();
    bool deliverSome(Position& from);
    void deliver(const Write& write);
    Batch collect(const Position& from);
    void startThread();
    void replaceThread();

    // Protects everything below but a position's `seen`. Never held while a handler runs. A read of the store may
    // happen under it, but no write and no first opening.
    std::mutex lock_;
    std::map<std::string, std::vector<Subscription>, std::less<>> subscriptions_;
    std::array<Position, 2> positions_;  // in the persistent and the volatile store
    uint64_t nextId_ = 1;
    int signals_ = -1;
    bool running_ = false;
    const pid_t pid_ = getpid();
};

/// The store that a key belongs to.
Lifetime lifetimeOf(std::string_view key);

}  // namespace vconf

#endif
