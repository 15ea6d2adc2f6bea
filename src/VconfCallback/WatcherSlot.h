// The slots that hold the registry's watchers, one per topic. A slot keeps its watcher alive while threads use it; it
// does not know what a watcher does. The registry and the watcher both build on this file.
#ifndef ZOL_SRC_WATCHER_SLOT_H
#define ZOL_SRC_WATCHER_SLOT_H

#include <pthread.h>

#include <cstddef>
#include <mutex>
#include <type_traits>

#include "VconfCallbackGenerator.h"
#include "ZOLSettings.h"

// ---- The locks of change notification ------------------------------------------------------------------------------
//
// A topic's watcher is used by operations (register and unregister) and by dispatches, which vconf starts on threads of
// its own. Both may be inside the watcher when its last callback is removed. So the topic's slot counts them, and the
// watcher is destroyed when nobody is left inside.
//
// The last operation to leave destroys the watcher, if an unregister operation took part and the watcher is
// unsubscribed. It empties the slot first, so that later dispatches no longer find the watcher. Then it waits for the
// dispatches that are still inside. That wait is short: the watcher has no callbacks left, and nobody can add one.
// A registration that comes meanwhile waits for the destruction to finish, and then makes a new watcher.
//
// A slot has storage for two watchers, used in turn. An event from before an unregistration carries the address of the
// old watcher, so it does not reach the callbacks of the next registration.
//
//   listMutex   One per watcher. Protects its list of callbacks and its subscription. A registration holds it while the
//               watcher subscribes, an unregistration while it unsubscribes, and a dispatch while the callbacks run.
//   keyLock     One per slot. Protects all members of the slot. It is released while a thread waits for `changed`.
//
// Order: listMutex, keyLock, the platform's locks. No thread takes a listMutex while it holds a keyLock. A callback
// runs with its watcher's listMutex held and may use other topics. If it registers on one, it takes that topic's
// listMutex, too; so on a vconf that delivers on several threads, such topics must not form a cycle.
//
// A dispatch reads isExistVconfCallback before it takes listMutex, because vconf may call back while it is subscribing.

namespace zol {

#define TOPIC_WATCH(name) name,
#define TOPIC_(name)
#define TOPIC(name, type, read, write, watch, key, description) TOPIC_##watch(name)
/// The settings that can be watched.
enum Topic : std::size_t { ZOL_SETTINGS(TOPIC) kTopicCount };
#undef TOPIC
#undef TOPIC_
#undef TOPIC_WATCH

/// One topic's place for its watcher. Aligned so that topics do not share cache lines.
struct alignas(64) WatcherSlot {
    std::mutex keyLock;
    VconfCallbackGenerator* watcher = nullptr;  // in one of the storages; null while the topic has none
    int operations = 0;                         // that are between their begin and end
    int dispatches = 0;                         // inside the watcher, or inside the one that is being destroyed
    bool isReleaseRequested = false;            // by one of these operations
    bool isDestroying = false;                  // a thread waits for dispatches, to destroy the watcher they are in
    pthread_cond_t changed = PTHREAD_COND_INITIALIZER;  // dispatches or isDestroying; needs no destructor at exit
    std::size_t nextStorage = 0;
    std::aligned_storage_t<sizeof(VconfCallbackGenerator), alignof(VconfCallbackGenerator)> storages[2] = {};

    /// For a dispatch: enters the watcher at the address that vconf passed.
    /// @return the watcher, which stays alive until leave(), or null if it is no longer in the slot.
    VconfCallbackGenerator* enter(const void* address);
    /// Leaves the watcher that enter() returned.
    void leave();

    /// Takes the watcher out of the slot and waits until no dispatch is inside it. Until finishDestroying(), no new
    /// watcher may be made.
    VconfCallbackGenerator* beginDestroying(std::unique_lock<std::mutex>& keyGuard);
    void finishDestroying();
    /// Waits until no thread is between beginDestroying() and finishDestroying().
    void waitForDestruction(std::unique_lock<std::mutex>& keyGuard);
};

/// The slots of all topics. They are never destroyed: vconf may deliver events while the process exits.
extern WatcherSlot slots[kTopicCount];

/// A dispatch's use of a watcher. Leaves the slot also when a callback ends the thread.
class DispatchGuard {
public:
    /// @param address  What vconf passed: the address of a watcher in a slot, or of one that a program made itself. The
    ///                 latter belongs to the program and is not kept alive.
    explicit DispatchGuard(void* address);
    ~DispatchGuard();
    DispatchGuard(const DispatchGuard&) = delete;
    DispatchGuard& operator=(const DispatchGuard&) = delete;

    VconfCallbackGenerator* watcher() const { return watcher_; }  // null if it is no longer in its slot

private:
    WatcherSlot* slot_;
    VconfCallbackGenerator* watcher_;
};

}  // namespace zol

#endif
