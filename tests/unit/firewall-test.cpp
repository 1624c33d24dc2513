#include "firewall.h"

#include <filesystem>
#include <functional>
#include <ostream>
#include <stdexcept>
#include <type_traits>

#include <gmock/gmock.h>

#include "mavo/exception.h"
#include "support/fake-mavo.h"
#include "support/fake-rlv.h"
#include "support/fake-vlog.h"
#include "support/sqlite-file.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using Texts = std::vector<std::string>;

const std::string kFolder = "/opt/data/vpk/db";
const std::string kMain = kFolder + "/.firewall.db";

const Texts kLayout = {"-F VPK-ALLOW",
                       "-F VPK-DENY",
                       "-N VPK-ALLOW",
                       "-N VPK-DENY",
                       "-D INPUT -j VPK-ALLOW",
                       "-D INPUT -j VPK-DENY",
                       "-D OUTPUT -j VPK-ALLOW",
                       "-D OUTPUT -j VPK-DENY",
                       "-A INPUT -j VPK-ALLOW",
                       "-A OUTPUT -j VPK-ALLOW",
                       "-A INPUT -j VPK-DENY",
                       "-A OUTPUT -j VPK-DENY",
                       "-F VPK-LOGANDDROP",
                       "-N VPK-LOGANDDROP",
                       "-A VPK-LOGANDDROP -j LOG -v --log-prefix=IPTables-Dropped:",
                       "-A VPK-LOGANDDROP -j DROP",
                       "-F VPK-ALLOW",
                       "-F VPK-DENY"};

