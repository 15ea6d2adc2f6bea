// The desk store and log, through the functions that a platform supplies.

#include <dlfcn.h>
#include <dlog.h>
#include <fcntl.h>
#include <lmdb.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <vconf.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "child.h"

namespace fs = std::filesystem;

// Kills this process where a writer has committed and not told anybody yet; the signal is the only write of one byte.
static std::atomic<bool> dieBeforeSignal{false};
extern "C" ssize_t pwrite(int fd, const void* data, size_t size, off_t offset)
{
    if (size == 1 && dieBeforeSignal) {
        raise(SIGKILL);
    }
    return syscall(SYS_pwrite64, fd, data, size, offset);
}

// Called before a snapshot for reading is taken, so that a test can write between two looks of the delivering thread.
static std::function<void()> beforeLook;
extern "C" int mdb_txn_begin(MDB_env* env, MDB_txn* parent, unsigned flags, MDB_txn** txn)
{
    static const auto real = reinterpret_cast<decltype(&mdb_txn_begin)>(dlsym(RTLD_NEXT, "mdb_txn_begin"));
    if ((flags & MDB_RDONLY) != 0 && beforeLook) {
        beforeLook();
    }
    return real(env, parent, flags, txn);
}

namespace {

std::string text(const char* key)
{
    char* copy = vconf_get_str(key);
    std::string result = copy == nullptr ? "(none)" : copy;
    std::free(copy);
    return result;
}

int number(const char* key)
{
    int value = -1;
    vconf_get_int(key, &value);
    return value;
}

size_t countLines(const std::string& log) { return static_cast<size_t>(std::count(log.begin(), log.end(), '\n')); }

// ---- values ---------------------------------------------------------------------------------------------------------

TEST_F(StoreTest, ValuesKeepTheirTypeAcrossProcesses)
{
    for (const char* key : {"db/key", "memory/key"}) {
        inChild([&] {
            REQUIRE(vconf_set_str(key, "text") == 0 && text(key) == "text");
            int value = 7;
            REQUIRE(vconf_get_int(key, &value) != 0 && vconf_get_bool(key, &value) != 0 && value == 7);
            REQUIRE(vconf_set_bool(key, 5) == 0 && vconf_get_bool(key, &value) == 0 && value == 1);
            REQUIRE(vconf_get_int(key, &value) != 0 && text(key) == "(none)");
            REQUIRE(vconf_set_int(key, -2147483647 - 1) == 0);
        });
        inChild([&] { REQUIRE(number(key) == -2147483647 - 1 && text("no/such/key") == "(none)"); });
    }
}

TEST_F(StoreTest, TakesEveryKeyAndTextWithinItsLimitsAndRefusesOthersWithOneLine)
{
    const std::string longest(511, 'k');
    const std::string slashes(500, '/');
    inChild([&] {
        for (const std::string& key :
             {std::string("k"), longest, slashes, std::string("../x"), std::string("\x01\xff")}) {
            REQUIRE(vconf_set_str(key.c_str(), key.c_str()) == 0 && text(key.c_str()) == key);
        }
        for (const size_t size : {size_t{0}, size_t{5000}, size_t{64} << 20}) {
            const std::string value(size, 'v');
            REQUIRE(vconf_set_str("db/sized", value.c_str()) == 0 && text("db/sized") == value);
        }
    });
    EXPECT_EQ("", takeLog());

    const std::string tooLong(512, 'k');
    const std::string tooLarge((size_t{64} << 20) + 1, 'v');
    int value = 7;
    const auto handler = [](keynode_t*, void*) {};
    const std::vector<std::pair<const char*, std::function<bool()>>> refused = {
        {"key is empty", [] { return vconf_set_int("", 1) != 0; }},
        {"longer than 511", [&] { return vconf_set_str(tooLong.c_str(), "v") != 0; }},
        {"longer than 511", [&] { return vconf_get_str(tooLong.c_str()) == nullptr; }},
        {"null pointer", [] { return vconf_get_str(nullptr) == nullptr; }},
        {"null pointer", [] { return vconf_set_str("db/sized", nullptr) != 0; }},
        {"null pointer", [] { return vconf_get_int("db/sized", nullptr) != 0; }},
        {"null pointer", [] { return vconf_notify_key_changed("db/sized", nullptr, nullptr) != 0; }},
        {"64 MiB", [&] { return vconf_set_str("db/sized", tooLarge.c_str()) != 0; }},
        {"holds a string, not an integer", [&] { return vconf_get_int("db/sized", &value) != 0 && value == 7; }},
        {"no such handler", [&] { return vconf_ignore_key_changed("db/sized", handler) != 0; }},
    };
    for (const auto& [line, call] : refused) {
        inChild([&] { REQUIRE(call()); });
        const std::string log = takeLog();
        EXPECT_NE(std::string::npos, log.find(line)) << line << " in " << log;
        EXPECT_EQ(1U, countLines(log)) << log;
    }
    inChild([] { REQUIRE(text("db/sized").size() == size_t{64} << 20); });
}

// ---- places ---------------------------------------------------------------------------------------------------------

TEST_F(StoreTest, ChoosesFoldersByTheEnvironmentAndKeepsThemPrivate)
{
    for (const char* folder : {"state", "runtime", "home"}) {
        fs::create_directory(root / folder);
    }
    const auto write = [] { REQUIRE(vconf_set_int("db/a", 1) == 0 && vconf_set_int("memory/a", 1) == 0); };
    unsetenv("ZOL_VCONF_DIR");
    setenv("XDG_STATE_HOME", (root / "state").c_str(), 1);
    setenv("XDG_RUNTIME_DIR", (root / "runtime").c_str(), 1);
    setenv("HOME", (root / "home").c_str(), 1);
    inChild(write);
    unsetenv("XDG_STATE_HOME");
    inChild(write);
    setenv("ZOL_VCONF_DIR", (root / "store").c_str(), 1);
    inChild(write);
    unsetenv("XDG_RUNTIME_DIR");

    for (const char* place : {"state/zol-tv/persistent", "home/.local/state/zol-tv/persistent", "store/persistent"}) {
        EXPECT_TRUE(fs::exists(root / place / "data.mdb")) << place;
    }
    EXPECT_FALSE(fs::exists(root / "state/zol-tv/volatile"));
    int files = 0;
    for (const char* top : {"state/zol-tv", "runtime/zol-tv", "store"}) {
        EXPECT_EQ(fs::perms::owner_all, fs::status(root / top).permissions());
        for (const auto& entry : fs::recursive_directory_iterator(root / top)) {
            const auto expected = entry.is_directory() ? fs::perms::owner_all : fs::perms(0600);
            EXPECT_EQ(expected, entry.status().permissions()) << entry;
            files += entry.is_regular_file() ? 1 : 0;
        }
    }
    EXPECT_EQ(4 * 3, files);
}

TEST_F(StoreTest, RefusesPlacesThatDoNotServeOrCannotBeTrustedWithOneLine)
{
    const fs::path store = root / "store";
    const uid_t other = geteuid() == 0 ? 65534 : geteuid();
    struct Case {
        const char* line;
        std::function<void()> prepare;
    };
    const std::vector<Case> cases = {
        {"must be an absolute path", [] { setenv("ZOL_VCONF_DIR", "store", 1); }},
        {"No such file", [&] { setenv("ZOL_VCONF_DIR", (root / "no/store").c_str(), 1); }},
        {"is not a folder", [&] { std::ofstream(store) << "x"; }},
        {"others may write", [&] { fs::create_directory(store), fs::permissions(store, fs::perms(0770)); }},
        {"others may write", [&] { fs::create_directory(store), fs::permissions(store, fs::perms(0707)); }},
        {"is a link",
         [&] {
             fs::create_directory(root / "real");
             fs::create_directory(root / "shared");
             fs::permissions(root / "shared", fs::perms(01777));
             fs::create_symlink(root / "real", root / "shared/link");
             setenv("ZOL_VCONF_DIR", (root / "shared/link").c_str(), 1);
         }},
        {"another user",
         [&] {
             fs::create_directory(store);
             REQUIRE(geteuid() != 0 || chown(store.c_str(), 65534, 65534) == 0);
         }},
        {"Permission denied",
         [&] {
             fs::permissions(root, fs::perms(0555));
             REQUIRE(setuid(other) == 0);
         }},
        {"Permission denied",
         [&] {
             fs::create_directory(store);
             REQUIRE(chown(store.c_str(), other, other) == 0);
             fs::permissions(store, fs::perms(0500));
             fs::permissions(root, fs::perms(0755));
             REQUIRE(setuid(other) == 0);
         }},
        {"set HOME",
         [] {
             for (const char* name : {"ZOL_VCONF_DIR", "XDG_STATE_HOME", "HOME"}) {
                 unsetenv(name);
             }
         }},
        {"cut short",
         [&] {
             REQUIRE(finish(start([] { REQUIRE(vconf_set_int("db/a", 1) == 0); })) == 0);
             fs::resize_file(store / "persistent/data.mdb", 9000);
         }},
        {"start afresh", [&] {
             fs::create_directories(store / "persistent");
             fs::permissions(store / "persistent", fs::perms::owner_all);
             fs::permissions(store, fs::perms::owner_all);
             std::ofstream(store / "persistent/data.mdb") << std::string(40000, 'x');
         }}};
    std::ofstream(root / "log").close();
    for (const Case& each : cases) {
        if (std::string(each.line) == "another user" && geteuid() != 0) {
            continue;  // takes a folder of somebody else's
        }
        fs::remove_all(store);
        fs::permissions(root, fs::perms(0700));
        std::ofstream(root / "log").close();
        fs::permissions(root / "log", fs::perms(0666));
        inChild([&] {
            each.prepare();
            int value = 7;
            REQUIRE(vconf_set_int("db/a", 2) != 0);
            REQUIRE(vconf_get_int("db/a", &value) != 0 && value == 7);
        });
        fs::permissions(root, fs::perms(0700));
        const std::string log = takeLog();
        EXPECT_NE(std::string::npos, log.find(each.line)) << each.line << " in " << log;
        EXPECT_EQ(2U, countLines(log)) << log;
    }
}

TEST_F(StoreTest, AFullDiskLeavesTheOldValueAndNextWritesWork)
{
    for (const char* key : {"db/a", "memory/a"}) {
        inChild([&] {
            REQUIRE(vconf_set_str(key, "old") == 0);
            signal(SIGXFSZ, SIG_IGN);
            rlimit before{};
            getrlimit(RLIMIT_FSIZE, &before);
            const rlimit small{1 << 20, before.rlim_max};
            setrlimit(RLIMIT_FSIZE, &small);
            REQUIRE(vconf_set_str(key, std::string(size_t{4} << 20, 'v').c_str()) != 0);
            REQUIRE(text(key) == "old" && vconf_set_str(key, "small") == 0 && text(key) == "small");
            setrlimit(RLIMIT_FSIZE, &before);
            REQUIRE(vconf_set_str(key, std::string(size_t{4} << 20, 'v').c_str()) == 0);
        });
        EXPECT_EQ(1U, countLines(takeLog()));
    }
    inChild([&] {
        REQUIRE(vconf_set_int("db/a", 1) == 0);
        fs::remove_all(root / "store");
        REQUIRE(vconf_set_int("db/a", 2) != 0);
    });
    EXPECT_NE(std::string::npos, takeLog().find("were removed"));
}

// ---- processes ------------------------------------------------------------------------------------------------------

// A value that shows a tear: its text repeats one number.
std::string whole(unsigned n)
{
    std::string value;
    for (unsigned i = 0; i < 200 + n % 3000; ++i) {
        value += std::to_string(n) + ",";
    }
    return value;
}

bool isWhole(const std::string& value)
{
    return value == whole(static_cast<unsigned>(std::strtoul(value.c_str(), nullptr, 10)));
}

TEST_F(StoreTest, KilledWritersLeaveWholeValuesAndNoReaderSlots)
{
    inChild([] {
        REQUIRE(vconf_set_str("db/a", whole(1).c_str()) == 0 && vconf_set_str("memory/a", whole(1).c_str()) == 0);
    });
    const auto work = [](unsigned seed) {
        for (unsigned n = seed;; n += 8) {
            const char* key = n % 5 == 0 ? "db/a" : "memory/a";
            REQUIRE(vconf_set_str(key, whole(n).c_str()) == 0);
            REQUIRE(isWhole(text("db/a")) && isWhole(text("memory/a")));
        }
    };
    std::mt19937 random(20261122);
    std::vector<pid_t> workers;
    for (unsigned i = 0; i < 8; ++i) {
        workers.push_back(start([&] { work(i + 2); }));
    }
    for (int kills = 0; kills < 60; ++kills) {
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 20));
        pid_t& victim = workers[random() % workers.size()];
        kill(victim, SIGKILL);
        EXPECT_EQ(-SIGKILL, finish(victim));
        victim = start([&] { work(static_cast<unsigned>(kills) + 20); });
    }
    for (const pid_t worker : workers) {
        kill(worker, SIGKILL);
        EXPECT_EQ(-SIGKILL, finish(worker));
    }
    inChild([] {
        REQUIRE(isWhole(text("db/a")) && isWhole(text("memory/a")));
        REQUIRE(vconf_set_int("db/b", 1) == 0 && vconf_set_int("memory/b", 1) == 0);
    });
    for (const auto& half : fs::directory_iterator(root / "store")) {
        MDB_env* env = nullptr;
        int dead = -1;
        ASSERT_EQ(0, mdb_env_create(&env));
        ASSERT_EQ(0, mdb_env_open(env, half.path().c_str(), 0, 0600)) << half;
        EXPECT_EQ(0, mdb_reader_check(env, &dead));
        EXPECT_LE(dead, 1) << "only the one that has just ended";
        mdb_env_close(env);
    }
    EXPECT_EQ("", takeLog());
}

