/// @file
/// The watcher of one vconf key, behind the operations of ZOLSystemDataNotify. Most callers want those.
#ifndef VCONF_CALLBACK_GENERATOR_H
#define VCONF_CALLBACK_GENERATOR_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "ZOLExport.h"

struct keynode_t;

/// The type of a watched key's value, and with it the type of the callbacks.
enum DataValueType : std::int32_t {
    DATA_TYPE_BOOL = 0,    ///< `void (*)(bool, void*)`; true exactly when the key holds 1
    DATA_TYPE_INT = 1,     ///< `void (*)(int, void*)`
    DATA_TYPE_STRING = 2,  ///< `void (*)(std::string, void*)`; every callback gets its own copy
};

/// One registered callback, allocated with malloc and released with free.
struct CallbackNode {
    void* callback;  ///< The caller's function; its type is that of the watcher's DataValueType.
    void* userData;  ///< Handed back to the callback unchanged.
};

/// Watches one vconf key for any number of callbacks: subscribes to the key when a callback arrives, hands every change
/// to the callbacks in the order of their registration, and unsubscribes when the last one leaves.
///
/// Threads: every member may be called from any thread, but nobody may still be inside RegisterCallback or
/// UnregisterCallback when the watcher is destroyed. A change that arrives during or after the destruction is safe:
/// the destructor waits for a dispatch that has begun, and a later one finds no watcher.
///
/// Callbacks run with the watcher's lock held; ZOLSystemDataNotify tells what they may do. There should be one watcher
/// per key at a time, because a subscription is told apart by its key alone.
///
/// Errors are reported by results and in the log under the tag "libZOL".
class ZOL_API VconfCallbackGenerator {
public:
    /// Makes a watcher without callbacks, not subscribed yet.
    /// @param type  How the key's value is read. With a value that is none of the enumerators no callback is called.
    /// @param path  The key; it is copied.
    /// Throws nothing but std::bad_alloc.
    VconfCallbackGenerator(DataValueType type, const std::string& path);

    /// Forgets the callbacks. A subscription that still stands is left in place. Must not be called from a callback of
    /// this watcher.
    ~VconfCallbackGenerator();

    VconfCallbackGenerator(const VconfCallbackGenerator&) = delete;
    VconfCallbackGenerator& operator=(const VconfCallbackGenerator&) = delete;

    /// Adds a callback, and subscribes to the key first if the watcher is not subscribed.
    /// @param callback  The function, as an untyped pointer. A function that is registered already stays registered
    ///                  once, with the user data of its first registration.
    /// @param userData  Handed to the callback; it must live until UnregisterCallback has returned.
    /// @return 1 when the callback is registered, also when it already was; 0 for a null callback, when vconf refuses
    ///         the subscription and when memory runs out.
    int RegisterCallback(void* callback, void* userData);

    /// Removes a callback, and unsubscribes from the key when it was the last.
    /// @return 1 when it was removed and, if it was the last, vconf accepted the unsubscription; otherwise 0. When
    ///         vconf refuses, the callback is gone all the same and the watcher stays subscribed.
    int UnregisterCallback(void* callback);

    /// Hands a change to the callbacks of the watcher `userData`. vconf calls it; it throws nothing.
    /// @param node      The key and its new value, read according to the watcher's type.
    /// @param userData  The watcher. A pointer to a watcher that is gone is recognised and ignored.
    static void VconfCallbackMethod(keynode_t* node, void* userData);

    /// @return the key.
    std::string GetVconfPath();

    /// @return whether the watcher is subscribed to the key.
    bool IsExistVconfCallback();

private:
    friend class WatcherCensus;

    void forgetCallbacks();

    std::vector<CallbackNode*> nodeList;  // in the order of registration
    std::string vconfPath;
    std::mutex listMutex;
    std::atomic<bool> isExistVconfCallback;
    DataValueType valueType;
};

#endif
