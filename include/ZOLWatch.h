/// @file
/// Watches: any callable is called when the TV's system data changes, for as long as an object lives. For C++17; all of
/// it is in this header, over the operations of ZOLSystemDataNotify.
#ifndef ZOL_WATCH_H
#define ZOL_WATCH_H

#if __cplusplus < 201703L
#error "ZOLWatch.h needs C++17; ZOLSystemDataNotify.h does not"
#elif !defined(__cpp_exceptions)
#error "ZOLWatch.h needs exceptions; ZOLSystemDataNotify.h can be used with -fno-exceptions"
#else

#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <exception>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

#include "ZOLSettings.h"
#include "ZOLSystemDataNotify.h"

/// A watch of one topic. The function named after the topic makes it:
/// @code
/// ZOLWatch language = ZOLWatch::ZOLLanguage([](const std::string& value) { print(value); });
/// if (!language) ...  // refused; the log tells why
/// @endcode
///
/// **Hold no lock that a callable takes while you make or end a watch.** Making and ending wait until the running
/// callables of the topic have returned, so with such a lock the program hangs. Move the watch out under the lock, and
/// let it end after unlocking:
/// @code
/// void Panel::stop()
/// {
///     ZOLWatch ended;
///     {
///         const std::lock_guard<std::mutex> guard(mutex_);  // which the callable takes, too
///         ended = std::move(language_);
///     }
/// }  // the watch ends here
/// @endcode
///
/// An app with a main loop needs no lock: its watches only wake the loop, which then reads what it shows. With GLib
/// (examples/glib_main_loop.cpp is a whole program):
/// @code
/// const auto wake = [](const auto&) { if (!woken.exchange(true)) g_idle_add(show, nullptr); };
/// const ZOLWatch watches[] = {ZOLWatch::ZOLActivated(wake), ZOLWatch::ZOLLanguage(wake)};
///
/// gboolean show(gpointer)
/// {
///     woken = false;  // before the reads, so that a later change wakes the loop again
///     const bool active = ZOLSystemData::GetZOLActivated();
///     ...
/// @endcode
/// Where every event counts (web apps, reset counters), let the callable queue the value.
///
/// Calls: a callable is called once for every write of the key after the watch was made, on the thread on which vconf
/// delivers changes. Watches of a topic are called one after another, first made first. An exception is logged by the
/// library, and the others are still called. A callable must not end its thread.
///
/// Result: a watch is false when the library refused it, or when the callable is a null pointer or an empty
/// std::function. The next watch of the topic tries again. Making a watch may throw std::bad_alloc, or what moving the
/// callable throws.
///
/// End: a watch ends with its object, when another one is assigned to it, or at end(). It can be moved, not copied.
/// After the end the callable will not run again, and it is destroyed. What it has posted elsewhere, such as a call on
/// a main loop, may still run.
///
/// In a callable: you may make and end watches, also its own one; for those of its topic nothing waits. A new watch is
/// called from the next event on. A callable that ends its own watch is destroyed when it returns.
///
/// Neither a callable nor a plain callback may wait for a thread that makes or ends a watch of the topic. Plain
/// callbacks must not make or end watches of their topic. Each program and shared object has its own watches, and a
/// callable must not make or end those of its topic in another one. If vconf delivers on several threads, callables of
/// different topics must not make or end watches of each other's topics in a cycle.
///
/// Threads: any thread may make, move and end watches, but two threads must not use one object at once. A callable may
/// run before its watch has been assigned, so a lock must protect an object that a callable ends and others use. A
/// thread must not be cancelled while it makes or ends a watch.
///
/// Plugins: a topic is unsubscribed when its last watch ends outside its callables. If it ends in one, the topic is
/// unsubscribed when the next watch ends outside. So end a plugin's watches outside before you unload it.
///
/// Processes: after fork() the child must not make watches if the parent has made any. Ending the parent's watches does
/// nothing there, so the child may call exit().
class ZOLWatch {
public:
    /// Ends the watch; without one it does nothing.
    void end() noexcept { entry_.reset(); }

    /// @return whether this is a watch that was made and has not been ended.
    explicit operator bool() const noexcept { return entry_ != nullptr; }

// Hidden here and below, so that every program and shared object has its own topics: shared symbols would keep a plugin
// from being unloaded, and mix versions of this header.
#define ZOL_WATCH_ROW_WATCH(name, Value)                                                            \
    template <class Callable>                                                                       \
    [[nodiscard, gnu::visibility("hidden")]] static ZOLWatch name(Callable callable)                \
    {                                                                                               \
        return TopicOf<Value, ZOLSystemDataNotify::Register##name##Callback,                        \
                       ZOLSystemDataNotify::Unregister##name##Callback>::make(std::move(callable)); \
    }
#define ZOL_WATCH_VALUE_BOOL bool
#define ZOL_WATCH_VALUE_INT int
#define ZOL_WATCH_VALUE_STRING std::string
#define ZOL_WATCH_ROW_(name, Value)
#define ZOL_WATCH_ROW(name, type, read, write, watch, key, description) \
    ZOL_WATCH_ROW_##watch(name, ZOL_WATCH_VALUE_##type)
    /// Makes a watch of a topic. ZOLSettings.h lists the topics: its rows that have WATCH.
    /// @param callable  Takes the new value: a `bool`, an `int` or a `const std::string&`, by the row's type. It may
    ///                  return anything. It is moved into the watch.
    /// @{
    ZOL_SETTINGS(ZOL_WATCH_ROW)
    /// @}
#undef ZOL_WATCH_ROW
#undef ZOL_WATCH_ROW_
#undef ZOL_WATCH_ROW_WATCH
#undef ZOL_WATCH_VALUE_STRING
#undef ZOL_WATCH_VALUE_INT
#undef ZOL_WATCH_VALUE_BOOL

private:
    struct Entry;
    using List = std::list<std::shared_ptr<Entry>>;

