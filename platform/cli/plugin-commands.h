// What the plugin takes: its commands, and its remote methods.
#ifndef PLATFORM_CLI_PLUGIN_COMMANDS_H
#define PLATFORM_CLI_PLUGIN_COMMANDS_H

#include <array>
#include <string_view>

#include "cli/suggestion.h"

namespace cli {

enum class Data { none, rules, policy, settings };

struct Command {
    std::string_view name;
    Data data;
    std::string_view ignores; // what it does with data that it does not look at, from "takes" on
};

constexpr std::array<Command, 9> kCommands = {
    {{"ApplyAllowRules", Data::rules, ""},
     {"ApplyDenyRules", Data::rules, ""},
     {"FlushAllowRules", Data::none, "takes no rules and removes all of them: every allow rule"},
     {"FlushDenyRules", Data::none, "takes no rules and removes all of them: every deny rule"},
     {"ApplyPolicy", Data::policy, ""},
     {"EnableStatCollector", Data::none, "takes no data"},
     {"DisableStatCollector", Data::none, "takes no data"},
     {"StatCollectorPolicy", Data::settings, ""},
     {"SendReport", Data::none, "takes no data"}}};

struct Method {
    std::string_view name;
    bool takesRules;
};

constexpr std::array<Method, 4> kMethods = {{{"Firewall::ApplyAllowRules", true},
                                             {"Firewall::ApplyDenyRules", true},
                                             {"Firewall::FlushAllowRules", false},
                                             {"Firewall::FlushDenyRules", false}}};

// The entry of that very name, or null.
template <typename Table> const typename Table::value_type *findIn(const Table &table, std::string_view name) {
    for (const auto &entry : table) {
        if (entry.name == name)
            return &entry;
    }
    return nullptr;
}

template <typename Table> Words namesOf(const Table &table) {
    Words names;
    for (const auto &entry : table)
        names.push_back(entry.name);
    return names;
}

// What `name` is not, what may have been meant, and what there is: for a word that stands where a command should.
std::string noSuchCommand(std::string_view name);
// The same for a remote method.
std::string noSuchMethod(std::string_view name);

} // namespace cli

#endif