TEST_F(StoreTest, ManyProcessesAndThreadsWorkAtOnceAndChildrenOfForkGoOn)
{
    std::vector<pid_t> processes;
    for (int p = 0; p < 32; ++p) {
        processes.push_back(start([p] {
            const auto work = [p](int t) {
                const std::string key = "memory/" + std::to_string(p) + "/" + std::to_string(t);
                for (int n = 0; n < 20; ++n) {
                    REQUIRE(vconf_set_int(key.c_str(), n) == 0 && number(key.c_str()) == n);
                }
            };
            std::thread first(work, 1);
            std::thread second(work, 2);
            first.join();
            second.join();
            const pid_t child = fork();  // with everything open
            if (child == 0) {
                work(1);
                const pid_t grandchild = fork();
                if (grandchild == 0) {
                    work(2);
                    REQUIRE(vconf_set_int(("db/" + std::to_string(p)).c_str(), p) == 0);
                    std::exit(0);
                }
                std::exit(finish(grandchild));
            }
            work(3);
            REQUIRE(finish(child) == 0 && number(("db/" + std::to_string(p)).c_str()) == p);
        }));
    }
    for (const pid_t process : processes) {
        EXPECT_EQ(0, finish(process));
    }
    EXPECT_EQ("", takeLog());
}

