// The table over a backend that refuses, fails and is changed by others at the worst moments.
#ifndef TESTS_PLATFORM_RLV_TABLE_TRANSACTIONAL_TABLE_FIXTURE_H
#define TESTS_PLATFORM_RLV_TABLE_TRANSACTIONAL_TABLE_FIXTURE_H

#include <cerrno>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "rlv/table/rule-text.h"
#include "rlv/table/transactional-table.h"
#include "scripted-backend.h"

namespace scripted {

using rlv::Change;
using testing::ElementsAre;
using testing::IsEmpty;
using Kind = Change::Kind;
using Texts = std::vector<std::string>;

inline rlv::Command parsed(const std::string &options) {
    return std::get<rlv::Command>(rlv::parseCommand(options, "VPK-"));
}

inline bool isFor(const Change &change, const std::string &text) {
    return change.rule != nullptr && describe(*change.rule) == text;
}

class ATransactionalTable : public testing::Test {
protected:
    explicit ATransactionalTable(std::size_t limit = rlv::kMaxRules) {
        auto owned = std::make_unique<Backend>();
        backend = owned.get();
        table = std::make_unique<rlv::TransactionalTable>(std::move(owned), "VPK-", limit);
    }

    void accepted(const Texts &commands) {
        for (const std::string &options : commands)
            EXPECT_EQ("", table->apply({parsed(options)}, options).message) << options;
    }

    // A connection of its own, all of which is in force afterwards.
    void done(const Texts &commands) {
        table->open();
        accepted(commands);
        EXPECT_THAT(table->push().lost, IsEmpty());
    }

    // One command with an address for each host.
    rlv::Answer applyToHosts(const std::string &before, const Texts &hosts, const std::string &after) {
        std::vector<rlv::Command> commands;
        for (const std::string &host : hosts)
            commands.push_back(parsed(std::string(before).append(host).append(after)));
        return table->apply(commands, before + "name" + after);
    }

    void refuseRule(const std::string &text, int error = EINVAL) {
        backend->refuse = [text, error](const Change &change) { return isFor(change, text) ? error : 0; };
    }
    void refuseKind(Kind kind, int error) {
        backend->refuse = [kind, error](const Change &change) { return change.kind == kind ? error : 0; };
    }

    // The chain's rules, with their handles.
    Texts rules(const std::string &chain) {
        Texts texts;
        const rlv::Ruleset truth = backend->truth();
        for (const rlv::StandingRule &standing : truth.chains.at(chain).rules)
            texts.push_back(describe(*standing.rule) + " #" + std::to_string(standing.handle));
        return texts;
    }
    Texts plainRules(const std::string &chain) {
        Texts texts;
        const rlv::Ruleset truth = backend->truth();
        for (const rlv::StandingRule &standing : truth.chains.at(chain).rules)
            texts.push_back(describe(*standing.rule));
        return texts;
    }
    bool stands(const std::string &chain) { return backend->truth().chains.count(chain) > 0; }

    void foreignAppend(const std::string &chain, const std::string &rule) {
        EXPECT_TRUE(backend->append(chain, parsed("-A VPK-A " + rule).rule));
    }
    void foreignRemoveAll(const std::string &chain) {
        EXPECT_TRUE(backend->edit({Kind::flushChain, &chain, nullptr, 0}));
        EXPECT_TRUE(backend->edit({Kind::deleteChain, &chain, nullptr, 0}));
    }

    void foreignRemoveRules(const std::string &chain) {
        EXPECT_TRUE(backend->edit({Kind::flushChain, &chain, nullptr, 0}));
    }
    // All of it, as far as it stands.
    void foreignForget() {
        for (const std::string chain : {"INPUT", "VPK-A"}) {
            if (stands(chain))
                foreignRemoveRules(chain);
        }
        for (const std::string chain : {"INPUT", "VPK-A"}) {
            if (stands(chain))
                foreignRemoveAll(chain);
        }
    }

    static Texts namesOf(const rlv::PushReport &report) {
        Texts names;
        for (const rlv::LostCommand &lost : report.lost)
            names.push_back(lost.options + " (" + std::to_string(lost.code) + ", " + lost.message + ")");
        return names;
    }

    Backend *backend = nullptr;
    std::unique_ptr<rlv::TransactionalTable> table;
};

inline const std::string kUnsent = " (4, iptables: not sent: the connection ended before)";

} // namespace scripted

#endif
