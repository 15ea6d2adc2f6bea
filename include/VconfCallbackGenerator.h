/// @file
/// The watcher of one vconf key, behind the operations of ZOLSystemDataNotify, which most callers want. For C++.
#ifndef VCONF_CALLBACK_GENERATOR_H
#define VCONF_CALLBACK_GENERATOR_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "ZOLExport.h"

#if defined(__has_include) && __has_include(<vconf.h>)
#include <vconf.h>  // keynode_t, under whatever tag the platform gives it
#else
struct keynode_t;
#endif

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
/// Who makes a watcher keeps it for as long as vconf may call it or a thread may be inside one of its operations.
/// There should be one watcher per key at a time: vconf tells subscriptions apart by their keys.
///
/// Threads: every member may be called from any thread. Callbacks run with the watcher's lock held, so they must not
/// register or unregister on it; ZOLSystemDataNotify tells what else they may do.
///
/// Errors are reported by results and in the log under the tag "libZOL".
class ZOL_API VconfCallbackGenerator {
public:
    /// Makes a watcher without callbacks, not subscribed yet.
    /// @param type  How the key's value is read. With a value that is none of the enumerators no callback is called.
    /// @param path  The key; it is copied. Throws nothing but std::bad_alloc.
    VconfCallbackGenerator(DataValueType type, const std::string& path);

    /// Waits for callbacks that run, and forgets all. A subscription that still stands is left in place.
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

    /// Hands a change to the callbacks of a watcher. vconf calls it. What callbacks throw is caught and logged.
    /// @param node      The key and its new value, read according to the watcher's type.
    /// @param userData  The watcher. One of ZOLSystemDataNotify may be gone already, which does no harm.
    static void VconfCallbackMethod(keynode_t* node, void* userData);

    /// @return the key.
    std::string GetVconfPath();

    /// @return whether the watcher is subscribed to the key.
    bool IsExistVconfCallback();

private:
    std::vector<CallbackNode*> nodeList;  // in the order of registration
    std::string vconfPath;
    std::mutex listMutex;
    std::atomic<bool> isExistVconfCallback;
    DataValueType valueType;
};

#endif
