/// @file
/// Being told when the TV's system data changes, for C++ (C++11 or later).
#ifndef ZOL_SYSTEM_DATA_NOTIFY_H
#define ZOL_SYSTEM_DATA_NOTIFY_H

#include <mutex>
#include <string>

#include "ZOLExport.h"

class VconfCallbackGenerator;

/// A callback takes the new value, then the user data given with the registration.
/// @{
using ZOLBoolCallback = void (*)(bool value, void* userData);
using ZOLIntCallback = void (*)(int value, void* userData);
using ZOLStringCallback = void (*)(std::string value, void* userData);
/// @}

/// Register and unregister operations for the thirteen topics that can be watched. Each topic is one vconf key. Each
/// operation has a flat twin in capi-zol-tv.h, called ZOLSystemDataNotify plus its name.
///
/// Register operations return 1 when the callback is registered, also when it already was (it stays registered once,
/// with its first user data), and 0 for a null callback, when vconf refuses the subscription, and when memory runs out.
///
/// Unregister operations return 1 when the callback was removed and, if it was the topic's last, vconf accepted the
/// end of the subscription. They return 0 when the callback is null or not registered, and when vconf refused; then
/// the callback is gone all the same.
///
/// Which thread calls back: the one on which vconf delivers changes, never the one that registers. The callbacks of a
/// topic are called one after another, first registered first, once for every write of the key, also one that does
/// not change the value. A string comes by value and is the callback's own. A boolean is true exactly for a stored 1.
/// A string event without a text calls nobody.
///
/// What a callback may do: use every getter and setter, and register and unregister on every other topic. It must not
/// register or unregister on its own topic: that waits for the delivery that it is part of, for ever. Where vconf
/// delivers on several threads, topics must not do so on each other in a ring: while the callbacks of a topic run, a
/// registration on it waits for them, so callbacks that do it at the same time would wait for each other. With a vconf
/// that delivers on one thread, as the desk's does, this cannot happen. An exception that leaves a callback is caught
/// and logged, and the next callback is called.
///
/// When user data may be freed: as soon as the unregister operation has returned, on whichever thread. The callback
/// then does not run and will not run again.
///
/// Threads: every operation may be called from any thread. A thread may end in a callback, or be cancelled there; the
/// callbacks after it are not called for that change. Errors are reported by results and in the log under the tag
/// "libZOL"; nothing is thrown but std::bad_alloc when a registration needs a new watcher and finds no memory.
///
/// Processes: after fork() the child may read and write. It must not use these operations if the parent has used any
/// of them before. To watch in a child, fork before the first registration or call exec in the child.
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
