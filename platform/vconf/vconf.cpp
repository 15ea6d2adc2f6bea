// The desk's key-value store: the functions of vconf.h on top of the store's two halves.

#include <vconf.h>

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <forward_list>
#include <mutex>
#include <new>
#include <string>
#include <string_view>

#include "delivery.h"
#include "log.h"
#include "store.h"

namespace vconf {
namespace {

// All that a process holds of the store. Never destroyed: threads may use the store until the very end of the process.
//
// Locks, in the order in which they are taken: `openLock`, which lets one thread open a half, then the lock of
// `delivery`. Reading and writing take neither once a half is open. LMDB's writer lock is taken last of all.
struct Process {
    std::array<std::atomic<Store*>, 2> halves{};
    std::mutex openLock;
    Delivery delivery;
    // All that were ever opened. A child must neither use nor close what its parent opened: LMDB would clear the
    // parent's entries in the table of readers. It opens the store anew, and what it inherited is only kept here.
    std::forward_list<Store*> opened;

    Process()
    {
        if (pthread_atfork(prepareFork, parentOfFork, childOfFork) != 0) {
            throw std::bad_alloc();
        }
    }

    static void prepareFork();
    static void parentOfFork();
    static void childOfFork();
};

Process& process()
{
    static auto* const the = new Process;
    return *the;
}

// When the library is loaded, before a thread can fork beside another one's first call, and before the library's users
// set up their handlers: what is set up first is called last, and they call with their locks held. Without memory the
// first call tries again.
[[gnu::constructor]] void makeProcessEarly() noexcept
{
    try {
        process();
    } catch (const std::bad_alloc&) {
        return;
    }
}

void Process::prepareFork()
{
    process().openLock.lock();
    process().delivery.lockForFork();
}

void Process::parentOfFork()
{
    process().delivery.unlockInParent();
    process().openLock.unlock();
}

void Process::childOfFork()
{
    for (auto& half : process().halves) {
        if (Store* store = half.exchange(nullptr)) {
            store->closeSignalInChild();
        }
    }
    process().delivery.resetInChild();
    process().openLock.unlock();
}

Store& storeOf(Lifetime lifetime)
{
    auto& half = process().halves[static_cast<size_t>(lifetime)];
    Store* store = half.load(std::memory_order_acquire);
    if (store == nullptr) {
        const std::lock_guard<std::mutex> guard(process().openLock);
        store = half.load(std::memory_order_relaxed);
        if (store == nullptr) {
            std::forward_list<Store*> place(1);  // made first: what is open has to be remembered
            store = place.front() = new Store(lifetime);
            process().opened.splice_after(process().opened.before_begin(), place);
            half.store(store, std::memory_order_release);
        }
    }
    return *store;
}

std::string_view checkedKey(const char* key)
{
    if (key == nullptr) {
        throw Error("the key is a null pointer; give a key name");
    }
    const std::string_view name(key, strnlen(key, kMaxKeySize + 1));
    if (name.empty()) {
        throw Error("the key is empty; give a key name of 1 to 511 bytes");
    }
    if (name.size() > kMaxKeySize) {
        throw Error("the key " + std::string(name.substr(0, 40)) + "... is longer than 511 bytes");
    }
    return name;
}

template <class Pointer>
Pointer checkedPointer(Pointer pointer, const char* what, std::string_view key)
{
    if (pointer == nullptr) {
        throw Error(std::string(what) + " for key " + std::string(key) + " is a null pointer");
    }
    return pointer;
}

const char* nameOf(int type)
{
    switch (type) {
        case VCONF_TYPE_STRING:
            return "a string";
        case VCONF_TYPE_INT:
            return "an integer";
        case VCONF_TYPE_BOOL:
            return "a boolean";
        default:
            return "something unknown";
    }
}

// A thread that is cancelled in the middle of a call would leave LMDB's locks taken.
class CancellationOff {
public:
    CancellationOff() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~CancellationOff() { pthread_setcancelstate(before_, nullptr); }
    CancellationOff(const CancellationOff&) = delete;
    CancellationOff& operator=(const CancellationOff&) = delete;

private:
    int before_ = 0;
};

// Runs the body of a function of vconf.h and turns what it throws into one line in the log and a failing result.
template <class Body, class Result>
Result guarded(const char* function, Result failed, Body body)
{
    const CancellationOff whole;
    try {
        return body();
    } catch (const std::bad_alloc&) {
        logLine(function, "out of memory");
    } catch (const std::exception& error) {
        logLine(function, error.what());
    }
    return failed;
}

bool find(const ReadTransaction& transaction, std::string_view key, int type, Record& record)
{
    if (!transaction.value(key, record)) {
        return false;
    }
    if (record.type != type) {
        throw Error("key " + std::string(key) + " holds " + nameOf(record.type) + ", not " + nameOf(type));
    }
    return true;
}

int getNumber(const char* function, const char* key, int type, int* value)
{
    return guarded(function, -1, [=] {
        const std::string_view name = checkedKey(key);
        checkedPointer(value, "the value's place", name);
        const ReadTransaction transaction(storeOf(lifetimeOf(name)));
        Record record;
        if (!find(transaction, name, type, record)) {
            return -1;
        }
        if (record.data.size() != sizeof *value) {
            throw Error("key " + std::string(name) + " is damaged; write it anew");
        }
        std::memcpy(value, record.data.data(), sizeof *value);
        return 0;
    });
}

int setNumber(const char* function, const char* key, int type, int value)
{
    return guarded(function, -1, [=] {
        const std::string_view name = checkedKey(key);
        std::array<char, sizeof value> bytes{};
        std::memcpy(bytes.data(), &value, sizeof value);
        storeOf(lifetimeOf(name)).write(name, type, {bytes.data(), bytes.size()});
        return 0;
    });
}

}  // namespace
}  // namespace vconf

