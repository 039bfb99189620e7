#include "core/atomic_file.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/core/temp_folder_test_base.h"
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace korv::core {
namespace {

namespace fs = std::filesystem;

class AtomicFileTest : public TempFolderTest {
protected:
    AtomicFileTest() : TempFolderTest("korv-atomic") {}

    void SetUp() override
    {
        TempFolderTest::SetUp();
        target = dir / "data.json";
    }

    void Touch(const std::string& name, const std::string& text = "x") const
    {
        std::ofstream(dir / name) << text;
    }

    // A file last written long enough ago to be a dead writer's leftover.
    void TouchStale(const std::string& name) const
    {
        Touch(name);
        fs::last_write_time(dir / name, fs::file_time_type::clock::now() - kStaleTemporaryAge - std::chrono::seconds(5));
    }

    fs::path target;
};

std::string ReadAll(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST_F(AtomicFileTest, WritesNewFileThenReplacesItWithPrivateModeAndNoLeftovers)
{
    const std::string big(300000, 'b');
    for (const std::string& text : {std::string("{\"a\":1}"), big, std::string()}) {
        ASSERT_EQ(WriteFileAtomically(target, text), std::nullopt);
        EXPECT_EQ(ReadAll(target), text);
        EXPECT_EQ(Names(), std::set<std::string>{"data.json"});
        struct stat status {};
        ASSERT_EQ(::stat(target.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0600u);
    }
}

TEST_F(AtomicFileTest, MissingFolderIsAnOpenFailure)
{
    const auto error = WriteFileAtomically(dir / "absent" / "data.json", "text");
    EXPECT_EQ(error, "open failed: " + std::generic_category().message(ENOENT));
}

// Root ignores directory permissions, so the write then runs in a child that has given them up.
TEST_F(AtomicFileTest, FolderThatIsNotWritableIsAnOpenFailureAndLeavesNothing)
{
    Touch("data.json", "old");
    fs::permissions(dir, fs::perms::owner_read | fs::perms::owner_exec | fs::perms::group_read |
                             fs::perms::group_exec | fs::perms::others_read | fs::perms::others_exec);
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(pipeFds[0]);
        if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) {
            ::_exit(3);
        }
        const auto error = WriteFileAtomically(target, "new");
        const std::string message = error.value_or("<no error>");
        const bool sent = ::write(pipeFds[1], message.data(), message.size()) ==
                          static_cast<ssize_t>(message.size());
        ::_exit(sent ? 0 : 4);
    }
    ::close(pipeFds[1]);
    std::string message;
    char buffer[256];
    for (ssize_t got; (got = ::read(pipeFds[0], buffer, sizeof buffer)) > 0;) {
        message.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(pipeFds[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 3) {
        GTEST_SKIP() << "could not drop privileges to test an unwritable folder";
    }
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(message, "open failed: " + std::generic_category().message(EACCES));
    EXPECT_EQ(Names(), std::set<std::string>{"data.json"});
    EXPECT_EQ(ReadAll(target), "old");
}

TEST_F(AtomicFileTest, TargetThatIsAFolderIsARenameFailureAndTheTemporaryIsRemoved)
{
    fs::create_directory(target);
    std::ofstream(target / "inside") << "kept";
    const auto error = WriteFileAtomically(target, "text");
    ASSERT_TRUE(error.has_value());
    EXPECT_TRUE(error->starts_with("rename failed: ")) << *error;
    EXPECT_EQ(Names(), std::set<std::string>{"data.json"});
    EXPECT_EQ(ReadAll(target / "inside"), "kept");
}

TEST_F(AtomicFileTest, SaveRemovesStaleTemporariesOfItsTargetOnly)
{
    for (const char* name : {"data.json.tmp.1.0", "data.json.tmp.", "data.json.tmp.99.x", "data.json.tmpx",
                             "other.json.tmp.1.0", "data.json.bak", "xdata.json.tmp.1"}) {
        TouchStale(name);
    }
    ASSERT_EQ(WriteFileAtomically(target, "{}"), std::nullopt);
    EXPECT_EQ(Names(), (std::set<std::string>{"data.json", "data.json.tmpx", "other.json.tmp.1.0", "data.json.bak",
                                              "xdata.json.tmp.1"}));
}

TEST_F(AtomicFileTest, AnotherWritersFreshTemporaryIsLeftToIt)
{
    // Two programs saving one file: the second's tidying must not take the first's temporary
    // away before the first renames it.
    const std::string inFlight = "data.json.tmp." + std::to_string(::getppid()) + ".77.4";
    Touch(inFlight, "in flight");
    // A fresh one of a writer that is gone is a leftover all the same.
    const pid_t gone = ::fork();
    ASSERT_GE(gone, 0);
    if (gone == 0) ::_exit(0);
    ASSERT_EQ(::waitpid(gone, nullptr, 0), gone);
    Touch("data.json.tmp." + std::to_string(gone) + ".78.5", "dead writer");
    ASSERT_EQ(WriteFileAtomically(target, "{}"), std::nullopt);
    EXPECT_EQ(Names(), (std::set<std::string>{"data.json", inFlight}));
}

class QuarantinePruneTest : public AtomicFileTest, public ::testing::WithParamInterface<int> {};

TEST_P(QuarantinePruneTest, KeepsTheFiveLastByName)
{
    const int count = GetParam();
    std::vector<std::string> corrupt;
    for (int index = 0; index < count; ++index) {
        corrupt.push_back("data.json.corrupt." + std::to_string(1700000000000000000LL + index * 1000));
        Touch(corrupt.back());
    }
    Touch("data.json", "{}");
    Touch("other.json.corrupt.1");
    PruneFileSiblings(target);

    std::set<std::string> expected{"data.json", "other.json.corrupt.1"};
    const int kept = std::min(count, static_cast<int>(kKeptQuarantinedCopies));
    expected.insert(corrupt.end() - kept, corrupt.end());
    EXPECT_EQ(Names(), expected);
}

INSTANTIATE_TEST_SUITE_P(Counts, QuarantinePruneTest, ::testing::Values(0, 4, 5, 6, 9));

TEST_F(AtomicFileTest, ThreadsSavingTheirOwnFilesDoNotDisturbEachOther)
{
    std::vector<std::thread> threads;
    for (int worker = 0; worker < 4; ++worker) {
        threads.emplace_back([this, worker] {
            for (int round = 0; round < 25; ++round) {
                const std::string text = std::to_string(worker) + ":" + std::to_string(round);
                const auto error = WriteFileAtomically(dir / ("file-" + std::to_string(worker)), text);
                EXPECT_EQ(error, std::nullopt);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (int worker = 0; worker < 4; ++worker) {
        EXPECT_EQ(ReadAll(dir / ("file-" + std::to_string(worker))), std::to_string(worker) + ":24");
    }
    EXPECT_EQ(Names().size(), 4u);
}

}  // namespace
}  // namespace korv::core
