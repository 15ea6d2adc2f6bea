// The command line.

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "commands.h"
#include "error.h"
#include "output.h"
#include "selftest.h"
#include "watch.h"

using namespace zolctl;

namespace {

// With standard output closed, the store's files would be opened under its number and be written to.
void occupyStandardFiles()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) < 0) {
            // The wrong way round, so that using it is an error all the same.
            open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        }
    }
}

// The log takes this from the environment when its first line is written.
void chooseLog(bool verbose)
{
    const char* const chosen = std::getenv("ZOL_DLOG");
    const std::string where = chosen == nullptr ? "" : chosen;
    const bool isFile = !where.empty() && where != "off" && where != "stderr";
    if (!isFile) {
        setenv("ZOL_DLOG", verbose ? "stderr" : "off", 1);
    }
}

class CommandLine {
public:
    CommandLine();

    /// Parses the arguments and runs the command.
    /// @return the exit code.
    int run(int argc, char** argv);

private:
    CLI::App* command(CLI::App& parent, const std::string& name, const std::string& description,
                      const std::string& example, std::function<int()> run)
    {
        CLI::App* const added = parent.add_subcommand(name, description);
        added->footer(example);
        added->callback([this, run = std::move(run)] { chosen_ = run; });
        return added;
    }
    void jsonFlag(CLI::App* of, const std::string& description = "Print JSON")
    {
        of->add_flag("--json", json_, description);
    }
    void nameAndValue(CLI::App* of);
    void addConcurrent();
    void addWatch();
    void addSelftest();

    CLI::App app_{"Reads, writes and watches the TV's system data."};
    std::function<int()> chosen_;
    bool verbose_ = false;
    bool json_ = false;
    bool withKey_ = false;
    std::string name_;
    std::string value_;
    std::string path_;
    std::vector<std::string> apps_;
    WatchOptions watch_;
    double timeout_ = 2;
};

constexpr char kName[] = "Name of the setting, as zolctl list shows it";

CommandLine::CommandLine()
{
    app_.name("zolctl");
    app_.set_version_flag("--version", "zolctl " ZOLCTL_VERSION);
    app_.add_flag("-v,--verbose", verbose_, "Show the library's log on standard error, unless ZOL_DLOG names a file");
    app_.require_subcommand(1);
    app_.fallthrough();
    app_.footer(
        "Exit codes: 0 done; 1 something could not be read, written or shown, watch timed out, or a check failed; 2 "
        "wrong usage.\n"
        "Colour is used on a terminal only, and not if NO_COLOR is set.\n"
        "Example: zolctl set OSDLanguage en_US && zolctl get OSDLanguage");

    CLI::App* const list = command(app_, "list", "Show all settings; - stands for one that cannot be read",
                                   "Access tells what the library lets apps do.\n"
                                   "JSON: null for a setting that cannot be read.\n"
                                   "Example: zolctl list --long",
                                   [this] { return zolctl::list(withKey_, json_); });
    list->add_flag("--long", withKey_, "Show the keys, too");
    jsonFlag(list);

    CLI::App* const get = command(app_, "get", "Print one setting",
                                  "Booleans are printed as on and off, in JSON as true and false.\n"
                                  "Example: zolctl get ZOLActivated",
                                  [this] { return zolctl::get(name_, json_); });
    get->add_option("NAME", name_, kName)->required();
    jsonFlag(get, "Print a JSON object, which zolctl load takes");

    nameAndValue(command(app_, "set", "Write one setting through the library",
                         "A setting without a setter is refused; see zolctl inject.\n"
                         "Example: zolctl set ZOLActivated on",
                         [this] { return zolctl::set(name_, value_); }));
    nameAndValue(command(app_, "inject", "Write one setting's key itself, as the platform does",
                         "Works for every setting, and sends the change to whoever watches it.\n"
                         "Example: zolctl inject FactoryResetCount 1",
                         [this] { return injectValue(name_, value_); }));

    CLI::App* const dump = command(app_, "dump", "Print all settings that can be read as one JSON object",
                                   "Example: zolctl dump > saved.json", zolctl::dump);
    jsonFlag(dump, "Is always so");

    CLI::App* const load = command(app_, "load", "Write the settings of a JSON object, as the platform does",
                                   "The whole file is checked first; with one fault in it nothing is written.\n"
                                   "Every setting in the file is written, and its watchers are told, changed or not.\n"
                                   "Example: zolctl get OSDLanguage --json | ssh tv zolctl load -",
                                   [this] { return zolctl::load(path_); });
    load->add_option("FILE", path_, "The file, or - for standard input")->required();

    addConcurrent();
    addWatch();
    addSelftest();
}

