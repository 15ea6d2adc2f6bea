/// @file
/// Being told when the TV's system data changes, by any callable and for as long as an object lives. For C++17; all of
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

#include "ZOLSystemDataNotify.h"

/// A watch of one topic, made by the function of the topic's name:
/// @code
/// ZOLWatch language = ZOLWatch::ZOLLanguage([&](const std::string& value) { show(value); });
/// if (!language) ...  // it could not be made; the log tells why
/// @endcode
///
/// The callable takes the new value: a `const std::string&`, an `int` or a `bool`. It is called once for every write of
/// the key after the watch was made, on the thread on which vconf delivers changes. A topic may have any number of
/// watches; they are called one after another, first made first. What a callable throws goes on to the library, which
/// logs it, once the others were called.
///
/// A watch is false when it could not be made: vconf refused, the library had no memory, or the callable is a null
/// pointer or an empty std::function. The next watch of the topic tries anew. std::bad_alloc is thrown where the watch
/// itself finds no memory, and what moving the callable throws comes through.
///
/// The watch ends with the object, or at end(). From then on the callable does not run and will not run again, and it
/// is destroyed. A watch that is ended within its own callable returns at once; the callable is not called again, and
/// is destroyed when it returns.
///
/// A callable may make and end watches of every topic, its own too. A watch made while callables of its topic run is
/// told from the next event on.
///
/// What waits:
/// - The end of a watch waits for its callable if that runs on another thread. The end of a topic's last watch waits
/// for
///   all callables of the topic, unless it is called in one of them. So a callable must not wait for a thread that ends
///   its watch, for example by taking a lock that the thread holds.
/// - Where vconf delivers on several threads, callables of two topics must not end each other's watches, nor make the
///   first watch of each other's topic.
/// - Plain callbacks must not make or end watches of their topic. Every program and shared object has watches of its
///   own, so a callable must not make or end watches of its topic by way of another shared object either.
///
/// The end of a topic's last watch unsubscribes the topic. If it comes within a callable of the topic, that is left to
/// the next end of a watch outside. So a plugin that is to be unloaded ends its watches outside their callables.
///
/// Threads: any thread may make, move and end watches, but no two threads one object at the same time. A callable may
/// run before the object that it belongs to has been assigned. A child of fork() is told nothing and must leave watches
/// alone.
class ZOLWatch {
public:
    /// Not a watch: false.
    ZOLWatch() noexcept = default;
    /// Takes the other's watch, also while its callable runs.
    ZOLWatch(ZOLWatch&& other) noexcept : topic_(std::exchange(other.topic_, nullptr)), place_(other.place_) {}
    /// Takes the other's watch, and then ends the one that it had.
    ZOLWatch& operator=(ZOLWatch&& other) noexcept
    {
        const ZOLWatch old(std::move(*this));
        topic_ = std::exchange(other.topic_, nullptr);
        place_ = other.place_;
        return *this;
    }
    ZOLWatch(const ZOLWatch&) = delete;
    ZOLWatch& operator=(const ZOLWatch&) = delete;
    /// Ends the watch.
    ~ZOLWatch() { end(); }

    /// Ends the watch; without one it does nothing.
    void end() noexcept
    {
        if (Topic* const topic = std::exchange(topic_, nullptr)) {
            topic->end(place_);  // may destroy this object, by what the callable held
        }
    }

    /// @return whether this is a watch that was made and has not been ended.
    explicit operator bool() const noexcept { return topic_ != nullptr; }

// NOLINTNEXTLINE(cppcoreguidelines-macro-usage): the operations of a topic are named after it
#define ZOL_WATCH_TOPIC(name, Value)                                                       \
    template <class Callable>                                                              \
    [[nodiscard]] static ZOLWatch name(Callable callable)                                  \
    {                                                                                      \
        return make<Value, ZOLSystemDataNotify::Register##name##Callback,                  \
                    ZOLSystemDataNotify::Unregister##name##Callback>(std::move(callable)); \
    }
    /// Makes a watch of the topic that ZOLSystemDataNotify has under this name.
    /// @param callable  Takes the new value, of the topic's type, and may return anything. It is moved into the watch.
    /// @{
    ZOL_WATCH_TOPIC(ZOLConcurrentAppList, std::string)
    ZOL_WATCH_TOPIC(DravixResetCount, int)
    ZOL_WATCH_TOPIC(ServiceResetCount, int)
    ZOL_WATCH_TOPIC(FactoryResetCount, int)
    ZOL_WATCH_TOPIC(WebAppUninstall, std::string)
    ZOL_WATCH_TOPIC(WebAppInstall, std::string)
    ZOL_WATCH_TOPIC(OSDCountry, std::string)
    ZOL_WATCH_TOPIC(BackgroundVolume, int)
    ZOL_WATCH_TOPIC(ZOLSituationalHintSupported, std::string)
    ZOL_WATCH_TOPIC(ZOLLanguage, std::string)
    ZOL_WATCH_TOPIC(ZOLDefaultAssistantAppid, std::string)
    ZOL_WATCH_TOPIC(ZOLActivated, bool)
    ZOL_WATCH_TOPIC(ZOLMultipleMode, bool)
    /// @}
#undef ZOL_WATCH_TOPIC

private:
    struct Entry {
        virtual ~Entry() = default;
        virtual void call(const void* value) = 0;
        std::uint64_t since = 0;  // the topic's delivery in which, or after which, it was made
    };
    template <class Value, class Callable>
    struct EntryOf final : Entry {
        explicit EntryOf(Callable&& from) : callable(std::move(from)) {}
        void call(const void* value) override { static_cast<void>(callable(*static_cast<const Value*>(value))); }
        Callable callable;
    };
    using List = std::list<std::unique_ptr<Entry>>;

