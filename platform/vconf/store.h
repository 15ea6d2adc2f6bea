// A store of the desk platform: an LMDB environment with the values and the journal of the latest writes.
//
// Two tables, both in the native byte order, because only this machine reads them:
//   values   key                        -> sequence number (8), unused (8), type (1), data
//   journal  sequence number (8)        -> unused (8), type (1), length of the key (2), key, data
// Every write changes both in one transaction. Sequence numbers increase by one per write and are
// never reused.
#ifndef VCONF_STORE_H
#define VCONF_STORE_H

#include <dlog.h>
#include <lmdb.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <string_view>

#include "folder.h"

namespace vconf {

constexpr size_t kMaxKeySize = 511;                  // LMDB's limit for a key
constexpr size_t kMaxTextSize = size_t{64} << 20;    // of one value
constexpr size_t kJournalWrites = 4096;              // the journal keeps at least that many of the latest writes,
constexpr size_t kJournalBytes = size_t{256} << 20;  // or fewer where their values together are larger than this

/// A failure with a message for the log.
struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Allocates nothing, because it also reports a lack of memory.
inline void logLine(const char* function, const char* message)
{
    dlog_print(DLOG_ERROR, "VCONF", "%s: %s\n", function, message);
}

/// A value in the store. `key` and `data` point into the store and are valid during the transaction.
struct Record {
    uint64_t sequence = 0;
    int type = 0;
    std::string_view key;
    std::string_view data;
};

using Use = std::shared_lock<std::shared_mutex>;

/// The persistent or the volatile store. A process has one object for each, which is opened at its first use and never
/// closed. Any thread may use it at any time. LMDB's writer lock, shared by all processes, lets one write at a time.
/// All functions throw std::exception when the folder or the environment cannot be used.
class Store {
public:
    explicit Store(Lifetime lifetime) : lifetime_(lifetime) {}

    /// Stores a value and an entry in the journal, both or neither. A persistent value is then on disk.
    void write(std::string_view key, int type, std::string_view data);

    /// The file that is written to after every write. When a writer dies, the kernel closes its descriptor and inotify
    /// reports that. So watchers notice a write even if its writer was killed before it could signal.
    std::string signalPath();

    /// Whether the folder was removed. This process then still has the files open, but no other process finds them.
    bool isRemoved();

    /// In a child process: closes the file, which would otherwise hide the parent's end from other processes.
    void closeSignal();

private:
    friend class ReadTransaction;

    Use use();
    MDB_txn* begin(Use& use, unsigned flags);
    void open();
    void openFiles(int folder);
    void openEnvironment();
    void openTables();
    void openSignal(int flags);
    int signalForWriting();
    void close();
    void extendDataFile() const;
    off_t usedSize() const;
    int dataFile() const;
    struct stat dataStatus() const;
    bool journalEntry(MDB_txn* txn, uint64_t sequence, MDB_cursor_op move, Record& record) const;
    MDB_stat statOf(MDB_txn* txn, MDB_dbi table) const;
    void trimJournal(MDB_txn* txn) const;
    [[noreturn]] void fail(const std::string& what, int code) const;
    void checked(const char* what, int code) const;

    const Lifetime lifetime_;
    std::shared_mutex lock_;  // of what is below: shared to use it, exclusive to open it
    std::string folder_;
    MDB_env* env_ = nullptr;
    MDB_dbi values_ = 0;
    MDB_dbi journal_ = 0;
    int signal_ = -1;        // for reading, with a lock
    int signalWriter_ = -1;  // set and used in a write transaction
};

/// A snapshot for reading. At most one may be open in a thread.
class ReadTransaction {
public:
    explicit ReadTransaction(Store& store) : store_(store), use_(store.use()), txn_(store.begin(use_, MDB_RDONLY)) {}
    ~ReadTransaction() { mdb_txn_abort(txn_); }
    ReadTransaction(const ReadTransaction&) = delete;
    ReadTransaction& operator=(const ReadTransaction&) = delete;

    /// @return false when there is no such key.
    bool value(std::string_view key, Record& record) const;
    /// The next write in the journal after that one.
    /// @return false when there is none.
    bool writeAfter(uint64_t sequence, Record& record) const;
    /// @return the sequence number of the latest write, 0 when there is none.
    uint64_t lastSequence() const;
    const std::string& folder() const { return store_.folder_; }

private:
    const Store& store_;
    Use use_;
    MDB_txn* const txn_;
};

}  // namespace vconf

#endif
