#include "ZOLSystemDataNotify.h"

#include <pthread.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
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

    // The slot, protected by the key lock. The watcher is not destroyed while operations are inside it; the unregister
    // operation that finds it in use leaves its name, so that the last one out looks again.
    int inside = 0;
    std::mutex lock{};
    VconfCallbackGenerator* watcher = nullptr;
    const char* releaseFor = nullptr;
};

// Never destroyed, like the watchers in it: callbacks may still come while the process ends.
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

// The row of a key, which is named by the very constant that stands in the table.
Topic& topicOf(const char* path)
{
    auto* const row =
        std::find_if(std::begin(topics), std::end(topics), [=](const Topic& topic) { return topic.key == path; });
    if (row == std::end(topics)) {
        std::abort();  // the operations of a key were added without its row above
    }
    return *row;
}

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

void startAfreshInChild()
{
    for (Topic& topic : topics) {
        topic.inside = 0;  // the threads that were inside are not in the child
    }
    unlockAll();
}

// Without this a child could find a key lock taken for ever by a thread that it does not have. It is set up when the
// library is loaded, before any thread can fork beside another one's first operation; and after the census, in the
// order of the locks: what is set up last is called first.
[[gnu::constructor]] void setUpFork()
{
    WatcherCensus::of(nullptr);  // whichever; the first use sets all of them up
    if (pthread_atfork(lockAll, unlockAll, startAfreshInChild) != 0) {
        std::abort();  // out of memory before the program has even begun
    }
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

// Leaves the watcher at the end of an operation, also when the thread is cancelled.
class Leaving {
public:
    /// @param releaseFor  The operation that asks for a release, or null.
    Leaving(Topic& topic, const char* releaseFor) : topic_(topic), releaseFor_(releaseFor) {}
    ~Leaving()
    {
        const std::lock_guard<std::mutex> guard(topic_.lock);
        --topic_.inside;
        if (releaseFor_ != nullptr) {
            topic_.releaseFor = releaseFor_;
        }
        releaseIfWanted(topic_);
    }
    Leaving(const Leaving&) = delete;
    Leaving& operator=(const Leaving&) = delete;

private:
    Topic& topic_;
    const char* releaseFor_;
};

template <class Callback>
void* untyped(Callback callback)
{
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): a watcher keeps callbacks without their types
    return reinterpret_cast<void*>(callback);
}

template <class Callback>
int add(const char* path, const char* operation, Callback callback, void* userData)
{
    Topic& topic = topicOf(path);
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
    const Leaving leaving(topic, nullptr);
    return watcher->RegisterCallback(untyped(callback), userData);
}

template <class Callback>
int remove(const char* path, const char* operation, Callback callback)
{
    Topic& topic = topicOf(path);
    VconfCallbackGenerator* watcher = nullptr;
    {
        const std::lock_guard<std::mutex> guard(topic.lock);
        watcher = topic.watcher;
        ++topic.inside;
    }
    const Leaving leaving(topic, operation);
    return __unRegisterVconfCallback(watcher, untyped(callback), topic.lock);
}

}  // namespace

int __unRegisterVconfCallback(VconfCallbackGenerator* watcher, void* callback, std::mutex& /*keyLock*/)
{
    return watcher == nullptr ? 0 : watcher->UnregisterCallback(callback);
}

int ZOLSystemDataNotify::RegisterZOLConcurrentAppListCallback(ZOLStringCallback callback, void* userData)
{
    return add(key::ZOLConcurrentAppList, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterZOLConcurrentAppListCallback(ZOLStringCallback callback)
{
    return remove(key::ZOLConcurrentAppList, __func__, callback);
}
int ZOLSystemDataNotify::RegisterDravixResetCountCallback(ZOLIntCallback callback, void* userData)
{
    return add(key::DravixResetCount, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterDravixResetCountCallback(ZOLIntCallback callback)
{
    return remove(key::DravixResetCount, __func__, callback);
}
int ZOLSystemDataNotify::RegisterServiceResetCountCallback(ZOLIntCallback callback, void* userData)
{
    return add(key::ServiceResetCount, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterServiceResetCountCallback(ZOLIntCallback callback)
{
    return remove(key::ServiceResetCount, __func__, callback);
}
int ZOLSystemDataNotify::RegisterFactoryResetCountCallback(ZOLIntCallback callback, void* userData)
{
    return add(key::FactoryResetCount, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterFactoryResetCountCallback(ZOLIntCallback callback)
{
    return remove(key::FactoryResetCount, __func__, callback);
}
int ZOLSystemDataNotify::RegisterWebAppUninstallCallback(ZOLStringCallback callback, void* userData)
{
    return add(key::WebAppUninstall, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterWebAppUninstallCallback(ZOLStringCallback callback)
{
    return remove(key::WebAppUninstall, __func__, callback);
}
int ZOLSystemDataNotify::RegisterWebAppInstallCallback(ZOLStringCallback callback, void* userData)
{
    return add(key::WebAppInstall, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterWebAppInstallCallback(ZOLStringCallback callback)
{
    return remove(key::WebAppInstall, __func__, callback);
}
int ZOLSystemDataNotify::RegisterOSDCountryCallback(ZOLStringCallback callback, void* userData)
{
    return add(key::OSDCountry, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterOSDCountryCallback(ZOLStringCallback callback)
{
    return remove(key::OSDCountry, __func__, callback);
}
int ZOLSystemDataNotify::RegisterBackgroundVolumeCallback(ZOLIntCallback callback, void* userData)
{
    return add(key::BackgroundVolume, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterBackgroundVolumeCallback(ZOLIntCallback callback)
{
    return remove(key::BackgroundVolume, __func__, callback);
}
int ZOLSystemDataNotify::RegisterZOLSituationalHintSupportedCallback(ZOLStringCallback callback, void* userData)
{
    return add(key::ZOLSituationalHintSupported, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterZOLSituationalHintSupportedCallback(ZOLStringCallback callback)
{
    return remove(key::ZOLSituationalHintSupported, __func__, callback);
}
int ZOLSystemDataNotify::RegisterZOLLanguageCallback(ZOLStringCallback callback, void* userData)
{
    return add(key::ZOLLanguage, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterZOLLanguageCallback(ZOLStringCallback callback)
{
    return remove(key::ZOLLanguage, __func__, callback);
}
int ZOLSystemDataNotify::RegisterZOLDefaultAssistantAppidCallback(ZOLStringCallback callback, void* userData)
{
    return add(key::ZOLDefaultAssistantAppid, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterZOLDefaultAssistantAppidCallback(ZOLStringCallback callback)
{
    return remove(key::ZOLDefaultAssistantAppid, __func__, callback);
}
int ZOLSystemDataNotify::RegisterZOLActivatedCallback(ZOLBoolCallback callback, void* userData)
{
    return add(key::ZOLActivated, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterZOLActivatedCallback(ZOLBoolCallback callback)
{
    return remove(key::ZOLActivated, __func__, callback);
}
int ZOLSystemDataNotify::RegisterZOLMultipleModeCallback(ZOLBoolCallback callback, void* userData)
{
    return add(key::ZOLMultipleMode, __func__, callback, userData);
}
int ZOLSystemDataNotify::UnregisterZOLMultipleModeCallback(ZOLBoolCallback callback)
{
    return remove(key::ZOLMultipleMode, __func__, callback);
}
