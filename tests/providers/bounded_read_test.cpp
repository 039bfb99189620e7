#include "providers/bounded_read.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace korv::providers {
namespace {

namespace fs = std::filesystem;

class BoundedReadTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = fs::temp_directory_path() / ("korv-bounded-read-" + std::to_string(::getpid()));
        fs::create_directories(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }

    fs::path Write(const std::string& name, const std::string& text) {
        const fs::path path = dir_ / name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }

    fs::path dir_;
};

TEST_F(BoundedReadTest, ReadsAcrossBlockBoundariesAndCutsAtTheLimit) {
    std::string text(3 * kReadBlockBytes + 123, 'x');
    for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + i % 26);
    const fs::path path = Write("big", text);

    const auto whole = ReadFileBounded(path, text.size());
    EXPECT_TRUE(whole.Ok());
    EXPECT_EQ(whole.text, text);
    EXPECT_FALSE(whole.truncated);

    const auto cut = ReadFileBounded(path, kReadBlockBytes + 7);
    EXPECT_TRUE(cut.Ok());
    EXPECT_EQ(cut.text, text.substr(0, kReadBlockBytes + 7));
    EXPECT_TRUE(cut.truncated);

    const auto roomy = ReadFileBounded(path, text.size() + 1);
    EXPECT_EQ(roomy.text.size(), text.size());
    EXPECT_FALSE(roomy.truncated);
}

TEST_F(BoundedReadTest, EmptyFileAndZeroLimit) {
    const fs::path path = Write("empty", "");
    EXPECT_TRUE(ReadFileBounded(path, 100).Ok());
    EXPECT_TRUE(ReadFileBounded(path, 100).text.empty());
    const auto none = ReadFileBounded(Write("one", "z"), 0);
    EXPECT_TRUE(none.text.empty());
    EXPECT_TRUE(none.truncated);
}

TEST_F(BoundedReadTest, ProcfsFilesReportNoSizeButAreReadWhole) {
    // /proc/self/status has st_size 0; a reader that trusted the size would read nothing.
    const auto status = ReadFileBounded("/proc/self/status", 262144);
    ASSERT_TRUE(status.Ok());
    EXPECT_NE(status.text.find("Pid:"), std::string::npos);
    EXPECT_NE(status.text.find("VmRSS:"), std::string::npos);
}

TEST_F(BoundedReadTest, FailuresCarryErrnoAndNoText) {
    const auto missing = ReadFileBounded(dir_ / "absent", 10);
    EXPECT_EQ(missing.error, ENOENT);
    EXPECT_TRUE(missing.text.empty());
    EXPECT_EQ(ReadFileBounded(dir_, 10).error, EISDIR);
}

TEST_F(BoundedReadTest, ReusedBufferAndDescriptorReread) {
    const fs::path path = Write("counter", "first");
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    std::string buffer = "left over from an earlier, longer read";
    EXPECT_EQ(ReadDescriptorBounded(fd, 64, buffer), 0);
    EXPECT_EQ(buffer, "first");
    Write("counter", "second!");
    EXPECT_EQ(ReadDescriptorBounded(fd, 64, buffer), 0);
    EXPECT_EQ(buffer, "second!");
    ::close(fd);
}

TEST_F(BoundedReadTest, ReadsRelativeToADirectoryHandle) {
    Write("stat", "hello");
    const int dirFd = ::open(dir_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(dirFd, 0);
    std::string out;
    EXPECT_EQ(ReadFileBoundedAt(dirFd, "stat", 16, out), 0);
    EXPECT_EQ(out, "hello");
    EXPECT_EQ(ReadFileBoundedAt(dirFd, "nothing", 16, out), ENOENT);
    EXPECT_TRUE(out.empty());
    ::close(dirFd);
}

TEST(AvailabilityFromErrno, MapsEveryClass) {
    using core::MetricAvailability;
    EXPECT_EQ(AvailabilityFromErrno(EACCES), MetricAvailability::accessDenied);
    EXPECT_EQ(AvailabilityFromErrno(EPERM), MetricAvailability::accessDenied);
    EXPECT_EQ(AvailabilityFromErrno(ENOENT), MetricAvailability::notYetAvailable);
    EXPECT_EQ(AvailabilityFromErrno(ESRCH), MetricAvailability::notYetAvailable);
    EXPECT_EQ(AvailabilityFromErrno(EIO), MetricAvailability::transientError);
    EXPECT_EQ(AvailabilityFromErrno(0), MetricAvailability::transientError);
}

}  // namespace
}  // namespace korv::providers
