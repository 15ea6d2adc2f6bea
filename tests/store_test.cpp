// The desk's store and log, through the functions that a platform supplies.

#include <dlfcn.h>
#include <dlog.h>
#include <fcntl.h>
#include <lmdb.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <vconf.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "child.h"

namespace fs = std::filesystem;

// What becomes of a writer when it tells of its write (the only write of one byte), or when it writes the page that
// makes the write current.
enum class Fault { None, DieBeforeTelling, CannotTell, CannotWrite };
static std::atomic<Fault> fault{Fault::None};
extern "C" ssize_t pwrite(int fd, const void* data, size_t size, off_t offset)
{
    if (size == 1 && fault == Fault::DieBeforeTelling) {
        raise(SIGKILL);
    }
    if ((size == 1 && fault == Fault::CannotTell) || (size > 16 && size < 4096 && fault == Fault::CannotWrite)) {
        fault = Fault::None;
        errno = EIO;
        return -1;
    }
    return syscall(SYS_pwrite64, fd, data, size, offset);
}

static size_t mapSize = 0;  // of a smaller store, if not 0
extern "C" int mdb_env_set_mapsize(MDB_env* env, size_t size)
{
    static const auto real = reinterpret_cast<decltype(&mdb_env_set_mapsize)>(dlsym(RTLD_NEXT, "mdb_env_set_mapsize"));
    return real(env, mapSize == 0 ? size : mapSize);
}

