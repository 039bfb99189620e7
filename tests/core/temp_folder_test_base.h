#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <system_error>

namespace korv::core {

// A fresh private folder per test, removed afterwards even when a test left it read-only.
class TempFolderTest : public ::testing::Test {
protected:
    explicit TempFolderTest(std::string prefix) : prefix_(std::move(prefix)) {}

    void SetUp() override
    {
        std::string pattern = (std::filesystem::path(::testing::TempDir()) / (prefix_ + "-XXXXXX")).native();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr) << std::generic_category().message(errno);
        dir = pattern;
    }

    void TearDown() override
    {
        std::error_code ignored;
        std::filesystem::permissions(dir, std::filesystem::perms::owner_all, ignored);
        std::filesystem::remove_all(dir, ignored);
    }

    std::set<std::string> Names() const
    {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(dir)) {
            names.insert(entry.path().filename().native());
        }
        return names;
    }

    std::filesystem::path dir;

private:
    std::string prefix_;
};

}  // namespace korv::core