// ---- delivery -------------------------------------------------------------------------------------------------------

// What a process was told, as "key=value" in the order of the calls.
struct Told {
    std::mutex lock;
    std::condition_variable changed;
    std::vector<std::string> lines;
    std::function<void(const std::string&)> afterwards = [](const std::string& /*line*/) {};

    static void handler(keynode_t* node, void* told)
    {
        auto* self = static_cast<Told*>(told);
        const std::lock_guard<std::mutex> guard(self->lock);
        REQUIRE((node->type == VCONF_TYPE_STRING) == (node->value.s != nullptr));
        self->lines.push_back(std::string(node->keyname) + "=" +
                              (node->type == VCONF_TYPE_STRING ? node->value.s : std::to_string(node->value.i)));
        self->afterwards(self->lines.back());
        self->changed.notify_all();
    }
    void subscribe(const char* key) { REQUIRE(vconf_notify_key_changed(key, handler, this) == 0); }
    void waitFor(const std::string& last)
    {
        std::unique_lock<std::mutex> guard(lock);
        changed.wait(guard, [&] { return !lines.empty() && lines.back() == last; });
    }
};

TEST_F(StoreTest, EveryWriteIsToldOnceInOrderWithItsOwnValue)
{
    const Gate ready;
    const Gate wrote;
    std::vector<std::string> expected;
    for (int i = 0; i < 500; ++i) {
        expected.push_back("memory/a=" + std::to_string(i / 2));  // each value twice
        expected.push_back("db/b=text " + std::to_string(i));
        expected.push_back("memory/c=1");
    }
    expected.emplace_back("db/b=end");
    std::vector<pid_t> watchers;
    for (int w = 0; w < 3; ++w) {
        watchers.push_back(start([&] {
            Told told;
            for (const char* key : {"memory/a", "db/b", "memory/c"}) {
                told.subscribe(key);
            }
            REQUIRE(vconf_notify_key_changed("db/b", Told::handler, &told) != 0);  // it is subscribed already
            ready.open();
            told.waitFor("db/b=end");
            REQUIRE(told.lines == expected);
            REQUIRE(vconf_ignore_key_changed("db/b", Told::handler) == 0);
            ready.open();
            wrote.pass();
            told.waitFor("memory/c=0");
            REQUIRE(told.lines.size() == expected.size() + 1);  // nothing of db/b any more
        }));
    }
    ready.pass(3);
    inChild([] {
        for (int i = 0; i < 500; ++i) {
            REQUIRE(vconf_set_int("memory/a", i / 2) == 0 && vconf_set_int("db/unwatched", i) == 0);
            REQUIRE(vconf_set_str("db/b", ("text " + std::to_string(i)).c_str()) == 0);
            REQUIRE(vconf_set_bool("memory/c", 1) == 0);
        }
        REQUIRE(vconf_set_str("db/b", "end") == 0);
    });
    ready.pass(3);
    inChild([] { REQUIRE(vconf_set_str("db/b", "unheard") == 0 && vconf_set_bool("memory/c", 0) == 0); });
    wrote.open(3);
    for (const pid_t watcher : watchers) {
        EXPECT_EQ(0, finish(watcher));
    }
}

