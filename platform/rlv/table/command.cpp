// The grammar of the option texts.
#include "rlv/table/command.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

#include "rlv/command-form.h"
#include "rlv/table/protocols.h"
#include "rlv/table/rule-words.h"

namespace rlv {

namespace {

constexpr std::size_t kMaxShownLength = 64;

// Leaves the grammar with an answer; never leaves this file.
struct Refusal {
    std::string message;
};

// A caller's bytes as they may stand in a log line.
std::string shown(std::string_view word) {
    std::string text = "\"";
    for (const char c : word.substr(0, kMaxShownLength)) {
        std::array<char, 5> escape{};
        std::snprintf(escape.data(), escape.size(), "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
        const bool plain = c >= ' ' && c <= '~' && c != '"' && c != '\\';
        text += plain ? std::string(1, c) : std::string(escape.data());
    }
    return text + (word.size() > kMaxShownLength ? "\"..." : "\"");
}

[[noreturn]] void refuse(const std::string &what, std::string_view word, const std::string &expected) {
    throw Refusal{"iptables: " + what + " " + shown(word) + ": expected " + expected};
}

// The words of a text, taken one by one from the front. `Expected` gives the text of what should stand there; it is
// made for a refusal alone.
class Words {
public:
    explicit Words(std::string_view text) : rest_(text) {}

    bool atEnd() const { return atEnd_; }

    std::string_view peek() const { return rest_.substr(0, rest_.find(' ')); }

    // The next word. Without one, refuses the command, naming the word before and what should follow it.
    template <class Expected> std::string_view take(Expected expected) {
        if (atEnd_)
            throw Refusal{"iptables: nothing after " + shown(last_) + ": expected " + expected()};
        last_ = peek();
        atEnd_ = last_.size() == rest_.size();
        rest_.remove_prefix(std::min(last_.size() + 1, rest_.size()));
        return last_;
    }

    bool takeIf(std::string_view word) {
        if (atEnd_ || peek() != word)
            return false;
        take([] { return ""; });
        return true;
    }

private:
    std::string_view rest_;
    std::string_view last_;
    bool atEnd_ = false;
};

void checkText(const std::string &text) {
    if (text.size() > kMaxCommandLength)
        refuse("too long a command", text, "at most " + std::to_string(kMaxCommandLength) + " characters");
    const bool printable = std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
    if (!printable)
        refuse("bad character in", text, "printable ASCII characters");
    const auto isDoubleBlank = [](char left, char right) { return left == ' ' && right == ' '; };
    if (text.empty() || text.front() == ' ' || text.back() == ' ' ||
        std::adjacent_find(text.begin(), text.end(), isDoubleBlank) != text.end())
        refuse("bad blanks in", text, "words separated by single blanks");
}

struct ActionWord {
    std::string_view word;
    Command::Action action;
    bool hasRule;
};

constexpr std::array kActions{
    ActionWord{"-F", Command::Action::flushChain, false},  ActionWord{"-N", Command::Action::makeChain, false},
    ActionWord{"-X", Command::Action::removeChain, false}, ActionWord{"-A", Command::Action::appendRule, true},
    ActionWord{"-D", Command::Action::deleteRule, true},
};

const ActionWord &parseAction(std::string_view word) {
    const auto *const found =
        std::find_if(kActions.begin(), kActions.end(), [&](const ActionWord &known) { return known.word == word; });
    if (found == kActions.end())
        refuse("unknown command", word, "-F, -N, -X, -A or -D");
    return *found;
}

std::string ownChains(const std::string &prefix) {
    return "a chain that begins with \"" + prefix + "\", at most " + std::to_string(kMaxChainLength) +
           " letters, digits and -_.";
}

std::string parseChain(std::string_view word, bool hasRule, const std::string &prefix) {
    if (!isOwnChain(word, prefix) && !(hasRule && isBuiltInChain(word)))
        refuse("bad chain", word, ownChains(prefix) + (hasRule ? ", or INPUT or OUTPUT" : ""));
    return std::string(word);
}

std::optional<std::uint8_t> parseProtocolWord(std::string_view word) {
    const auto protocol = parseProtocol(word);
    if (!protocol)
        refuse("unknown protocol", word, "a protocol's name, or its number 0 to 255");
    return *protocol == 0 ? std::nullopt : protocol;
}

// Puts the word where it belongs: an address as such, anything else as a name to be looked up.
void parseAddressWord(std::string_view word, std::optional<Network> &network, std::string &name) {
    if (const auto parsed = parseNetwork(word)) {
        if (parsed->prefixLength > 0)
            network = parsed;
        return;
    }
    if (!isHostName(word))
        refuse("bad address", word, "four decimals 0 to 255 with an optional /0 to /32, or a host name");
    name = word;
}

// Protocols that lose a full range get it in one place, whichever side it was given for: that is the one rule that the
// kernel holds for both.
void parsePortsWord(std::string_view option, std::string_view word, bool isSource, Rule &rule) {
    if (!rule.protocol || !hasPorts(*rule.protocol))
        refuse("unknown option", option, "ports only after -p tcp, -p udp, -p sctp or -p dccp");
    const auto ports = parsePorts(word);
    if (!ports)
        refuse("bad port", word, "0 to 65535, or a range first:last of these that is not reversed");
    const bool full = ports->first == 0 && ports->last == UINT16_MAX;
    (isSource || (full && foldsFullPortRange(*rule.protocol)) ? rule.sourcePorts : rule.destinationPorts) = ports;
}

Target parseLogTarget(Words &words) {
    constexpr std::string_view kPrefixOption = "--log-prefix=";
    const auto expected = [] { return "-v --log-prefix=TEXT after LOG"; };
    const std::string_view verbose = words.take(expected);
    if (verbose != "-v")
        refuse("bad argument", verbose, expected());
    const std::string_view word = words.take(expected);
    if (word.substr(0, kPrefixOption.size()) != kPrefixOption)
        refuse("bad argument", word, expected());
    const std::string_view prefix = word.substr(kPrefixOption.size());
    if (!isLogPrefix(prefix))
        refuse("bad log prefix", prefix,
               "1 to " + std::to_string(kMaxLogPrefixLength) + " letters, digits and -_.,:;/+=#@");
    return {Target::Kind::log, std::string(prefix)};
}

Target parseTarget(Words &words, const std::string &prefix) {
    const auto expected = [&] { return "ACCEPT, DROP, LOG or " + ownChains(prefix); };
    const std::string_view word = words.take(expected);
    if (word == "ACCEPT")
        return {Target::Kind::accept, ""};
    if (word == "DROP")
        return {Target::Kind::drop, ""};
    if (word == "LOG")
        return parseLogTarget(words);
    if (!isOwnChain(word, prefix))
        refuse("unknown target", word, expected());
    return {Target::Kind::jump, std::string(word)};
}

// A rule speaks of the packets' source or of their destination, never of both.
void parseSide(Words &words, Command &command) {
    const bool isSource = words.peek() == "-s" || words.peek() == "--sport";
    const std::string_view addressOption = isSource ? "-s" : "-d";
    const std::string_view portOption = isSource ? "--sport" : "--dport";
    Rule &rule = command.rule;
    if (words.takeIf(addressOption))
        parseAddressWord(words.take([] { return "an address"; }), isSource ? rule.source : rule.destination,
                         isSource ? command.sourceName : command.destinationName);
    if (words.takeIf(portOption))
        parsePortsWord(portOption, words.take([] { return "a port"; }), isSource, rule);
}

void parseRule(Words &words, const std::string &prefix, Command &command) {
    const bool isHook = isBuiltInChain(command.chain);
    if (!isHook && words.takeIf("-p"))
        command.rule.protocol = parseProtocolWord(words.take([] { return "a protocol"; }));
    if (!isHook)
        parseSide(words, command);
    const auto expected = [isHook] {
        return isHook ? "-j and a chain alone in INPUT and OUTPUT"
                      : "[-p protocol] [-s address] [--sport ports] -j target, or the same with -d and --dport, in "
                        "this order";
    };
    const std::string_view jump = words.take(expected);
    if (jump != "-j")
        refuse("bad argument", jump, expected());
    const std::string_view target = words.peek();
    command.rule.target = parseTarget(words, prefix);
    if (isHook && command.rule.target.kind != Target::Kind::jump)
        refuse("bad target in " + command.chain, target, ownChains(prefix));
}

Command parse(const std::string &options, const std::string &prefix) {
    checkText(options);
    Words words(options);
    const ActionWord &action = parseAction(words.take([] { return "a command"; }));
    Command command;
    command.action = action.action;
    command.chain = parseChain(words.take([] { return "a chain"; }), action.hasRule, prefix);
    if (action.hasRule)
        parseRule(words, prefix, command);
    if (!words.atEnd())
        refuse("bad argument", words.peek(), "nothing more");
    return command;
}

} // namespace

std::variant<Command, Answer> parseCommand(const std::string &options, const std::string &chainPrefix) {
    try {
        return parse(options, chainPrefix);
    } catch (const Refusal &refusal) {
        return Answer{2, refusal.message};
    }
}

} // namespace rlv