Texts joined(Texts first, const Texts &second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

Texts prefixed(const std::string &prefix, const Texts &texts) {
    Texts result;
    for (const std::string &text : texts)
        result.push_back(prefix + text);
    return result;
}

// The calls of one connection that sends these commands.
Texts connection(const Texts &commands) {
    return joined(joined({"initialize"}, prefixed("commit ", commands)), {"deinitialize"});
}

// The log lines of one connection that sends these commands with success.
Texts connectionLog(const Texts &commands) {
    return joined(
        joined({"I VPK: RlvHandler constructor"}, prefixed("I VPK: invokeRLVIptablesCommit options: ", commands)),
        {"I VPK: RlvHandler destructor"});
}

Texts stored() { return sqlitefile::query(kMain, "SELECT * FROM firewall_rules ORDER BY rowid"); }

class AnEngine : public testing::Test {
protected:
    AnEngine() {
        std::filesystem::remove_all("/opt/data");
        std::filesystem::create_directories(kFolder);
        { const FirewallStorage storage; }
        forget();
    }
    ~AnEngine() override { forget(); }

    // From here on only what the test itself does is on record.
    static void forget() {
        fakemavo::reset();
        fakerlv::reset();
        fakevlog::clear();
    }

    static void insert(const std::string &values) {
        sqlitefile::execute(kMain, "INSERT INTO firewall_rules VALUES " + values);
    }

    static void loseDatabase() { std::filesystem::remove_all("/opt/data"); }

    // What is sent to the service and what is asked of the database, in one order.
    void watch() {
        fakerlv::onCall([this](const std::string &call) { events.push_back(call); });
        fakemavo::hooks().open = [this](const std::string &, int) { events.push_back("open"); };
        fakemavo::hooks().close = [this](const std::string &) { events.push_back("close"); };
        fakemavo::hooks().prepare = [this](const std::string &sql) { events.push_back(sql.substr(0, sql.find(' '))); };
    }

    int allow(std::string rules) { return firewall.ApplyAllowRules(rules); }
    int deny(std::string rules) { return firewall.ApplyDenyRules(rules); }

    Firewall firewall;
    Texts events;
};

static_assert(std::is_base_of<AbstractPolicyProvider, Firewall>::value);
static_assert(std::has_virtual_destructor<Firewall>::value);

TEST_F(AnEngine, SaysThatItIsMadeAndTouchesNothing) {
    { const Firewall another; }
    EXPECT_THAT(fakevlog::messages(), ElementsAre("I VPK: Firewall Constructor"));
    EXPECT_EQ(fakevlog::place(fakevlog::lines()[0]), "firewall.cpp: Firewall");
    EXPECT_THAT(fakerlv::calls(), IsEmpty());
    EXPECT_THAT(fakemavo::trace(), IsEmpty());
}

TEST_F(AnEngine, LeavesTheChainsWhenItGoes) {
    {
        Firewall another;
        another.InitTables();
        forget();
    }
    EXPECT_THAT(fakerlv::calls(), IsEmpty());
    EXPECT_THAT(fakevlog::messages(), IsEmpty());
}

// Building the tables.

TEST_F(AnEngine, BuildsTheChainsAndTheirHooks) {
    EXPECT_EQ(firewall.InitTables(), 1);
    EXPECT_THAT(fakerlv::calls(), ElementsAreArray(connection(kLayout)));
}

TEST_F(AnEngine, LogsTheBuildingOfTheTables) {
    firewall.InitTables();
    Texts expected = connectionLog(kLayout);
    expected.insert(expected.end() - 1, "I VPK: Tables successfully initialized");
    EXPECT_THAT(fakevlog::messages(), ElementsAreArray(expected));
}

TEST_F(AnEngine, BuildsTheTablesWhateverTheServiceAnswers) {
    insert("('tcp', 'a', '1', 0, 1)");
    const Texts commands = joined(
        kLayout, {"-A VPK-ALLOW -p tcp -s a --sport 1 -j ACCEPT", "-A VPK-ALLOW -p tcp -d a --dport 1 -j ACCEPT"});
    for (const std::string &command : commands)
        fakerlv::answer(command, {0, 1, "no"});
    EXPECT_EQ(firewall.InitTables(), 1);
    EXPECT_THAT(fakerlv::commands(), ElementsAreArray(commands));
}

TEST_F(AnEngine, PutsTheStoredRulesIntoNewTables) {
    insert("('tcp', 'a', '1', 1, 1), ('udp', 'b', '2', 2, 0)");
    firewall.InitTables();
    EXPECT_THAT(fakerlv::calls(),
                ElementsAreArray(connection(joined(kLayout, {"-A VPK-ALLOW -p tcp -s a --sport 1 -j ACCEPT",
                                                             "-A VPK-DENY -p udp -d b --dport 2 -j VPK-LOGANDDROP"}))));
}

TEST_F(AnEngine, CannotBuildTheTablesWithoutTheService) {
    fakerlv::failInitialize(0x6f);
    EXPECT_EQ(firewall.InitTables(), 0);
    EXPECT_THAT(fakerlv::calls(), ElementsAre("initialize failed"));
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre("E VPK: Firewall::InitTables failed: Failed to initialize RLV: 0x6f"));
    EXPECT_EQ(fakevlog::place(fakevlog::lines()[0]), "firewall.cpp: InitTables");
}

TEST_F(AnEngine, CannotBuildTheTablesWithoutTheDatabase) {
    loseDatabase();
    EXPECT_EQ(firewall.InitTables(), 0);
    EXPECT_THAT(fakerlv::calls(), ElementsAreArray(connection(kLayout)));
    EXPECT_EQ(fakevlog::messages().back(), "E VPK: Firewall::InitTables failed: unable to open database file");
    EXPECT_EQ(fakevlog::messages().end()[-2], "I VPK: RlvHandler destructor");
}

TEST_F(AnEngine, LetsOtherExceptionsOutOfTheBuilding) {
    fakemavo::hooks().step = [](const std::string &) { throw std::logic_error("odd"); };
    EXPECT_THROW(firewall.InitTables(), std::logic_error);
    EXPECT_EQ(fakevlog::messages().back(), "I VPK: RlvHandler destructor");
    EXPECT_EQ(fakerlv::calls().back(), "deinitialize");
}

TEST_F(AnEngine, BuildsTheTablesAgainAfterABuildingThatFailed) {
    firewall.InitTables();
    fakerlv::failInitialize(1);
    firewall.InitTables();
    forget();
    EXPECT_EQ(allow(""), 0);
    EXPECT_THAT(fakerlv::calls(), ElementsAreArray(joined(connection(kLayout), connection({}))));
}

