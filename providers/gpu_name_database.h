#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace korv::providers {

inline constexpr std::size_t kGpuNameTableLimit = 16u * 1024u * 1024u;

// Model names from the two tables a distribution ships: libdrm's amdgpu.ids ("device, revision,
// name" lines) and hwdata's pci.ids (vendor blocks with tab-indented device lines). Each table is read
// at its first lookup, once for the object's life, and answers are remembered. Used by one thread.
class GpuNameDatabase {
public:
    explicit GpuNameDatabase(std::filesystem::path amdgpuIds = "/usr/share/libdrm/amdgpu.ids",
                             std::vector<std::filesystem::path> pciIds = {"/usr/share/hwdata/pci.ids",
                                                                          "/usr/share/misc/pci.ids",
                                                                          "/usr/share/pci.ids"});

    // The marketing name of an AMD device id at one revision; both must match a line exactly.
    std::optional<std::string> AmdgpuName(std::uint16_t device, std::uint8_t revision);
    // The device name under the vendor's block of pci.ids; sub-vendor lines are not used.
    std::optional<std::string> PciName(std::uint16_t vendor, std::uint16_t device);

    // Whether a table could be read (reads it when it has not been read yet).
    bool HasAmdgpuTable();
    bool HasPciTable();

private:
    void LoadAmdgpu();
    void LoadPci();

    std::filesystem::path amdgpuPath_;
    std::vector<std::filesystem::path> pciPaths_;

    bool amdgpuLoaded_ = false;
    bool amdgpuPresent_ = false;
    std::map<std::pair<std::uint16_t, std::uint8_t>, std::string> amdgpuNames_;

    bool pciLoaded_ = false;
    bool pciPresent_ = false;
    std::string pciText_;  // kept whole; a lookup scans one vendor block
    std::map<std::uint32_t, std::optional<std::string>> pciAnswers_;
};

// Parsers of single lines, exposed for tests. An amdgpu.ids entry: "73BF,\tC1,\tAMD Radeon RX 6800".
struct AmdgpuIdsEntry {
    std::uint16_t device = 0;
    std::uint8_t revision = 0;
    std::string name;
};
std::optional<AmdgpuIdsEntry> ParseAmdgpuIdsLine(std::string_view line);

// The name in a pci.ids text for vendor and device, or nothing.
std::optional<std::string> FindPciName(std::string_view pciIds, std::uint16_t vendor, std::uint16_t device);

}  // namespace korv::providers