TEST_F(StoreTest, AWriteDoesNotOvertakeAnEarlierOneOfTheOtherHalf)
{
    // A round looks at the volatile half, the persistent one, and the volatile one again. Two writes, one of each half,
    // come before the given look of the round that follows the delivery of a first write.
    const std::vector<std::string> halves = {"memory/a", "db/a"};
    for (const int look : {1, 2, 3}) {
        for (const bool swap : {false, true}) {
            inChild([&] {
                Told told;
                int looks = -1;  // used by the delivering thread alone
                beforeLook = [&] {
                    if (looks >= 0 && ++looks == look) {
                        REQUIRE(vconf_set_int(halves[swap].c_str(), 2) == 0);
                        REQUIRE(vconf_set_int(halves[!swap].c_str(), 3) == 0);
                    }
                };
                told.afterwards = [&looks](const std::string& line) { looks = line == "memory/a=1" ? 0 : looks; };
                for (const std::string& key : halves) {
                    told.subscribe(key.c_str());
                }
                REQUIRE(vconf_set_int("memory/a", 1) == 0);
                std::unique_lock<std::mutex> guard(told.lock);
                told.changed.wait(guard, [&] { return told.lines.size() == 3; });
                REQUIRE(told.lines[1] == halves[swap] + "=2" && told.lines[2] == halves[!swap] + "=3");
                _exit(0);  // the delivering thread still uses what is here
            });
        }
    }
}

