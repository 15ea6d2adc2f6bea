/// @file
/// Watches: any callable is called when the TV's system data changes, for as long as an object lives. For C++17; all of
/// it is in this header, over the operations of ZOLSystemDataNotify.
#ifndef ZOL_WATCH_H
#define ZOL_WATCH_H

#if __cplusplus < 201703L
#error "ZOLWatch.h needs C++17; ZOLSystemDataNotify.h does not"
#endif

#include <condition_variable>
#include <cstddef>
#include <cstdint>
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

/// A watch of one topic, made by the function named after the topic:
/// @code
/// ZOLWatch language = ZOLWatch::ZOLLanguage([&](const std::string& value) { show(value); });
/// if (!language) ...  // vconf refused; the log tells why
/// @endcode
///
/// The callable is called once for every write of the key after the watch was made, on the thread on which vconf
/// delivers changes. A topic may have any number of watches; they are called one after another, first made first. An
/// exception from a callable does not keep the others from being called; the library logs that there was one. A
/// callable must not end its thread.
///
/// A watch is false when vconf refused it, when the library had no memory, or when the callable is a null pointer or an
/// empty std::function. The next watch of the topic tries again. Making a watch may throw std::bad_alloc, or what
/// moving the callable throws.
///
/// The object can be moved, not copied; what it was moved from is false, as is a default ZOLWatch. The watch ends with
/// the object, when another is assigned to it, or at end(). From then on the callable does not run and will not run
/// again, and it is destroyed. A callable may end its own watch: that returns at once, and the callable is destroyed
/// when it returns.
///
/// A callable may make and end watches, also its own, with the exceptions below. A watch made while callables of its
/// topic run is called from the next event on.
///
/// To avoid deadlocks, a callable, and a plain callback of the same topic, must not wait for a thread that makes or
/// ends a watch of the topic, for example by taking a lock that this thread holds. If vconf delivers on several
/// threads, callables of different topics must not make or end watches of each other's topics in a cycle. Plain
/// callbacks must not make or end watches of their topic. Each program and shared object has its own watches, so a
/// callable must not make or end those of its topic in another shared object either.
///
/// The topic is unsubscribed when its last watch ends. If that watch ends in a callable of the topic, the topic is
/// unsubscribed when its next watch ends outside. A plugin must end its watches outside their callables before it is
/// unloaded.
///
/// Threads: any thread may make, move and end watches, but not two threads the same object at once. A callable may run
/// before its watch has been assigned, so an object that a callable ends and others use needs a lock: move the watch
/// out under the lock, and end it after releasing the lock. A thread must not be cancelled while it makes or ends a
/// watch. After fork() the child must not make or end watches if the parent has made any.
class ZOLWatch {
public:
    /// Ends the watch; without one it does nothing.
    void end() noexcept { entry_.reset(); }

    /// @return whether this is a watch that was made and has not been ended.
    explicit operator bool() const noexcept { return entry_ != nullptr; }

// Hidden here and below, so that every program and shared object has its own topics: shared symbols would keep a plugin
// from being unloaded, and mix versions of this header.
// NOLINTBEGIN(cppcoreguidelines-macro-usage): the operations of a topic are named after it
#define ZOL_WATCH_TOPIC(name, Value)                                                                \
    template <class Callable>                                                                       \
    [[nodiscard, gnu::visibility("hidden")]] static ZOLWatch name(Callable callable)                \
    {                                                                                               \
        return TopicOf<Value, ZOLSystemDataNotify::Register##name##Callback,                        \
                       ZOLSystemDataNotify::Unregister##name##Callback>::make(std::move(callable)); \
    }
#define ZOL_WATCH_VALUE_BOOL bool
#define ZOL_WATCH_VALUE_INT int
#define ZOL_WATCH_VALUE_STRING std::string
#define ZOL_WATCH_ROW_WATCH(name, Value) ZOL_WATCH_TOPIC(name, Value)
#define ZOL_WATCH_ROW_(name, Value)
#define ZOL_WATCH_ROW(name, type, read, write, watch, key, description) \
    ZOL_WATCH_ROW_##watch(name, ZOL_WATCH_VALUE_##type)
    // NOLINTEND(cppcoreguidelines-macro-usage)
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
#undef ZOL_WATCH_TOPIC

private:
    struct Entry;
    using List = std::list<std::shared_ptr<Entry>>;