    template <class Action>
    struct AtEnd {
        explicit AtEnd(Action what) : action(std::move(what)) {}
        ~AtEnd() { action(); }
        AtEnd(const AtEnd&) = delete;
        AtEnd& operator=(const AtEnd&) = delete;
        Action action;
    };

    // What the watches of a topic share. lock_ protects all of it. It is not held while a callable runs or is
    // destroyed, nor while the library is called, so whoever holds it waits for nothing but changed_. The library never
    // runs a topic's callback on two threads at once: it holds its own lock of the topic meanwhile.
    class Topic {
    public:
        explicit Topic(bool (*registration)(bool wanted)) : registration_(registration) {}

        // Moves the one element of a list in, and tells whether it could.
        bool add(List& watch)
        {
            std::unique_lock<std::mutex> guard(lock_);
            if (!delivering()) {
                changed_.wait(guard, [this] { return !inLibrary_; });
                if (!registered_) {
                    callLibrary(guard, true);
                }
            }
            if (registered_) {
                watch.front()->since = deliveries_;
                watches_.splice(watches_.end(), watch);
            }
            return registered_;
        }

        void end(List::iterator watch) noexcept
        {
            List ended;  // outlives the guard
            std::unique_lock<std::mutex> guard(lock_);
            if (next_ == watch) {
                ++next_;
            }
            const Entry* const entry = watch->get();
            List& to = delivering() && running_ == entry ? endedInside_ : ended;
            to.splice(to.end(), watches_, watch);
            if (delivering()) {
                return;  // the library would wait for this very delivery
            }
            changed_.wait(guard, [this, entry] { return running_ != entry; });
            // A callable that still runs may make a watch, and would miss events if the topic were unsubscribed.
            changed_.wait(guard, [this] { return !watches_.empty() || (thread_ == std::thread::id() && !inLibrary_); });
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
            const AtEnd over([this] {
                thread_ = std::thread::id();
                changed_.notify_all();
            });
            while (next_ != watches_.end() && (*next_)->since < deliveries_) {
                running_ = (next_++)->get();
                guard.unlock();
                const AtEnd returned([&] {  // also when the thread ends in the callable
                    endedInside_.clear();
                    guard.lock();
                    running_ = nullptr;
                    changed_.notify_all();
                });
                try {
                    running_->call(value);
                } catch (...) {
                    const std::exception_ptr exception = std::current_exception();
                    if (exception == nullptr) {
                        throw;  // not C++'s: the thread is ending, which cannot be stopped
                    }
                    thrown = thrown != nullptr ? thrown : exception;
                }
            }
            if (thrown != nullptr) {
                std::rethrow_exception(thrown);
            }
        }

    private:
        // Whether the caller is, at some depth, one of the topic's callables.
        bool delivering() const { return thread_ == std::this_thread::get_id(); }

        void callLibrary(std::unique_lock<std::mutex>& guard, bool wanted)
        {
            registered_ = false;
            inLibrary_ = true;
            guard.unlock();
            bool registered = false;
            const AtEnd returned([&] {
                guard.lock();
                registered_ = registered;
                inLibrary_ = false;
                changed_.notify_all();
            });
            registered = registration_(wanted) && wanted;
        }

        bool (*const registration_)(bool wanted);  // registers or unregisters the topic's callback
        std::mutex lock_;
        std::condition_variable changed_;  // running_, thread_ or inLibrary_
        List watches_;                     // in the order of making
        std::uint64_t deliveries_ = 0;
        List::iterator next_;       // of the delivery that is under way
        Entry* running_ = nullptr;  // whose callable runs
        List endedInside_;          // by its own callable; used by the thread that delivers alone
        std::thread::id thread_;    // that delivers
        bool registered_ = false;   // with the library
        bool inLibrary_ = false;    // a thread is registering or unregistering
    };

    // A topic's state and callback. They are hidden, so that every program and shared object has its own: symbols that
    // are shared could not be unloaded.
    template <class Value, auto add, auto remove>
    struct __attribute__((visibility("hidden"))) TopicOf {
        static void callback(Value value, void* /*userData*/) { topic().deliver(&value); }
        static bool registration(bool wanted) { return (wanted ? add(callback, nullptr) : remove(callback)) == 1; }
        // Never destroyed, since the library may call until the process ends. Not on the heap either, where it would
        // be left behind by what is unloaded.
        static Topic& topic()
        {
            alignas(Topic) static unsigned char place[sizeof(Topic)];
            static Topic& made = *new (place) Topic(registration);
            return made;
        }
    };

    template <class Value, auto add, auto remove, class Callable>
    static ZOLWatch make(Callable callable)
    {
        static_assert(std::is_invocable_v<Callable&, const Value&>, "the callable of a watch takes the topic's value");
        ZOLWatch watch;
        if constexpr (std::is_assignable_v<Callable&, std::nullptr_t>) {
            if (callable == nullptr) {
                return watch;
            }
        }
        List made;
        made.push_back(std::unique_ptr<Entry>(new EntryOf<Value, Callable>(std::move(callable))));
        watch.place_ = made.begin();
        Topic& topic = TopicOf<Value, add, remove>::topic();
        watch.topic_ = topic.add(made) ? &topic : nullptr;
        return watch;
    }

    Topic* topic_ = nullptr;
    List::iterator place_;
};

#endif