TEST_F(StoreTest, AProcessFarBehindIsToldTheNewestValueOfEachChangedKeyOnce)
{
    const Gate ready;
    const Gate wrote;
    const pid_t watcher = start([&] {
        Told told;
        for (const char* key : {"memory/a", "memory/b", "memory/same"}) {
            told.subscribe(key);
        }
        struct Stopper {
            const Gate& ready;
            const Gate& wrote;
            Told& told;
        } stopper{ready, wrote, told};
        REQUIRE(vconf_notify_key_changed(
                    "memory/stop",
                    [](keynode_t*, void* gates) {
                        static_cast<Stopper*>(gates)->ready.open();
                        static_cast<Stopper*>(gates)->wrote.pass();
                        static_cast<Stopper*>(gates)->told.subscribe("memory/late");  // too late for the writes so far
                    },
                    &stopper) == 0);
        ready.open();
        told.waitFor("memory/a=end");
        REQUIRE((told.lines == std::vector<std::string>{"memory/b=4999", "memory/a=end"}));
    });
    ready.pass();
    inChild([&] {
        REQUIRE(vconf_set_int("memory/stop", 1) == 0);
        ready.pass();
        for (int i = 0; i < 5000; ++i) {
            REQUIRE(vconf_set_int("memory/b", i) == 0 && (i % 1000 != 0 || vconf_set_int("memory/late", i) == 0));
        }
        REQUIRE(vconf_set_str("memory/a", "end") == 0);
    });
    wrote.open();
    EXPECT_EQ(0, finish(watcher));
    const std::string log = takeLog();
    EXPECT_NE(std::string::npos, log.find("fell behind")) << log;
    EXPECT_EQ(1U, countLines(log)) << log;
}

