// The plugin on an engine that does what a test orders, in the real one's place.
#include "firewall-dplugin.h"

#include <functional>
#include <memory>
#include <new>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mavo/exception.h>

#include "support/fake-pil.h"
#include "support/fake-vlog.h"

extern "C" AbstractDPluginProvider *DPluginFactory(mavo::rmi::Service &service);

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// What the engine was called for, and what it is to do then.
struct Engine {
    std::vector<std::string> calls;
    std::function<void()> construct;
    std::function<int()> initTables;
    std::function<int()> allow;
    std::function<int()> deny;
    int destroyed = 0;
};

Engine engine;

int answer(const std::function<int()> &order, int otherwise) { return order ? order() : otherwise; }

} // namespace

Firewall::Firewall() : m_initialized(false) {
    engine.calls.emplace_back("construct");
    if (engine.construct)
        engine.construct();
}

Firewall::~Firewall() { ++engine.destroyed; }

int Firewall::InitTables() {
    engine.calls.emplace_back("InitTables");
    return answer(engine.initTables, 1);
}

int Firewall::ApplyAllowRules(std::string &rules) {
    engine.calls.push_back("allow [" + rules + "]");
    return answer(engine.allow, 0);
}

int Firewall::ApplyDenyRules(std::string &rules) {
    engine.calls.push_back("deny [" + rules + "]");
    return answer(engine.deny, 0);
}

int Firewall::FlushAllowRules() { return 0; }

int Firewall::FlushDenyRules() { return 0; }

namespace {

const std::string kFrame = "I NYR_FIREWALL: ### firewall: ";
const std::string kError = "E NYR_FIREWALL: ";

class PluginOnEngine : public testing::Test {
protected:
    std::unique_ptr<AbstractDPluginProvider> create() {
        return std::unique_ptr<AbstractDPluginProvider>(DPluginFactory(service));
    }

    // Applies a policy and gives the reply.
    std::string apply(const std::string &policy) {
        plugin = create();
        engine.calls.clear();
        fakevlog::clear();
        return plugin->executeCommand("ApplyPolicy", policy);
    }

