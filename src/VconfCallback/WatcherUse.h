// Keeps a watcher of the registry alive while a thread uses it. Defined in ZOLSystemDataNotifyClass.cpp.
#ifndef ZOL_SRC_WATCHER_USE_H
#define ZOL_SRC_WATCHER_USE_H

class VconfCallbackGenerator;
struct WatcherSlot;

// ---- The locks of change notification ------------------------------------------------------------------------------
//
//   listMutex   One per watcher. Protects its list of callbacks and its subscription: the watcher subscribes and
//               unsubscribes with it held. A dispatch holds it while the callbacks run.
//   key lock    One per topic, in the registry. Protects the topic's slot: its watcher, the number of threads that use
//               the watcher, and the request to destroy it.
//
// Order: listMutex, key lock, the platform's locks. No thread takes a listMutex while it holds a key lock. A callback
// runs with its watcher's listMutex held and may use other topics. If it registers on one, it takes that topic's
// listMutex too, so on a vconf that delivers on several threads such topics must not form a cycle.
//
// Operations and dispatches are both users of a slot: they enter and leave it under the key lock. The last one to leave
// destroys the watcher, if an unregister operation has requested it and the watcher is not subscribed. So no thread
// waits for another one to leave, and no thread is using a watcher that is being destroyed.
//
// A slot has two places for its watchers, used in turn. A dispatch that enters after its watcher was destroyed finds no
// watcher at its address or, two watchers later, one of the same key and type. It never finds other memory.
//
// A dispatch checks isExistVconfCallback before it takes listMutex: vconf may call back while it is subscribing.

/// A thread's use of a watcher. Watchers outside the slots belong to whoever created them and are not kept alive.
class WatcherUse {
public:
    /// For a dispatch: finds the watcher by the address that was passed to vconf.
    explicit WatcherUse(void* address);
    /// For an operation, with the key lock held. An unregister operation passes its name to request destruction.
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
