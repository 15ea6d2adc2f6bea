// Who of the watchers is alive, and who is busy in it. A watcher's own lock cannot answer that: it dies with the
// watcher.
#ifndef ZOL_SRC_WATCHER_CENSUS_H
#define ZOL_SRC_WATCHER_CENSUS_H

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <thread>

class VconfCallbackGenerator;

// ---- The locks of change notification ------------------------------------------------------------------------------
//
//   key lock    One for each topic, in the registry. Protects the topic's slot: its watcher, the number of operations
//               inside the watcher, and a wish to release it.
//   listMutex   One for each watcher. Protects its list of callbacks, and is held by a dispatch while they run.
//   turn        One for each watcher, kept by the census. Lets one thread at a time subscribe the watcher.
//   census      One for each census; a watcher's address tells which of them counts it, so that dispatches of several
//               watchers do not wait for each other. Protects the watchers that are alive, the turns, and the watchers
//               that are gone. A change of a list of callbacks holds it too, so that fork() finds every list whole.
//
// Order: key lock, then census; turn, then census; listMutex, then census; of several census locks, which fork() alone
// takes, in the order of the array. Nothing is called with a census lock held.
// The locks of the platform come last: a key lock, a turn and a listMutex are held while the log is written to, and a
// turn or a listMutex while vconf is told of a subscription or its end. Around fork() they are taken in the same order,
// as what is set up first is called last: the platform's libraries are loaded, and set up theirs, before this one.
// No thread waits for a listMutex or a turn while it holds a key lock: the registry only counts who is inside the
// watcher. So a callback, which runs with a listMutex held, may take every key lock. What remains is that a
// registration waits for the callbacks of its topic; ZOLSystemDataNotify.h says what follows for callbacks.
//
// A watcher is destroyed under its key lock when nobody is inside it and it is not subscribed. Its destructor waits for
// dispatches that have begun. By then the list is empty, so such a dispatch runs no callback and waits for no key lock.
//
// The flag isExistVconfCallback rises under the turn and falls under listMutex, when the list is empty. A registration
// looks at it again once it has listMutex, so no callback enters the list of a watcher that is not subscribed.

class alignas(64) WatcherCensus {  // a cache line is not shared by two
    struct Presence {
        // The dispatches inside, plus kLeaving once the watcher is. It goes up under the census lock and down without:
        // who takes the last dispatch from a leaving watcher must not touch the presence again.
        std::atomic<unsigned> dispatches{0};
        bool turnTaken = false;
        bool wasSubscribed = false;                 // changed in a turn, which ends before the watcher departs
        std::atomic<std::thread::id> listHolder{};  // the dispatching thread that has listMutex, and changes this
    };

public:
    /// The census that counts the watchers at that address.
    static WatcherCensus& of(const void* address);

    void arrive(VconfCallbackGenerator& watcher);
    /// Waits for the dispatches inside; from then on none gets in. `key` is kept to recognise late events.
    void depart(VconfCallbackGenerator& watcher, std::string&& key) noexcept;

    /// A dispatch inside a watcher. While one exists the watcher is not destroyed.
    class Visit {
    public:
        /// @param address  What vconf says is the watcher; it may be gone.
        /// @param key      The key that changed.
        Visit(void* address, const char* key);
        ~Visit();
        Visit(const Visit&) = delete;
        Visit& operator=(const Visit&) = delete;

        /// Null when there is no watcher at that address any more, or another one than the event was meant for.
        VconfCallbackGenerator* watcher() const { return watcher_; }
        /// Takes the watcher's listMutex for the rest of the visit.
        void lockList();

    private:
        WatcherCensus& census_;
        VconfCallbackGenerator* watcher_ = nullptr;
        Presence* presence_ = nullptr;
        bool listLocked_ = false;
    };

    /// A thread's turn to subscribe a watcher.
    class Turn {
    public:
        explicit Turn(VconfCallbackGenerator& watcher);
        ~Turn();
        /// To be called when vconf has accepted the subscription.
        void subscribed() { presence_->wasSubscribed = true; }
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

    private:
        WatcherCensus& census_;
        Presence* presence_ = nullptr;
    };

    /// For the handlers around fork(), which the registry sets up. In a child the locks are still to be released.
    static void lockAll();
    static void unlockAll();
    static void startAllAfreshInChild();

    /// Held while a list of callbacks changes.
    std::unique_lock<std::mutex> holdStill() { return std::unique_lock<std::mutex>(lock_); }

private:
    struct Departed {
        const void* address = nullptr;
        std::string key;

        bool was(const void* otherAddress, const char* otherKey) const
        {
            return address == otherAddress && key == otherKey;
        }
    };
    static constexpr unsigned kLeaving = 1U << 31U;
    // Late events of so many destroyed watchers are recognised; those of one address and key count once.
    static constexpr std::size_t kRemembered = 32;
    static constexpr unsigned kCensusBits = 5;
    static constexpr std::size_t kCensuses = 1U << kCensusBits;

    static std::array<WatcherCensus, kCensuses>& all();
    /// Does something that others may wait for, and tells them.
    template <class Change>
    void change(Change change)
    {
        const std::lock_guard<std::mutex> guard(lock_);
        change();
        changed_.notify_all();
    }
    bool hasDeparted(const void* address, const char* key) const;
    void startAfreshInChild();

    std::mutex lock_;
    std::condition_variable changed_;
    std::map<void*, Presence> present_;
    std::array<Departed, kRemembered> departed_;  // the latest first
};

#endif