    struct Entry {
        virtual ~Entry() = default;
        virtual void call(const void* value) = 0;
        virtual void end() noexcept = 0;
        List::iterator place;     // in the topic's list
        std::uint64_t since = 0;  // the delivery during or after which it was made
    };
    struct End {
        void operator()(Entry* entry) const noexcept { entry->end(); }
    };

    // What the watches of a topic share. lock_ protects all of it. It is not held while a callable runs or is
    // destroyed, nor while the library is called, so its holder waits for nothing but changed_. The library never runs
    // a topic's callback on two threads at once.
    class __attribute__((visibility("hidden"))) Topic {
    public:
        explicit Topic(bool (*registration)(bool wanted)) : registration_(registration) {}

        // Moves the one element of the list to the topic's list, and returns whether the topic is subscribed.
        bool add(List& made)
        {
            std::unique_lock<std::mutex> guard(lock_);
            changed_.wait(guard, [this] { return !inLibrary_; });  // which it is while a callable runs
            if (!registered_) {
                callLibrary(guard, true);
            }
            if (registered_) {
                Entry& entry = *made.front();
                entry.place = made.begin();
                entry.since = deliveries_;
                watches_.splice(watches_.end(), made);
            }
            return registered_;
        }

        void end(List::iterator watch) noexcept
        {
            List ended;  // outlives the guard, since a callable's destruction may end other watches
            std::unique_lock<std::mutex> guard(lock_);
            next_ = next_ == watch ? std::next(watch) : next_;
            ended.splice(ended.end(), watches_, watch);
            if (delivering()) {
                return;  // the library would wait for this very delivery
            }
            // A callable that still runs may make a watch, and would miss events if the topic were unsubscribed.
            changed_.wait(
                guard, [&] { return running_ != watch->get() && (!watches_.empty() || thread_ == std::thread::id()); });
            if (watches_.empty() && registered_) {
                callLibrary(guard, false);
            }
        }

        void deliver(const void* value)
        {
            std::exception_ptr thrown;
            std::unique_lock<std::mutex> guard(lock_);
            thread_ = std::this_thread::get_id();
            ++deliveries_;
            next_ = watches_.begin();
            while (next_ != watches_.end() && (*next_)->since < deliveries_) {
                std::shared_ptr<Entry> entry = *next_++;  // its callable may end it
                running_ = entry.get();
                guard.unlock();
                try {
                    entry->call(value);
                } catch (...) {
                    thrown = std::current_exception();
                }
                entry.reset();
                guard.lock();
                running_ = nullptr;
                changed_.notify_all();
            }  // the lock stays from the last one's return on, so who waits finds thread_ empty
            thread_ = std::thread::id();
            if (thrown != nullptr) {
                std::rethrow_exception(thrown);
            }
        }

    private:
        // Whether the caller is, at some depth, one of the topic's callables.
        bool delivering() const { return thread_ == std::this_thread::get_id(); }

        void callLibrary(std::unique_lock<std::mutex>& guard, bool wanted)
        {
            inLibrary_ = true;
            registered_ = false;
            guard.unlock();
            bool succeeded = false;
            try {
                succeeded = registration_(wanted);
            } catch (const std::bad_alloc&) {  // of a registration: the watch is refused
            }
            guard.lock();
            registered_ = succeeded && wanted;
            inLibrary_ = false;
            changed_.notify_all();
        }

        bool (*const registration_)(bool wanted);  // registers or unregisters the topic's callback
        std::mutex lock_;
        std::condition_variable changed_;  // running_, thread_ or inLibrary_
        List watches_;                     // in the order of making
        std::uint64_t deliveries_ = 0;
        List::iterator next_ = watches_.end();  // of the delivery that is under way
        Entry* running_ = nullptr;              // whose callable runs
        std::thread::id thread_;                // that delivers
        bool registered_ = false;               // with the library
        bool inLibrary_ = false;                // a thread is registering or unregistering
    };

    template <class Value, auto add, auto remove>
    struct __attribute__((visibility("hidden"))) TopicOf {
        static void callback(Value value, void* /*userData*/) { topic().deliver(&value); }
        static bool registration(bool wanted) { return (wanted ? add(callback, nullptr) : remove(callback)) == 1; }
        // Never destroyed, since the library may call until the process ends; not on the heap, where an unloaded
        // plugin would leave it behind.
        static Topic& topic()
        {
            alignas(Topic) static unsigned char place[sizeof(Topic)];
            static Topic& made = *new (place) Topic(registration);
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

    std::unique_ptr<Entry, End> entry_;  // which the topic owns
};

#endif
