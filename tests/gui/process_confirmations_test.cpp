#include "host/linux_client/process_confirmations.h"
#include "host/linux_client/process_tree_selection.h"

#include <gtest/gtest.h>

namespace korv::host::linux_client {
namespace {

core::ProcessSnapshot Row(std::uint32_t pid, std::string name, std::uint32_t parent = 0) {
    core::ProcessSnapshot row;
    row.key = {pid, 100u * pid};
    row.parentKey = parent == 0 ? core::ProcessKey{} : core::ProcessKey{parent, 100u * parent};
    row.name = std::move(name);
    return row;
}

struct TerminationCase {
    std::vector<core::ProcessSnapshot> rows;
    bool force;
    const char* title;
    const char* text;
};

TEST(ProcessConfirmationsTest, TerminationIsWordedForEachSelection) {
    const std::vector<TerminationCase> table = {
        {{Row(1, "editor")}, false, "Terminate process", "Terminate editor? Unsaved data may be lost."},
        {{Row(1, "editor")},
         true,
         "Force terminate process",
         "Force terminate editor? It is not given the chance to clean up, so unsaved data will be lost."},
        {{Row(1, "")}, false, "Terminate process", "Terminate the selected process? Unsaved data may be lost."},
        {{Row(1, "")},
         true,
         "Force terminate process",
         "Force terminate the selected process? It is not given the chance to clean up, so unsaved data will be lost."},
        {{Row(1, "a"), Row(2, "b"), Row(3, "c")},
         false,
         "Terminate process",
         "Terminate the 3 selected processes? Unsaved data may be lost."},
        {{Row(1, "a"), Row(2, "")},
         true,
         "Force terminate process",
         "Force terminate the 2 selected processes? They are not given the chance to clean up, so unsaved data will "
         "be lost."},
    };
    for (const TerminationCase& c : table) {
        const auto question = TerminationConfirmation(c.rows, c.force);
        ASSERT_TRUE(question) << c.text;
        EXPECT_EQ(question->title.toStdString(), c.title);
        EXPECT_EQ(question->text.toStdString(), c.text);
    }
    EXPECT_FALSE(TerminationConfirmation({}, false));
    EXPECT_FALSE(AskTermination(nullptr, {}, true)) << "an empty selection is never asked about";
}

TEST(ProcessConfirmationsTest, ProcessTreesAreWordedWithTheirCounts) {
    const char* kForceTail = " They will be stopped immediately without a chance to clean up. Unsaved data will be lost.";
    struct Case {
        std::size_t selected;
        std::size_t total;
        bool force;
        std::string title;
        std::string text;
    };
    const std::vector<Case> table = {
        {1, 4, false, "End process tree", "This terminates the selected process and its 3 descendants. Continue?"},
        {1, 1, false, "End process tree", "This terminates the selected process and its 0 descendants. Continue?"},
        {1, 4, true, "Force quit process tree",
         std::string("This force quits the selected process and its 3 descendants.") + kForceTail},
        {2, 7, false, "End process tree",
         "This terminates the 2 selected processes and their descendants: 7 processes in total. Continue?"},
        {3, 3, true, "Force quit process tree",
         std::string("This force quits the 3 selected processes and their descendants: 3 processes in total.") +
             kForceTail},
    };
    for (const Case& c : table) {
        const ConfirmationText question = ProcessTreeConfirmation(c.selected, c.total, c.force);
        EXPECT_EQ(question.title.toStdString(), c.title);
        EXPECT_EQ(question.text.toStdString(), c.text);
    }
}

// 1 ─ 2 ─ 4
//   └ 3 ─ 5
// 6 ─ 7      8 (a cycle with 9)
std::vector<core::ProcessSnapshot> Tree() {
    std::vector<core::ProcessSnapshot> rows = {Row(1, "init"), Row(2, "a", 1), Row(3, "b", 1), Row(4, "c", 2),
                                               Row(5, "d", 3), Row(6, "e"),    Row(7, "f", 6), Row(8, "g", 9),
                                               Row(9, "h", 8)};
    return rows;
}

std::vector<std::uint32_t> Pids(const std::vector<core::ProcessKey>& keys) {
    std::vector<std::uint32_t> pids;
    for (const core::ProcessKey& key : keys) pids.push_back(key.pid);
    return pids;
}

TEST(ProcessTreeSelectionTest, EachProcessCountsOnceInKeyOrder) {
    const auto rows = Tree();
    const auto key = [](std::uint32_t pid) { return core::ProcessKey{pid, 100u * pid}; };

    EXPECT_EQ(Pids(ProcessTreeKeys(rows, {key(2)})), (std::vector<std::uint32_t>{2, 4}));
    EXPECT_EQ(Pids(ProcessTreeKeys(rows, {key(1)})), (std::vector<std::uint32_t>{1, 2, 3, 4, 5}));
    // A selected row that descends from another selected row is not counted twice.
    EXPECT_EQ(Pids(ProcessTreeKeys(rows, {key(3), key(1), key(5)})), (std::vector<std::uint32_t>{1, 2, 3, 4, 5}));
    EXPECT_EQ(Pids(ProcessTreeKeys(rows, {key(7), key(6)})), (std::vector<std::uint32_t>{6, 7}));
    EXPECT_EQ(Pids(ProcessTreeKeys(rows, {key(8)})), (std::vector<std::uint32_t>{8, 9})) << "a cycle ends";
    // A selected process that the snapshot no longer has stays in the set.
    EXPECT_EQ(Pids(ProcessTreeKeys(rows, {key(99)})), (std::vector<std::uint32_t>{99}));
    EXPECT_TRUE(ProcessTreeKeys(rows, {}).empty());
}

TEST(ProcessTreeSelectionTest, ChildrenMatchTheirParentByStartTimeToo) {
    auto rows = Tree();
    // pid 2's parent link names a pid 1 with another start time: an older process with a reused pid.
    rows[1].parentKey.startTime = 1;
    EXPECT_EQ(Pids(ProcessTreeKeys(rows, {core::ProcessKey{1, 100}})), (std::vector<std::uint32_t>{1, 3, 5}));
}

}  // namespace
}  // namespace korv::host::linux_client