    fakepil::Storage storage;
    mavo::rmi::Service service;
    std::unique_ptr<AbstractDPluginProvider> plugin;
};

std::vector<std::string> functions() { return fakevlog::functions("firewall-dplugin.cpp"); }

// The ERROR lines.
std::vector<std::string> errors() {
    std::vector<std::string> all;
    for (const std::string &message : fakevlog::messages()) {
        if (message[0] == 'E')
            all.push_back(message);
    }
    return all;
}

TEST_F(PluginOnEngine, DeletesItsEngineOnce) {
    create().reset();
    EXPECT_EQ(engine.destroyed, 1);
    EXPECT_THAT(engine.calls, ElementsAre("construct", "InitTables"));
}

TEST_F(PluginOnEngine, IsNeverReturnedWithoutAnEngine) {
    engine.construct = [] { throw std::runtime_error("Failed to get implementation!"); };
    EXPECT_EQ(create(), nullptr);
    EXPECT_THAT(errors(), ElementsAre(kError + "Failed to get implementation!",
                                      kError + "### firewall: Exception during firewall initialization ###",
                                      kError + "### firewall: Failed initialization firewall tables ###",
                                      kError + "### firewall: Failed to exposeFirewallAPI"));
    EXPECT_EQ(engine.destroyed, 0);
    EXPECT_THAT(storage.calls, IsEmpty());
}

TEST_F(PluginOnEngine, IsConstructedWithoutAnEngine) {
    engine.construct = [] { throw mavo::Exception("100%s lost"); };
    const DPlugin frame;
    const auto messages = fakevlog::messages();
    ASSERT_GE(messages.size(), 4u);
    EXPECT_THAT(std::vector<std::string>(messages.end() - 4, messages.end()),
                ElementsAre(kFrame + "enter: DPlugin::DPlugin() ###", kError + "100%s lost",
                            kError + "### firewall: Exception during firewall initialization ###",
                            kFrame + "exit: DPlugin::DPlugin() ###"));
    EXPECT_THAT(functions(), ElementsAre("DPluginEnable", "DPluginEnable", "DPlugin", "DPlugin", "DPlugin", "DPlugin"));
}

TEST_F(PluginOnEngine, LetsOtherExceptionsOfTheEnginesConstructionOut) {
    engine.construct = [] { throw std::bad_alloc(); };
    EXPECT_THROW(create(), std::bad_alloc);
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(PluginOnEngine, IsDiscardedWhenTheTablesCannotBeMade) {
    engine.initTables = [] { return 0; };
    EXPECT_EQ(create(), nullptr);
    EXPECT_EQ(engine.destroyed, 1);
    EXPECT_EQ(service.find("Firewall::ApplyAllowRules"), nullptr);
}

TEST_F(PluginOnEngine, TellsWhetherItsMethodsAreExposed) {
    DPlugin frame;
    EXPECT_EQ(frame.exposeFirewallAPI(service), 0);
    EXPECT_EQ(frame.exposeFirewallAPI(service), -1);
    engine.initTables = [] { return 0; };
    EXPECT_EQ(frame.exposeFirewallAPI(service), -1);
}

TEST_F(PluginOnEngine, LogsAnExceptionOfTheTables) {
    engine.initTables = []() -> int { throw std::runtime_error("100%s gone"); };
    EXPECT_EQ(create(), nullptr);
    EXPECT_THAT(errors(), ElementsAre(kError + "100%s gone",
                                      kError + "### firewall: Exception during firewall tables initialization ###",
                                      kError + "### firewall: Failed to exposeFirewallAPI"));
    EXPECT_THAT(fakevlog::messages(), Contains(kFrame + "exit: DPlugin::exposeFirewallAPI() ###"));
}

TEST_F(PluginOnEngine, LetsOtherExceptionsOfTheTablesOut) {
    engine.initTables = []() -> int { throw std::logic_error("odd"); };
    EXPECT_THROW(create(), std::logic_error);
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(PluginOnEngine, RegistersNothingBeforeTheTablesStand) {
    engine.initTables = [this] { return service.find("Firewall::ApplyAllowRules") == nullptr ? 1 : 0; };
    EXPECT_NE(create(), nullptr);
}

TEST_F(PluginOnEngine, IsStillDisabledWhileTheTablesAreMade) {
    int flag = -1;
    engine.initTables = [&flag] {
        flag = gFirewallDPluginEnabled;
        return 1;
    };
    create();
    EXPECT_EQ(flag, 0);
}

// A policy document and the list that both calls of the engine get for it.
struct Policy {
    const char *name;
    const char *document;
    const char *rules;
};

void PrintTo(const Policy &policy, std::ostream *stream) { *stream << policy.name; }

class PluginPolicyDocument : public PluginOnEngine, public testing::WithParamInterface<Policy> {};

TEST_P(PluginPolicyDocument, GivesOneListToBothCalls) {
    EXPECT_EQ(apply(GetParam().document), "");
    const std::string rules = std::string("[") + GetParam().rules + "]";
    EXPECT_THAT(engine.calls, ElementsAre("allow " + rules, "deny " + rules));
    EXPECT_THAT(
        fakevlog::messages(),
        ElementsAre(kFrame + "enter: DPlugin::ExecuteCommandInternal ###", kFrame + "enter: DPlugin::handlePolicy ###",
                    kFrame + "allow string: ", kFrame + "deny string: ", kFrame + "exit: DPlugin::handlePolicy: 0  ###",
                    kFrame + "exit: ApplyPolicy: 0 ###"));
}

INSTANTIATE_TEST_SUITE_P(
    Documents, PluginPolicyDocument,
    testing::Values(Policy{"AllowAndDeny", R"({"ALLOW":["a"],"DENY":["b"]})", "a;"},
                    Policy{"TwoRules", R"({"ALLOW":["tcp:a:80:in","udp:b:53:out"]})", "tcp:a:80:in;udp:b:53:out;"},
                    Policy{"DenyAlone", R"({"ALLOW":[],"DENY":["b"]})", ""}, //
                    Policy{"EmptyObject", "{}", ""},                         //
                    Policy{"Null", "null", ""},
                    Policy{"OtherMembers", R"({"allow":["a"],"X":["b"],"ALLOW":["c"]})", "c;"},
                    Policy{"EscapedQuote", R"({"ALLOW":["a\"b"]})", "a\\b;"},
                    Policy{"EscapedBackslashAndLineBreak", R"({"ALLOW":["a\\b\nc"]})", "a\\\\b\\nc;"},
                    Policy{"OtherTypes", R"({"ALLOW":[1,true,null,"x"]})", "1;true;null;x;"},
                    Policy{"Garbage", "no json", ""}, //
                    Policy{"CutShort", R"({"ALLOW":["a"], oops)", "a;"},
                    Policy{"Comment", "{\"ALLOW\":[// why\n\"a\"]}", "// why\na;"}));

TEST_F(PluginOnEngine, OrsTheResultsOfBothCalls) {
    engine.allow = [] { return 1; };
    engine.deny = [] { return 4; };
    EXPECT_EQ(apply("{}"), "fail");
    EXPECT_THAT(fakevlog::messages(), Contains(kFrame + "exit: DPlugin::handlePolicy: 5  ###"));
    EXPECT_EQ(fakevlog::messages().back(), kFrame + "exit: ApplyPolicy: 5 ###");
}

TEST_F(PluginOnEngine, AppliesWhatWasReadOfAPolicyThatTheParserRefusesAndFails) {
    EXPECT_EQ(apply(R"({"ALLOW":["a"],"X":)" + std::string(2000, '[')), "fail");
    EXPECT_THAT(engine.calls, ElementsAre("allow [a;]", "deny [a;]"));
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre(kFrame + "enter: DPlugin::ExecuteCommandInternal ###",
                            kFrame + "enter: DPlugin::handlePolicy ###",
                            kError + "firewall: handlePolicy: input parse failure: Exceeded stackLimit in readValue().",
                            kFrame + "allow string: ", kFrame + "deny string: ",
                            kFrame + "exit: DPlugin::handlePolicy: -1  ###", kFrame + "exit: ApplyPolicy: -1 ###"));
    EXPECT_THAT(functions(), ElementsAre("executeCommandInternal", "handlePolicy", "handlePolicy", "handlePolicy",
                                         "handlePolicy", "handlePolicy", "executeCommandInternal"));
}

