// One half of the desk store: an LMDB environment with the values and the journal of the latest writes.
//
// Two tables, both in the native byte order, since nothing but this machine reads them:
//   values   key                        -> sequence number (8), time (8), type (1), data
//   journal  sequence number (8)        -> time (8), type (1), length of the key (2), key, data
// Every write changes both in one transaction. Sequence numbers rise by one a write and are never used again.
//
// Opening refuses files that are not regular, a data file that is gone or empty though the store was in use, one whose
// head is not LMDB's or of another version, and one that is shorter than its last page; the last is looked at again
// before each write. A lock file that nobody has open may hold anything, LMDB fills it anew. What cannot be told: bytes
// that something else changed inside the pages, and a file that is cut short while a process has it mapped, which is a
// bus error where that process next reads a lost page. To start afresh, end all programs that use the store and remove
// its folder; removing or replacing one of the files alone damages it.
#ifndef VCONF_STORE_H
#define VCONF_STORE_H

#include <lmdb.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
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

/// A value as it lies in the store; `data` points into the store and lasts as long as the transaction.
struct Record {
    uint64_t sequence = 0;
    int64_t time = 0;
    int type = 0;
    std::string_view key;
    std::string_view data;
};

class Store;

/// A snapshot for reading. At most one may be open in a thread.
class ReadTransaction {
public:
    explicit ReadTransaction(const Store& store);
    ~ReadTransaction() { mdb_txn_abort(txn_); }
    ReadTransaction(const ReadTransaction&) = delete;
    ReadTransaction& operator=(const ReadTransaction&) = delete;

    /// @return false when there is no such key.
    bool value(std::string_view key, Record& record) const;
    /// @return the sequence number of the latest write, 0 when there is none.
    uint64_t lastSequence() const;
    /// @return the sequence number of the oldest write in the journal, 0 when there is none.
    uint64_t firstSequence() const;
    /// Calls visit(record) for every write after `sequence` in order, until it returns false.
    template <class Visit>
    void journalAfter(uint64_t sequence, Visit visit) const;

private:
    bool edge(MDB_cursor_op position, uint64_t& sequence) const;
    bool journalEntry(MDB_cursor* cursor, uint64_t sequence, MDB_cursor_op move, Record& record) const;

    const Store& store_;
    MDB_txn* txn_ = nullptr;
};

/// One environment. There is one object for each half in a process; it is opened at its first use and never closed.
/// Any thread may use it at any time; LMDB's own lock, shared by all processes, lets one write at a time.
class Store {
public:
    /// @throws std::runtime_error when the folder or the environment cannot be used.
    explicit Store(Lifetime lifetime);
    ~Store() = delete;
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    /// Stores a value and journals the write, both or neither. A persistent value is on disk after that.
    void write(std::string_view key, int type, std::string_view data);

    /// The file that is written to after every write. A process that has it open for writing and ends, whichever way,
    /// closes it, so that a watcher of the file also learns of a write whose writer was killed before it could tell.
    std::string signalPath() const { return folder_ + "/signal"; }

    const std::string& folder() const { return folder_; }

    /// In a child process: gives up the file that would keep other processes from noticing the parent's end.
    void closeSignalInChild();

private:
    friend class ReadTransaction;

    void open(Lifetime lifetime);
    void openTables();
    void openSignal();
    void checkDataFile() const;
    void trimJournal(MDB_txn* txn, MDB_cursor* cursor) const;
    [[noreturn]] void fail(const std::string& what, int code) const;
    void checked(const char* what, int code) const;

    const std::string folder_;
    MDB_env* env_ = nullptr;
    MDB_dbi values_ = 0;
    MDB_dbi journal_ = 0;
    int signal_ = -1;
    bool synced_ = false;
};

template <class Visit>
void ReadTransaction::journalAfter(uint64_t sequence, Visit visit) const
{
    MDB_cursor* cursor = nullptr;
    if (mdb_cursor_open(txn_, store_.journal_, &cursor) != 0) {
        throw std::bad_alloc();
    }
    const std::unique_ptr<MDB_cursor, decltype(&mdb_cursor_close)> close(cursor, mdb_cursor_close);
    Record record;
    bool more = journalEntry(cursor, sequence + 1, MDB_SET_RANGE, record);
    while (more && visit(record)) {
        more = journalEntry(cursor, 0, MDB_NEXT, record);
    }
}

}  // namespace vconf

#endif
