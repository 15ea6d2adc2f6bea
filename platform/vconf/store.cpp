#include "store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <new>

namespace vconf {
namespace {

constexpr size_t kMapSize = sizeof(void*) >= 8 ? size_t{8} << 30 : size_t{1} << 30;
constexpr size_t kJournalSlack = 256;
constexpr unsigned kMaxReaders = 4096;                    // a thread that has read keeps one until it ends
constexpr off_t kNewDataSize = 16384;                     // both meta pages, the tables' page, and one to spare
constexpr off_t kLockSize = off_t{kMaxReaders + 4} * 64;  // a cache line a reader, and LMDB's locks

struct [[gnu::packed]] ValueHeader {
    uint64_t sequence;
    uint64_t unused;
    uint8_t type;
};

struct [[gnu::packed]] JournalHeader {
    uint64_t unused;
    uint8_t type;
    uint16_t keySize;
};

// The content of the signal file.
struct Users {
    uint64_t signal;  // its first byte is written after every write
    uint64_t pidNamespace;
    uint64_t dataInode;
    uint64_t lockInode;
};

uint64_t inodeOf(const std::string& path)
{
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

// NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): LMDB has one type for what it reads and for what it fills
MDB_val valueOf(std::string_view text) { return {text.size(), const_cast<char*>(text.data())}; }
MDB_val valueOf(uint64_t& number) { return {sizeof number, &number}; }
std::string_view textOf(const MDB_val& value) { return {static_cast<const char*>(value.mv_data), value.mv_size}; }

size_t bytesOf(const MDB_stat& table)
{
    return (table.ms_branch_pages + table.ms_leaf_pages + table.ms_overflow_pages) * table.ms_psize;
}

void closeFolder(const int* folder)
{
    flock(*folder, LOCK_UN);  // even if a child that another thread forked meanwhile has it open
    close(*folder);
}

struct Abort {
    void operator()(MDB_txn* txn) const { mdb_txn_abort(txn); }
};
using WriteTransaction = std::unique_ptr<MDB_txn, Abort>;

}  // namespace

// ---- opening --------------------------------------------------------------------------------------------------------

Use Store::use()
{
    Use use(lock_);
    while (env_ == nullptr) {
        use.unlock();
        {
            const std::lock_guard<std::shared_mutex> alone(lock_);
            if (env_ == nullptr) {  // cppcheck-suppress knownConditionTrueFalse ; other threads open it, too
                open();
            }
        }
        use.lock();
    }
    return use;
}

MDB_txn* Store::begin(Use& use, unsigned flags)
{
    MDB_txn* txn = nullptr;
    int code = mdb_txn_begin(env_, nullptr, flags, &txn);
    if (code == MDB_PANIC) {  // LMDB refuses everything after a failed write of its own page, in this process alone
        const MDB_env* const broken = env_;
        use.unlock();
        {
            const std::lock_guard<std::shared_mutex> alone(lock_);
            if (env_ == broken) {  // cppcheck-suppress knownConditionTrueFalse ; the same
                logLine("store", ("opening " + folder_ + " again, because a write failed").c_str());
                close();
            }
        }
        use = this->use();
        code = mdb_txn_begin(env_, nullptr, flags, &txn);
    }
    if (code == MDB_READERS_FULL) {
        mdb_reader_check(env_, nullptr);
        code = mdb_txn_begin(env_, nullptr, flags, &txn);
    }
    checked("use", code);
    return txn;
}

void Store::open()
{
    if (folder_.empty()) {
        folder_ = findFolder(lifetime_);
    }
    reserveStandardDescriptors();
    const int folder = ::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) {
        throw Error("cannot open " + folder_ + ": " + std::strerror(errno));
    }
    const std::unique_ptr<const int, decltype(&closeFolder)> closes(&folder, closeFolder);
    // Only one process at a time may open the store. If a process dies while LMDB is setting up the lock file, the next
    // one would assume that the file is complete.
    while (flock(folder, LOCK_EX) != 0 && errno == EINTR) {
    }
    try {
        openFiles(folder);
    } catch (...) {
        close();
        throw;
    }
}

// The signal file is created last, after all else is on disk.
void Store::openFiles(int folder)
{
    const std::string data = folder_ + "/data.mdb";
    prepareFiles(folder_, kNewDataSize, kLockSize);
    std::string head(20, '\0');
    std::ifstream(data).read(head.data(), 20);
    if (head.compare(20 - sizeof(void*), 4, "\xDE\xC0\xEF\xBE") == 0) {  // LMDB's mark in a file of the other size
        throw Error("cannot use " + folder_ + ": it was made by a program of " + (sizeof(void*) == 8 ? "32" : "64") +
                    " bits; set ZOL_VCONF_DIR to another folder for programs of this size");
    }
    const bool isNew = access((folder_ + "/signal").c_str(), F_OK) != 0;
    if (!isNew) {
        openSignal(0);
    }
    openEnvironment();
    if (isNew) {
        checked("write to the disk", mdb_env_sync(env_, 1));
        (void)fsync(folder);
        openSignal(O_CREAT);
    }
}

void Store::openEnvironment()
{
    checked("create", mdb_env_create(&env_));
    checked("set up", mdb_env_set_maxdbs(env_, 2));
    checked("set up", mdb_env_set_mapsize(env_, kMapSize));
    checked("set up", mdb_env_set_maxreaders(env_, kMaxReaders));
    // A persistent write is flushed in two steps, see write().
    const unsigned flags = lifetime_ == Lifetime::Persistent ? MDB_NOMETASYNC : MDB_NOSYNC;
    checked("open", mdb_env_open(env_, folder_.c_str(), flags, 0600));
    (void)fcntl(dataFile(), F_SETFD, FD_CLOEXEC);  // LMDB does so for its other files only
    extendDataFile();
    checked("clear the reader table of", mdb_reader_check(env_, nullptr));  // of readers that were killed
    openTables();
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

// LMDB identifies processes by their ids, so all must be in one PID namespace. It excludes them by a mutex in the lock
// file, so all must have the same files open, even if somebody has replaced one. The signal file holds what the present
// users of the store agree on, and each of them holds a lock on it.
void Store::openSignal(int flags)
{
    const std::string path = folder_ + "/signal";
    signal_ = openFile(path, O_RDONLY | flags);
    const Users mine{0, inodeOf("/proc/thread-self/ns/pid"), inodeOf(folder_ + "/data.mdb"),
                     inodeOf(folder_ + "/lock.mdb")};
    Users found{};
    const ssize_t size = pread(signal_, &found, sizeof found, 0);
    if (size != sizeof found || std::memcmp(&found, &mine, sizeof mine) != 0) {
        if (flock(signal_, LOCK_EX | LOCK_NB) != 0) {
            throw Error(
                "cannot use " + folder_ + ": " +
                (found.pidNamespace != mine.pidNamespace
                     ? "it is in use from another PID namespace (a container); set ZOL_VCONF_DIR to a folder of "
                       "its own in each"
                     : "data.mdb or lock.mdb was removed or replaced while programs use it; end these first"));
        }
        // This also takes the space for the byte that every write changes, so that a full disk cannot keep it from
        // that.
        if (pwrite(signalForWriting(), &mine, sizeof mine, 0) != sizeof mine) {
            throw Error("cannot write to " + path + ": " + std::strerror(errno));
        }
    }
    flock(signal_, LOCK_SH);
}

// Opened at the first write only, because closing it wakes the watching processes.
int Store::signalForWriting()
{
    if (signalWriter_ < 0) {
        reserveStandardDescriptors();
        signalWriter_ = openFile(folder_ + "/signal", O_WRONLY);
    }
    return signalWriter_;
}

void Store::close()
{
    mdb_env_close(env_);
    env_ = nullptr;
    closeSignal();
}

void Store::closeSignal()
{
    for (int* const fd : {&signal_, &signalWriter_}) {
        if (*fd >= 0) {
            ::close(*fd);
        }
        *fd = -1;
    }
}

// Reading a page beyond the end of the file would be a bus error. LMDB leaves free pages at the end unwritten, so a
// file that is too short need not be damaged. If a page in use is missing, it reads as zeros, which are no valid page.
void Store::extendDataFile() const
{
    if (dataStatus().st_size >= usedSize()) {
        return;
    }
    MDB_txn* begun = nullptr;  // keeps other processes from writing, as their pages would be cut off
    checked("write to", mdb_txn_begin(env_, nullptr, 0, &begun));
    const WriteTransaction txn(begun);
    if (dataStatus().st_size < usedSize() && ftruncate(dataFile(), usedSize()) != 0) {
        fail("write to", errno);
    }
}

off_t Store::usedSize() const
{
    MDB_envinfo info{};
    MDB_stat stat{};
    checked("inspect", mdb_env_info(env_, &info));
    checked("inspect", mdb_env_stat(env_, &stat));
    return static_cast<off_t>(info.me_last_pgno + 1) * stat.ms_psize;
}

int Store::dataFile() const
{
    int fd = -1;
    checked("inspect", mdb_env_get_fd(env_, &fd));
    return fd;
}

struct stat Store::dataStatus() const
{
    struct stat status {};
    if (fstat(dataFile(), &status) != 0 || status.st_nlink == 0) {
        throw Error("cannot use the store in " + folder_ + ": its files were removed; restart this program");
    }
    return status;
}

std::string Store::signalPath()
{
    [[maybe_unused]] const Use inUse = use();
    return folder_ + "/signal";
}

bool Store::isRemoved()
{
    [[maybe_unused]] const Use inUse = use();
    struct stat status {};
    return fstat(signal_, &status) == 0 && status.st_nlink == 0;
}

void Store::fail(const std::string& what, int code) const
{
    const std::string message = "cannot " + what + " the store in " + folder_ + ": " + mdb_strerror(code);
    switch (code) {
        case ENOMEM:
            throw std::bad_alloc();
        case MDB_MAP_FULL:
            throw Error(message + "; save the settings with zolctl dump, then remove the folder");
        case ENOSPC:
            throw Error(message + "; free some space there");
        case EIO:  // also where the disk took a part of what was written
            throw Error(message + "; its disk may be full");
        case MDB_VERSION_MISMATCH:
        case MDB_INVALID:
        case MDB_CORRUPTED:
        case MDB_PAGE_NOTFOUND:
        case MDB_PAGE_FULL:
        case MDB_CURSOR_FULL:
        case MDB_INCOMPATIBLE:
            throw Error(message + "; remove the folder to start from scratch");
        default:
            throw Error(message);
    }
}

void Store::checked(const char* what, int code) const
{
    if (code != 0) {
        fail(what, code);
    }
}

// ---- reading --------------------------------------------------------------------------------------------------------

bool ReadTransaction::value(std::string_view key, Record& record) const
{
    MDB_val name = valueOf(key);
    MDB_val stored{};
    const int code = mdb_get(txn_, store_.values_, &name, &stored);
    if (code == MDB_NOTFOUND) {
        return false;
    }
    store_.checked("read", code);
    ValueHeader header{};
    std::memcpy(&header, stored.mv_data, std::min(sizeof header, stored.mv_size));
    if (stored.mv_size < sizeof header || header.sequence == 0) {
        store_.fail("read", MDB_CORRUPTED);
    }
    record = {header.sequence, header.type, key, textOf(stored).substr(sizeof header)};
    return true;
}

bool ReadTransaction::writeAfter(uint64_t sequence, Record& record) const
{
    return store_.journalEntry(txn_, sequence + 1, MDB_SET_RANGE, record);
}

uint64_t ReadTransaction::lastSequence() const
{
    Record last;
    store_.journalEntry(txn_, 0, MDB_LAST, last);
    return last.sequence;
}

bool Store::journalEntry(MDB_txn* txn, uint64_t sequence, MDB_cursor_op move, Record& record) const
{
    MDB_cursor* cursor = nullptr;
    checked("read", mdb_cursor_open(txn, journal_, &cursor));
    MDB_val number = valueOf(sequence);
    MDB_val stored{};
    const int code = mdb_cursor_get(cursor, &number, &stored, move);
    mdb_cursor_close(cursor);
    if (code == MDB_NOTFOUND) {
        return false;
    }
    checked("read", code);
    JournalHeader header{};
    std::memcpy(&header, stored.mv_data, std::min(sizeof header, stored.mv_size));
    if (stored.mv_size < sizeof header + header.keySize || header.keySize == 0) {
        fail("read", MDB_CORRUPTED);
    }
    std::memcpy(&record.sequence, number.mv_data, sizeof record.sequence);
    record.type = header.type;
    record.key = textOf(stored).substr(sizeof header, header.keySize);
    record.data = textOf(stored).substr(sizeof header + header.keySize);
    return true;
}

// ---- writing --------------------------------------------------------------------------------------------------------

void Store::write(std::string_view key, int type, std::string_view data)
{
    Use inUse = use();
    WriteTransaction txn(begin(inUse, 0));
    (void)dataStatus();                     // fails if the files were removed
    const int signal = signalForWriting();  // LMDB lets one thread at a time come here

    Record last;
    journalEntry(txn.get(), 0, MDB_LAST, last);
    uint64_t sequence = last.sequence + 1;

    const ValueHeader header{sequence, 0, static_cast<uint8_t>(type)};
    MDB_val name = valueOf(key);
    MDB_val space{sizeof header + data.size(), nullptr};
    checked("write to", mdb_put(txn.get(), values_, &name, &space, MDB_RESERVE));
    std::memcpy(space.mv_data, &header, sizeof header);
    std::memcpy(static_cast<char*>(space.mv_data) + sizeof header, data.data(), data.size());

    const JournalHeader entry{0, header.type, static_cast<uint16_t>(key.size())};
    MDB_val number = valueOf(sequence);
    space = {sizeof entry + key.size() + data.size(), nullptr};
    checked("write to", mdb_put(txn.get(), journal_, &number, &space, MDB_RESERVE | MDB_APPEND));
    auto* const to = static_cast<char*>(space.mv_data);
    std::memcpy(to, &entry, sizeof entry);
    std::memcpy(to + sizeof entry, key.data(), key.size());
    std::memcpy(to + sizeof entry + key.size(), data.data(), data.size());

    trimJournal(txn.get());
    checked("write to", mdb_txn_commit(txn.release()));

    // After the commit, because a process that wakes up must find the write. It changes a byte that is already there.
    if (pwrite(signal, "", 1, 0) != 1) {
        const int other = ::open((folder_ + "/signal").c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW);
        if (other >= 0) {
            ::close(other);  // wakes the watchers, too
        }
    }
    if (lifetime_ == Lifetime::Persistent) {
        // The commit has flushed all but the page that makes it current. Other processes need not wait for that one: if
        // the machine fails meanwhile, they fail with it.
        checked("write to the disk", mdb_env_sync(env_, 1));
    }
}

MDB_stat Store::statOf(MDB_txn* txn, MDB_dbi table) const
{
    MDB_stat stat{};
    checked("write to", mdb_stat(txn, table, &stat));
    return stat;
}

// Many at a time and seldom, because a write that removes entries has more pages to write.
void Store::trimJournal(MDB_txn* txn) const
{
    size_t most = kJournalWrites + kJournalSlack;
    for (;;) {
        const MDB_stat stat = statOf(txn, journal_);
        if (stat.ms_entries <= most && (bytesOf(stat) <= kJournalBytes || stat.ms_entries == 1)) {
            return;
        }
        if (most != kJournalWrites) {
            most = kJournalWrites;
            // A reader that was killed holds on to the pages of its snapshot, and the file would grow without end.
            mdb_reader_check(env_, nullptr);
        }
        Record oldest;
        journalEntry(txn, 0, MDB_FIRST, oldest);
        MDB_val number = valueOf(oldest.sequence);
        checked("write to", mdb_del(txn, journal_, &number, nullptr));
    }
}

}  // namespace vconf