void CommandLine::nameAndValue(CLI::App* of)
{
    of->add_option("NAME", name_, kName)->required();
    of->add_option("VALUE", value_,
                   "Text; a whole number; or on, off, true, false, 1, 0 for a boolean.\n"
                   "Put -- before a text that begins with a dash")
        ->required();
}

void CommandLine::addConcurrent()
{
    CLI::App* const concurrent = app_.add_subcommand("concurrent", "The apps in concurrent mode");
    concurrent->require_subcommand(1);
    concurrent->footer("Example: zolctl concurrent enable app.alpha app.beta");
    jsonFlag(command(*concurrent, "list", "Print the ids of the apps that are on, one a line",
                     "Example: zolctl concurrent list", [this] { return listConcurrent(json_); }),
             "Print a JSON array");
    for (const bool on : {true, false}) {
        const std::string name = on ? "enable" : "disable";
        command(*concurrent, name, on ? "Put apps in concurrent mode" : "Take apps out of concurrent mode",
                "Example: zolctl concurrent " + name + " app.alpha app.beta",
                [this, on] { return switchConcurrent(apps_, on); })
            ->add_option("APPID", apps_, "Ids of the apps; [a,b] is the same as a b")
            ->required();
    }
}

void CommandLine::addWatch()
{
    CLI::App* const watch = command(
        app_, "watch", "Print each change as it comes",
        "Prints the time of day, the name and the value. When it is ready it writes one line that begins with\n"
        "\"watching\" to standard error. It ends with 0 after a signal to end, --count changes, --timeout without\n"
        "--count, and when nobody reads its output any more; with 1 when the time is over before the count.\n"
        "Example: zolctl watch ZOLActivated --count 1 --timeout 10",
        [this] {
            watch_.json = json_;
            return zolctl::watch(watch_);
        });
    watch->add_option("NAME", watch_.names, "Names of the settings; all that can be watched if none is given");
    watch->add_option("--count", watch_.count, "End after that many changes")
        ->check(CLI::Range(1, 1000000000))
        ->type_name("N");
    watch->add_option("--timeout", watch_.timeout, "End after that many seconds")
        ->check(CLI::Range(0.001, 1e9))
        ->type_name("SECONDS");
    watch->add_flag("--diff", watch_.diff, "Of the app list, print only which apps went on (+) and off (-)");
    jsonFlag(watch, "Print one JSON object a line");
}

void CommandLine::addSelftest()
{
    command(app_, "selftest", "Check that the platform does what the library relies on",
            "Prints a line for each check, which begins with ok or FAIL, and ends with 0 if all hold. No setting is\n"
            "touched: it writes keys under memory/zolctl/selftest/ and sets them back. Only one run at a time.\n"
            "Example: zolctl selftest --timeout 10",
            [this] { return selftest(timeout_); })
        ->add_option("--timeout", timeout_, "Give each check that many seconds; 2 if not given")
        ->check(CLI::Range(0.1, 3600.0))
        ->type_name("SECONDS");
}

int CommandLine::run(int argc, char** argv)
{
    try {
        app_.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            return app_.exit(error);  // prints help or the version
        }
        const auto given = app_.get_subcommands();
        const std::string name = given.empty() ? "" : given.front()->get_name() + " ";
        const CLI::App& parent = given.empty() ? app_ : *given.front();
        const auto rest = app_.remaining(true);
        const bool isWord = !rest.empty() && !rest.front().empty() && rest.front()[0] != '-';
        if (isWord && !parent.get_subcommands({}).empty() && parent.get_subcommands().empty()) {
            throw UsageError("unknown command " + rest.front() + "; zolctl " + name + "--help lists the commands");
        }
        throw UsageError(std::string(error.what()) + "; zolctl " + name + "--help shows how it is used");
    }
    chooseLog(verbose_);
    return chosen_();
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        occupyStandardFiles();
        return CommandLine().run(argc, argv);
    } catch (const UsageError& error) {
        printError(error.what());
        return kExitUsage;
    } catch (const std::bad_alloc&) {
        (void)std::fputs("zolctl: out of memory\n", stderr);
        return kExitFailed;
    } catch (const std::exception& error) {
        printError(error.what());
        return kExitFailed;
    }
}