TEST_F(AnEngine, BuildsTheTablesAfreshEachTimeItIsTold) {
    firewall.InitTables();
    forget();
    EXPECT_EQ(firewall.InitTables(), 1);
    EXPECT_THAT(fakerlv::calls(), ElementsAreArray(connection(kLayout)));
}

// What the four rule operations have in common.

struct Operation {
    std::string entry; // the log line at its start
    std::function<int(Firewall &)> run;
    Texts commands;
};

void PrintTo(const Operation &operation, std::ostream *stream) { *stream << operation.entry; }

class AnOperation : public AnEngine, public testing::WithParamInterface<Operation> {
protected:
    int run() { return GetParam().run(firewall); }
    void initialize() {
        firewall.InitTables();
        forget();
    }
    const std::string entry = "I VPK: Firewall::" + GetParam().entry;
    const std::string name = GetParam().entry.substr(0, GetParam().entry.find(':'));
};

int applyAllow(Firewall &firewall) {
    std::string rules = "tcp:a:1:in";
    return firewall.ApplyAllowRules(rules);
}

int applyDeny(Firewall &firewall) {
    std::string rules = "tcp:a:1:in";
    return firewall.ApplyDenyRules(rules);
}

INSTANTIATE_TEST_SUITE_P(
    All, AnOperation,
    testing::Values(
        Operation{"ApplyAllowRules", applyAllow, {"-A VPK-ALLOW -p tcp -s a --sport 1 -j ACCEPT"}},
        Operation{"ApplyDenyRules: tcp:a:1:in", applyDeny, {"-A VPK-DENY -p tcp -s a --sport 1 -j VPK-LOGANDDROP"}},
        Operation{"FlushAllowRules", std::mem_fn(&Firewall::FlushAllowRules), {"-F VPK-ALLOW"}},
        Operation{"FlushDenyRules", std::mem_fn(&Firewall::FlushDenyRules), {"-F VPK-DENY"}}));

TEST_P(AnOperation, BuildsTheTablesFirst) {
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(fakerlv::calls(), ElementsAreArray(joined(connection(kLayout), connection(GetParam().commands))));
}

TEST_P(AnOperation, LogsItsEntryBeforeItBuildsTheTables) {
    run();
    EXPECT_EQ(fakevlog::messages()[0], entry);
    EXPECT_EQ(fakevlog::messages()[1], "I VPK: RlvHandler constructor");
    EXPECT_THAT(fakevlog::functions("firewall.cpp"), ElementsAre(name, "InitTables"));
}

TEST_P(AnOperation, BuildsTheTablesOnlyOnce) {
    initialize();
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(fakerlv::calls(), ElementsAreArray(connection(GetParam().commands)));
}

TEST_P(AnOperation, LogsEntryConnectionCommandAndBackup) {
    initialize();
    run();
    const Texts connected = connectionLog(GetParam().commands);
    EXPECT_THAT(fakevlog::messages(),
                testing::UnorderedElementsAreArray(joined(connected, {entry, "I VPK: db backup was created"})));
    EXPECT_EQ(fakevlog::messages().front(), entry);
    EXPECT_EQ(fakevlog::messages().back(), connected.back());
}

TEST_P(AnOperation, OpensNothingWhenTheTablesCannotBeBuilt) {
    fakerlv::failInitialize(0x6f);
    EXPECT_EQ(run(), -1);
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre(entry, "E VPK: Firewall::InitTables failed: Failed to initialize RLV: 0x6f",
                            "E VPK: Failed to initialize Firewall"));
    EXPECT_THAT(fakevlog::functions("firewall.cpp"), ElementsAre(name, "InitTables", name));
    EXPECT_THAT(fakerlv::calls(), ElementsAre("initialize failed"));
    EXPECT_THAT(fakemavo::trace(), IsEmpty());
}

TEST_P(AnOperation, FailsWhenTheDatabaseDoesNotOpen) {
    initialize();
    loseDatabase();
    EXPECT_EQ(run(), -1);
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre(entry, "I VPK: RlvHandler constructor",
                            "E VPK: can't open and prepare db: unable to open database file",
                            "I VPK: try to restore db", "E VPK: can't restore backup db: unable to open database file",
                            "I VPK: create new db", "I VPK: RlvHandler destructor",
                            "E VPK: unable to open database file"));
    EXPECT_THAT(fakerlv::calls(), ElementsAre("initialize", "deinitialize"));
}

