// The command line.

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <new>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "output.h"
#include "settings.h"

using namespace zolctl;

namespace {

// The log takes this from the environment when its first line is written. This tool's is off unless it is asked for.
// Returns where the log of other programs goes.
std::string chooseLog(bool verbose)
{
    const char* const chosen = std::getenv("ZOL_DLOG");
    const std::string given = chosen == nullptr ? "" : chosen;
    const bool isOff = given.empty() || given == "off";
    setenv("ZOL_DLOG", !isOff ? given.c_str() : verbose ? "stderr" : "off", 1);
    return given.empty() || given == "stderr" ? "standard error" : given;
}

class CommandLine {
public:
    CommandLine();

    /// Parses the arguments and runs the command.
    /// @return the exit code.
    int run(std::vector<std::string> arguments);

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
    int answer(const CLI::ParseError& error) const;
    void nameAndValue(CLI::App* of);
    void addConcurrent();
    void addWatch();

    CLI::App app_{"Reads, writes and watches the TV's system data."};
    std::function<int()> chosen_;
    bool verbose_ = false;
    bool json_ = false;
    bool withKey_ = false;
    bool dry_ = false;
    std::string name_;
    std::string text_;
    std::vector<std::string> names_;
    std::vector<std::string> apps_;
    WatchOptions watch_;
    double timeout_ = 2;
    std::string logTarget_;
};

constexpr char kName[] = "Name or key of the setting, as zolctl list --long shows it";

CommandLine::CommandLine()
{
    app_.name("zolctl");
    app_.set_version_flag("-V,--version", "zolctl " ZOLCTL_VERSION);
    app_.add_flag("-v,--verbose", verbose_, "Show the library's log on standard error, unless ZOL_DLOG names a file");
    app_.require_subcommand(1);
    app_.fallthrough();
    app_.footer(
        "Exit codes: 0 done; 1 something could not be read, written or shown, watch timed out, or a check failed;\n"
        "2 the command line or a file is wrong; 3 the store cannot be used.\n"
        "zolctl help COMMAND explains a command.\n"
        "Output is coloured only on a terminal, and never when NO_COLOR is set.\n"
        "Example: zolctl set OSDLanguage en_US && zolctl get OSDLanguage");

    CLI::App* const list = command(app_, "list", "Show settings and their values; - means no value",
                                   "ACCESS is what the library lets apps do. Control characters are shown as \\x0a,\n"
                                   "a backslash as \\\\. JSON has null for no value.\n"
                                   "Example: zolctl list --long 'db/*language'",
                                   [this] { return zolctl::list(text_, withKey_, json_); });
    list->add_option("PATTERN", text_, "Part of a name or key; * matches any text, ? any one character");
    list->add_flag("--long", withKey_, "Also show the keys");
    jsonFlag(list);

    CLI::App* const get = command(app_, "get", "Print settings",
                                  "One setting is printed as its value, several as NAME=VALUE lines.\n"
                                  "Booleans are printed as on and off, in JSON as true and false.\n"
                                  "Example: zolctl get ZOLActivated",
                                  [this] { return zolctl::get(names_, json_); });
    get->add_option("NAME", names_, kName)->required();
    jsonFlag(get, "Print a JSON object, which zolctl load takes");

    command(app_, "describe", "Explain a setting, and which calls use it",
            "Prints its meaning, type, access, key and value, and the library's calls for it in both forms.\n"
            "Example: zolctl describe OSDLanguage",
            [this] { return zolctl::describe(name_); })
        ->add_option("NAME", name_, kName)
        ->required();
    nameAndValue(command(app_, "set", "Write one setting through the library",
                         "A setting without a setter is refused; see zolctl inject.\n"
                         "Example: zolctl set ZOLActivated on",
                         [this] { return zolctl::set(name_, text_, true); }));
    nameAndValue(command(app_, "inject", "Write one setting's key directly, as the platform does",
                         "Works for every setting, and notifies the programs that watch it.\n"
                         "Example: zolctl inject FactoryResetCount 1",
                         [this] { return zolctl::set(name_, text_, false); }));

    CLI::App* const dump = command(app_, "dump", "Print all settings that have a value as one JSON object",
                                   "Example: zolctl dump > saved.json", zolctl::dump);
    jsonFlag(dump, "No effect: the output is always JSON");

    CLI::App* const load = command(
        app_, "load", "Write the settings of a JSON object, as the platform does",
        "The whole file is checked first; if anything in it is wrong, nothing is written.\n"
        "Every setting in the file is written and its watchers are notified, even if its value stays the same.\n"
        "Example: zolctl get OSDLanguage --json | ssh tv zolctl load -",
        [this] { return zolctl::load(text_, dry_); });
    load->add_option("FILE", text_, "The file, or - for standard input")->required();
    load->add_flag("--dry-run", dry_, "Check the file and print what would be written, as NAME=VALUE lines");

    addConcurrent();
    addWatch();
    command(app_, "status", "Show where the store is, whether it can be used, and who uses it",
            "Prints for both parts of the store the folder, whether it can be used and if not why, its size and the\n"
            "processes that use it; then where ZOL_DLOG sends the log. The exit code is 3 if a part cannot be used.\n"
            "Example: zolctl status",
            [this] { return zolctl::status(logTarget_); });
    command(
        app_, "selftest", "Check that the platform does what the library relies on",
        "Prints a line for each check, which begins with ok or FAIL. The exit code is 0 if all hold. No setting is\n"
        "touched: it writes keys under memory/zolctl/selftest/ and restores them. Run only one at a time.\n"
        "Example: zolctl selftest --timeout 10",
        [this] {
            if (fcntl(STDOUT_FILENO, F_GETFD) < 0) {  // a socket to one of its processes would take the number
                throw Failure("standard output is closed");
            }
            return selftest(timeout_);
        })
        ->add_option("--timeout", timeout_, "Time limit for each check; 2 by default")
        ->check(CLI::Range(0.1, 3600.0))
        ->type_name("SECONDS");
}

void CommandLine::nameAndValue(CLI::App* of)
{
    of->add_option("NAME", name_, kName)->required();
    of->add_option("VALUE", text_,
                   "Text; a whole number; or on, off, true, false, 1 or 0 for a boolean.\n"
                   "- reads it from standard input, without the last newline.\n"
                   "Put -- before a text that begins with a dash")
        ->required();
}

void CommandLine::addConcurrent()
{
    const std::string turns =
        "Several zolctl commands at once take turns. An app that writes the list at the same moment can still\n"
        "overwrite their change.\n"
        "Example: zolctl concurrent enable app.alpha app.beta";
    CLI::App* const concurrent = app_.add_subcommand("concurrent", "List, enable or disable apps in concurrent mode");
    concurrent->require_subcommand(1);
    concurrent->footer(turns);
    jsonFlag(command(*concurrent, "list", "Print the ids of the apps that are on, one a line",
                     "Example: zolctl concurrent list", [this] { return listConcurrent(json_); }),
             "Print a JSON array");
    for (const bool on : {true, false}) {
        command(*concurrent, on ? "enable" : "disable",
                on ? "Put apps in concurrent mode" : "Take apps out of concurrent mode", turns,
                [this, on] { return switchConcurrent(apps_, on); })
            ->add_option("APPID", apps_, "Ids of the apps; [a,b] is the same as a b")
            ->required();
    }
}

void CommandLine::addWatch()
{
    CLI::App* const watch = command(
        app_, "watch", "Print changes as they happen",
        "Prints the time, name and value of each change. When it is ready, it writes one line that begins with\n"
        "\"watching\" to standard error. If it falls behind and misses changes, it prints how many writes, to any\n"
        "setting, were passed over. It ends with 0 after --count changes, at the --until value, or after --timeout\n"
        "alone; with 1 if the time runs out before the first two; else by a signal, or when its output is closed.\n"
        "Example: zolctl watch ZOLActivated --until on --timeout 10",
        [this] {
            watch_.json = json_;
            return zolctl::watch(watch_);
        });
    watch->add_option("NAME", watch_.names, "Names or keys of the settings; without one, all that can be watched");
    CLI::Option* const count = watch->add_option("--count", watch_.count, "End after that many changes")
                                   ->check(CLI::Range(1, 1000000000))
                                   ->type_name("N");
    watch->add_flag("--initial", watch_.initial, "Print the current values first");
    watch->add_option("--until", watch_.until, "End when the one setting has that value, at once if it has it already")
        ->type_name("VALUE")
        ->excludes(count);
    watch->add_option("--timeout", watch_.timeout, "End after that many seconds")
        ->check(CLI::Range(0.001, 1e9))
        ->type_name("SECONDS");
    watch->add_flag("--diff", watch_.diff, "For the app list, print only which apps went on (+) and off (-)");
    jsonFlag(watch, "Print one JSON object per line; the time has date and zone");
}

int CommandLine::run(std::vector<std::string> arguments)
{
    if (!arguments.empty() && arguments[0] == "__complete") {  // what the shells' completion asks
        chooseLog(false);
        return complete(app_, {arguments.begin() + 1, arguments.end()});
    }
    if (!arguments.empty() && arguments[0] == "help") {
        std::rotate(arguments.begin(), arguments.begin() + 1, arguments.end());
        arguments.back() = "--help";
    }
    try {
        std::reverse(arguments.begin(), arguments.end());
        app_.parse(std::move(arguments));
    } catch (const CLI::ParseError& error) {
        return answer(error);
    }
    logTarget_ = chooseLog(verbose_);
    return chosen_();
}

// Prints help or the version where that is asked for, and otherwise says what is wrong.
int CommandLine::answer(const CLI::ParseError& error) const
{
    const CLI::App* at = &app_;
    std::string path = "zolctl";
    while (!at->get_subcommands().empty()) {
        at = at->get_subcommands().front();
        path += " " + at->get_name();
    }
    const auto rest = app_.remaining(true);
    const std::string word = rest.empty() ? "" : rest.front();
    const bool isOption = word.rfind('-', 0) == 0;
    std::vector<std::string> commands;
    for (const CLI::App* each : at->get_subcommands({})) {
        commands.push_back(each->get_name());
    }
    if (!word.empty() && !isOption && !commands.empty()) {
        const std::string meant = nearest(word, commands);
        throw UsageError("unknown command " + word + "; " + (meant.empty() ? "" : "did you mean " + meant + "? ") +
                         path + " --help lists the commands");
    }
    if (error.get_exit_code() == 0) {
        std::ostringstream text;
        app_.exit(error, text, text);
        print(text.str());
        return 0;
    }
    const std::string what = !isOption ? error.what()
                             : commands.empty()
                                 ? "unknown option " + word + "; put -- before a text that begins with a dash"
                                 : "unknown option " + word;
    throw UsageError(what + "; " + path + " --help shows how it is used");
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        return CommandLine().run({argv + 1, argv + argc});
    } catch (const std::bad_alloc&) {
        (void)std::fputs("zolctl: out of memory\n", stderr);
        return kExitFailed;
    } catch (const Error& error) {
        printError(error.what());
        return error.exitCode;
    } catch (const std::exception& error) {
        printError(error.what());
        return kExitFailed;
    }
}
