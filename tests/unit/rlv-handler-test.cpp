#include "iptables/RlvHandler.h"

#include <stdexcept>
#include <typeinfo>

#include <gmock/gmock.h>

#include "support/fake-rlv.h"
#include "support/fake-vlog.h"

namespace {

using iptables::RlvHandler;
using testing::ElementsAre;
using testing::IsEmpty;

class TheConnection : public testing::Test {
protected:
    TheConnection() {
        fakerlv::reset();
        fakevlog::clear();
    }
};

TEST_F(TheConnection, HasNoHandleBeforeTheFirstScope) { EXPECT_EQ(RlvHandler::Get(), 0U); }

TEST_F(TheConnection, IsOpenWhileItsScopeLasts) {
    {
        const RlvHandler handler;
        EXPECT_NE(RlvHandler::Get(), 0U);
        EXPECT_EQ(RlvHandler::Get(), fakerlv::openHandle());
        EXPECT_THAT(fakerlv::calls(), ElementsAre("initialize"));
    }
    EXPECT_EQ(RlvHandler::Get(), 0U);
    EXPECT_THAT(fakerlv::calls(), ElementsAre("initialize", "deinitialize"));
}

TEST_F(TheConnection, LogsItsOpeningAndItsClosing) {
    {
        const RlvHandler handler;
        EXPECT_THAT(fakevlog::messages(), ElementsAre("I VPK: RlvHandler constructor"));
    }
    EXPECT_THAT(fakevlog::messages(), ElementsAre("I VPK: RlvHandler constructor", "I VPK: RlvHandler destructor"));
}

TEST_F(TheConnection, SaysWhyItCannotBeOpened) {
    fakerlv::failInitialize(0x1f);
    try {
        const RlvHandler handler;
        FAIL() << "no exception";
    } catch (const std::runtime_error &error) {
        EXPECT_STREQ(error.what(), "Failed to initialize RLV: 0x1f");
        EXPECT_EQ(typeid(error), typeid(std::runtime_error));
    }
    EXPECT_THAT(fakevlog::messages(), IsEmpty());
    EXPECT_THAT(fakerlv::calls(), ElementsAre("initialize failed"));
}

TEST_F(TheConnection, ShowsANegativeCodeAsItsBits) {
    fakerlv::failInitialize(-1);
    try {
        const RlvHandler handler;
        FAIL() << "no exception";
    } catch (const std::runtime_error &error) {
        EXPECT_STREQ(error.what(), "Failed to initialize RLV: 0xffffffff");
    }
}

TEST_F(TheConnection, IsForgottenEvenWhenClosingItFails) {
    fakerlv::failDeinitialize(9);
    { const RlvHandler handler; }
    EXPECT_EQ(RlvHandler::Get(), 0U);
    EXPECT_THAT(fakerlv::calls(), ElementsAre("initialize", "deinitialize failed"));
    EXPECT_THAT(fakevlog::messages(), ElementsAre("I VPK: RlvHandler constructor", "I VPK: RlvHandler destructor",
                                                  "E VPK: Something went wrong: Failed to deinitialize RLV"));
    EXPECT_THAT(fakevlog::functions("RlvHandler.cpp"), ElementsAre("RlvHandler", "~RlvHandler", "~RlvHandler"));
}

TEST_F(TheConnection, IsNotClosedTwiceByAScopeAroundAnother) {
    {
        const RlvHandler outer;
        { const RlvHandler inner; }
        EXPECT_EQ(RlvHandler::Get(), 0U);
    }
    EXPECT_THAT(fakerlv::calls(), ElementsAre("initialize", "initialize", "deinitialize"));
    EXPECT_EQ(fakevlog::messages().back(), "I VPK: RlvHandler destructor");
}

TEST_F(TheConnection, CanBeOpenedAgain) {
    { const RlvHandler handler; }
    const RlvHandler handler;
    EXPECT_EQ(RlvHandler::Get(), fakerlv::openHandle());
    EXPECT_THAT(fakerlv::calls(), ElementsAre("initialize", "deinitialize", "initialize"));
}

} // namespace