TEST_P(AnOperation, LogsWhatTheDatabaseSaysAsItStands) {
    initialize();
    fakemavo::hooks().prepare = [](const std::string &sql) {
        if (sql.compare(0, 6, "CREATE") != 0)
            throw mavo::Exception("100%s");
    };
    EXPECT_EQ(run(), -1);
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre(entry, "I VPK: RlvHandler constructor", "I VPK: RlvHandler destructor", "E VPK: 100%s"));
    EXPECT_THAT(fakevlog::functions("firewall.cpp"), ElementsAre(name, name));
}

TEST_P(AnOperation, PassesOnThatTheServiceIsGone) {
    initialize();
    fakerlv::failInitialize(0x1f);
    try {
        run();
        FAIL() << "no exception";
    } catch (const std::runtime_error &error) {
        EXPECT_STREQ(error.what(), "Failed to initialize RLV: 0x1f");
    }
    EXPECT_THAT(fakevlog::messages(), ElementsAre(entry));
    EXPECT_THAT(fakemavo::trace(), IsEmpty());
}

TEST_P(AnOperation, PassesOnOtherExceptionsAndClosesWhatItOpened) {
    initialize();
    watch();
    fakemavo::hooks().prepare = [](const std::string &sql) {
        if (sql.compare(0, 6, "CREATE") != 0)
            throw std::runtime_error("odd");
    };
    EXPECT_THROW(run(), std::runtime_error);
    EXPECT_THAT(events, ElementsAre("initialize", "open", "close", "deinitialize"));
}

TEST_P(AnOperation, ReturnsTheErrorOfItsCommand) {
    initialize();
    fakerlv::answer(GetParam().commands[0], {0, 5, "no"});
    EXPECT_EQ(run(), 5);
    EXPECT_EQ(fakevlog::messages().end()[-2], "E VPK: invokeRLVIptablesCommit Iptables ERROR: 5 : no");
}

// Applying.

class AReadyEngine : public AnEngine {
protected:
    AReadyEngine() {
        firewall.InitTables();
        forget();
    }
};

TEST_F(AReadyEngine, AppliesNothingForAnEmptyText) {
    watch();
    EXPECT_EQ(allow(""), 0);
    EXPECT_EQ(deny(""), 0);
    const Texts once = {"initialize", "open", "CREATE", "close", "deinitialize"};
    EXPECT_THAT(events, ElementsAreArray(joined(once, once)));
}

TEST_F(AReadyEngine, AppliesAllowRulesByTheirDirection) {
    EXPECT_EQ(allow("tcp:a:1;tcp:b:2:in;udp:c:3-4:out"), 0);
    EXPECT_THAT(fakerlv::calls(), ElementsAreArray(connection({"-A VPK-ALLOW -p tcp -s a --sport 1 -j ACCEPT",
                                                               "-A VPK-ALLOW -p tcp -d a --dport 1 -j ACCEPT",
                                                               "-A VPK-ALLOW -p tcp -s b --sport 2 -j ACCEPT",
                                                               "-A VPK-ALLOW -p udp -d c --dport 3:4 -j ACCEPT"})));
    EXPECT_THAT(stored(), ElementsAre("tcp|a|1|0|1", "tcp|b|2|1|1", "udp|c|3:4|2|1"));
}

TEST_F(AReadyEngine, StoresAnAllowRuleOfBothDirectionsOnce) {
    watch();
    EXPECT_EQ(allow("tcp:a:1:bid"), 0);
    EXPECT_THAT(events,
                ElementsAre("initialize", "open", "CREATE", "SELECT",
                            "commit -A VPK-ALLOW -p tcp -s a --sport 1 -j ACCEPT",
                            "commit -A VPK-ALLOW -p tcp -d a --dport 1 -j ACCEPT", "INSERT", "close", "deinitialize"));
    EXPECT_THAT(fakemavo::trace("exec"), ElementsAre("exec done", "exec done")) << "the table's and the rule's";
    EXPECT_THAT(stored(), ElementsAre("tcp|a|1|0|1"));
}

