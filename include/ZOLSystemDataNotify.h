/// @file
/// Callbacks for changes of the TV's system data, for C++ (C++11 or later). ZOLWatch.h offers the same with any
/// callable.
#ifndef ZOL_SYSTEM_DATA_NOTIFY_H
#define ZOL_SYSTEM_DATA_NOTIFY_H

#include <mutex>
#include <string>

#include "ZOLExport.h"

class VconfCallbackGenerator;

/// A callback takes the new value and the user data passed at registration.
/// @{
using ZOLBoolCallback = void (*)(bool value, void* userData);
using ZOLIntCallback = void (*)(int value, void* userData);
using ZOLStringCallback = void (*)(std::string value, void* userData);
/// @}

/// Register and unregister operations for the thirteen topics that can be watched. Each topic is one vconf key. The
/// topics are the rows of ZOLSettings.h that have WATCH, and src/ZOLSystemDataNotifyClass.cpp defines their operations
/// from these rows with one macro, OPERATIONS.
/// capi-zol-tv.h has each operation as a flat function, named ZOLSystemDataNotify plus the operation's name.
///
/// Register operations return 1 when the callback is registered. If it already was, it stays registered once, with its
/// first user data, and the result is also 1. They return 0 for a null callback, when vconf refuses the subscription,
/// and when memory runs out.
///
/// Unregister operations return 1 when the callback was removed and, if it was the topic's last, vconf accepted the end
/// of the subscription. They return 0 when the callback is null or not registered, and when vconf refused; in the last
/// case the callback is removed all the same.
///
/// Callbacks run on the thread on which vconf delivers changes, never inside a register operation. The callbacks of a
/// topic are called one after another, first registered first, once for every write of the key, even if the value stays
/// the same. A string is passed by value. A boolean is true only for a stored 1. A string event without a text calls no
/// callback.
///
/// A callback may use every getter and setter, and register and unregister on every other topic. It must not register
/// or unregister on its own topic: that deadlocks. If vconf delivers on several threads, the callbacks of different
/// topics must not register or unregister on each other's topics in a cycle; that can deadlock too. On a vconf that
/// delivers on one thread, such as the desk platform's, it cannot. An exception that leaves a callback is caught and
/// logged, and the next callback is called.
///
/// User data may be freed once the unregister operation has returned, on any thread: the callback does not run then and
/// will not run again.
///
/// Threads: any thread may call every operation. A thread may exit or be cancelled in a callback; the callbacks after
/// it are not called for that change.
///
/// Errors are reported by results and in the log under the tag "libZOL". The only exception is std::bad_alloc, when a
/// registration needs a new watcher and there is no memory.
///
/// Processes: after fork() the child may read and write. It must not use these operations if the parent has used any of
/// them. To watch in a child, fork before the first registration, or call exec in the child.
///
/// @code
/// void onActivated(bool activated, void* userData) { static_cast<Assistant*>(userData)->show(activated); }
/// ...
/// if (ZOLSystemDataNotify::RegisterZOLActivatedCallback(onActivated, &assistant) == 0) ...  // the log tells why
/// ...
/// ZOLSystemDataNotify::UnregisterZOLActivatedCallback(onActivated);  // from here on the assistant may go
/// @endcode
class ZOL_API ZOLSystemDataNotify {
public:
    ZOLSystemDataNotify() = delete;

    /// Topic: concurrent-mode app list, "db/multi-assistant/alexa_language".
    /// @{
    static int RegisterZOLConcurrentAppListCallback(ZOLStringCallback callback, void* userData);
    static int UnregisterZOLConcurrentAppListCallback(ZOLStringCallback callback);
    /// @}
    /// Topic: Dravix reset counter, "db/dravix/reset_count".
    /// @{
    static int RegisterDravixResetCountCallback(ZOLIntCallback callback, void* userData);
    static int UnregisterDravixResetCountCallback(ZOLIntCallback callback);
    /// @}
    /// Topic: service reset counter, "db/factory/service_reset_count".
    /// @{
    static int RegisterServiceResetCountCallback(ZOLIntCallback callback, void* userData);
    static int UnregisterServiceResetCountCallback(ZOLIntCallback callback);
    /// @}
    /// Topic: factory reset counter, "db/factory/factory_reset_count".
    /// @{
    static int RegisterFactoryResetCountCallback(ZOLIntCallback callback, void* userData);
    static int UnregisterFactoryResetCountCallback(ZOLIntCallback callback);
    /// @}
    /// Topic: web app uninstalled, "memory/was/app_uninstall".
    /// @{
    static int RegisterWebAppUninstallCallback(ZOLStringCallback callback, void* userData);
    static int UnregisterWebAppUninstallCallback(ZOLStringCallback callback);
    /// @}
    /// Topic: web app installed, "memory/was/app_install".
    /// @{
    static int RegisterWebAppInstallCallback(ZOLStringCallback callback, void* userData);
    static int UnregisterWebAppInstallCallback(ZOLStringCallback callback);
    /// @}
    /// Topic: on-screen country, "db/comss/countrycode".
    /// @{
    static int RegisterOSDCountryCallback(ZOLStringCallback callback, void* userData);
    static int UnregisterOSDCountryCallback(ZOLStringCallback callback);
    /// @}
    /// Topic: background volume, "db/menu/system/accessibility/voiceguide/tv_bg_volume".
    /// @{
    static int RegisterBackgroundVolumeCallback(ZOLIntCallback callback, void* userData);
    static int UnregisterBackgroundVolumeCallback(ZOLIntCallback callback);
    /// @}
    /// Topic: situational hint support, "db/multi-assistant/situational_hint_supported".
    /// @{
    static int RegisterZOLSituationalHintSupportedCallback(ZOLStringCallback callback, void* userData);
    static int UnregisterZOLSituationalHintSupportedCallback(ZOLStringCallback callback);
    /// @}
    /// Topic: assistant language, "db/multi-assistant/zol_language".
    /// @{
    static int RegisterZOLLanguageCallback(ZOLStringCallback callback, void* userData);
    static int UnregisterZOLLanguageCallback(ZOLStringCallback callback);
    /// @}
    /// Topic: default assistant app, "db/multi-assistant/default_assistant_appid".
    /// @{
    static int RegisterZOLDefaultAssistantAppidCallback(ZOLStringCallback callback, void* userData);
    static int UnregisterZOLDefaultAssistantAppidCallback(ZOLStringCallback callback);
    /// @}
    /// Topic: assistant activated, "db/multi-assistant/activated".
    /// @{
    static int RegisterZOLActivatedCallback(ZOLBoolCallback callback, void* userData);
    static int UnregisterZOLActivatedCallback(ZOLBoolCallback callback);
    /// @}
    /// Topic: multiple-assistant mode, "db/multi-assistant/multiple_mode".
    /// @{
    static int RegisterZOLMultipleModeCallback(ZOLBoolCallback callback, void* userData);
    static int UnregisterZOLMultipleModeCallback(ZOLBoolCallback callback);
    /// @}
};

/// Removes a callback from a watcher; the unregister operations are made of it.
/// @param watcher   The watcher, or null.
/// @param callback  The function, as an untyped pointer.
/// @param keyLock   The lock of the watcher's topic. It is not taken, and the caller must not hold it.
/// @return 0 for a null watcher, otherwise the result of VconfCallbackGenerator::UnregisterCallback.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): an exported name that callers link against
ZOL_API int __unRegisterVconfCallback(VconfCallbackGenerator* watcher, void* callback, std::mutex& keyLock);

#endif
