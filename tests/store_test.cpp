// The desk platform's store and log, through the functions that a platform supplies.

#include <dlfcn.h>
#include <dlog.h>
#include <fcntl.h>
#include <lmdb.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <vconf.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "child.h"

namespace fs = std::filesystem;

// What becomes of a writer when it tells of its write (the only write of one byte), or when it writes the page that
// makes the write current.
enum class Fault { None, DieBeforeTelling, CannotTell, CannotWrite };
static std::atomic<Fault> fault{Fault::None};
extern "C" ssize_t pwrite64(int fd, const void* data, size_t size, off64_t offset)
{
    if (size == 1 && fault == Fault::DieBeforeTelling) {
        raise(SIGKILL);
    }
    if ((size == 1 && fault == Fault::CannotTell) || (size > 16 && size < 4096 && fault == Fault::CannotWrite)) {
        fault = Fault::None;
        errno = EIO;
        return -1;
    }
    static const auto real = reinterpret_cast<decltype(&pwrite64)>(dlsym(RTLD_NEXT, "pwrite64"));
    return real(fd, data, size, offset);
}
extern "C" ssize_t pwrite(int fd, const void* data, size_t n, off_t at) { return pwrite64(fd, data, n, at); }  // LMDB's

static size_t mapSize = 0;  // of a smaller store, if not 0
extern "C" int mdb_env_set_mapsize(MDB_env* env, size_t size)
{
    static const auto real = reinterpret_cast<decltype(&mdb_env_set_mapsize)>(dlsym(RTLD_NEXT, "mdb_env_set_mapsize"));
    return real(env, mapSize == 0 ? size : mapSize);
}

// Calls of this process so far.
static std::atomic<int> folderFlushes{0};
static std::atomic<int> dataFlushes{0};
static std::atomic<int> statusCalls{0};
extern "C" int fsync(int fd)
{
    ++folderFlushes;
    static const auto real = reinterpret_cast<decltype(&fsync)>(dlsym(RTLD_NEXT, "fsync"));
    return real(fd);
}
extern "C" int fdatasync(int fd)
{
    ++dataFlushes;
    static const auto real = reinterpret_cast<decltype(&fdatasync)>(dlsym(RTLD_NEXT, "fdatasync"));
    return real(fd);
}
extern "C" int fstat64(int fd, struct stat64* status)
{
    ++statusCalls;
    static const auto real = reinterpret_cast<decltype(&fstat64)>(dlsym(RTLD_NEXT, "fstat64"));
    return real(fd, status);
}

namespace {

std::string text(const std::string& key)
{
    const std::unique_ptr<char, decltype(&std::free)> copy(vconf_get_str(key.c_str()), std::free);
    return copy ? copy.get() : "(none)";
}
void ignore(keynode_t* /*node*/, void* /*data*/) {}
bool watch(const std::string& key, vconf_callback_fn handler = ignore, void* data = nullptr)
{
    return vconf_notify_key_changed(key.c_str(), handler, data) == 0;
}
// Waits for half a minute at most.
bool comesTrue(const std::function<bool()>& condition)
{
    for (int i = 0; i < 30000 && !condition(); ++i) {
        usleep(1000);
    }
    return condition();
}
bool put(const std::string& key, int value) { return vconf_set_int(key.c_str(), value) == 0; }
bool put(const std::string& key, const std::string& value) { return vconf_set_str(key.c_str(), value.c_str()) == 0; }

// NOLINTNEXTLINE(cert-env33-c): all commands are written in this file
bool run(const std::string& commands) { return std::system(("(" + commands + ") >/dev/null 2>&1").c_str()) == 0; }

// A scratch folder that becomes the store's, with the log in a file.
class StoreTest : public testing::Test {
protected:
    void SetUp() override
    {
        char name[] = "/tmp/zol-test-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(name));
        root = name;
        fs::current_path(root);
        setenv("ZOL_VCONF_DIR", (root / "store").c_str(), 1);
        setenv("ZOL_DLOG", (root / "log").c_str(), 1);
    }
    void TearDown() override { fs::remove_all(root); }