TEST_F(AReadyEngine, AppliesDenyRulesWithTheLoggingTargetAndStoresThemAsDropped) {
    EXPECT_EQ(deny("tcp:a:1;tcp:b:2:in;udp:c:3-4:out"), 0);
    EXPECT_THAT(fakerlv::calls(),
                ElementsAreArray(connection({"-A VPK-DENY -p tcp -s a --sport 1 -j VPK-LOGANDDROP",
                                             "-A VPK-DENY -p tcp -d a --dport 1 -j VPK-LOGANDDROP",
                                             "-A VPK-DENY -p tcp -s b --sport 2 -j VPK-LOGANDDROP",
                                             "-A VPK-DENY -p udp -d c --dport 3:4 -j VPK-LOGANDDROP"})));
    EXPECT_THAT(stored(), ElementsAre("tcp|a|1|0|0", "tcp|b|2|1|0", "udp|c|3:4|2|0"));
}

TEST_F(AReadyEngine, AsksAppliesAndStoresRuleByRule) {
    watch();
    allow("tcp:a:1:in;tcp:b:2:out");
    EXPECT_THAT(events, ElementsAre("initialize", "open", "CREATE",                                            //
                                    "SELECT", "commit -A VPK-ALLOW -p tcp -s a --sport 1 -j ACCEPT", "INSERT", //
                                    "SELECT", "commit -A VPK-ALLOW -p tcp -d b --dport 2 -j ACCEPT", "INSERT", //
                                    "close", "deinitialize"));
}

TEST_F(AReadyEngine, LeavesTheTextAsItIs) {
    std::string rules = "tcp:a:1-2:IN";
    firewall.ApplyAllowRules(rules);
    firewall.ApplyDenyRules(rules);
    EXPECT_EQ(rules, "tcp:a:1-2:IN");
}

TEST_F(AReadyEngine, AppliesNoneOfAnAllowListWithAMalformedRule) {
    watch();
    EXPECT_EQ(allow("tcp:a:80;bad"), -1);
    EXPECT_THAT(events, ElementsAre("initialize", "open", "CREATE", "close", "deinitialize"));
    EXPECT_THAT(fakevlog::messages(), ElementsAre("I VPK: Firewall::ApplyAllowRules", "I VPK: RlvHandler constructor",
                                                  "I VPK: RlvHandler destructor", "E VPK: Invalid format"));
    EXPECT_THAT(stored(), IsEmpty());
}

TEST_F(AReadyEngine, AppliesNoneOfADenyListWithAMalformedRule) {
    watch();
    EXPECT_EQ(deny("tcp:a:80;tcp:a:8%s"), -1);
    EXPECT_THAT(events, ElementsAre("initialize", "open", "CREATE", "close", "deinitialize"));
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre("I VPK: Firewall::ApplyDenyRules: tcp:a:80;tcp:a:8%s", "I VPK: RlvHandler constructor",
                            "I VPK: RlvHandler destructor", "E VPK: Invalid port"));
    EXPECT_THAT(stored(), IsEmpty());
}

TEST_F(AReadyEngine, StopsAtTheFirstRuleThatTheServiceRefuses) {
    fakerlv::answer("-A VPK-ALLOW -p tcp -s b --sport 2 -j ACCEPT", {0, 5, "no"});
    EXPECT_EQ(allow("tcp:a:1:in;tcp:b:2:in;tcp:c:3:in"), 5);
    EXPECT_THAT(fakerlv::commands(), ElementsAre("-A VPK-ALLOW -p tcp -s a --sport 1 -j ACCEPT",
                                                 "-A VPK-ALLOW -p tcp -s b --sport 2 -j ACCEPT"));
    EXPECT_THAT(stored(), ElementsAre("tcp|a|1|1|1"));
}