TEST_F(StoreTest, AWriterKilledBeforeItsSignalIsStillToldOf)
{
    for (const char* key : {"db/a", "memory/a"}) {
        const Gate ready;
        const pid_t watcher = start([&] {
            Told told;
            told.subscribe(key);
            ready.open();
            told.waitFor(std::string(key) + "=1");
        });
        ready.pass();
        const Gate done;
        const pid_t writer = start([&] {
            REQUIRE(vconf_set_int(key, 0) == 0);
            if (fork() == 0) {
                done.pass();  // a child that outlives the writer must not hide its end
                std::exit(0);
            }
            dieBeforeSignal = true;
            vconf_set_int(key, 1);
        });
        EXPECT_EQ(-SIGKILL, finish(writer));
        EXPECT_EQ(0, finish(watcher));
        done.open();
    }
}

TEST_F(StoreTest, HandlersMayUseTheStoreAndForkAndAChildIsNotSubscribed)
{
    inChild([] {
        static Gate done;
        const auto answer = [](keynode_t* node, void*) {
            if (node->value.i == 1) {
                REQUIRE(vconf_set_int("memory/a", 2) == 0 && number("memory/a") == 2);
                const pid_t child = fork();
                if (child == 0) {
                    REQUIRE(vconf_set_int("db/child", 1) == 0);
                    std::atexit([] { _exit(0); });
                    return;  // to the store's own code, which has to end this thread and with it the child
                }
                REQUIRE(finish(child) == 0 && number("db/child") == 1);
            } else {
                done.open();
            }
        };
        REQUIRE(vconf_notify_key_changed("memory/a", answer, nullptr) == 0 && vconf_set_int("memory/a", 1) == 0);
        done.pass();
        const pid_t child = fork();
        if (child == 0) {
            REQUIRE(vconf_ignore_key_changed("memory/a", answer) != 0 && vconf_set_int("memory/a", 3) == 0);
            _exit(0);
        }
        REQUIRE(finish(child) == 0);
        done.pass();  // the parent is told of the child's write
    });
}

// ---- log ------------------------------------------------------------------------------------------------------------

TEST_F(StoreTest, LogLinesOfAnyLengthAndBytesStayWholeAndOne)
{
    const auto write = [](char letter) {
        const std::string longText(20000, letter);
        for (int i = 0; i < 20; ++i) {
            dlog_print(DLOG_ERROR, "tag", "%s%s\n", i % 2 == 0 ? longText.c_str() : "short ", "\x1b[2J\nforged");
        }
    };
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    for (const bool toPipe : {false, true}) {
        if (toPipe) {
            setenv("ZOL_DLOG", "stderr", 1);
        }
        std::vector<pid_t> writers;
        for (const char letter : {'a', 'b', 'c', 'd'}) {
            writers.push_back(start([&] {
                REQUIRE(dup2(ends[1], STDERR_FILENO) >= 0);
                std::thread second(write, letter);
                write(letter);
                second.join();
            }));
        }
        std::string log;
        for (size_t lines = 0; toPipe && lines < 160;) {
            char buffer[4096];
            const ssize_t size = read(ends[0], buffer, sizeof buffer);
            ASSERT_GT(size, 0);
            log.append(buffer, static_cast<size_t>(size));
            lines = countLines(log);
        }
        for (const pid_t writer : writers) {
            EXPECT_EQ(0, finish(writer));
        }
        if (!toPipe) {
            log = takeLog();
        }
        EXPECT_EQ(160U, countLines(log));
        std::istringstream lines(log);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_EQ(0U, line.find("E/tag (")) << line.substr(0, 80);
            const std::string message = line.substr(line.find(") ") + 2);
            const std::string body = message[0] == 's' ? "short " : std::string(20000, message[0]);
            EXPECT_EQ(body + "\\x1b[2J\\x0aforged", message) << line.size();
        }
    }
    close(ends[0]);
    close(ends[1]);
}

}  // namespace