    // What a child does logs so many lines, with these words among them.
    void expectLog(const std::string& part, int lines, const std::function<void()>& body) const
    {
        inChild(body);
        std::ifstream file(root / "log");
        const std::string log((std::istreambuf_iterator<char>(file)), {});
        fs::remove(root / "log");
        EXPECT_NE(std::string::npos, log.find(part)) << part << " in " << log;
        EXPECT_EQ(lines, std::count(log.begin(), log.end(), '\n')) << log;
    }

    fs::path root;
};

TEST_F(StoreTest, TakesEveryKeyAndTextWithinItsLimitsAndRefusesOthersWithOneLine)
{
    const std::string longest(511, '/'), bytes("\x01\n\xff"), largest(size_t{64} << 20, 'v');
    int value = 7;
    expectLog("", 0, [&] {
        REQUIRE(put(longest, bytes) && text(longest) == bytes && put(bytes, "") && text(bytes).empty());
        REQUIRE(put("db/sized", largest) && text("db/sized") == largest);
        REQUIRE(vconf_set_bool("db/a", 5) == 0 && vconf_get_bool("db/a", &value) == 0 && value == 1);
    });
    const std::pair<const char*, std::function<bool()>> refused[] = {
        {"key is empty", [] { return !put("", 1); }},
        {"longer than 511", [] { return !put(std::string(512, 'k'), 1); }},
        {"null pointer", [] { return vconf_get_str(nullptr) == nullptr; }},
        {"null pointer", [] { return vconf_set_str("db/sized", nullptr) != 0; }},
        {"null pointer", [] { return vconf_get_int("db/sized", nullptr) != 0; }},
        {"null pointer", [] { return !watch("db/a", nullptr); }},
        {"64 MiB", [&] { return !put("db/sized", largest + "v") && text("db/sized") == largest; }},
        {"not an integer", [&] { return vconf_get_int("db/sized", &value) != 0 && value == 7; }},
        {"already has this handler", [] { return watch("db/a") + watch("db/a") == 1; }},
        {"no such handler", [] { return vconf_ignore_key_changed("db/a", ignore) != 0; }},
        {"zolctl dump",  // where the store is full
         [&] {
             mapSize = size_t{1} << 20;
             return put("db/a", "old") && !put("db/a", largest) && text("db/a") == "old";
         }},
        {"is damaged",
         [] {
             const std::string data = "store/persistent/data.mdb";
             return put("db/a", std::string(20000, 'w')) &&
                    run("tr w '\\0' <" + data + " >x; dd if=x conv=notrunc of=" + data) && text("db/a") == "(none)";
         }},
        {"/none\n",
         [] {
             return setenv("ZOL_VCONF_DIR", (fs::current_path() / "none/store").c_str(), 1) == 0 && !put("db/a", 1);
         }},
        {"must be an absolute path", [] { return setenv("ZOL_VCONF_DIR", "store", 1) == 0 && !put("db/a", 1); }},
        // files that are removed under a process
        {"were removed", [] { return put("db/a", 1) && run("rm -r store") && !put("db/a", 2); }},
        {"further changes",
         [] { return watch("db/a") && run("rm -r store") && comesTrue([] { return run("[ -s log ]"); }); }},
    };
    for (const auto& [line, call] : refused) {
        expectLog(line, 1, [&refuses = call] { REQUIRE(refuses()); });
    }
}

TEST_F(StoreTest, ChoosesFoldersByTheEnvironmentAndKeepsThemPrivate)
{
    unsetenv("ZOL_VCONF_DIR"), unsetenv("XDG_STATE_HOME");
    setenv("XDG_RUNTIME_DIR", root.c_str(), 1);
    for (const std::string variable : {"HOME", "XDG_STATE_HOME", "ZOL_VCONF_DIR"}) {  // each goes before the last one
        ASSERT_TRUE(variable != "HOME" || mkdir((root / variable).c_str(), 0700) == 0);
        setenv(variable.c_str(), (root / variable).c_str(), 1);
        inChild([] { REQUIRE(put("db/a", 1) && put("memory/a", 1)); });
    }
    EXPECT_TRUE(
        run("boot=volatile-$(cat /proc/sys/kernel/random/boot_id); ls HOME/.local/state/zol-tv/persistent/signal "
            "XDG_STATE_HOME/zol-tv/persistent/signal zol-tv/$boot/signal ZOL_VCONF_DIR/persistent/signal "
            "ZOL_VCONF_DIR/$boot/signal && [ $(find . -name signal | wc -l) = 5 ]"));
    EXPECT_TRUE(run("! find . -type d ! -perm 700 -o -type f ! -perm 600 | grep ."));
    inChild([] {  // without XDG_RUNTIME_DIR, as after su
        unsetenv("ZOL_VCONF_DIR"), unsetenv("XDG_RUNTIME_DIR");
        REQUIRE(geteuid() != 0 || unshare(CLONE_NEWNS) != 0 ||
                !run("mount --make-rprivate /; mount -t tmpfs none /run; mkdir -p -m 700 /run/user/$(id -u)") ||
                (put("memory/a", 1) && run("ls /run/user/*/zol-tv")));
    });
}

TEST_F(StoreTest, PlacesAndFilesThatDoNotServeGiveOneLineOrTheValueThatWasWritten)
{
    const std::string mount = "mount --make-rprivate /; mkdir store; mount -t tmpfs none store -o mode=700,size=";
    const std::string copy = "cp -rp sound store; cd store/persistent; ";
    const std::string lastPage =  // at its place in both heads: only the heads exist
        std::string("for at in ") + (sizeof(void*) == 8 ? "136 4232" : "84 4180") +
        "; do printf '\\1' | dd of=data.mdb bs=1 seek=$at conv=notrunc; done";
    // What the log says, or "" where the store works, after these commands.
    std::vector<std::pair<std::string, std::string>> rows = {
        {"is not a folder", "touch store"},
        {"set ZOL_VCONF_DIR", "mkdir -m 702 store"},
        {"set ZOL_VCONF_DIR", "mkdir -m 720 store"},
        {"run chmod 700", "mkdir -m 700 store; mkdir -m 710 store/persistent"},
        {"run chmod 700", "mkdir -m 700 store; mkdir -m 701 store/persistent"},
        {"run this program as daemon", "mkdir real; chown 1 real; ln -s real store"},
        {"run this program as daemon", "ln -s sound store; chown -h 1 store"},
        {"a copy of the folder", mount + "1m; cp -rp sound/persistent store; mount -o remount,ro store"},
        {"No space left", mount + "264k"},  // for the lock file and half the data file's head
        {"No space left",
         mount + "99k; mkdir -m 700 store/persistent; cp -p sound/*/[ds]* store/*; yes >store/x; true"},
        {"removed or emptied", copy + "rm data.mdb"},
        {"from scratch", copy + "head -c 8192 /dev/zero | dd of=data.mdb conv=notrunc"},
        {"from scratch", copy + "truncate -s 9000 data.mdb"},
        {"PAGE_NOTFOUND: Requested page not found; remove the folder to start from scratch", copy + lastPage},
        {"", copy},  // with the lock file of a process that was killed
        {"", "ln -s sound store"},
        {"", copy + "yes | head -c 300000 >lock.mdb"},
        {"", copy + "rm lock.mdb signal"},
        {"from scratch", copy + "rm signal; truncate -s 300 data.mdb"},  // the machine failed while the store was made
    };
    for (const std::string file : {"data.mdb", "lock.mdb", "signal"}) {
        rows.emplace_back("/" + file + ": its mode", copy + "chmod 640 " + file);
        rows.emplace_back("/" + file + ": it must be", copy + "chown 1 " + file);
        rows.emplace_back("/" + file + ": it is hard-linked", copy + "ln -t .. " + file);
        rows.emplace_back("/" + file + ": it must be", copy + "mv -t .. " + file + "; ln -s ../" + file);
        rows.emplace_back("/" + file + ": it must be", copy + "rm " + file + "; mkfifo " + file);
    }
    const bool mayMount = geteuid() == 0 && run("unshare -m mount -t tmpfs none /tmp");
    const std::string value(20000, 'v');
    setenv("ZOL_VCONF_DIR", (root / "sound").c_str(), 1);
    EXPECT_EQ(-SIGKILL, finish(start([&] { raise(put("db/a", value) ? SIGKILL : SIGTERM); })));
    setenv("ZOL_VCONF_DIR", (root / "store").c_str(), 1);
    for (const auto& [line, commands] : rows) {
        const bool mounts = commands.find("mount") == 0, works = line.empty();
        if (!mayMount && (mounts || commands.find("chown") != std::string::npos)) {
            continue;
        }
        SCOPED_TRACE(commands);
        expectLog(line, works ? 0 : 2, [&, &commands = commands] {
            REQUIRE(!mounts || unshare(CLONE_NEWNS) == 0);
            REQUIRE(run("rm -rf real store; " + commands));
            REQUIRE(text("db/a") == (works ? value : "(none)") && put("db/a", value) == works);
            // What is left of the attempt must not stand in the way once there is space.
            REQUIRE(!mounts || (run("mount -o remount,rw,size=1m store") && put("db/a", 2)));
        });
    }
}

TEST_F(StoreTest, AcceptsUnwrittenFreePages)
{
    for (int i = 0; i < 5; ++i) {
        inChild([] { REQUIRE(put("db/a", 1)); });
    }
    inChild([] {  // pages that a transaction takes and gives back
        MDB_env* env = nullptr;
        MDB_txn* txn = nullptr;
        MDB_dbi table = 0;
        std::string large(4000000, 'v');
        MDB_val key{1, large.data()};
        MDB_val value{large.size(), large.data()};
        REQUIRE(mdb_env_create(&env) == 0 && mdb_env_open(env, "store/persistent", 0, 0600) == 0);
        REQUIRE(mdb_txn_begin(env, nullptr, 0, &txn) == 0 && mdb_dbi_open(txn, nullptr, 0, &table) == 0);
        REQUIRE(mdb_put(txn, table, &key, &value, 0) == 0 && mdb_del(txn, table, &key, nullptr) == 0);
        REQUIRE(mdb_txn_commit(txn) == 0);
        mdb_env_close(env);
    });
    expectLog("", 0, [] { REQUIRE(put("db/a", 2)); });
}

TEST_F(StoreTest, LeavesTheNumbersOfClosedStandardFilesUnused)
{
    inChild([] {
        char byte = 0;
        for (const bool watches : {false, true}) {
            close(0), close(1), close(2);
            REQUIRE((watches ? watch("db/a") : put("db/a", 1)) && !put("", 1));
            for (const int fd : {0, 1, 2}) {
                REQUIRE(read(fd, &byte, 1) < 0 && write(fd, &byte, 1) < 0);
            }
        }
    });
}

TEST_F(StoreTest, ALogThatCannotBeWrittenNeitherStopsNorEndsAProgram)
{
    const std::pair<std::string, int> logs[] = {{"/dev/full", 0}, {root / "nobody reads", 2}, {"no/log", 2}, {"", 1}};
    ASSERT_EQ(0, mkfifo(logs[1].first.c_str(), 0600));
    for (const auto& [log, lines] : logs) {
        setenv("ZOL_DLOG", log.c_str(), 1);
        expectLog("", lines, [&] {
            REQUIRE(dup2(open((root / "log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO) >= 0);
            REQUIRE(put("db/a", 1) && !put("", 1));
        });
    }
    inChild([] {  // nobody reads, then somebody does, then nobody can
        std::string block(PIPE_BUF, 'x');
        int ends[2];
        REQUIRE(pipe(ends) == 0 && fcntl(ends[1], F_SETPIPE_SZ, PIPE_BUF) == PIPE_BUF && dup2(ends[1], 2) == 2);
        REQUIRE(write(ends[1], block.data(), block.size()) == PIPE_BUF && !put("", 1) && !put("", 1));
        REQUIRE(read(ends[0], &block[0], block.size()) == PIPE_BUF && !put("", 1));
        block.resize(static_cast<size_t>(read(ends[0], &block[0], block.size())));
        REQUIRE(block.find(" 2 lines lost\nE/VCONF") != std::string::npos);
        close(ends[0]);
        REQUIRE(!put("", 1));
    });
}

TEST_F(StoreTest, ALogLineLeavesItsCallerAlone)
{
    const auto openFiles = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
    const auto blocked = [] {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        return sigismember(&mask, SIGPIPE) + sigismember(&mask, SIGXFSZ) + sigismember(&mask, SIGTTOU);
    };
    int pipeEnds[2];
    ASSERT_EQ(0, pipe(pipeEnds));
    close(pipeEnds[0]);
    const int device = open("/dev/null", O_WRONLY);
    struct Row {
        const char* log;
        int standardError;
    };
    const Row rows[] = {{"/dev/full", device}, {"log", device}, {"stderr", device}, {"stderr", pipeEnds[1]}};
    for (const Row& row : rows) {
        inChild([&] {
            int cancellation = 0;
            setenv("ZOL_DLOG", row.log, 1);
            REQUIRE(dup2(row.standardError, STDERR_FILENO) >= 0);
            dlog_print(DLOG_ERROR, "tag", "opens the log\n");
            const auto before = openFiles();
            errno = 77;
            dlog_print(DLOG_ERROR, "tag", "line\n");
            REQUIRE(errno == 77 && openFiles() == before && blocked() == 0);
            REQUIRE(pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &cancellation) == 0);
            REQUIRE(cancellation == PTHREAD_CANCEL_ENABLE);
        });
    }
    close(device);
    close(pipeEnds[1]);
}

// A value that shows a tear: its number tells its length and letters.
std::string whole(size_t n)
{
    return std::to_string(n) + std::string(100 + n % 26 * 500, "abcdefghijklmnopqrstuvwxyz"[n % 26]);
}
size_t numberIn(const std::string& value) { return std::strtoul(value.c_str(), nullptr, 10); }
bool isWhole(const std::string& value) { return value == whole(numberIn(value)); }

TEST_F(StoreTest, KilledWritersLeaveWholeValuesAndNoReaderSlots)
{
    const char* wanted = std::getenv("ZOL_TEST_KILLS");
    const size_t kills = wanted == nullptr ? 40 : numberIn(wanted);
    struct Half {
        const char* key;
        std::atomic<size_t> acknowledged{0}, found{0}, received{0};  // the numbers of the latest writes
    };
    void* const shared = mmap(nullptr, 2 * sizeof(Half), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto* const halves = new (shared) Half[2]{{"db/a"}, {"memory/a"}};
    const auto note = [](keynode_t* node, void* half) {
        const size_t n = numberIn(node->value.s);
        REQUIRE(isWhole(node->value.s) && n >= static_cast<Half*>(half)->received.exchange(n));
    };
    const Gate ready;
    const pid_t watcher = start([&] {
        alarm(60 + static_cast<unsigned>(kills));
        for (Half* half : {&halves[0], &halves[1]}) {
            REQUIRE(watch(half->key, note, half) && put(half->key, whole(0)));
        }
        ready.open();
        for (size_t n = 0;; ++n) {
            REQUIRE(put(n % 5 == 0 ? "db/busy" : "memory/busy", whole(n)) && isWhole(text(halves[n % 2].key)));
            usleep(1000);
        }
    });
    ready.pass();
    std::mt19937 random{std::random_device{}()};
    for (size_t i = 0; i < kills && !HasFailure(); ++i) {
        Half& half = halves[i % 2];
        const pid_t writer = start([&] {
            for (size_t n = half.found + 1; put(half.key, whole(n)) && text(half.key) == whole(n); ++n) {
                half.acknowledged = n;
            }
        });
        EXPECT_TRUE(i % 7 == 0 || comesTrue([&] { return half.acknowledged > half.found; }));  // or it dies opening
        usleep(static_cast<useconds_t>(random() % 4000));
        kill(writer, SIGKILL);
        EXPECT_EQ(-SIGKILL, finish(writer));
        inChild([&] {
            half.found = numberIn(text(half.key));
            REQUIRE(isWhole(text(half.key)) && half.found >= half.acknowledged);
        });
        EXPECT_TRUE(comesTrue([&] { return half.received >= half.found; })) << half.key;
    }
    std::printf("%zu kills; %zu persistent and %zu volatile writes found\n", kills, halves[0].found.load(),
                halves[1].found.load());
    // Opening the store frees the slots, while somebody else has it open. Without anybody they would be gone anyhow.
    for (const auto& half : fs::directory_iterator("store")) {
        MDB_env* env = nullptr;
        MDB_envinfo info{};
        ASSERT_EQ(0, mdb_env_create(&env) + mdb_env_open(env, half.path().c_str(), 0, 0600) + mdb_env_info(env, &info));
        EXPECT_LE(info.me_numreaders, 8U) << "for at most four threads at a time";
        mdb_env_close(env);
    }
    kill(watcher, SIGKILL);
    EXPECT_EQ(-SIGKILL, finish(watcher));
    expectLog("", 0, [] {});
}

TEST_F(StoreTest, IsNotSharedWithAnotherPidNamespace)
{
    inChild([] { REQUIRE(put("db/a", 1)); });  // another one than the user below, which so only locks the store
    inChild([] {
        REQUIRE(put("db/a", 1));
        const int shared = unshare(CLONE_NEWPID) == 0 ? 0 : 1;  // only where there is no right to make one
        REQUIRE(finish(start([] { _exit(put("db/a", 2) ? 1 : 0); })) == shared);
        _exit(0);  // the leak checker cannot start its own process in the other namespace
    });
}

TEST_F(StoreTest, RefusesReplacedFilesWhileInUse)
{
    for (const std::string replace : {"rm lock.mdb", "cp -p data.mdb x; mv x data.mdb"}) {
        SCOPED_TRACE(replace);
        const Gate ready, done;
        const pid_t user = start([&] {
            REQUIRE(put("db/a", 1));
            ready.open();
            done.pass();
        });
        ready.pass();
        EXPECT_TRUE(run("cd store/persistent; " + replace));
        expectLog("end these first", 1, [] { REQUIRE(!put("db/a", 2)); });
        done.open();
        EXPECT_EQ(0, finish(user));
        expectLog("", 0, [] { REQUIRE(put("db/a", 3)); });
    }
}

TEST_F(StoreTest, ReadersDoNotWakeWatchers)
{
    inChild([] { REQUIRE(put("db/a", "x")); });
    const int events = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    EXPECT_LE(0, inotify_add_watch(events, "store/persistent/signal", IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB));
    inChild([] { REQUIRE(text("db/a") == "x"); });
    char event[4096];
    EXPECT_EQ(-1, read(events, event, sizeof event));
    close(events);
}

TEST_F(StoreTest, FlushesPersistentWritesOnly)
{
    inChild([] {
        REQUIRE(put("db/a", 1) && folderFlushes == 1);
        dataFlushes = 0;
        REQUIRE(put("db/a", 2) && dataFlushes == 2);
        REQUIRE(put("memory/a", 1) && folderFlushes == 2);
        dataFlushes = 0;
        REQUIRE(put("memory/a", 2) && dataFlushes == 0 && folderFlushes == 2);
    });
}

TEST_F(StoreTest, ProgramsInheritNoFiles)
{
    inChild([] {
        REQUIRE(put("db/a", 1) && put("memory/a", 1) && watch("db/a") && !put("", 1));
        REQUIRE(run("! ls -l /proc/self/fd | grep -e $PWD -e inotify"));
    });
}

TEST_F(StoreTest, ThreadsAreNotCancelledInsideTheStore)
{
    inChild([] {
        std::atomic<bool> wrote{false};
        std::thread thread([&] {
            pthread_cancel(pthread_self());
            REQUIRE(put("db/a", 1));
            wrote = true;
        });
        thread.join();
        REQUIRE(wrote && put("db/a", 2));
    });
}

TEST_F(StoreTest, KeepsItsModesWhateverTheUmask)
{
    for (const mode_t mask : {0177U, 0777U}) {
        inChild([mask] {
            umask(mask);
            REQUIRE(put("db/a", 1) && put("memory/a", 1));
        });
        EXPECT_TRUE(run("! find store -type d ! -perm 700 -o -type f ! -perm 600 | grep ."));
        EXPECT_TRUE(run("rm -r store"));
    }
}

TEST_F(StoreTest, ManyProcessesAndThreadsAtOnceOpenTheStoreAndLogWholeSafeLines)
{
    const auto use = [] {
        const std::string letters(1000, getpid() % 2 == 0 ? 'a' : 'b');
        for (int i = 0; i < 10; ++i) {
            REQUIRE(put(i % 5 == 0 ? "db/a" : "memory/a", i));
            dlog_print(DLOG_ERROR, "tag", "%s%s\n", letters.c_str(), "\x1b[\nf \x9b\xc2\x9b\xc4\x9b");
        }
    };
    pid_t processes[32];
    for (pid_t& process : processes) {
        process = start([&] {
            std::thread other(use);
            use();
            other.join();
        });
    }
    for (const pid_t process : processes) {
        EXPECT_EQ(0, finish(process));
    }
    EXPECT_TRUE(
        run("[ $(LC_ALL=C grep -cxE 'E/tag .[0-9]+:[0-9]+. (a{1000}|b{1000})"
            "\\\\x1b.\\\\x0af \\\\x9b\\\\x9b\xc4\x9b' log) = 640 ] && [ $(wc -l <log) = 640 ]"));
}

using Lines = std::vector<std::string>;

// Notes what a process is told, as "key=value" in the order of the calls.
struct Subscriber {
    std::mutex lock;
    Lines lines;
    Gate added;

    static void handler(keynode_t* node, void* subscriber)
    {
        auto* self = static_cast<Subscriber*>(subscriber);
        const std::lock_guard<std::mutex> guard(self->lock);
        self->lines.push_back(std::string(node->keyname) + "=" +
                              (node->value.s != nullptr ? node->value.s : std::to_string(node->value.i)));
        self->added.open();
    }
    bool follow(const std::string& key) { return watch(key, handler, this); }
    // Waits for so many lines, and takes all.
    Lines take(size_t wanted)
    {
        for (; wanted > 0; --wanted) {
            added.pass();
        }
        const std::lock_guard<std::mutex> guard(lock);
        return std::exchange(lines, {});
    }
};

TEST_F(StoreTest, EveryWriteIsToldOnceInOrderOrFarBehindTheNewestOfEachChangedKey)
{
    for (const bool isFarBehind : {false, true}) {
        expectLog(isFarBehind ? "fell behind" : "", isFarBehind ? 1 : 0, [isFarBehind] {
            static const Gate ready, wrote;
            Subscriber subscriber;
            for (const char* key : {"memory/a", "memory/b", "memory/same"}) {
                REQUIRE(put(key, "before") && subscriber.follow(key));
            }
            const auto stop = [](keynode_t*, void* data) {
                ready.open();
                wrote.pass();
                REQUIRE(static_cast<Subscriber*>(data)->follow("memory/late"));  // too late for the writes so far
            };
            REQUIRE(watch("memory/b") && watch("memory/stop", stop, &subscriber) && put("memory/stop", 1));
            ready.pass();
            Lines expected;
            for (int i = 0; i < (isFarBehind ? 1500 : 500); ++i) {
                REQUIRE(put("memory/b", i / 2) && put("memory/unwatched", i) && put("memory/late", i));
                REQUIRE(put("memory/a", std::to_string(i)));
                expected.insert(expected.end(), {"memory/b=" + std::to_string(i / 2), "memory/a=" + std::to_string(i)});
            }
            expected.erase(expected.begin(), expected.end() - (isFarBehind ? 2 : 1000));
            wrote.open();
            REQUIRE(subscriber.take(expected.size()) == expected);
        });
    }
}

TEST_F(StoreTest, ALookAtTheJournalMakesNoOtherCall)
{
    inChild([] {
        Subscriber subscriber;
        REQUIRE(subscriber.follow("memory/a"));
        const int before = statusCalls;
        inChild([] { REQUIRE(put("memory/a", 1) && put("memory/a", 2)); });
        REQUIRE((subscriber.take(2) == Lines{"memory/a=1", "memory/a=2"}));
        REQUIRE(statusCalls == before);
    });
}

TEST_F(StoreTest, AWriteWhoseWriterCannotTellIsStillToldOf)
{
    for (const Fault next : {Fault::DieBeforeTelling, Fault::CannotTell}) {
        const Gate ready, done;
        const pid_t writer = start([&] {
            ready.pass();
            REQUIRE(put("db/a", 0));
            start([&] { done.pass(); });  // a child that outlives the writer must not hide its end
            fault = next;
            put("db/a", 1);
            done.pass();
        });
        inChild([&] {
            Subscriber subscriber;
            REQUIRE(subscriber.follow("db/a"));
            ready.open();
            REQUIRE((subscriber.take(2) == Lines{"db/a=0", "db/a=1"}));
        });
        done.open();
        done.open();
        EXPECT_EQ(next == Fault::CannotTell ? 0 : -SIGKILL, finish(writer));
    }
}

TEST_F(StoreTest, AFailureOfTheDiskOrOfAHandlerIsLoggedAndTheNextWriteIsTold)
{
    // after the handler's end and the write itself
    expectLog("again, because a write failed", 3, [] {
        Subscriber subscriber;
        const auto ending = [](keynode_t* node, void* data) {
            Subscriber::handler(node, data);
            pthread_exit(nullptr);
        };
        REQUIRE(subscriber.follow("db/a") && watch("db/end", ending, &subscriber));
        REQUIRE(put("db/end", 1) && put("db/a", "old"));
        REQUIRE((subscriber.take(2) == Lines{"db/end=1", "db/a=old"}));
        fault = Fault::CannotWrite;
        REQUIRE(!put("db/a", 2) && text("db/a") == "old" && put("db/a", 3));
        REQUIRE(subscriber.take(1) == Lines{"db/a=3"});
        _exit(0);  // the delivering thread still uses what is here
    });
}

TEST_F(StoreTest, HandlersMayUseTheStoreAndForkAndAChildIsNotSubscribed)
{
    inChild([] {
        static const Gate done;
        constexpr int kDelivered = 7;
        static const pid_t subscriber = getpid();
        const auto answer = [](keynode_t* node, void*) {
            REQUIRE(getpid() == subscriber);
            if (node->value.i != 1) {
                done.open();
                return;
            }
            const pid_t child = fork();
            if (child == 0) {
                REQUIRE(put("memory/a", 2));
#ifdef __SANITIZE_THREAD__
                _exit(kDelivered);  // its runtime allows no threads in such a child
#endif
                std::thread([] {
                    const auto end = [](keynode_t*, void*) { _exit(kDelivered); };
                    REQUIRE(comesTrue([] { return access("/proc/self/fd/2", F_OK) != 0; }));  // no main thread
                    REQUIRE(watch("db/b", end) && put("db/b", 1));
                    pause();
                }).detach();
                return;  // to the store's own code, which has to end this thread: here it is not the store's
            }
            REQUIRE(finish(child) == kDelivered && put("memory/a", 3));
        };
        REQUIRE(watch("memory/a", answer) && put("memory/a", 1));
        done.pass();  // the child's write
        done.pass();
    });
}

}  // namespace