TEST_F(AReadyEngine, StopsAtARefusedInboundHalf) {
    fakerlv::answer("-A VPK-DENY -p tcp -s a --sport 1 -j VPK-LOGANDDROP", {0, 2, "no"});
    EXPECT_EQ(deny("tcp:a:1"), 2);
    EXPECT_THAT(fakerlv::commands(), ElementsAre("-A VPK-DENY -p tcp -s a --sport 1 -j VPK-LOGANDDROP"));
    EXPECT_THAT(stored(), IsEmpty());
}

TEST_F(AReadyEngine, KeepsTheInboundHalfOfARefusedOutboundOne) {
    fakerlv::answer("-A VPK-DENY -p tcp -d a --dport 1 -j VPK-LOGANDDROP", {-3, 0, std::nullopt});
    EXPECT_EQ(deny("tcp:a:1;tcp:b:2"), -3);
    EXPECT_THAT(fakerlv::commands(), ElementsAre("-A VPK-DENY -p tcp -s a --sport 1 -j VPK-LOGANDDROP",
                                                 "-A VPK-DENY -p tcp -d a --dport 1 -j VPK-LOGANDDROP"));
    EXPECT_THAT(stored(), IsEmpty());
}

TEST_F(AReadyEngine, FailsWhenARuleCannotBeStored) {
    fakemavo::hooks().exec = [](const std::string &sql) {
        return sql.compare(0, 6, "INSERT") == 0 ? std::optional<std::string>("disk is full") : std::nullopt;
    };
    EXPECT_EQ(allow("tcp:a:1:in;tcp:b:2:in"), -1);
    const std::string command = "-A VPK-ALLOW -p tcp -s a --sport 1 -j ACCEPT";
    EXPECT_THAT(fakerlv::calls(), ElementsAreArray(connection({command})));
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre("I VPK: Firewall::ApplyAllowRules", "I VPK: RlvHandler constructor",
                            "I VPK: invokeRLVIptablesCommit options: " + command, "E VPK: disk is full",
                            "I VPK: RlvHandler destructor", "E VPK: insert failure"));
}

// Opposites.

TEST_F(AReadyEngine, RebuildsTheChainsWhenAnAllowRuleMeetsADenyRule) {
    insert("('tcp', 'a', '1', 1, 0), ('tcp', 'z', '9', 2, 0)");
    watch();
    EXPECT_EQ(allow("tcp:a:1:in"), 0);
    EXPECT_THAT(events, ElementsAre("initialize", "open", "CREATE", "SELECT", "INSERT",            //
                                    "commit -F VPK-ALLOW", "commit -F VPK-DENY", "open", "CREATE", //
                                    "SELECT", "commit -A VPK-DENY -p tcp -d z --dport 9 -j VPK-LOGANDDROP",
                                    "commit -A VPK-ALLOW -p tcp -s a --sport 1 -j ACCEPT", "SELECT", //
                                    "close", "close", "deinitialize"));
    EXPECT_THAT(stored(), ElementsAre("tcp|z|9|2|0", "tcp|a|1|1|1"));
}

TEST_F(AReadyEngine, RebuildsTheChainsWhenADenyRuleMeetsAnAllowRule) {
    insert("('tcp', 'a', '1', 1, 1)");
    EXPECT_EQ(deny("tcp:a:1:in"), 0);
    EXPECT_THAT(fakerlv::calls(),
                ElementsAreArray(connection(
                    {"-F VPK-ALLOW", "-F VPK-DENY", "-A VPK-DENY -p tcp -s a --sport 1 -j VPK-LOGANDDROP"})));
    EXPECT_THAT(stored(), ElementsAre("tcp|a|1|1|0"));
}

TEST_F(AReadyEngine, LogsTheMeetingOfOpposites) {
    insert("('tcp', 'a', '1', 1, 1)");
    deny("tcp:a:1:in");
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre("I VPK: Firewall::ApplyDenyRules: tcp:a:1:in", "I VPK: RlvHandler constructor",
                            "I VPK: HI, isAllowed = 1", "I VPK: db backup was created",
                            "I VPK: invokeRLVIptablesCommit options: -F VPK-ALLOW",
                            "I VPK: invokeRLVIptablesCommit options: -F VPK-DENY",
                            "I VPK: invokeRLVIptablesCommit options: "
                            "-A VPK-DENY -p tcp -s a --sport 1 -j VPK-LOGANDDROP",
                            "I VPK: RlvHandler destructor"));
}

