// The plugin interface, between this program as the host and module.cpp as a plugin.
#include "vpk-pil/vpk-pil.h"

#include <cstdlib>
#include <dlfcn.h>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "mavo/exception.h"
#include "mavo/rmi.h"

namespace {

class Storage : public PolicyStorage {
public:
    int storeStatus(const std::string &name, int status) override {
        statuses_[name] = status;
        return 0;
    }
    int readStatus(const std::string &name) override {
        const auto found = statuses_.find(name);
        return found != statuses_.end() ? found->second : -1;
    }

private:
    std::map<std::string, int> statuses_;
};

class APlugin : public testing::Test {
protected:
    void SetUp() override {
        const char *path = std::getenv("NYR_CONFORMANCE_MODULE");
        void *library = ::dlopen(path != nullptr ? path : NYR_CONFORMANCE_MODULE_FILE, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(nullptr, library) << ::dlerror();
        const auto factory =
            reinterpret_cast<AbstractDPluginProvider *(*)(mavo::rmi::Service &)>(::dlsym(library, "DPluginFactory"));
        ASSERT_NE(nullptr, factory) << ::dlerror();
        PolicyStorage::backend = &storage_;
        plugin_.reset(factory(service_));
        ASSERT_NE(nullptr, plugin_);
    }
    void TearDown() override {
        plugin_.reset();
        PolicyStorage::backend = nullptr;
    }

    Storage storage_;
    mavo::rmi::Service service_;
    std::unique_ptr<AbstractDPluginProvider> plugin_;
};

TEST(APolicyStorage, IsNoneBeforeTheHostSetsOne) { EXPECT_EQ(nullptr, PolicyStorage::backend); }

TEST(APolicyStorage, IsDestroyedThroughItsBase) {
    std::unique_ptr<PolicyStorage> storage = std::make_unique<Storage>();
    EXPECT_EQ(0, storage->storeStatus("plugin", 1));
    EXPECT_EQ(1, storage->readStatus("plugin"));
    EXPECT_EQ(-1, storage->readStatus("other"));
    storage.reset();
}

TEST(APolicyStorage, HasOneLockForAll) {
    const std::lock_guard<std::mutex> lock(PolicyStorage::dbLock);
    bool taken = true;
    std::thread([&taken] { taken = PolicyStorage::dbLock.try_lock(); }).join();
    EXPECT_FALSE(taken);
}

TEST_F(APlugin, UsesTheStorageAndTheLockOfTheHost) {
    EXPECT_EQ(0, plugin_->setStatus(1));
    EXPECT_EQ(1, storage_.readStatus("module"));
    EXPECT_EQ(1, plugin_->getStatus());
    const std::lock_guard<std::mutex> lock(PolicyStorage::dbLock);
    std::string answer;
    std::thread([&] { answer = plugin_->executeCommand("try lock", ""); }).join();
    EXPECT_EQ("locked", answer);
}

TEST_F(APlugin, HasItsOperationsInTheGivenOrder) {
    plugin_->applyStatus(7);
    EXPECT_EQ("applied 7", plugin_->executeCommand("what came", ""));
    EXPECT_EQ("with data", plugin_->executeCommand("echo", "with data"));
}

TEST_F(APlugin, ThrowsThePlatformsExceptionToTheHost) {
    try {
        plugin_->executeCommand("throw", "text");
        FAIL() << "nothing thrown";
    } catch (const mavo::Exception &exception) {
        EXPECT_STREQ("text", exception.what());
    }
}

TEST_F(APlugin, RegistersMethodsWhichTheHostCalls) {
    const auto method = service_.find("Module::Twice");
    ASSERT_NE(nullptr, method);
    EXPECT_EQ("http://vpk/privilege/module", method->privilege);
    mavo::rmi::Message request;
    request.write(21);
    mavo::rmi::Message reply = method->dispatcher(request);
    int result = 0;
    reply.read(result);
    EXPECT_EQ(42, result);
    mavo::rmi::Message wrong("x");
    EXPECT_THROW(method->dispatcher(wrong), mavo::rmi::BadArguments);
}

} // namespace
