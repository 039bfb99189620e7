#include "providers/gpu_name_database.h"

#include "tests/core/temp_folder_test_base.h"
#include "tests/providers/gpu_fixture_tree.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <ostream>
#include <string>

namespace korv::providers {
namespace {

struct AmdgpuLineCase {
    const char* line;
    std::optional<std::uint16_t> device;
    std::uint8_t revision;
    const char* name;
};

void PrintTo(const AmdgpuLineCase& c, std::ostream* out) { *out << '"' << c.line << '"'; }

class ParseAmdgpuIdsLineTest : public ::testing::TestWithParam<AmdgpuLineCase> {};

TEST_P(ParseAmdgpuIdsLineTest, ReadsDeviceRevisionAndName) {
    const AmdgpuLineCase& c = GetParam();
    const auto entry = ParseAmdgpuIdsLine(c.line);
    if (!c.device) {
        EXPECT_FALSE(entry.has_value()) << c.line;
        return;
    }
    ASSERT_TRUE(entry.has_value()) << c.line;
    EXPECT_EQ(entry->device, *c.device);
    EXPECT_EQ(entry->revision, c.revision);
    EXPECT_EQ(entry->name, c.name);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, ParseAmdgpuIdsLineTest,
    ::testing::Values(AmdgpuLineCase{"73BF,\tC1,\tAMD Radeon RX 6800 XT", 0x73bf, 0xc1, "AMD Radeon RX 6800 XT"},
                      AmdgpuLineCase{"744c, c8, AMD Radeon RX 7900 XTX, Limited Edition\r", 0x744c, 0xc8,
                                     "AMD Radeon RX 7900 XTX, Limited Edition"},
                      AmdgpuLineCase{"1.0.0", std::nullopt, 0, ""},
                      AmdgpuLineCase{"# 73BF,\tC1,\tcommented out", std::nullopt, 0, ""},
                      AmdgpuLineCase{"73BF,\tAMD Radeon", std::nullopt, 0, ""},
                      AmdgpuLineCase{"73B,\tC1,\tshort device id", std::nullopt, 0, ""},
                      AmdgpuLineCase{"73BF,\t1C1,\tlong revision", std::nullopt, 0, ""},
                      AmdgpuLineCase{"73BF,\tC1,\t  ", std::nullopt, 0, ""},
                      AmdgpuLineCase{"73BG,\tC1,\tnot hexadecimal", std::nullopt, 0, ""}));

std::string ReadText(const std::filesystem::path& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

struct PciCase {
    std::uint16_t vendor;
    std::uint16_t device;
    const char* name;  // nullptr: not found
};

void PrintTo(const PciCase& c, std::ostream* out) { *out << std::hex << c.vendor << ':' << c.device; }

class FindPciNameTest : public ::testing::TestWithParam<PciCase> {};

TEST_P(FindPciNameTest, LooksOnlyInsideTheVendorBlock) {
    const std::string table = ReadText(kGpuNameTables / "pci.ids");
    ASSERT_FALSE(table.empty());
    const PciCase& c = GetParam();
    const auto name = FindPciName(table, c.vendor, c.device);
    if (c.name == nullptr) {
        EXPECT_FALSE(name.has_value()) << std::hex << c.vendor << ":" << c.device << " gave " << name.value_or("");
    } else {
        EXPECT_EQ(name.value_or("<none>"), c.name);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, FindPciNameTest,
    ::testing::Values(PciCase{0x1002, 0x73bf, "Navi 21 [Radeon RX 6800/6800 XT / 6900 XT]"},
                      // the same device number under an earlier vendor must not be taken
                      PciCase{0x1002, 0x1638, "Cezanne [Radeon Vega Series / Radeon Vega Mobile Series]"},
                      PciCase{0x10de, 0x2684, "AD102 [GeForce RTX 4090]"},  // after a comment in the block
                      PciCase{0x8086, 0x9a49, "TigerLake-LP GT2 [Iris Xe Graphics]"},
                      PciCase{0x8086, 0x1028, nullptr},  // only a sub-vendor line has these digits
                      PciCase{0x1002, 0x0e3a, nullptr},  // a subsystem id, not a device
                      PciCase{0x1af4, 0x1638, nullptr},
                      PciCase{0x9999, 0x0001, nullptr}));

TEST(FindPciName, RefusesMalformedLines) {
    EXPECT_FALSE(FindPciName("1002AMD\n\t73bf  Navi\n", 0x1002, 0x73bf).has_value());
    EXPECT_FALSE(FindPciName("1002  AMD\n\t73bf\n", 0x1002, 0x73bf).has_value());
    EXPECT_FALSE(FindPciName("1002  AMD\n\t73bf  \n", 0x1002, 0x73bf).has_value());
    EXPECT_EQ(FindPciName("1002  AMD\n\t73bf  Navi", 0x1002, 0x73bf).value_or(""), "Navi");
}

class GpuNameDatabaseTest : public core::TempFolderTest {
protected:
    GpuNameDatabaseTest() : TempFolderTest("korv-gpu-names") {}

    std::filesystem::path Copy(const char* name, const std::filesystem::path& to) {
        std::filesystem::create_directories(to.parent_path());
        std::filesystem::copy_file(kGpuNameTables / name, to);
        return to;
    }
};

TEST_F(GpuNameDatabaseTest, AmdgpuNameNeedsDeviceAndRevisionExactly) {
    GpuNameDatabase names(kGpuNameTables / "amdgpu.ids", {});
    EXPECT_EQ(names.AmdgpuName(0x73bf, 0xc0).value_or(""), "AMD Radeon RX 6900 XT");
    EXPECT_EQ(names.AmdgpuName(0x73bf, 0xc3).value_or(""), "AMD Radeon RX 6800");
    EXPECT_FALSE(names.AmdgpuName(0x73bf, 0xc2).has_value());
    EXPECT_FALSE(names.AmdgpuName(0x1636, 0xc1).has_value());
    EXPECT_TRUE(names.HasAmdgpuTable());
    EXPECT_FALSE(names.HasPciTable());
    EXPECT_FALSE(names.PciName(0x1002, 0x73bf).has_value());
}

TEST_F(GpuNameDatabaseTest, TablesAreReadOnceForTheObjectsLife) {
    const auto amdgpu = Copy("amdgpu.ids", dir / "libdrm" / "amdgpu.ids");
    const auto pci = Copy("pci.ids", dir / "hwdata" / "pci.ids");
    GpuNameDatabase names(amdgpu, {pci});
    ASSERT_EQ(names.AmdgpuName(0x73bf, 0xc1).value_or(""), "AMD Radeon RX 6800 XT");
    ASSERT_EQ(names.PciName(0x1002, 0x73bf).value_or(""), "Navi 21 [Radeon RX 6800/6800 XT / 6900 XT]");

    std::filesystem::remove(amdgpu);
    std::ofstream(pci, std::ios::trunc) << "10de  Someone Else\n\t2206  Replaced\n";

    EXPECT_EQ(names.AmdgpuName(0x1638, 0xc1).value_or(""), "AMD Radeon Graphics");
    EXPECT_EQ(names.PciName(0x10de, 0x2206).value_or(""), "GA102 [GeForce RTX 3080]");
    EXPECT_TRUE(names.HasAmdgpuTable());

    // A fresh object reads the files as they are now.
    GpuNameDatabase fresh(amdgpu, {pci});
    EXPECT_FALSE(fresh.HasAmdgpuTable());
    EXPECT_EQ(fresh.PciName(0x10de, 0x2206).value_or(""), "Replaced");
}

TEST_F(GpuNameDatabaseTest, FirstPciTableThatOpensWins) {
    const auto second = Copy("pci.ids", dir / "misc" / "pci.ids");
    std::filesystem::create_directories(dir / "share");
    std::ofstream(dir / "share" / "pci.ids") << "1002  AMD\n\t73bf  From the third table\n";

    GpuNameDatabase skipsMissing("", {dir / "hwdata" / "pci.ids", second, dir / "share" / "pci.ids"});
    EXPECT_EQ(skipsMissing.PciName(0x1002, 0x73bf).value_or(""), "Navi 21 [Radeon RX 6800/6800 XT / 6900 XT]");

    GpuNameDatabase takesFirst("", {dir / "share" / "pci.ids", second});
    EXPECT_EQ(takesFirst.PciName(0x1002, 0x73bf).value_or(""), "From the third table");
    EXPECT_FALSE(takesFirst.PciName(0x10de, 0x2206).has_value());
}

TEST_F(GpuNameDatabaseTest, NoTablesAnswersNothing) {
    GpuNameDatabase names(dir / "absent.ids", {dir / "a", dir / "b"});
    EXPECT_FALSE(names.HasAmdgpuTable());
    EXPECT_FALSE(names.HasPciTable());
    EXPECT_FALSE(names.AmdgpuName(0x73bf, 0xc1).has_value());
    EXPECT_FALSE(names.PciName(0x1002, 0x73bf).has_value());
}

}  // namespace
}  // namespace korv::providers
