// Allocation that does not throw finds no memory in this program while a switch is on.
#include <new>
#include <stdexcept>
#include <typeinfo>

#include <gmock/gmock.h>

#include "firewall.h"
#include "support/fake-vlog.h"

namespace {

bool noMemory = false;

} // namespace

void *operator new(std::size_t size, const std::nothrow_t & /*unused*/) noexcept {
    if (noMemory)
        return nullptr;
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

namespace {

class WithoutMemory : public testing::Test {
protected:
    WithoutMemory() {
        fakevlog::clear();
        noMemory = true;
    }
    ~WithoutMemory() override { noMemory = false; }
};

TEST_F(WithoutMemory, TheFactoryGivesNoBackend) { EXPECT_EQ(iptables::Factory::getImplementation(), nullptr); }

TEST_F(WithoutMemory, TheEngineCannotBeMade) {
    try {
        const Firewall firewall;
        FAIL() << "no exception";
    } catch (const std::runtime_error &error) {
        EXPECT_STREQ(error.what(), "Failed to get implementation!");
        EXPECT_EQ(typeid(error), typeid(std::runtime_error));
    }
    EXPECT_THAT(fakevlog::messages(), testing::ElementsAre("I VPK: Firewall Constructor"));
}

} // namespace
