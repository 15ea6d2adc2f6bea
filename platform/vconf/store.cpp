#include "store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

namespace vconf {
namespace {

constexpr size_t kMapSize = sizeof(void*) >= 8 ? size_t{8} << 30 : size_t{1} << 30;
constexpr size_t kJournalSlack = 256;
constexpr unsigned kMaxReaders = 4096;                    // a thread that has read holds one of these until it ends
constexpr off_t kNewDataSize = 16384;                     // both heads and the tables' page, and one to spare
constexpr off_t kLockSize = off_t{kMaxReaders + 4} * 64;  // a cache line a reader, and LMDB's locks

struct ValueHeader {
    uint64_t sequence;
    int64_t time;
    uint8_t type;
};
constexpr size_t kValueHeaderSize = 17;

struct JournalHeader {
    int64_t time;
    uint8_t type;
    uint16_t keySize;
};
constexpr size_t kJournalHeaderSize = 11;

// Fields are copied one by one because records are packed and need not be aligned.
template <class Field>
const char* take(const char* from, Field& field)
{
    std::memcpy(&field, from, sizeof field);
    return from + sizeof field;
}

template <class Field>
char* append(char* to, const Field& field)
{
    std::memcpy(to, &field, sizeof field);
    return to + sizeof field;
}

char* append(char* to, std::string_view text)
{
    std::memcpy(to, text.data(), text.size());
    return to + text.size();
}

// NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): LMDB has one type for what it reads and for what it fills
MDB_val valueOf(std::string_view text) { return {text.size(), const_cast<char*>(text.data())}; }
MDB_val valueOf(uint64_t& number) { return {sizeof number, &number}; }

// The same clock for all processes of this machine: it puts the writes of the two halves in order.
int64_t now()
{
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

struct Abort {
    void operator()(MDB_txn* txn) const { mdb_txn_abort(txn); }
};
using WriteTransaction = std::unique_ptr<MDB_txn, Abort>;

}  // namespace

// ---- opening --------------------------------------------------------------------------------------------------------

Store::Store(Lifetime lifetime) : folder_(findFolder(lifetime))
{
    try {
        open(lifetime);
    } catch (...) {
        mdb_env_close(env_);
        if (signal_ >= 0) {
            close(signal_);
        }
        throw;
    }
}

void Store::open(Lifetime lifetime)
{
    occupyStandardFiles();
    prepareFiles(folder_, kNewDataSize, kLockSize);
    checked("create", mdb_env_create(&env_));
    checked("set up", mdb_env_set_maxdbs(env_, 2));
    checked("set up", mdb_env_set_mapsize(env_, kMapSize));
    checked("set up", mdb_env_set_maxreaders(env_, kMaxReaders));
    // A persistent write is flushed in two steps, see write().
    synced_ = lifetime == Lifetime::Persistent;
    const unsigned flags = synced_ ? MDB_NOMETASYNC : MDB_NOSYNC;
    checked("open", mdb_env_open(env_, folder_.c_str(), flags, 0600));
    checkDataFile();
    checked("clear the reader table of", mdb_reader_check(env_, nullptr));  // of readers that were killed
    openTables();
    openSignal();
}

// A file that has been cut short would be a bus error when a lost page is read, and a hole after the next write.
void Store::checkDataFile() const
{
    MDB_envinfo info{};
    MDB_stat stat{};
    checked("inspect", mdb_env_info(env_, &info));
    checked("inspect", mdb_env_stat(env_, &stat));
    int fd = -1;
    checked("inspect", mdb_env_get_fd(env_, &fd));
    struct stat status {};
    if (fstat(fd, &status) != 0 || status.st_nlink == 0) {
        throw Error("cannot use the store in " + folder_ + ": its files were removed; restart this program");
    }
    if (status.st_size < static_cast<off_t>((info.me_last_pgno + 1) * stat.ms_psize)) {
        throw Error("cannot use " + folder_ + "/data.mdb: it has been cut short; remove the folder to start afresh");
    }
}

void Store::openTables()
{
    const auto openBoth = [this](MDB_txn* txn, unsigned flags) {
        const int code = mdb_dbi_open(txn, "values", flags, &values_);
        return code != 0 ? code : mdb_dbi_open(txn, "journal", flags | MDB_INTEGERKEY, &journal_);
    };
    MDB_txn* begun = nullptr;
    checked("read", mdb_txn_begin(env_, nullptr, MDB_RDONLY, &begun));
    WriteTransaction txn(begun);
    int code = openBoth(txn.get(), 0);
    if (code == MDB_NOTFOUND) {
        txn.reset();
        checked("write to", mdb_txn_begin(env_, nullptr, 0, &begun));
        txn.reset(begun);
        code = openBoth(txn.get(), MDB_CREATE);
    }
    checked("open the tables of", code);
    checked("open the tables of", mdb_txn_commit(txn.release()));
}

void Store::openSignal()
{
    signal_ = ::open(signalPath().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (signal_ < 0) {
        throw Error("cannot open " + folder_ + "/signal" + ": " + std::strerror(errno));
    }
    // Its one byte takes its place on the disk now, so that a full disk cannot keep a later signal from being given.
    struct stat status {};
    if (fstat(signal_, &status) != 0 || (status.st_size == 0 && pwrite(signal_, "\0", 1, 0) != 1)) {
        throw Error("cannot write to " + folder_ + "/signal" + ": " + std::strerror(errno));
    }
}

void Store::closeSignalInChild()
{
    close(signal_);
    signal_ = -1;
}

void Store::fail(const std::string& what, int code) const
{
    std::string advice;
    switch (code) {
        case ENOMEM:
            throw std::bad_alloc();
        case MDB_MAP_FULL:
            advice = "; the store is full";
            break;
        case ENOSPC:
            advice = "; free some space there";
            break;
        case EIO:  // also where the disk took a part of what was written
            advice = "; its disk may be full";
            break;
        case MDB_INVALID:
        case MDB_VERSION_MISMATCH:
        case MDB_CORRUPTED:
            advice = "; remove the folder to start afresh";
            break;
        default:
            break;
    }
    throw Error("cannot " + what + " the store in " + folder_ + ": " + mdb_strerror(code) + advice);
}

void Store::checked(const char* what, int code) const
{
    if (code != 0) {
        fail(what, code);
    }
}

// ---- reading --------------------------------------------------------------------------------------------------------

ReadTransaction::ReadTransaction(const Store& store) : store_(store)
{
    int code = mdb_txn_begin(store.env_, nullptr, MDB_RDONLY, &txn_);
    if (code == MDB_READERS_FULL) {
        mdb_reader_check(store.env_, nullptr);
        code = mdb_txn_begin(store.env_, nullptr, MDB_RDONLY, &txn_);
    }
    store.checked("read", code);
}

bool ReadTransaction::value(std::string_view key, Record& record) const
{
    MDB_val name = valueOf(key);
    MDB_val stored{};
    const int code = mdb_get(txn_, store_.values_, &name, &stored);
    if (code == MDB_NOTFOUND) {
        return false;
    }
    store_.checked("read", code);
    if (stored.mv_size < kValueHeaderSize) {
        store_.fail("read", MDB_CORRUPTED);
    }
    ValueHeader header{};
    const char* at = static_cast<const char*>(stored.mv_data);
    at = take(at, header.sequence);
    at = take(at, header.time);
    at = take(at, header.type);
    record = {header.sequence, header.time, header.type, key, {at, stored.mv_size - kValueHeaderSize}};
    return true;
}

bool ReadTransaction::edge(MDB_cursor_op position, uint64_t& sequence) const
{
    MDB_cursor* cursor = nullptr;
    store_.checked("read", mdb_cursor_open(txn_, store_.journal_, &cursor));
    MDB_val number{};
    MDB_val ignored{};
    const int code = mdb_cursor_get(cursor, &number, &ignored, position);
    if (code == 0) {
        std::memcpy(&sequence, number.mv_data, sizeof sequence);
    }
    mdb_cursor_close(cursor);
    if (code != MDB_NOTFOUND) {
        store_.checked("read", code);
    }
    return code == 0;
}

uint64_t ReadTransaction::lastSequence() const
{
    uint64_t sequence = 0;
    edge(MDB_LAST, sequence);
    return sequence;
}

uint64_t ReadTransaction::firstSequence() const
{
    uint64_t sequence = 0;
    edge(MDB_FIRST, sequence);
    return sequence;
}

bool ReadTransaction::journalEntry(MDB_cursor* cursor, uint64_t sequence, MDB_cursor_op move, Record& record) const
{
    MDB_val number = valueOf(sequence);
    MDB_val stored{};
    const int code = mdb_cursor_get(cursor, &number, &stored, move);
    if (code == MDB_NOTFOUND) {
        return false;
    }
    store_.checked("read", code);
    std::memcpy(&record.sequence, number.mv_data, sizeof record.sequence);
    JournalHeader header{};
    const char* at = static_cast<const char*>(stored.mv_data);
    const char* const end = at + stored.mv_size;
    if (stored.mv_size >= kJournalHeaderSize) {
        at = take(at, header.time);
        at = take(at, header.type);
        at = take(at, header.keySize);
    }
    if (stored.mv_size < kJournalHeaderSize + header.keySize) {
        store_.fail("read", MDB_CORRUPTED);
    }
    record.time = header.time;
    record.type = header.type;
    record.key = {at, header.keySize};
    at += header.keySize;
    record.data = {at, static_cast<size_t>(end - at)};
    return true;
}

// ---- writing --------------------------------------------------------------------------------------------------------

void Store::write(std::string_view key, int type, std::string_view data)
{
    MDB_txn* begun = nullptr;
    checked("write to", mdb_txn_begin(env_, nullptr, 0, &begun));
    WriteTransaction txn(begun);

    checkDataFile();

    MDB_cursor* cursor = nullptr;  // ends with the transaction
    checked("write to", mdb_cursor_open(txn.get(), journal_, &cursor));
    uint64_t sequence = 0;
    MDB_val number{};
    MDB_val ignored{};
    int code = mdb_cursor_get(cursor, &number, &ignored, MDB_LAST);
    if (code == 0) {
        std::memcpy(&sequence, number.mv_data, sizeof sequence);
    } else if (code != MDB_NOTFOUND) {
        fail("read", code);
    }
    ++sequence;
    const int64_t time = now();
    const auto storedType = static_cast<uint8_t>(type);

    MDB_val name = valueOf(key);
    MDB_val space{kValueHeaderSize + data.size(), nullptr};
    checked("write to", mdb_put(txn.get(), values_, &name, &space, MDB_RESERVE));
    char* to = static_cast<char*>(space.mv_data);
    append(append(append(append(to, sequence), time), storedType), data);

    const auto keySize = static_cast<uint16_t>(key.size());
    number = valueOf(sequence);
    space = {kJournalHeaderSize + key.size() + data.size(), nullptr};
    checked("write to", mdb_cursor_put(cursor, &number, &space, MDB_RESERVE | MDB_APPEND));
    to = static_cast<char*>(space.mv_data);
    append(append(append(append(append(to, time), storedType), keySize), key), data);

    trimJournal(txn.get(), cursor);
    checked("write to", mdb_txn_commit(txn.release()));

    // Not before the commit: whoever is woken must find the write. It writes over a byte that is there already.
    (void)!pwrite(signal_, "", 1, 0);
    if (synced_) {
        // The commit has flushed all but the page that makes it the current state. Others need not wait for that one:
        // should the machine fail meanwhile, they fail with it.
        checked("write to the disk", mdb_env_sync(env_, 1));
    }
}

// Many at a time and seldom, since every write that removes some has more pages to write.
void Store::trimJournal(MDB_txn* txn, MDB_cursor* cursor) const
{
    size_t most = kJournalWrites + kJournalSlack;
    for (;;) {
        MDB_stat stat{};
        checked("write to", mdb_stat(txn, journal_, &stat));
        const size_t bytes = (stat.ms_leaf_pages + stat.ms_overflow_pages) * stat.ms_psize;
        if (stat.ms_entries <= most && (bytes <= kJournalBytes || stat.ms_entries == 1)) {
            return;
        }
        if (most != kJournalWrites) {
            most = kJournalWrites;
            // A reader that was killed holds on to the pages of its snapshot, and the file would grow without end.
            mdb_reader_check(env_, nullptr);
        }
        MDB_val number{};
        MDB_val ignored{};
        checked("write to", mdb_cursor_get(cursor, &number, &ignored, MDB_FIRST));
        checked("write to", mdb_cursor_del(cursor, 0));
    }
}

}  // namespace vconf
