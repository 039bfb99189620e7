#pragma once

#include "providers/provider_context.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace korv::providers {

// A private copy of tests/fixtures/gpu/<machine> with the symbolic links its "links" file lists
// ("<link> <target>" a line, relative to the machine's root), as sysfs has them. Removed at the end.
class GpuFixtureTree {
public:
    explicit GpuFixtureTree(const std::string& machine) {
        std::string pattern = (std::filesystem::path(::testing::TempDir()) / ("korv-gpu-" + machine + "-XXXXXX")).native();
        if (::mkdtemp(pattern.data()) == nullptr) {
            ADD_FAILURE() << "mkdtemp: " << std::generic_category().message(errno);
            return;
        }
        root_ = pattern;
        const std::filesystem::path source = std::filesystem::path(KORV_TEST_FIXTURES) / "gpu" / machine;
        std::error_code ec;
        std::filesystem::copy(source, root_, std::filesystem::copy_options::recursive, ec);
        if (ec) ADD_FAILURE() << "copy " << source << ": " << ec.message();
        std::ifstream links(source / "links");
        std::string link;
        std::string target;
        while (links >> link >> target) {
            std::filesystem::create_directories((root_ / link).parent_path(), ec);
            std::filesystem::create_symlink(target, root_ / link, ec);
            if (ec) ADD_FAILURE() << "link " << link << ": " << ec.message();
        }
    }

    ~GpuFixtureTree() {
        std::error_code ignored;
        if (!root_.empty()) std::filesystem::remove_all(root_, ignored);
    }

    GpuFixtureTree(const GpuFixtureTree&) = delete;
    GpuFixtureTree& operator=(const GpuFixtureTree&) = delete;

    const std::filesystem::path& Root() const { return root_; }
    ProviderRoots Roots() const { return {root_ / "proc", root_ / "sys", "/nonexistent", "/nonexistent"}; }

private:
    std::filesystem::path root_;
};

inline const std::filesystem::path kGpuNameTables = std::filesystem::path(KORV_TEST_FIXTURES) / "gpu" / "ids";

}  // namespace korv::providers