namespace {

std::string text(const std::string& key)
{
    const std::unique_ptr<char, decltype(&std::free)> copy(vconf_get_str(key.c_str()), std::free);
    return copy ? copy.get() : "(none)";
}
int number(const std::string& key)
{
    int value = -1;
    return vconf_get_int(key.c_str(), &value) == 0 ? value : -1;
}
bool watch(const std::string& key)
{
    return vconf_notify_key_changed(
               key.c_str(), [](keynode_t*, void*) {}, nullptr) == 0;
}
bool comesTrue(const std::function<bool()>& condition)
{
    for (int i = 0; i < 30000 && !condition(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return condition();
}
bool mainThreadIsGone()
{
    return comesTrue([] { return access("/proc/self/fd/2", F_OK) != 0; });
}
bool put(const std::string& key, int value) { return vconf_set_int(key.c_str(), value) == 0; }
bool put(const std::string& key, const std::string& value) { return vconf_set_str(key.c_str(), value.c_str()) == 0; }

// NOLINTNEXTLINE(cert-env33-c): all commands are written in this file
bool run(const std::string& commands) { return std::system(("(" + commands + ") 2>/dev/null").c_str()) == 0; }

// A scratch folder that becomes the store's, with the log in a file.
class StoreTest : public testing::Test {
protected:
    void SetUp() override
    {
        char name[] = "/tmp/zol-test-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(name));
        root = name;
        setenv("ZOL_VCONF_DIR", store().c_str(), 1);
        setenv("ZOL_DLOG", (root / "log").c_str(), 1);
    }
    void TearDown() override { fs::remove_all(root); }

    fs::path store() const { return root / "store"; }
    std::string takeLog() const
    {
        std::ifstream file(root / "log");
        std::string log((std::istreambuf_iterator<char>(file)), {});
        fs::remove(root / "log");
        return log;
    }
    void expectLog(const std::string& part, int lines) const
    {
        const std::string log = takeLog();
        EXPECT_NE(std::string::npos, log.find(part)) << part << " in " << log;
        EXPECT_EQ(lines, std::count(log.begin(), log.end(), '\n')) << log;
    }

    fs::path root;
};

TEST_F(StoreTest, TakesEveryKeyAndTextWithinItsLimitsAndRefusesOthersWithOneLine)
{
    const std::string longest(511, '/'), largest(size_t{64} << 20, 'v');
    inChild([&] {
        for (const std::string key : {longest.c_str(), "../x", "memory/../../x", "/tmp/x/", "\x01\n\xff"}) {
            REQUIRE(put(key, key) && text(key) == key);
        }
        for (const std::string& value : {std::string(), std::string(5000, 'v'), largest}) {
            REQUIRE(put("db/sized", value) && text("db/sized") == value);
        }
    });
    EXPECT_EQ("", takeLog());
    EXPECT_EQ(9, std::distance(fs::recursive_directory_iterator(root), {}))
        << "the folder, two halves, three files each";

    int value = 7;
    const auto handler = [](keynode_t*, void*) {};
    const auto readsNoNumber = [&] { return vconf_get_int("db/sized", &value) != 0 && value == 7; };
    const std::pair<const char*, std::function<bool()>> refused[] = {
        {"key is empty", [] { return !put("", 1); }},
        {"longer than 511", [] { return !put(std::string(512, 'k'), 1); }},
        {"null pointer", [] { return vconf_get_str(nullptr) == nullptr; }},
        {"null pointer", [] { return vconf_set_str("db/sized", nullptr) != 0; }},
        {"null pointer", [] { return vconf_get_int("db/sized", nullptr) != 0; }},
        {"null pointer", [] { return vconf_notify_key_changed("db/sized", nullptr, nullptr) != 0; }},
        {"64 MiB", [&] { return !put("db/sized", largest + "v") && text("db/sized") == largest; }},
        {"holds a string, not an integer", readsNoNumber},
        {"holds a boolean, not an integer", [&] { return vconf_set_bool("db/sized", 5) == 0 && readsNoNumber(); }},
        {"holds a boolean, not a string", [] { return text("db/sized") == "(none)"; }},
        {"no such handler", [&] { return vconf_ignore_key_changed("db/sized", handler) != 0; }},
    };
    for (const auto& [line, call] : refused) {
        inChild([&, &refuses = call] { REQUIRE(refuses()); });
        expectLog(line, 1);
    }
    inChild([&] {
        REQUIRE(vconf_get_bool("db/sized", &value) == 0 && value == 1);
        REQUIRE(put("memory/sized", INT_MIN) && number("memory/sized") == INT_MIN && text("no/such/key") == "(none)");
    });
}

TEST_F(StoreTest, ChoosesFoldersByTheEnvironmentAndKeepsThemPrivate)
{
    unsetenv("ZOL_VCONF_DIR");
    unsetenv("XDG_STATE_HOME");
    setenv("XDG_RUNTIME_DIR", root.c_str(), 1);
    for (const std::string variable : {"HOME", "XDG_STATE_HOME", "ZOL_VCONF_DIR"}) {  // each goes before the last one
        ASSERT_TRUE(variable != "HOME" || mkdir((root / variable).c_str(), 0700) == 0);
        setenv(variable.c_str(), (root / variable).c_str(), 1);
        inChild([] { REQUIRE(put("db/a", 1) && put("memory/a", 1)); });
    }
    std::set<std::string> halves;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        EXPECT_EQ(fs::perms(entry.is_directory() ? 0700 : 0600), entry.status().permissions()) << entry;
        if (entry.path().filename() == "signal") {
            const std::string half = fs::relative(entry.path().parent_path(), root);
            halves.insert(half.substr(0, half.find('-', half.rfind('/'))));  // without the id of the machine's start
        }
    }
    EXPECT_EQ((std::set<std::string>{"HOME/.local/state/zol-tv/persistent", "XDG_STATE_HOME/zol-tv/persistent",
                                     "ZOL_VCONF_DIR/persistent", "ZOL_VCONF_DIR/volatile", "zol-tv/volatile"}),
              halves);
}

TEST_F(StoreTest, PlacesAndFilesThatDoNotServeGiveOneLineOrTheValuesThatWereWritten)
{
    struct Row {
        std::string line;              // none: the store works; "new": and is empty
        std::string prepare = "true";  // for the shell, in the scratch folder, with the name of the half's folder
        std::string place = "/store";  // in the scratch folder, unless it is relative
        std::string variable = "ZOL_VCONF_DIR", half = "";
    };
    const std::string mount = "mount --make-rprivate /; mkdir store; mount -t tmpfs none ";
    const std::string copy = "cp -rp sound store; cd store/$HALF; ";
    std::vector<Row> rows = {
        {"must be an absolute path", "true", "store"},
        {"set HOME", "true", "", "HOME", "db"},
        {"is not a folder", "touch store"},
        {"set ZOL_VCONF_DIR", "mkdir -m 707 store"},
        {"run chmod 700", "mkdir -p store/zol-tv; chmod 770 store/zol-tv", "/store", "XDG_RUNTIME_DIR", "memory"},
        {"run chmod 700", "mkdir -m 700 store; mkdir -m 711 store/$HALF"},
        {"set ZOL_VCONF_DIR", "mkdir -p real; chown 1 real; ln -s real store"},
        {"set ZOL_VCONF_DIR", "cp -rp sound real; ln -s real store; chown -h 1 store"},
        {"set ZOL_VCONF_DIR", mount + "/dev/shm; mkdir /dev/shm/zol-tv-0; chown 1 /dev/shm/*", "", "HOME", "memory"},
        {"No space left", mount + "store -o mode=700,size=264k"},  // for the lock file and half the data file's head
        {"No space left", mount + "store -o mode=700,size=99k; mkdir -m 700 store/$HALF; "
                                  "cp sound/$HALF/[ds]* store/$HALF; chmod 600 store/$HALF/*; yes >store/x; true"},
        {"removed or emptied", copy + "rm data.mdb"},
        {"afresh", copy + "head -c 8192 /dev/zero | dd of=data.mdb conv=notrunc"},
        {"VERSION_MISMATCH", copy + "printf c | dd of=data.mdb bs=1 seek=20 conv=notrunc"},
        {"cut short", copy + "truncate -s -1 data.mdb"},
        {"", copy},  // with the lock file of a process that was killed
        {"", "rm -rf real; cp -rp sound real; ln -s real store"},
        {"", copy + "yes | head -c 300000 >lock.mdb"},
        {"", copy + "rm lock.mdb signal"},
        {"new", copy + "rm signal; truncate -s 300 data.mdb"},  // the machine failed while the store was made,
        {"new", copy + "rm signal; truncate -s -1 data.mdb"},   // before it was written to
    };
    for (const std::string file : {"data.mdb", "lock.mdb", "signal"}) {
        for (const std::string harm : {"chmod 400 ", "chmod 640 ", "chown 1 ", "ln -t .. ", "mv -t .. ", "rm "}) {
            const std::string put = harm[0] == 'm' ? "; ln -s ../" + file : harm[0] == 'r' ? "; mkfifo " + file : "";
            rows.push_back({"/" + file + ": it must be", copy + harm + file + put});
        }
    }
    const bool mayMount = geteuid() == 0 && run("unshare -m mount -t tmpfs none /tmp");
    const std::string value(20000, 'v');
    EXPECT_EQ(-SIGKILL, finish(start([&] {
        setenv("ZOL_VCONF_DIR", (root / "sound").c_str(), 1);
        REQUIRE(put("db/a", value) && put("memory/a", value));
        raise(SIGKILL);
    })));
    for (const auto& half : fs::directory_iterator(root / "sound")) {
        setenv("HALF", half.path().filename().c_str(), 1);
        const std::string key = half.path().filename() == "persistent" ? "db/a" : "memory/a";
        for (const Row& each : rows) {
            const bool isNew = each.line == "new", works = each.line.empty() || isNew;
            const bool mounts = each.prepare.find("mount") == 0, owns = each.prepare.find("chown") != std::string::npos;
            if (((mounts || owns) && !mayMount) || key.find(each.half) != 0) {
                continue;
            }
            SCOPED_TRACE(key + " in " + each.variable + "=" + each.place + " after " + each.prepare);
            inChild([&] {
                fs::current_path(root);
                REQUIRE(!mounts || unshare(CLONE_NEWNS) == 0);
                REQUIRE(run("rm -rf store; " + each.prepare));
                clearenv();
                setenv("ZOL_DLOG", (root / "log").c_str(), 1);
                setenv(each.variable.c_str(), ((each.place[0] == '/' ? root.string() : "") + each.place).c_str(), 1);
                REQUIRE(text(key) == (works && !isNew ? value : "(none)") && put(key, 2) == works);
                // What is left of the attempt must not stand in the way once there is space.
                REQUIRE(!mounts || owns || (run("mount -o remount,rw,size=1m store") && put(key, 2)));
            });
            expectLog(works ? "" : each.line, works ? 0 : 2);
        }
    }
}

TEST_F(StoreTest, ServesAProgramThatHasClosedItsStandardFilesOrEndedItsMainThread)
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
    inChild([] {
        std::thread([] {
            REQUIRE(mainThreadIsGone() && put("db/a", 1) && watch("db/a"));
            _exit(0);
        }).detach();
        syscall(SYS_exit, 0);  // of this thread alone
    });
}

TEST_F(StoreTest, ALogThatCannotBeWrittenNeitherStopsNorEndsAProgram)
{
    struct flock all {};
    all.l_type = F_WRLCK;
    for (const auto& [log, lines] : {std::pair<std::string, int>("/dev/full", 0), {root / "no/log", 2}, {"", 1}}) {
        const int locked = open((root / "log").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        ASSERT_EQ(0, fcntl(locked, F_SETLK, &all));
        setenv("ZOL_DLOG", log.c_str(), 1);
        inChild([&] {
            REQUIRE(dup2(open((root / "log").c_str(), O_WRONLY | O_APPEND), STDERR_FILENO) >= 0);
            REQUIRE(put("db/a", 1) && !put("", 1) && number("db/a") == 1);
        });
        expectLog("", lines);
        close(locked);
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

TEST_F(StoreTest, AFullDiskOrStoreLeavesTheOldValueAndNextWritesWork)
{
    const std::string large(size_t{4} << 20, 'v');
    inChild([&] {
        REQUIRE(put("db/a", "old"));
        signal(SIGXFSZ, SIG_IGN);
        const rlimit small{1 << 20, RLIM_INFINITY}, none{RLIM_INFINITY, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &small);
        REQUIRE(!put("db/a", large) && text("db/a") == "old" && put("db/a", "small") && text("db/a") == "small");
        setrlimit(RLIMIT_FSIZE, &none);
        REQUIRE(put("db/a", large));
    });
    expectLog("disk may be full", 1);
    inChild([&] {
        mapSize = size_t{64} << 20;
        int count = 0;
        for (size_t size = large.size(); size > 0; size /= 16) {
            for (; put("memory/" + std::to_string(count), large.substr(0, size)); ++count) {
            }
        }
        for (int i = 0; i < 600; ++i) {
            REQUIRE(count > 8 && put("memory/" + std::to_string(i % 8), i) && put("memory/a", "x"));
        }
        REQUIRE(put("memory/a", large));
    });
    expectLog("the store is full", 6);
}

TEST_F(StoreTest, FilesThatAreRemovedOrCutShortUnderAProcessAreNoticed)
{
    for (const std::string line : {"cut short", "were removed", "restart this program to be told"}) {
        const bool told = line.find("told") != std::string::npos;
        inChild([&] {
            REQUIRE(put("db/a", 1) && (!told || watch("db/a")));
            line == "cut short" ? fs::resize_file(store() / "persistent/data.mdb", 9000)
                                : (void)fs::remove_all(store());
            REQUIRE(told ? comesTrue([&] { return std::ifstream(root / "log").peek() != EOF; }) : !put("db/a", 2));
        });
        expectLog(line, 1);
        fs::remove_all(store());
    }
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
        std::atomic<size_t> acknowledged, found, told;  // the numbers of the latest writes
    };
    const std::string keys[] = {"db/a", "memory/a"};
    auto* const halves = static_cast<Half*>(  // zeros
        mmap(nullptr, 2 * sizeof(Half), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const auto atLeast = [](const std::atomic<size_t>& number, size_t least) {
        return comesTrue([&] { return number >= least; });
    };
    const auto note = [](keynode_t* node, void* half) {
        const size_t n = numberIn(node->value.s);
        REQUIRE(isWhole(node->value.s) && n >= static_cast<Half*>(half)->told.exchange(n));
    };
    const Gate ready;
    const pid_t watcher = start([&] {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (const int i : {0, 1}) {
            REQUIRE(vconf_notify_key_changed(keys[i].c_str(), note, &halves[i]) == 0 && put(keys[i], whole(0)));
        }
        ready.open();
        for (size_t n = 0;; ++n) {
            REQUIRE(put(n % 5 == 0 ? "db/busy" : "memory/busy", whole(n)) && isWhole(text(keys[n % 2])));
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    ready.pass();
    std::mt19937 random{std::random_device{}()};
    for (size_t i = 0; i < kills && !HasFailure(); ++i) {
        Half& half = halves[i % 2];
        const std::string& key = keys[i % 2];
        const pid_t writer = start([&] {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (size_t n = half.found + 1;; ++n) {
                REQUIRE(put(key, whole(n)));
                half.acknowledged = n;
                REQUIRE(text(key) == whole(n));
            }
        });
        EXPECT_TRUE(i % 7 == 0 || atLeast(half.acknowledged, half.found + 1));  // some die while they open the store
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 4000));
        kill(writer, SIGKILL);
        EXPECT_EQ(-SIGKILL, finish(writer));
        inChild([&] {
            half.found = numberIn(text(key));
            REQUIRE(isWhole(text(key)) && half.found >= half.acknowledged);
        });
        EXPECT_TRUE(atLeast(half.told, half.found)) << key;
    }
    std::printf("%zu kills; %zu persistent and %zu volatile writes found\n", kills, halves[0].found.load(),
                halves[1].found.load());
    // Opening the store frees the slots, while somebody else has it open. Without anybody they would be gone anyhow.
    for (const auto& half : fs::directory_iterator(store())) {
        MDB_env* env = nullptr;
        MDB_envinfo info{};
        ASSERT_EQ(0, mdb_env_create(&env) + mdb_env_open(env, half.path().c_str(), 0, 0600)) << half;
        EXPECT_EQ(0, mdb_env_info(env, &info));
        EXPECT_LE(info.me_numreaders, 8U) << "for at most four threads at a time";
        std::printf("%u reader slots\n", info.me_numreaders);
        mdb_env_close(env);
    }
    kill(watcher, SIGKILL);
    EXPECT_EQ(-SIGKILL, finish(watcher));
    EXPECT_EQ("", takeLog());
}

TEST_F(StoreTest, IsNotSharedWithAnotherPidNamespace)
{
    if (!run("unshare -p true")) {
        GTEST_SKIP() << "no right to make a namespace";
    }
    inChild([] {
        REQUIRE(put("db/a", 1) && put("memory/a", 1) && unshare(CLONE_NEWPID) == 0);
        REQUIRE(finish(start([] { _exit(put("db/a", 2) || put("memory/a", 2) ? 1 : 0); })) == 0);
        _exit(0);  // the leak checker cannot start its own process in the other namespace
    });
    expectLog("another PID namespace", 2);
}

TEST_F(StoreTest, ManyProcessesAndThreadsOpenAndUseTheStoreAtOnce)
{
    std::vector<pid_t> processes;
    for (int p = 0; p < 32; ++p) {
        processes.push_back(start([p] {
            const auto work = [](const std::string& key) {
                for (int n = 0; n < 20; ++n) {
                    REQUIRE(put(key, n) && number(key) == n);
                }
            };
            std::thread other(work, "memory/" + std::to_string(p));
            work("memory/other " + std::to_string(p));
            other.join();
            REQUIRE(put("db/" + std::to_string(p), p));
        }));
    }
    for (const pid_t process : processes) {
        EXPECT_EQ(0, finish(process));
    }
    EXPECT_EQ("", takeLog());
}

using Lines = std::vector<std::string>;

// What a process was told, as "key=value" in the order of the calls.
struct Told {
    std::mutex lock;
    std::condition_variable changed;
    Lines lines;

    static void handler(keynode_t* node, void* told)
    {
        auto* self = static_cast<Told*>(told);
        const std::lock_guard<std::mutex> guard(self->lock);
        REQUIRE((node->type == VCONF_TYPE_STRING) == (node->value.s != nullptr));
        self->lines.push_back(std::string(node->keyname) + "=" +
                              (node->type == VCONF_TYPE_STRING ? node->value.s : std::to_string(node->value.i)));
        self->changed.notify_all();
    }
    void subscribe(const Lines& keys)
    {
        for (const std::string& key : keys) {
            REQUIRE(vconf_notify_key_changed(key.c_str(), handler, this) == 0);
        }
    }
    // Waits for so many lines, and takes them.
    Lines take(size_t count)
    {
        std::unique_lock<std::mutex> guard(lock);
        changed.wait(guard, [&] { return lines.size() >= count; });
        return std::exchange(lines, {});
    }
};

TEST_F(StoreTest, EveryWriteIsToldOnceInOrderWithItsOwnValue)
{
    const Gate ready;
    const auto ignored = [](keynode_t* node, void* told) { Told::handler(node, told); };
    const pid_t watcher = start([&] {
        Told told;
        told.subscribe({"memory/a", "memory/b", "memory/c"});
        REQUIRE(vconf_notify_key_changed("memory/b", Told::handler, &told) != 0);  // it is subscribed already
        REQUIRE(vconf_notify_key_changed("memory/b", ignored, &told) == 0);
        ready.open();
        Lines expected;
        for (int i = 0; i < 500; ++i) {
            const std::string ofB = "memory/b=text " + std::to_string(i);
            expected.insert(expected.end(), {"memory/a=" + std::to_string(i / 2), ofB, ofB, "memory/c=1"});
        }
        REQUIRE(told.take(expected.size()) == expected);
        REQUIRE(vconf_ignore_key_changed("memory/b", ignored) == 0);
        ready.open();
        REQUIRE((told.take(2) == Lines{"memory/b=0", "memory/c=0"}));
    });
    ready.pass();
    inChild([] {
        for (int i = 0; i < 500; ++i) {
            REQUIRE(put("memory/a", i / 2) && put("memory/unwatched", i));  // each value twice
            REQUIRE(put("memory/b", "text " + std::to_string(i)) && vconf_set_bool("memory/c", 1) == 0);
        }
    });
    ready.pass();
    inChild([] { REQUIRE(put("memory/b", 0) && vconf_set_bool("memory/c", 0) == 0); });
    EXPECT_EQ(0, finish(watcher));
}

TEST_F(StoreTest, AProcessFarBehindIsToldTheNewestValueOfEachChangedKeyOnce)
{
    static Gate ready, wrote;
    const pid_t watcher = start([&] {
        Told told;
        told.subscribe({"memory/a", "memory/b", "memory/same"});
        const auto stop = [](keynode_t*, void* subscriber) {
            ready.open();
            wrote.pass();
            static_cast<Told*>(subscriber)->subscribe({"memory/late"});  // too late for the writes so far
        };
        REQUIRE(vconf_notify_key_changed("memory/stop", stop, &told) == 0 && put("memory/stop", 1));
        REQUIRE((told.take(2) == Lines{"memory/b=4999", "memory/a=end"}));
    });
    ready.pass();
    inChild([] {
        for (int i = 0; i < 5000; ++i) {
            REQUIRE(put("memory/b", i) && (i % 1000 != 0 || put("memory/late", i)));
        }
        REQUIRE(put("memory/a", "end"));
    });
    wrote.open();
    EXPECT_EQ(0, finish(watcher));
    expectLog("fell behind", 1);
}

TEST_F(StoreTest, AWriteWhoseWriterCannotTellIsStillToldOf)
{
    for (const std::string key : {"db/a", "memory/a"}) {
        for (const Fault next : {Fault::DieBeforeTelling, Fault::CannotTell}) {
            const Gate ready, done;
            const pid_t watcher = start([&] {
                Told told;
                told.subscribe({key});
                ready.open();
                REQUIRE((told.take(2) == Lines{key + "=0", key + "=1"}));
            });
            ready.pass();
            const pid_t writer = start([&] {
                REQUIRE(put(key, 0));
                start([&] { done.pass(); });  // a child that outlives the writer must not hide its end
                fault = next;
                put(key, 1);
                done.pass();
            });
            EXPECT_EQ(0, finish(watcher));
            done.open(), done.open();
            EXPECT_EQ(next == Fault::CannotTell ? 0 : -SIGKILL, finish(writer));
        }
    }
}

TEST_F(StoreTest, AFailureOfTheDiskOrOfAHandlerIsLoggedAndTheNextWriteIsTold)
{
    for (const std::string key : {"db/a", "memory/a"}) {
        inChild([&] {
            Told told;
            told.subscribe({key});
            const auto ending = [](keynode_t* node, void* subscriber) {
                Told::handler(node, subscriber);
                pthread_exit(nullptr);
            };
            REQUIRE(vconf_notify_key_changed("memory/end", ending, &told) == 0);
            REQUIRE(put("memory/end", 1) && told.take(1) == Lines{"memory/end=1"});
            fault = Fault::CannotWrite;
            REQUIRE(!put(key, 2) && number(key) == -1 && put(key, 3) && number(key) == 3);
            REQUIRE(told.take(1) == Lines{key + "=3"});
            _exit(0);  // the delivering thread still uses what is here
        });
        const std::string log = takeLog();
        EXPECT_NE(std::string::npos, log.find("a handler has ended the delivering thread")) << log;
        EXPECT_NE(std::string::npos, log.find("anew, since a write was broken off")) << log;
    }
}

TEST_F(StoreTest, HandlersMayUseTheStoreAndForkAndAChildIsNotSubscribed)
{
    inChild([] {
        static Gate done;
        constexpr int kToldAll = 7;
        static const pid_t subscriber = getpid();
        const auto answer = [](keynode_t* node, void*) {
            REQUIRE(getpid() == subscriber);
            if (node->value.i != 1) {
                done.open();
                return;
            }
            REQUIRE(put("memory/a", 2) && number("memory/a") == 2);
            const pid_t child = fork();
            if (child == 0) {
                REQUIRE(put("db/child", 1));
#ifdef __SANITIZE_THREAD__
                _exit(kToldAll);  // its runtime allows no threads in such a child
#endif
                std::thread([] {
                    const auto end = [](keynode_t*, void*) { _exit(kToldAll); };
                    REQUIRE(mainThreadIsGone() && vconf_notify_key_changed("memory/b", end, nullptr) == 0);
                    REQUIRE(put("memory/b", 1));
                    pause();
                }).detach();
                return;  // to the store's own code, which has to end this thread: here it is not the store's
            }
            REQUIRE(finish(child) == kToldAll && number("db/child") == 1);
        };
        REQUIRE(vconf_notify_key_changed("memory/a", answer, nullptr) == 0 && put("memory/a", 1));
        done.pass();
        const pid_t child = start([&] {
            REQUIRE(vconf_ignore_key_changed("memory/a", answer) != 0 && put("memory/a", 3));
            _exit(0);  // what the parent's delivering thread had on its stack would look leaked here
        });
        REQUIRE(finish(child) == 0);
        done.pass();  // the parent is told of the child's write
    });
}

TEST_F(StoreTest, LogLinesStayWholeAndCannotSteerATerminal)
{
    const auto write = [](const std::string& text) {
        for (int i = 0; i < 20; ++i) {
            dlog_print(DLOG_ERROR, "tag", "%s%s\n", i % 2 == 0 ? text.c_str() : "short ",
                       "\x1b[\nf \x9b\xc2\x9b\xc4\x9b");
        }
    };
    for (const size_t size : {size_t{20000}, size_t{1000}}) {
        const bool toPipe = size < PIPE_BUF;  // where longer lines may mix
        ASSERT_TRUE(!toPipe || mkfifo((root / "log").c_str(), 0600) == 0);
        const int reader = open((root / "log").c_str(), O_RDWR | O_CREAT | O_NONBLOCK, 0600);
        inChild([&] {
            const pid_t other = start([&] { write(std::string(size, 'a')); });
            std::thread second(write, std::string(size, 'b'));
            write(std::string(size, 'c'));
            second.join();
            REQUIRE(finish(other) == 0);
        });
        std::string log(size_t{1} << 20, '\0');
        log.resize(static_cast<size_t>(read(reader, &log[0], log.size())));
        close(reader);
        fs::remove(root / "log");
        std::istringstream lines(log);
        size_t count = 0;
        for (std::string line; std::getline(lines, line); ++count) {
            const std::string message = line.substr(std::min(line.find(") ") + 2, line.size()));
            const std::string body = message[0] == 's' ? "short " : std::string(size, message[0]);
            EXPECT_TRUE(line.find("E/tag (") == 0 && message == body + "\\x1b[\\x0af \\x9b\\x9b\xc4\x9b") << line;
        }
        EXPECT_EQ(60U, count);
    }
}

}  // namespace
