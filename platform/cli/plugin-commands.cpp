#include "cli/plugin-commands.h"

#include <algorithm>

namespace cli {

namespace {

const char *describe(CommandData data) {
    switch (data) {
    case CommandData::none:
        return "none";
    case CommandData::rules:
        return "rules, joined by \";\"";
    case CommandData::policy:
        return R"({"ALLOW":[rules],"DENY":[rules]}, see below)";
    case CommandData::settings:
        return R"(settings, {"send_report_interval":"3600"})";
    }
    return "";
}

} // namespace

const PluginCommand *commandOfMethod(std::string_view method) {
    const auto *const known = findNamed(kPluginMethods, method);
    return known == nullptr ? nullptr : findNamed(kPluginCommands, known->command);
}

std::string commandLines() {
    constexpr std::size_t kWidth = 23;
    constexpr std::size_t kLeastGap = 4;
    std::string lines;
    std::string names;
    for (const auto *command = kPluginCommands.begin(); command != kPluginCommands.end(); ++command) {
        names.append(names.empty() ? "" : ", ").append(command->name);
        const auto *const next = command + 1;
        if (next != kPluginCommands.end() && next->data == command->data && next->effect == command->effect)
            continue;
        names.resize(std::max(names.size() + kLeastGap, kWidth), ' ');
        lines.append("  ").append(names).append(describe(command->data)).append("\n");
        names.clear();
    }
    return lines;
}

std::string methodLines() {
    std::string lines;
    bool tookRules = false;
    for (const auto &method : kPluginMethods) {
        const auto *const command = findNamed(kPluginCommands, method.command);
        const bool takesRules = command != nullptr && command->data == CommandData::rules;
        lines.append(lines.empty() ? "  " : takesRules == tookRules ? ", " : "\n  ").append(method.name);
        lines.append(takesRules ? " RULES" : "");
        tookRules = takesRules;
    }
    return lines + "\n";
}

std::string noSuchCommand(std::string_view name) {
    return "\"" + std::string(name) + "\" is no command of the plugin" + didYouMean(name, namesOf(kPluginCommands)) +
           " (commands: " + listOf(namesOf(kPluginCommands)) + ")";
}

} // namespace cli
