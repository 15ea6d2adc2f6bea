// What keeps a watcher of the registry alive while a thread is inside it. ZOLSystemDataNotifyClass.cpp defines this.
#ifndef ZOL_SRC_WATCHER_USE_H
#define ZOL_SRC_WATCHER_USE_H

class VconfCallbackGenerator;
struct WatcherSlot;

// ---- The locks of change notification ------------------------------------------------------------------------------
//
//   listMutex   One for each watcher. Protects its list of callbacks and its subscription: the watcher subscribes and
//               unsubscribes with it held. A dispatch holds it while the callbacks run.
//   key lock    One for each topic, in the registry. Protects the topic's slot: its watcher, the number of threads that
//               use the watcher, and the wish to release it.
//
// Order: listMutex, key lock, the platform's locks. Nobody takes a listMutex while holding a key lock, so a callback,
// which runs with its watcher's listMutex held, may use other topics. If it registers on one, it takes that topic's
// listMutex, too: where vconf delivers on several threads, topics that do so must not form a ring.
//
// Operations and dispatches alike are users of a slot: they enter and leave under the key lock. The last to leave
// destroys the watcher, if an unregister operation has asked for that and the watcher is not subscribed. So no thread
// waits for another one to leave, and none is inside a watcher that is being destroyed.
//
// A slot has two places for its watchers, used in turn. A dispatch that enters after its watcher was released finds no
// watcher at its address or, two watchers later, one of the same key and type. It never finds foreign memory.
//
// A dispatch looks at isExistVconfCallback before it takes listMutex: vconf may call back from within a subscription.

/// A thread's use of a watcher. Watchers that are not in a slot belong to whoever made them and are not kept alive.
class WatcherUse {
public:
    /// For a dispatch: finds the watcher by the address that vconf was given.
    explicit WatcherUse(void* address);
    /// For an operation, with the key lock held. An unregister operation gives its name, to ask for the release.
    WatcherUse(WatcherSlot& slot, const char* unregistration);
    ~WatcherUse();
    WatcherUse(const WatcherUse&) = delete;
    WatcherUse& operator=(const WatcherUse&) = delete;
    VconfCallbackGenerator* watcher() const { return watcher_; }  // null when there is none
    static bool isOfRegistry(const VconfCallbackGenerator* watcher);

private:
    WatcherSlot* slot_;
    VconfCallbackGenerator* watcher_;
    const char* unregistration_ = nullptr;
};

#endif