TEST_F(AReadyEngine, RebuildsTheChainsWhenOnlyTheDirectionDiffers) {
    insert("('tcp', 'a', '1', 1, 1)");
    EXPECT_EQ(allow("tcp:a:1:out"), 0);
    EXPECT_THAT(fakerlv::commands(),
                ElementsAre("-F VPK-ALLOW", "-F VPK-DENY", "-A VPK-ALLOW -p tcp -d a --dport 1 -j ACCEPT"));
    EXPECT_THAT(stored(), ElementsAre("tcp|a|1|2|1"));
}

TEST_F(AReadyEngine, GoesOnWithTheNextRuleAfterARebuilding) {
    insert("('tcp', 'a', '1', 1, 0)");
    EXPECT_EQ(allow("tcp:a:1:in;tcp:b:2:in"), 0);
    EXPECT_THAT(fakerlv::commands(),
                ElementsAre("-F VPK-ALLOW", "-F VPK-DENY", "-A VPK-ALLOW -p tcp -s a --sport 1 -j ACCEPT",
                            "-A VPK-ALLOW -p tcp -s b --sport 2 -j ACCEPT"));
    EXPECT_THAT(stored(), ElementsAre("tcp|a|1|1|1", "tcp|b|2|1|1"));
}

TEST_F(AReadyEngine, PassesOverCommandsThatFailInARebuilding) {
    insert("('tcp', 'a', '1', 1, 0)");
    for (const char *command : {"-F VPK-ALLOW", "-F VPK-DENY", "-A VPK-ALLOW -p tcp -s a --sport 1 -j ACCEPT"})
        fakerlv::answer(command, {0, 4, "no"});
    EXPECT_EQ(allow("tcp:a:1:in"), 0);
    EXPECT_EQ(fakerlv::commands().size(), 3U);
}

TEST_F(AReadyEngine, AppliesARuleAgainThatIsStoredAlready) {
    insert("('tcp', 'a', '1', 1, 1), ('tcp', 'b', '2', 2, 0)");
    EXPECT_EQ(allow("tcp:a:1:in"), 0);
    EXPECT_EQ(deny("tcp:b:2:out"), 0);
    EXPECT_THAT(fakerlv::commands(), ElementsAre("-A VPK-ALLOW -p tcp -s a --sport 1 -j ACCEPT",
                                                 "-A VPK-DENY -p tcp -d b --dport 2 -j VPK-LOGANDDROP"));
    EXPECT_THAT(stored(), ElementsAre("tcp|a|1|1|1", "tcp|b|2|2|0"));
}

// Applying the stored rules again.

TEST_F(AReadyEngine, EmptiesBothChainsThenReadsTheRulesBack) {
    deny("tcp:a:1");
    forget();
    watch();
    firewall.ReapplyRules();
    // Outside of an operation there is no connection, and none is opened.
    EXPECT_THAT(events,
                ElementsAre("commit -F VPK-ALLOW failed", "commit -F VPK-DENY failed", "open", "CREATE", "SELECT",
                            "commit -A VPK-DENY -p tcp -s a --sport 1 -j VPK-LOGANDDROP failed",
                            "commit -A VPK-DENY -p tcp -d a --dport 1 -j VPK-LOGANDDROP failed", "SELECT", "close"));
    EXPECT_THAT(stored(), ElementsAre("tcp|a|1|0|0"));
}

TEST_F(AReadyEngine, PutsRulesBackByActionAndDirection) {
    insert("('tcp', 'a', '1', 0, 1), ('tcp', 'b', '2', 1, 0), ('tcp', 'c', '3', 2, 1), ('tcp', 'd', '4', 0, 0)");
    firewall.ReapplyRules();
    EXPECT_THAT(fakerlv::commands(), ElementsAre("-F VPK-ALLOW", "-F VPK-DENY",                         //
                                                 "-A VPK-ALLOW -p tcp -s a --sport 1 -j ACCEPT",        //
                                                 "-A VPK-ALLOW -p tcp -d a --dport 1 -j ACCEPT",        //
                                                 "-A VPK-DENY -p tcp -s b --sport 2 -j VPK-LOGANDDROP", //
                                                 "-A VPK-ALLOW -p tcp -d c --dport 3 -j ACCEPT",        //
                                                 "-A VPK-DENY -p tcp -s d --sport 4 -j VPK-LOGANDDROP", //
                                                 "-A VPK-DENY -p tcp -d d --dport 4 -j VPK-LOGANDDROP"));
}

