#include "host/plugin-library.h"

#include <filesystem>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::StartsWith;

std::string problemOf(const std::string &path) try {
    host::loadPlugin(path);
    return "nothing was thrown";
} catch (const std::runtime_error &error) {
    return error.what();
}

TEST(ThePluginsLibrary, GivesItsFactory) {
    EXPECT_NE(host::loadPlugin(NYR_BINARY_DIR "/lib/libtest-plugin.so"), nullptr);
}

TEST(ThePluginsLibrary, IsRefusedWhereItIsNone) {
    EXPECT_THAT(problemOf("/nowhere.so"), StartsWith("cannot load the plugin: /nowhere.so"));
    EXPECT_THAT(problemOf("libsqlite3.so.0"), StartsWith("libsqlite3.so.0 is no plugin: "));
    EXPECT_THAT(problemOf("libsqlite3.so.0"), HasSubstr("DPluginFactory"));
}

// Beside the test program lies what was built with it; nothing of it is installed.
TEST(TheDefaultPlugin, IsTheOneThatWasBuiltBesideTheProgram) {
    const auto folder = fs::read_symlink("/proc/self/exe").parent_path().parent_path();
    EXPECT_EQ(host::defaultPluginPath(), folder / "lib" / "libnyr-firewall-plugin.so");
}

} // namespace
