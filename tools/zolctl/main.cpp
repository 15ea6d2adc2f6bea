// The command line.

#include <fcntl.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <exception>
#include <functional>
#include <iostream>
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

// The log reads ZOL_DLOG when its first line is written. This tool logs nothing unless that is asked for.
// Returns the value for other programs, empty if there is none.
std::string chooseLog(bool verbose)
{
    const char* const chosen = std::getenv("ZOL_DLOG");
    const std::string given = chosen == nullptr ? "" : chosen;
    if (given.empty() || given == "off") {
        setenv("ZOL_DLOG", verbose ? "stderr" : "off", 1);
    }
    return given;
}

// Unlike CLI::Range, this refuses "nan" and writes the limits as people do.
CLI::Validator within(double least, double most, const std::string& limits)
{
    const auto check = [=](const std::string& text) {
        double number = 0;
        const bool isNumber = CLI::detail::lexical_cast(text, number);
        return isNumber && number >= least && number <= most ? std::string() : text + " is not a number from " + limits;
    };
    return {check, "from " + limits};
}

// What somebody who knows other tools may type instead of a command, and what to use here.
struct OtherWord {
    const char* word;
    const char* advice;
};
constexpr char kNoRemoval[] =
    "the store has no call that removes a value; write another with zolctl set or zolctl inject, or remove all values "
    "with the folders that zolctl status shows";
constexpr std::array kOtherWords = {OtherWord{"reset", kNoRemoval}, OtherWord{"unset", kNoRemoval},
                                    OtherWord{"read", "use zolctl get"}, OtherWord{"write", "use zolctl set"},
                                    OtherWord{"monitor", "use zolctl watch"}};

constexpr char kPattern[] = "Part of a name or key; * matches any text, ? any one character";

std::string commandAdvice(const std::string& word, const std::vector<std::string>& commands)
{
    for (const OtherWord& other : kOtherWords) {
        if (word == other.word) {
            return std::string(other.advice) + "; ";
        }
    }
    const std::string meant = nearest(word, commands);
    return meant.empty() ? "" : "did you mean " + meant + "? ";
}

// For an option that the command line does not have there.
std::string optionAdvice(const std::string& option, const CLI::App& command, const std::string& path)
{
    const std::string name = option.substr(0, option.find('='));
    if (command.get_option_no_throw(name) != nullptr) {
        return "the option " + name + " must follow its command: " + path + " " + option;
    }
    const bool takesTexts = command.get_subcommands({}).empty();
    return "unknown option " + option + (takesTexts ? "; put -- before a text that begins with a dash" : "") + "; " +
           path + " --help shows how it is used";
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
    std::string log_;
};

constexpr char kName[] = "Name or key of the setting, as zolctl list --long shows it, in any case";

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
                                   "a backslash as \\\\. (a string) means a value of another type than the\n"
                                   "setting's. JSON has null for no value.\n"
                                   "Example: zolctl list --long 'db/*language'",
                                   [this] { return zolctl::list(text_, withKey_, json_); });
    list->add_option("PATTERN", text_, kPattern);
    list->add_flag("--long", withKey_, "Also show the keys");
    jsonFlag(list);

    CLI::App* const get = command(app_, "get", "Print settings",
                                  "One setting is printed as its value, several as NAME=VALUE lines.\n"
                                  "Booleans are printed as on and off, in JSON as true and false.\n"
                                  "Example: zolctl get ZOLActivated",
                                  [this] { return zolctl::get(names_, json_); });
    get->add_option("NAME", names_, kName)->required();
    jsonFlag(get, "Print a JSON object, which zolctl load takes");

    command(app_, "describe", "Explain settings, and which calls use them",
            "Prints its meaning, type, access, key and value, and the library's calls for it.\n"
            "Example: zolctl describe OSDLanguage",
            [this] { return zolctl::describe(names_); })
        ->add_option("NAME", names_, kName)
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
    command(
        app_, "status", "Show where the stores are, whether they can be used, and which processes use them",
        "Prints for the persistent and the volatile store whether it can be used and if not why, its folder, size and\n"
        "users; then where ZOL_DLOG sends the log. The exit code is 3 if a store cannot be used.\n"
        "Example: zolctl status",
        [this] { return zolctl::status(log_); });
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
        ->check(within(0.1, 3600, "0.1 to 3600"))
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
        "setting, were dropped. It ends with 0 after --count changes, at the --until value, or after --timeout\n"
        "alone; with 1 if the time runs out before the first two; with 3 if the store is removed; else by a signal, "
        "or\n"
        "when its output is closed.\n"
        "Example: zolctl watch ZOLActivated --until on --timeout 10",
        [this] {
            watch_.json = json_;
            return zolctl::watch(watch_);
        });
    watch->add_option("NAME", watch_.patterns,
                      "Names, keys or patterns as list takes them; without one, all that can be watched");
    CLI::Option* const count = watch->add_option("--count", watch_.count, "End after that many changes")
                                   ->check(within(1, 1e9, "1 to 1000000000"))
                                   ->type_name("N");
    watch->add_flag("--initial", watch_.initial, "Print the current values first");
    watch->add_option("--until", watch_.until, "End when the one setting has that value, at once if it has it already")
        ->type_name("VALUE")
        ->excludes(count);
    watch->add_option("--timeout", watch_.timeout, "End after that many seconds")
        ->check(within(0.001, 1e9, "0.001 to 1000000000"))
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
    log_ = chooseLog(verbose_);
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
    std::vector<std::string> commands;
    for (const CLI::App* each : at->get_subcommands({})) {
        commands.push_back(each->get_name());
    }
    const auto rest = app_.remaining(true);
    const std::string word = rest.empty() ? "" : rest.front();
    const bool isOption = word.rfind('-', 0) == 0;
    if (!word.empty() && !isOption && !commands.empty()) {
        throw UsageError("unknown command " + word + "; " + commandAdvice(word, commands) + path +
                         " --help lists the commands");
    }
    if (error.get_exit_code() == 0) {
        std::ostringstream text;
        app_.exit(error, text, text);
        print(text.str());
        return 0;
    }
    if (isOption) {
        throw UsageError(optionAdvice(word, *at, path));
    }
    throw UsageError(std::string(error.what()) + "; " + path + " --help shows how it is used");
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        std::ios::sync_with_stdio(false);
        return CommandLine().run({argv + 1, argv + argc});
    } catch (const std::bad_alloc&) {
        std::cerr << "zolctl: out of memory\n";
        return kExitFailed;
    } catch (const Error& error) {
        printError(error.what());
        return error.exitCode;
    } catch (const std::exception& error) {
        printError(error.what());
        return kExitFailed;
    }
}