TEST_F(PluginOnEngine, GivesTheEnginesResultForGarbage) {
    engine.allow = [] { return 3; };
    engine.deny = [] { return 4; };
    EXPECT_EQ(apply("no json"), "fail");
    EXPECT_THAT(engine.calls, ElementsAre("allow []", "deny []"));
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_EQ(fakevlog::messages().back(), kFrame + "exit: ApplyPolicy: 7 ###");
    std::string garbage = "no json";
    EXPECT_EQ(dynamic_cast<DPlugin &>(*plugin).handlePolicy(garbage), 7);
}

TEST_F(PluginOnEngine, LetsADocumentThatIsNoObjectOut) {
    for (const char *const document : {"[\"a\"]", "\"a\"", "7"}) {
        plugin.reset();
        mavo::rmi::Service fresh;
        plugin.reset(DPluginFactory(fresh));
        engine.calls.clear();
        EXPECT_THROW(plugin->executeCommand("ApplyPolicy", document), Json::LogicError) << document;
        EXPECT_THAT(engine.calls, IsEmpty());
    }
}

TEST_F(PluginOnEngine, ReadsTheDenyArrayAfterTheAllowCall) {
    EXPECT_THROW(apply(R"({"ALLOW":["a"],"DENY":{"b":"c"}})"), Json::LogicError);
    EXPECT_THAT(engine.calls, ElementsAre("allow [a;]"));
}

TEST_F(PluginOnEngine, LetsAnExceptionOfTheEngineOutOfAPolicy) {
    engine.deny = []() -> int { throw std::runtime_error("no service"); };
    EXPECT_THROW(apply("{}"), std::runtime_error);
    EXPECT_EQ(fakevlog::messages().back(), kFrame + "deny string: ");
}

} // namespace
