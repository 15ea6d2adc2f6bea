/// @file
/// The watcher of one vconf key, for C++. Most callers want the operations of ZOLSystemDataNotify, which use it.
#ifndef VCONF_CALLBACK_GENERATOR_H
#define VCONF_CALLBACK_GENERATOR_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "ZOLExport.h"

// keynode_t, under whatever tag the platform gives it
#if defined(__has_include) && __has_include(<vconf.h>)
#include <vconf.h>
#elif defined(__has_include) && __has_include(<vconf/vconf.h>)
#include <vconf/vconf.h>
#else
struct keynode_t;
#endif

/// The type of a watched key's value. It determines the type of the callbacks.
enum DataValueType : std::int32_t {
    DATA_TYPE_BOOL = 0,    ///< `void (*)(bool, void*)`; true exactly when the key holds 1
    DATA_TYPE_INT = 1,     ///< `void (*)(int, void*)`
    DATA_TYPE_STRING = 2,  ///< `void (*)(std::string, void*)`; every callback gets its own copy
};

/// One registered callback, allocated with malloc and released with free.
struct CallbackNode {
    void* callback;  ///< The caller's function; its type is that of the watcher's DataValueType.
    void* userData;  ///< Passed to the callback.
};

/// Watches one vconf key for any number of callbacks. It subscribes to the key for the first callback, passes every
/// change to the callbacks in the order of registration, and unsubscribes after the last callback is removed.
///
/// A program that creates a watcher must end its subscription before it destroys it, and must keep it while a thread
/// uses it or a callback runs. There should be one watcher per key at a time, because vconf tells subscriptions apart
/// by their keys.
///
/// Threads: any thread may call every member. Callbacks run with the watcher's lock held, so they must not register or
/// unregister on it. ZOLSystemDataNotify.h says what else they may do.
///
/// Errors are reported by results and in the log under the tag "libZOL".
class ZOL_API VconfCallbackGenerator {
public:
    /// Creates a watcher without callbacks, not yet subscribed.
    /// @param type  How the key's value is read. With any other value no callback is called.
    /// @param path  The key; it is copied. Throws nothing but std::bad_alloc.
    VconfCallbackGenerator(DataValueType type, const std::string& path);

    /// Frees the list of callbacks. It neither unsubscribes nor waits for running callbacks.
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
    /// @param userData  The watcher. A watcher made by ZOLSystemDataNotify may already be destroyed; the call then does
    ///                  nothing.
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