TEST_F(AReadyEngine, ReadsRulesBackInPagesOfAThousand) {
    sqlitefile::execute(kMain, "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2500)"
                               " INSERT INTO firewall_rules SELECT 'tcp', 'host', i, 1, 1 FROM n");
    firewall.ReapplyRules();
    EXPECT_THAT(fakemavo::trace("bind"),
                ElementsAre("bind 1 int 1000", "bind 2 int 0", "bind 1 int 1000", "bind 2 int 1000", "bind 1 int 1000",
                            "bind 2 int 2000", "bind 1 int 1000", "bind 2 int 2500"));
    Texts expected = {"-F VPK-ALLOW", "-F VPK-DENY"};
    for (int port = 1; port <= 2500; ++port)
        expected.push_back("-A VPK-ALLOW -p tcp -s host --sport " + std::to_string(port) + " -j ACCEPT");
    EXPECT_EQ(fakerlv::commands(), expected);
}

TEST_F(AReadyEngine, LogsNothingOfItsOwnWhenItReadsRulesBack) {
    firewall.ReapplyRules();
    EXPECT_THAT(fakevlog::messages(), ElementsAre("I VPK: invokeRLVIptablesCommit options: -F VPK-ALLOW",
                                                  "E VPK: invokeRLVIptablesCommit Iptables ERROR: 4 : no connection",
                                                  "I VPK: invokeRLVIptablesCommit options: -F VPK-DENY",
                                                  "E VPK: invokeRLVIptablesCommit Iptables ERROR: 4 : no connection"));
}

// Flushing.

class AFilledEngine : public AReadyEngine {
protected:
    AFilledEngine() { insert("('tcp', 'a', '1', 1, 1), ('tcp', 'b', '2', 2, 0)"); }
};

TEST_F(AFilledEngine, FlushesAllowRulesInTheDatabaseThenInTheirChain) {
    watch();
    EXPECT_EQ(firewall.FlushAllowRules(), 0);
    EXPECT_THAT(events,
                ElementsAre("initialize", "open", "CREATE", "DELETE", "commit -F VPK-ALLOW", "close", "deinitialize"));
    EXPECT_THAT(stored(), ElementsAre("tcp|b|2|2|0"));
}

TEST_F(AFilledEngine, FlushesDenyRulesInTheDatabaseThenInTheirChain) {
    watch();
    EXPECT_EQ(firewall.FlushDenyRules(), 0);
    EXPECT_THAT(events,
                ElementsAre("initialize", "open", "CREATE", "DELETE", "commit -F VPK-DENY", "close", "deinitialize"));
    EXPECT_THAT(stored(), ElementsAre("tcp|a|1|1|1"));
}

TEST_F(AFilledEngine, EmptiesTheChainEvenWhenTheRulesCannotBeDeleted) {
    fakemavo::hooks().exec = [](const std::string &sql) {
        return sql.compare(0, 6, "DELETE") == 0 ? std::optional<std::string>("busy") : std::nullopt;
    };
    EXPECT_EQ(firewall.FlushAllowRules(), 0);
    EXPECT_EQ(firewall.FlushDenyRules(), 0);
    EXPECT_THAT(fakerlv::commands(), ElementsAre("-F VPK-ALLOW", "-F VPK-DENY"));
}

TEST_F(AFilledEngine, LogsAFlush) {
    firewall.FlushDenyRules();
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre("I VPK: Firewall::FlushDenyRules", "I VPK: RlvHandler constructor",
                            "I VPK: db backup was created", "I VPK: invokeRLVIptablesCommit options: -F VPK-DENY",
                            "I VPK: RlvHandler destructor"));
}

} // namespace
