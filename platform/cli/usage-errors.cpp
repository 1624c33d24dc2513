#include "cli/usage-errors.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

#include "cli/plugin-commands.h"
#include "cli/suggestion.h"

namespace cli {
namespace {

struct Wish {
    std::string_view word;
    std::string_view way;
};

// What newcomers write, and how that is done.
constexpr std::array<Wish, 10> kWishes = {{{"accept", "allow tcp:10.0.0.5:80:out"},
                                           {"permit", "allow tcp:10.0.0.5:80:out"},
                                           {"block", "deny tcp:10.0.0.5:80:out"},
                                           {"drop", "deny tcp:10.0.0.5:80:out"},
                                           {"reject", "deny tcp:10.0.0.5:80:out"},
                                           {"flush", "exec FlushDenyRules, exec FlushAllowRules"},
                                           {"list", "rules"},
                                           {"show", "rules"},
                                           {"enable", "set-status 1"},
                                           {"disable", "set-status 0"}}};

// Names live as long as the app.
Words subcommandsOf(const CLI::App &app) {
    Words names;
    for (const auto *subcommand : app.get_subcommands([](const CLI::App *) { return true; }))
        names.emplace_back(subcommand->get_name());
    return names;
}

std::vector<std::string> optionsOf(const CLI::App &app) {
    std::vector<std::string> names;
    for (const auto *option : app.get_options()) {
        for (const auto &name : option->get_lnames())
            names.push_back("--" + name);
    }
    return names;
}

// The subcommand that was given, or null.
const CLI::App *chosen(const CLI::App &app) {
    const auto subcommands = app.get_subcommands();
    return subcommands.empty() ? nullptr : subcommands.front();
}

std::string seeHelp(const CLI::App *subcommand) {
    return "; see vpkctl " + (subcommand != nullptr ? subcommand->get_name() + " " : "") + "--help";
}

std::string unknownOption(const CLI::App &app, const std::string &word) {
    const auto *subcommand = chosen(app);
    auto known = optionsOf(app);
    if (subcommand != nullptr) {
        const auto more = optionsOf(*subcommand);
        known.insert(known.end(), more.begin(), more.end());
    }
    const std::string where = subcommand != nullptr ? subcommand->get_name() : "vpkctl";
    const std::string name = word.substr(0, word.find('='));
    const std::string meant = didYouMean(name, Words(known.begin(), known.end()));
    return "\"" + word + "\" is no option of " + where + (meant.empty() ? seeHelp(subcommand) : meant);
}

std::string unknownSubcommand(const CLI::App &app, const std::string &word) {
    const std::string text = "\"" + word + "\" is no subcommand";
    if (findNamed(kPluginCommands, word) != nullptr)
        return text + ", but a command of the plugin: vpkctl exec " + word;
    if (findNamed(kPluginMethods, word) != nullptr)
        return text + ", but a remote method: vpkctl call " + word;
    for (const Wish &wish : kWishes) {
        if (wish.word == word)
            return text + "; this is: vpkctl " + std::string(wish.way);
    }
    return text + didYouMean(word, subcommandsOf(app)) + " (subcommands: " + listOf(subcommandsOf(app)) + ")";
}

std::string unexpected(const CLI::App &app, const std::string &word) {
    if (word.size() > 1 && word.front() == '-')
        return unknownOption(app, word);
    const auto *subcommand = chosen(app);
    if (subcommand == nullptr)
        return unknownSubcommand(app, word);
    const bool takesData = subcommand->get_name() == "exec" || subcommand->get_name() == "call";
    return "\"" + word + "\" is one word too many for " + subcommand->get_name() +
           (takesData ? "; data is one word: rules are joined by \";\" and stand in quotes" : seeHelp(subcommand));
}

std::string missing(const CLI::App &app, const CLI::ParseError &error) {
    const auto *subcommand = chosen(app);
    if (subcommand == nullptr)
        return std::string(error.what()) + ": " + listOf(subcommandsOf(app)) + seeHelp(nullptr);
    std::string accepted;
    if (subcommand->get_name() == "exec")
        accepted = ": " + listOf(namesOf(kPluginCommands));
    else if (subcommand->get_name() == "call")
        accepted = ", such as " + listOf(namesOf(kPluginMethods));
    else if (subcommand->get_name() == "allow" || subcommand->get_name() == "deny")
        accepted = ", such as tcp:10.0.0.5:80:out, or @FILE, or - for standard input";
    return subcommand->get_name() + ": " + error.what() + accepted + seeHelp(subcommand);
}

} // namespace

std::string explainUsage(const CLI::App &app, const CLI::ParseError &error, const std::vector<std::string> &words) {
    const auto unknown = app.remaining(true);
    // In the order of the command line, which that of `unknown` is not.
    const auto first = std::find_if(words.begin(), words.end(), [&unknown](const std::string &word) {
        return std::find(unknown.begin(), unknown.end(), word) != unknown.end();
    });
    if (first != words.end())
        return unexpected(app, *first);
    if (dynamic_cast<const CLI::RequiredError *>(&error) != nullptr)
        return missing(app, error);
    return error.what() + seeHelp(chosen(app));
}

} // namespace cli
