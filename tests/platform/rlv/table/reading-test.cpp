// Reading a ruleset that others change meanwhile.
#include "rlv/table/reading.h"

#include <cerrno>
#include <system_error>

#include <gtest/gtest.h>

#include "scripted-backend.h"

namespace {

// Interrupted as often as it is told.
class AChangingBackend : public scripted::Backend {
public:
    std::optional<rlv::Ruleset> read() override {
        ++wholeReadings;
        return interruptions-- > 0 ? std::nullopt : scripted::Backend::read();
    }
    std::optional<rlv::Ruleset> readInParts() override {
        return isNeverRead ? std::nullopt : scripted::Backend::readInParts();
    }

    int interruptions = 0;
    int wholeReadings = 0;
    bool isNeverRead = false;
};

class AReading : public testing::Test {
protected:
    AReading() { EXPECT_TRUE(backend.make("VPK-A")); }
    AChangingBackend backend;
};

TEST_F(AReading, IsWholeWhereNobodyChangesAnything) {
    const auto reading = readRuleset(backend);
    EXPECT_TRUE(reading.isWhole);
    EXPECT_EQ(1U, reading.ruleset.chains.count("VPK-A"));
    EXPECT_EQ(1, backend.wholeReadings);
}

TEST_F(AReading, BeginsAgainWhereSomebodyDoes) {
    backend.interruptions = 9;
    EXPECT_TRUE(readRuleset(backend).isWhole);
    EXPECT_EQ(10, backend.wholeReadings);
}

TEST_F(AReading, IsDoneInPartsAfterTenTimes) {
    backend.interruptions = 1'000;
    const auto reading = readRuleset(backend);
    EXPECT_FALSE(reading.isWhole);
    EXPECT_EQ(1U, reading.ruleset.chains.count("VPK-A"));
    EXPECT_EQ(10, backend.wholeReadings);
}

TEST_F(AReading, FailsWhereEvenThePartsChange) {
    backend.interruptions = 1'000;
    backend.isNeverRead = true;
    try {
        readRuleset(backend);
        FAIL() << "it was read";
    } catch (const std::system_error &error) {
        EXPECT_EQ(EAGAIN, error.code().value());
    }
}

} // namespace