using namespace vconf;

char* vconf_get_str(const char* key)
{
    return guarded(__func__, static_cast<char*>(nullptr), [=]() -> char* {
        const std::string_view name = checkedKey(key);
        const ReadTransaction transaction(storeOf(lifetimeOf(name)));
        Record record;
        if (!find(transaction, name, VCONF_TYPE_STRING, record)) {
            return nullptr;
        }
        auto* copy = static_cast<char*>(std::malloc(record.data.size() + 1));
        if (copy == nullptr) {
            throw std::bad_alloc();
        }
        std::memcpy(copy, record.data.data(), record.data.size());
        copy[record.data.size()] = '\0';
        return copy;
    });
}

int vconf_set_str(const char* key, const char* value)
{
    return guarded(__func__, -1, [=] {
        const std::string_view name = checkedKey(key);
        const std::string_view text(checkedPointer(value, "the text", name));
        if (text.size() > kMaxTextSize) {
            throw Error("the text for key " + std::string(name) + " is longer than 64 MiB");
        }
        storeOf(lifetimeOf(name)).write(name, VCONF_TYPE_STRING, text);
        return 0;
    });
}

int vconf_get_int(const char* key, int* value) { return getNumber(__func__, key, VCONF_TYPE_INT, value); }
int vconf_set_int(const char* key, int value) { return setNumber(__func__, key, VCONF_TYPE_INT, value); }
int vconf_get_bool(const char* key, int* value) { return getNumber(__func__, key, VCONF_TYPE_BOOL, value); }
int vconf_set_bool(const char* key, int value) { return setNumber(__func__, key, VCONF_TYPE_BOOL, value != 0 ? 1 : 0); }

int vconf_notify_key_changed(const char* key, vconf_callback_fn handler, void* user_data)
{
    return guarded(__func__, -1, [=] {
        const std::string_view name = checkedKey(key);
        checkedPointer(handler, "the handler", name);
        const Lifetime lifetime = lifetimeOf(name);
        Store& store = storeOf(lifetime);  // before the delivery's lock is taken
        process().delivery.subscribe(store, lifetime, name, handler, user_data);
        return 0;
    });
}

int vconf_ignore_key_changed(const char* key, vconf_callback_fn handler)
{
    return guarded(__func__, -1, [=] {
        const std::string_view name = checkedKey(key);
        if (!process().delivery.unsubscribe(name, checkedPointer(handler, "the handler", name))) {
            throw Error("key " + std::string(name) + " has no such handler");
        }
        return 0;
    });
}
