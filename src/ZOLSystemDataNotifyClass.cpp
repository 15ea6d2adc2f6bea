#include "ZOLSystemDataNotify.h"

#include <pthread.h>

#include <mutex>

#include "VconfCallback/WatcherCensus.h"
#include "VconfCallbackGenerator.h"
#include "ZOLVconfKeys.h"
#include "log.h"

// The locks are described in VconfCallback/WatcherCensus.h.

namespace key = ZOLVconfKey;

namespace {

// What can be watched, and the slot of its watcher.
struct Topic {
    const char* key;
    DataValueType type;

    std::mutex lock{};  // the key lock, which protects the rest
    VconfCallbackGenerator* watcher = nullptr;
    int inside = 0;                    // operations that use the watcher; it is not destroyed meanwhile
    const char* releaseFor = nullptr;  // the unregister operation that found it in use and wants it checked once more
};

// Never destroyed, like the watchers in it: callbacks may still come while the process ends.
enum TopicName : int {
    ZOLConcurrentAppList,
    DravixResetCount,
    ServiceResetCount,
    FactoryResetCount,
    WebAppUninstall,
    WebAppInstall,
    OSDCountry,
    BackgroundVolume,
    ZOLSituationalHintSupported,
    ZOLLanguage,
    ZOLDefaultAssistantAppid,
    ZOLActivated,
    ZOLMultipleMode,
};
Topic topics[] = {
    {key::ZOLConcurrentAppList, DATA_TYPE_STRING},
    {key::DravixResetCount, DATA_TYPE_INT},
    {key::ServiceResetCount, DATA_TYPE_INT},
    {key::FactoryResetCount, DATA_TYPE_INT},
    {key::WebAppUninstall, DATA_TYPE_STRING},
    {key::WebAppInstall, DATA_TYPE_STRING},
    {key::OSDCountry, DATA_TYPE_STRING},
    {key::BackgroundVolume, DATA_TYPE_INT},
    {key::ZOLSituationalHintSupported, DATA_TYPE_STRING},
    {key::ZOLLanguage, DATA_TYPE_STRING},
    {key::ZOLDefaultAssistantAppid, DATA_TYPE_STRING},
    {key::ZOLActivated, DATA_TYPE_BOOL},
    {key::ZOLMultipleMode, DATA_TYPE_BOOL},
};

void lockAll()
{
    for (Topic& topic : topics) {
        topic.lock.lock();
    }
}

void unlockAll()
{
    for (Topic& topic : topics) {
        topic.lock.unlock();
    }
}

// Without this a child could find a key lock taken for ever by a thread that it does not have. It goes before the
// census, in the order of the locks: what is set up last is called first.
void setUpFork()
{
    static const bool done = [] {
        WatcherCensus::instance();
        pthread_atfork(lockAll, unlockAll, [] {
            for (Topic& topic : topics) {
                topic.inside = 0;
                topic.releaseFor = nullptr;
            }
            unlockAll();
        });
        return true;
    }();
    (void)done;
}

// Releases a watcher that stopped watching, on behalf of an unregister operation. The last operation to leave the
// watcher does it; the key lock is held.
void releaseIfWanted(Topic& topic)
{
    if (topic.inside > 0) {
        return;
    }
    if (topic.releaseFor != nullptr && topic.watcher != nullptr && !topic.watcher->IsExistVconfCallback()) {
        dlog_print(ZOL_LINE_OF(topic.releaseFor, "Remove callbackGenerator"));
        delete topic.watcher;
        topic.watcher = nullptr;
    }
    topic.releaseFor = nullptr;
}

template <class Callback>
int add(TopicName name, const char* operation, Callback callback, void* userData)
{
    setUpFork();
    Topic& topic = topics[name];
    VconfCallbackGenerator* watcher = nullptr;
    {
        const std::lock_guard<std::mutex> guard(topic.lock);
        if (topic.watcher == nullptr) {
            dlog_print(ZOL_LINE_OF(operation, "Create VconfCallbackGenerator : %s"), topic.key);
            topic.watcher = new VconfCallbackGenerator(topic.type, topic.key);
        }
        watcher = topic.watcher;
        ++topic.inside;
    }
    const int result = watcher->RegisterCallback(reinterpret_cast<void*>(callback), userData);

    const std::lock_guard<std::mutex> guard(topic.lock);
    --topic.inside;
    releaseIfWanted(topic);
    return result;
}

template <class Callback>
int remove(TopicName name, const char* operation, Callback callback)
{
    Topic& topic = topics[name];
    VconfCallbackGenerator* watcher = nullptr;
    {
        const std::lock_guard<std::mutex> guard(topic.lock);
        watcher = topic.watcher;
        ++topic.inside;
    }
    const int result = __unRegisterVconfCallback(watcher, reinterpret_cast<void*>(callback), topic.lock);

    const std::lock_guard<std::mutex> guard(topic.lock);
    --topic.inside;
    topic.releaseFor = operation;
    releaseIfWanted(topic);
    return result;
}

}  // namespace

