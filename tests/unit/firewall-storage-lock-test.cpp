// The one mutex of the rule database: held through every public operation, released on every exit.
#include "firewall-storage.h"

#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <ostream>
#include <thread>
#include <utility>

#include <gmock/gmock.h>

#include "mavo/exception.h"
#include "support/fake-mavo.h"

namespace {

using Storage = std::unique_ptr<FirewallStorage>;

struct Operation {
    std::string name;
    std::function<void(Storage &)> run;
};

void PrintTo(const Operation &operation, std::ostream *stream) { *stream << operation.name; }

FirewallRule someRule() { return {"tcp:a:1:in", "ACCEPT"}; }

void readAll(Storage &storage) {
    std::vector<std::shared_ptr<FirewallRule>> rules;
    storage->getNextRulesByCount(rules, -1);
}

class TheMutex : public testing::Test {
protected:
    TheMutex() {
        std::filesystem::remove_all("/opt/data");
        std::filesystem::create_directories("/opt/data/vpk/db");
        fakemavo::reset();
        storage = std::make_unique<FirewallStorage>();
    }
    ~TheMutex() override { fakemavo::reset(); }

    // Called whenever the database is reached for, in the thread that does so.
    static void watch(const std::function<void()> &callback) {
        fakemavo::hooks().open = [callback](const std::string &, int) { callback(); };
        fakemavo::hooks().prepare = [callback](const std::string &) { callback(); };
    }

    Storage storage;
};

class TheMutexOf : public TheMutex, public testing::WithParamInterface<Operation> {};

// Another thread that makes a storage of its own while the operation runs.
class Rival {
public:
    void onDatabaseReached() {
        if (std::this_thread::get_id() != owner) {
            if (!std::exchange(arrived, true))
                arrival.set_value();
        } else if (!rival.valid()) {
            rival = std::async(std::launch::async, [] { const FirewallStorage storage; });
            overtook = arrivalSeen.wait_for(std::chrono::milliseconds(150)) == std::future_status::ready;
        }
    }

    // Waits for its end. True when it reached the database before the operation was over.
    bool finish() {
        rival.get();
        EXPECT_TRUE(arrived);
        return overtook;
    }

private:
    const std::thread::id owner = std::this_thread::get_id();
    bool arrived = false;
    bool overtook = false;
    std::promise<void> arrival;
    std::future<void> arrivalSeen = arrival.get_future();
    std::future<void> rival;
};

TEST_P(TheMutexOf, AnOperationKeepsOthersOut) {
    Rival rival;
    watch([&rival] { rival.onDatabaseReached(); });
    GetParam().run(storage);
    EXPECT_FALSE(rival.finish());
}

// With the mutex still held, the second run would never end.
TEST_P(TheMutexOf, AnOperationIsReleasedWhenItThrows) {
    watch([] { throw 7; });
    EXPECT_THROW(GetParam().run(storage), int);
    fakemavo::reset();
    EXPECT_NO_THROW(GetParam().run(storage));
}

TEST_F(TheMutex, IsReleasedAfterAFailedInsert) {
    FirewallRule rule = someRule();
    rule.direction = 3;
    EXPECT_THROW(storage->saveRule(rule), mavo::Exception);
    EXPECT_NO_THROW(storage->saveRule(someRule()));
}

TEST_F(TheMutex, IsReleasedWhenNoDatabaseCanBeCreated) {
    std::filesystem::remove_all("/opt/data");
    EXPECT_THROW(FirewallStorage(), mavo::Exception);
    std::filesystem::create_directories("/opt/data/vpk/db");
    EXPECT_NO_THROW(FirewallStorage());
}

// The engine reads the rules back through a second storage while it holds a first.
TEST_F(TheMutex, IsNotHeldBetweenOperations) {
    FirewallStorage second;
    storage->saveRule(someRule());
    std::vector<std::shared_ptr<FirewallRule>> rules;
    EXPECT_EQ(second.getNextRulesByCount(rules, 1000), 1);
}

INSTANTIATE_TEST_SUITE_P(
    PublicOperations, TheMutexOf,
    testing::Values(Operation{"constructor", [](Storage &storage) { storage = std::make_unique<FirewallStorage>(); }},
                    Operation{"saveRule", [](Storage &storage) { storage->saveRule(someRule()); }},
                    Operation{"flushDenyRules", [](Storage &storage) { storage->flushDenyRules(); }},
                    Operation{"flushAllowRules", [](Storage &storage) { storage->flushAllowRules(); }},
                    Operation{"getNextRulesByCount", readAll}, Operation{"ifOppositeRuleExists", [](Storage &storage) {
                                                                             storage->ifOppositeRuleExists(someRule());
                                                                         }}));

} // namespace