    // A watch in its topic's list, with its callable.
    struct Entry {
        virtual ~Entry() = default;
        virtual void call(const void* value) = 0;
        virtual void end() noexcept = 0;
        const pid_t process = getpid();
        List::iterator place;
    };
    struct End {
        void operator()(Entry* entry) const noexcept
        {
            // In a child of fork() the locks may be held for ever, by threads that only the parent has.
            if (entry->process == getpid()) {
                entry->end();
            }
        }
    };

    // The watches of a topic, behind one callback of the library.
    //
    //   subscription_  Protects subscribed_. Held while the library registers and unregisters the callback, so only one
    //                  thread at a time makes the first watch or ends the last one.
    //   calls_         Protects watches_. Held while callables run, so whoever takes it waits for them.
    //
    // Order: subscription_, the library's locks, calls_. A callable runs with calls_ held, so it takes neither lock to
    // make or end watches of its own topic. The topic is subscribed then and stays so: it is unsubscribed only while
    // the list is empty, and with an empty list no callable runs.
    class __attribute__((visibility("hidden"))) Topic {
    public:
        Topic(int (*subscribe)(), int (*unsubscribe)()) : subscribe_(subscribe), unsubscribe_(unsubscribe) {}

        // Moves the only entry of a list to the end of the topic's list. Returns false if the library refuses.
        bool add(List& made)
        {
            made.front()->place = made.begin();
            if (isDelivering()) {
                watches_.splice(watches_.end(), made);
                return true;
            }
            const std::lock_guard<std::mutex> subscription(subscription_);
            if (!subscribed_) {
                subscribed_ = subscribe_() == 1;
            }
            if (subscribed_) {
                const std::lock_guard<std::mutex> calls(calls_);
                watches_.splice(watches_.end(), made);
            }
            return subscribed_;
        }

        void end(List::iterator watch) noexcept
        {
            if (isDelivering()) {
                watch->reset();  // deliver() removes the empty entry
                return;
            }
            List ended;  // destroyed without the locks, because a callable's destructor may end other watches
            const std::lock_guard<std::mutex> subscription(subscription_);
            std::unique_lock<std::mutex> calls(calls_);
            ended.splice(ended.end(), watches_, watch);
            const bool wasLast = watches_.empty();
            calls.unlock();
            if (wasLast) {
                unsubscribe_();
                subscribed_ = false;  // also if vconf refused: the library has removed the callback all the same
            }
        }

        void deliver(const void* value)
        {
            const std::lock_guard<std::mutex> calls(calls_);
            deliverer_ = std::this_thread::get_id();
            std::exception_ptr thrown;
            List::iterator next = watches_.begin();
            for (std::size_t left = watches_.size(); left > 0; --left) {  // new watches wait for the next event
                const std::shared_ptr<Entry> entry = *next;               // outlives its end in its own callable
                ++next;
                if (entry == nullptr) {
                    continue;
                }
                try {
                    entry->call(value);
                } catch (...) {
                    thrown = std::current_exception();
                }
            }
            watches_.remove(nullptr);
            deliverer_ = std::thread::id();
            if (thrown != nullptr) {
                std::rethrow_exception(thrown);
            }
        }

    private:
        // Whether a callable of the topic is running on this thread.
        bool isDelivering() const { return deliverer_ == std::this_thread::get_id(); }

        int (*const subscribe_)();
        int (*const unsubscribe_)();
        std::mutex subscription_;
        bool subscribed_ = false;
        std::mutex calls_;
        List watches_;                                               // in the order of making
        std::atomic<std::thread::id> deliverer_{std::thread::id()};  // the thread that runs callables, if any
    };

    template <class Value, auto add, auto remove>
    struct __attribute__((visibility("hidden"))) TopicOf {
        static void callback(Value value, void* /*userData*/) { topic().deliver(&value); }
        static int subscribe() { return add(callback, nullptr); }
        static int unsubscribe() { return remove(callback); }
        // Never destroyed, since the library may call until the process ends; not on the heap, where an unloaded
        // plugin would leave it behind.
        static Topic& topic()
        {
            alignas(Topic) static unsigned char place[sizeof(Topic)];
            static Topic& made = *new (place) Topic(subscribe, unsubscribe);
            return made;
        }

        template <class Callable>
        struct EntryOf final : Entry {
            explicit EntryOf(Callable&& from) : callable(std::move(from)) {}
            void call(const void* value) override { static_cast<void>(callable(*static_cast<const Value*>(value))); }
            void end() noexcept override { topic().end(place); }
            Callable callable;
        };

        template <class Callable>
        static ZOLWatch make(Callable callable)
        {
            static_assert(std::is_invocable_v<Callable&, const Value&>, "a watch's callable takes the topic's value");
            ZOLWatch watch;
            if constexpr (std::is_assignable_v<Callable&, std::nullptr_t> && std::is_constructible_v<bool, Callable&>) {
                if (!callable) {
                    return watch;
                }
            }
            // Not std::make_shared, which has a symbol that keeps a plugin from being unloaded.
            List made{std::shared_ptr<Entry>(new EntryOf<Callable>(std::move(callable)))};
            Entry* const entry = made.front().get();
            if (topic().add(made)) {
                watch.entry_.reset(entry);
            }
            return watch;
        }
    };

    std::unique_ptr<Entry, End> entry_;  // which the topic's list owns
};

#endif
#endif