int __unRegisterVconfCallback(VconfCallbackGenerator* watcher, void* callback, std::mutex& /*keyLock*/)
{
    return watcher == nullptr ? 0 : watcher->UnregisterCallback(callback);
}

int ZOLSystemDataNotify::RegisterZOLConcurrentAppListCallback(ZOLStringCallback callback, void* userData)
{
    return add(ZOLConcurrentAppList, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterZOLConcurrentAppListCallback(ZOLStringCallback callback)
{
    return remove(ZOLConcurrentAppList, __func__, callback);
}
int ZOLSystemDataNotify::RegisterDravixResetCountCallback(ZOLIntCallback callback, void* userData)
{
    return add(DravixResetCount, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterDravixResetCountCallback(ZOLIntCallback callback)
{
    return remove(DravixResetCount, __func__, callback);
}
int ZOLSystemDataNotify::RegisterServiceResetCountCallback(ZOLIntCallback callback, void* userData)
{
    return add(ServiceResetCount, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterServiceResetCountCallback(ZOLIntCallback callback)
{
    return remove(ServiceResetCount, __func__, callback);
}
int ZOLSystemDataNotify::RegisterFactoryResetCountCallback(ZOLIntCallback callback, void* userData)
{
    return add(FactoryResetCount, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterFactoryResetCountCallback(ZOLIntCallback callback)
{
    return remove(FactoryResetCount, __func__, callback);
}
int ZOLSystemDataNotify::RegisterWebAppUninstallCallback(ZOLStringCallback callback, void* userData)
{
    return add(WebAppUninstall, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterWebAppUninstallCallback(ZOLStringCallback callback)
{
    return remove(WebAppUninstall, __func__, callback);
}
int ZOLSystemDataNotify::RegisterWebAppInstallCallback(ZOLStringCallback callback, void* userData)
{
    return add(WebAppInstall, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterWebAppInstallCallback(ZOLStringCallback callback)
{
    return remove(WebAppInstall, __func__, callback);
}
int ZOLSystemDataNotify::RegisterOSDCountryCallback(ZOLStringCallback callback, void* userData)
{
    return add(OSDCountry, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterOSDCountryCallback(ZOLStringCallback callback)
{
    return remove(OSDCountry, __func__, callback);
}
int ZOLSystemDataNotify::RegisterBackgroundVolumeCallback(ZOLIntCallback callback, void* userData)
{
    return add(BackgroundVolume, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterBackgroundVolumeCallback(ZOLIntCallback callback)
{
    return remove(BackgroundVolume, __func__, callback);
}
int ZOLSystemDataNotify::RegisterZOLSituationalHintSupportedCallback(ZOLStringCallback callback, void* userData)
{
    return add(ZOLSituationalHintSupported, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterZOLSituationalHintSupportedCallback(ZOLStringCallback callback)
{
    return remove(ZOLSituationalHintSupported, __func__, callback);
}
int ZOLSystemDataNotify::RegisterZOLLanguageCallback(ZOLStringCallback callback, void* userData)
{
    return add(ZOLLanguage, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterZOLLanguageCallback(ZOLStringCallback callback)
{
    return remove(ZOLLanguage, __func__, callback);
}
int ZOLSystemDataNotify::RegisterZOLDefaultAssistantAppidCallback(ZOLStringCallback callback, void* userData)
{
    return add(ZOLDefaultAssistantAppid, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterZOLDefaultAssistantAppidCallback(ZOLStringCallback callback)
{
    return remove(ZOLDefaultAssistantAppid, __func__, callback);
}
int ZOLSystemDataNotify::RegisterZOLActivatedCallback(ZOLBoolCallback callback, void* userData)
{
    return add(ZOLActivated, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterZOLActivatedCallback(ZOLBoolCallback callback)
{
    return remove(ZOLActivated, __func__, callback);
}
int ZOLSystemDataNotify::RegisterZOLMultipleModeCallback(ZOLBoolCallback callback, void* userData)
{
    return add(ZOLMultipleMode, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterZOLMultipleModeCallback(ZOLBoolCallback callback)
{
    return remove(ZOLMultipleMode, __func__, callback);
}
