// The desk platform's key-value store: the functions of vconf.h on top of the persistent and the volatile store.

#include <vconf.h>

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "delivery.h"
#include "store.h"

namespace vconf {
namespace {

// What a process has of the stores. Never destroyed, because threads may use them until the process exits.
//
// Locks, in the order in which they are taken: the lock of `delivery`, then a store's, then LMDB's writer lock.
//
// A child of fork() creates a new one, locks included, and leaves its parent's alone: LMDB would clear the parent's
// entries in the table of readers.
struct Process {
    explicit Process(const Process* from) : inherited(from) {}

    std::array<Store, 2> stores{Store(Lifetime::Persistent), Store(Lifetime::Volatile)};
    Delivery delivery;
    bool ofParent = false;
    const Process* const inherited;  // so that leak checkers still find it
};

std::atomic<Process*> current{nullptr};

void leaveToParent()
{
    Process* const made = current;
    if (made != nullptr) {
        made->ofParent = true;
        for (Store& store : made->stores) {
            store.closeSignal();
        }
    }
}

const bool forksAreSeen = pthread_atfork(nullptr, nullptr, leaveToParent) == 0;

// Without a lock, which a child forked by another thread would find taken.
Process& process()
{
    Process* known = current;
    if (known == nullptr || known->ofParent) {
        if (!forksAreSeen) {
            throw std::bad_alloc();
        }
        auto made = std::make_unique<Process>(known);
        if (current.compare_exchange_strong(known, made.get())) {
            known = made.release();
        }
    }
    return *known;
}

Store& storeOf(Lifetime lifetime) { return process().stores[static_cast<size_t>(lifetime)]; }

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
    constexpr std::array<const char*, 3> kNames = {"a boolean", "an integer", "a string"};  // as vconf.h numbers them
    return type >= 0 && type < 3 ? kNames.at(static_cast<size_t>(type)) : "something unknown";
}

// Runs the body of a function of vconf.h and turns what it throws into one line in the log and a failing result. The
// thread is not cancelled meanwhile, because that would leave LMDB's locks taken.
template <class Body, class Result>
Result guarded(const char* function, Result failed, Body body)
{
    Result result = failed;
    int cancellation = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancellation);
    try {
        result = body();
    } catch (const std::bad_alloc&) {
        logLine(function, "out of memory");
    } catch (const std::exception& error) {
        logLine(function, error.what());
    }
    pthread_setcancelstate(cancellation, nullptr);
    return result;
}

bool find(const ReadTransaction& transaction, std::string_view key, int type, Record& record)
{
    const bool found = transaction.value(key, record);
    if (found && record.type != type) {
        throw Error("key " + std::string(key) + " holds " + nameOf(record.type) + ", not " + nameOf(type));
    }
    return found;
}

int getNumber(const char* function, const char* key, int type, int* value)
{
    return guarded(function, -1, [=] {
        const std::string_view name = checkedKey(key);
        checkedPointer(value, "the pointer for the value", name);
        const ReadTransaction transaction(storeOf(lifetimeOf(name)));
        Record record;
        if (!find(transaction, name, type, record)) {
            return -1;
        }
        if (record.data.size() != sizeof *value) {
            throw Error("key " + std::string(name) + " is damaged; write it again");
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
        if (record.data.find('\0') != std::string_view::npos) {
            throw Error("key " + std::string(name) + " is damaged; write it again");
        }
        char* const copy = strndup(record.data.data(), record.data.size());
        if (copy == nullptr) {
            throw std::bad_alloc();
        }
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
        process().delivery.subscribe(storeOf(lifetime), lifetime, name, handler, user_data);
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

/// For tools on a desk, so not in vconf.h: the folder of the key's store, as a copy from malloc, or null if it cannot
/// be used.
extern "C" char* vconf_desk_folder(const char* key)
{
    return guarded(__func__, static_cast<char*>(nullptr),
                   [=] { return strdup(ReadTransaction(storeOf(lifetimeOf(checkedKey(key)))).folder().c_str()); });
}
