// What the shells' completion asks, answered from the command line as CLI11 knows it and the table of settings.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "ZOLSystemData.h"
#include "commands.h"
#include "output.h"
#include "settings.h"

namespace zolctl {
namespace {

using Words = std::vector<std::string>;

// What the positional argument of that name can be, after those that are given already.
Words argumentsOf(const std::string& command, const std::string& argument, const Words& given)
{
    Words offered;
    for (const Setting& setting : allSettings()) {
        const auto isThis = [&](const std::string& word) { return setting.isCalled(word); };
        const bool isGiven = std::any_of(given.begin(), given.end(), isThis);
        const bool fits = (command != "set" || setting.writable()) && (command != "watch" || setting.watchable());
        if (argument == "NAME" && fits && !isGiven) {
            offered.emplace_back(setting.name);
        } else if (argument == "VALUE" && isGiven && setting.type() == std::string("boolean")) {
            offered = {"on", "off"};
        }
    }
    if (argument == "APPID" && command == "disable") {
        ZOLSystemData::GetZOLConcurrentAppList(offered);
    }
    return offered;
}

}  // namespace

int complete(const CLI::App& program, const std::vector<std::string>& words)
{
    const CLI::App* command = &program;
    Words given;
    bool optionsEnded = false;
    const std::size_t last = words.empty() ? 0 : words.size() - 1;
    for (std::size_t at = 0; at < last; ++at) {
        const std::string& word = words[at];
        if (optionsEnded || word.empty() || word[0] != '-') {
            const auto found = command->get_subcommands([&](const CLI::App* each) { return each->get_name() == word; });
            if (found.empty()) {
                given.push_back(word);
            } else {
                command = found.front();
            }
        } else if (word == "--") {
            optionsEnded = true;
        } else if (const CLI::Option* option = command->get_option_no_throw(word)) {
            const bool isApart = option->get_expected_min() > 0;  // from its value; bash makes three words of --count=1
            if (isApart) {
                at += words[at + 1] == "=" ? 2 : 1;
            }
            if (at >= last) {
                return 0;
            }
        }
    }

    const std::string typed = words.empty() ? "" : words[last];
    Words offered;
    const auto commands = command->get_subcommands({});
    const auto arguments = command->get_options([](const CLI::Option* each) { return each->get_positional(); });
    if (!optionsEnded && !typed.empty() && typed[0] == '-') {
        for (const CLI::App* each : {command, &program}) {
            for (const CLI::Option* option : each->get_options()) {
                const Words names = CLI::detail::split(option->get_name(false, true), ',');
                offered.insert(offered.end(), names.begin(), names.end());
            }
        }
    } else if (!commands.empty()) {
        std::transform(commands.begin(), commands.end(), std::back_inserter(offered),
                       [](const CLI::App* each) { return each->get_name(); });
    } else if (given.size() < arguments.size() || (!arguments.empty() && arguments.back()->get_expected_max() > 1)) {
        const std::string argument = arguments[std::min(given.size(), arguments.size() - 1)]->get_name();
        if (argument == "FILE") {
            return kExitFailed;
        }
        offered = argumentsOf(command->get_name(), argument, given);
    }
    const std::set<std::string> sorted(offered.begin(), offered.end());
    std::string text;
    for (const std::string& word : sorted) {
        const bool isOneLine = word.find('\n') == std::string::npos;  // an app id may be any text
        text += isOneLine && word.rfind(typed, 0) == 0 ? word + "\n" : "";
    }
    print(text);
    return 0;
}

}  // namespace zolctl
