// A test program for check-killed-test.
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

TEST(ATestProgram, HasAFolderAndWaitsToBeKilled) {
    std::string folder = (std::filesystem::temp_directory_path() / "folder-XXXXXX").string();
    ASSERT_NE(nullptr, ::mkdtemp(folder.data()));
    std::cout << "waits" << std::endl;
    ::pause();
}
