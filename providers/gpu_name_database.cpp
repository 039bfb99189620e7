#include "providers/gpu_name_database.h"

#include "providers/bounded_read.h"

#include <charconv>

namespace korv::providers {
namespace {

std::string_view Trim(std::string_view text) noexcept {
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    const auto last = text.find_last_not_of(" \t\r\n");
    return text.substr(first, last - first + 1);
}

// Exactly `digits` hexadecimal digits, nothing else.
template <typename T>
std::optional<T> ParseHexField(std::string_view text, std::size_t digits) noexcept {
    if (text.size() != digits) return std::nullopt;
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return static_cast<T>(value);
}

bool IsHexDigit(char c) noexcept {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// "xxxx  Name" at the start of `text`: four hex digits, blanks, the name.
std::optional<std::uint16_t> LeadingId(std::string_view text) noexcept {
    if (text.size() < 5 || !IsHexDigit(text[0]) || !IsHexDigit(text[1]) || !IsHexDigit(text[2]) ||
        !IsHexDigit(text[3]) || (text[4] != ' ' && text[4] != '\t')) {
        return std::nullopt;
    }
    return ParseHexField<std::uint16_t>(text.substr(0, 4), 4);
}

template <typename Visit>
void ForEachLine(std::string_view text, Visit&& visit) {
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        if (!visit(text.substr(pos, end - pos))) return;
        pos = end + 1;
    }
}

}  // namespace

std::optional<AmdgpuIdsEntry> ParseAmdgpuIdsLine(std::string_view line) {
    line = Trim(line);
    if (line.empty() || line.front() == '#') return std::nullopt;
    const auto firstComma = line.find(',');
    if (firstComma == std::string_view::npos) return std::nullopt;
    const auto secondComma = line.find(',', firstComma + 1);
    if (secondComma == std::string_view::npos) return std::nullopt;
    const auto device = ParseHexField<std::uint16_t>(Trim(line.substr(0, firstComma)), 4);
    const auto revision = ParseHexField<std::uint8_t>(Trim(line.substr(firstComma + 1, secondComma - firstComma - 1)), 2);
    const std::string_view name = Trim(line.substr(secondComma + 1));
    if (!device || !revision || name.empty()) return std::nullopt;
    return AmdgpuIdsEntry{*device, *revision, std::string(name)};
}

std::optional<std::string> FindPciName(std::string_view pciIds, std::uint16_t vendor, std::uint16_t device) {
    bool inVendor = false;
    std::optional<std::string> found;
    ForEachLine(pciIds, [&](std::string_view line) {
        if (line.empty() || line.front() == '#') return true;
        if (line.front() != '\t') {
            if (inVendor) return false;  // the vendor's block has ended
            const auto id = LeadingId(line);
            inVendor = id && *id == vendor;
            return true;
        }
        if (!inVendor || line.size() < 2 || line[1] == '\t') return true;  // sub-vendor lines are not used
        const auto id = LeadingId(line.substr(1));
        if (id && *id == device) {
            const std::string_view name = Trim(line.substr(5));
            if (!name.empty()) found = std::string(name);
            return false;
        }
        return true;
    });
    return found;
}

GpuNameDatabase::GpuNameDatabase(std::filesystem::path amdgpuIds, std::vector<std::filesystem::path> pciIds)
    : amdgpuPath_(std::move(amdgpuIds)), pciPaths_(std::move(pciIds)) {}

void GpuNameDatabase::LoadAmdgpu() {
    if (amdgpuLoaded_) return;
    amdgpuLoaded_ = true;
    const BoundedReadResult read = ReadFileBounded(amdgpuPath_, kGpuNameTableLimit);
    if (!read.Ok()) return;
    amdgpuPresent_ = true;
    ForEachLine(read.text, [&](std::string_view line) {
        if (auto entry = ParseAmdgpuIdsLine(line)) {
            amdgpuNames_.try_emplace({entry->device, entry->revision}, std::move(entry->name));
        }
        return true;
    });
}

void GpuNameDatabase::LoadPci() {
    if (pciLoaded_) return;
    pciLoaded_ = true;
    for (const auto& path : pciPaths_) {
        BoundedReadResult read = ReadFileBounded(path, kGpuNameTableLimit);
        if (!read.Ok()) continue;
        pciPresent_ = true;
        pciText_ = std::move(read.text);
        if (read.truncated) {
            // A cut last line could hold half a name.
            const auto lastNewline = pciText_.rfind('\n');
            pciText_.resize(lastNewline == std::string::npos ? 0 : lastNewline + 1);
        }
        return;
    }
}

std::optional<std::string> GpuNameDatabase::AmdgpuName(std::uint16_t device, std::uint8_t revision) {
    LoadAmdgpu();
    const auto it = amdgpuNames_.find({device, revision});
    if (it == amdgpuNames_.end()) return std::nullopt;
    return it->second;
}

std::optional<std::string> GpuNameDatabase::PciName(std::uint16_t vendor, std::uint16_t device) {
    LoadPci();
    if (!pciPresent_) return std::nullopt;
    const std::uint32_t key = (static_cast<std::uint32_t>(vendor) << 16) | device;
    const auto it = pciAnswers_.find(key);
    if (it != pciAnswers_.end()) return it->second;
    return pciAnswers_.emplace(key, FindPciName(pciText_, vendor, device)).first->second;
}

bool GpuNameDatabase::HasAmdgpuTable() {
    LoadAmdgpu();
    return amdgpuPresent_;
}

bool GpuNameDatabase::HasPciTable() {
    LoadPci();
    return pciPresent_;
}

}  // namespace korv::providers
