#pragma once

#include "providers/ata_smart.h"
#include "providers/smart_device_io.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace korv::providers::test_support {

// Stands in for the device nodes: serves the bytes a drive would return and records every open
// and command, so a test can also assert that nothing was sent.
class FakeSmartDeviceIo final : public ISmartDeviceIo {
public:
    struct SgCall {
        AtaCdb cdb{};
        int direction = 0;
        unsigned transferLength = 0;
        unsigned timeoutMs = 0;
        int interfaceId = 0;
    };

    // What the drive holds.
    std::map<std::string, int> openErrors;  // path -> errno
    std::vector<std::uint8_t> nvmeLog = std::vector<std::uint8_t>(kNvmeLogBytes, 0);
    int nvmeError = 0;
    std::array<std::uint8_t, kAtaSmartBlockBytes> ataData{};
    std::array<std::uint8_t, kAtaSmartBlockBytes> ataThresholds{};
    int sgIoError = 0;                    // the ioctl itself fails with this errno
    bool illegalRequest = false;          // every pass-through command is refused in the sense data
    std::uint8_t powerModeCount = 0xFF;   // CHECK POWER MODE: active or idle
    std::uint8_t statusLbaMid = 0x4F;     // RETURN STATUS: all well
    std::uint8_t statusLbaHigh = 0xC2;

    // What was asked.
    std::vector<std::pair<std::string, int>> opened;  // path, flags
    int closed = 0;
    std::vector<nvme_admin_cmd> nvmeCommands;
    std::vector<SgCall> sgCalls;

    std::size_t CommandCount() const noexcept { return nvmeCommands.size() + sgCalls.size(); }

    SmartOpenResult Open(const std::string& path, int flags) override {
        opened.emplace_back(path, flags);
        if (const auto found = openErrors.find(path); found != openErrors.end()) return {-1, found->second};
        return {kFakeFd, 0};
    }

    void Close(int) override { ++closed; }

    int NvmeAdminCommand(int, nvme_admin_cmd& command) override {
        nvmeCommands.push_back(command);
        if (nvmeError != 0) return nvmeError;
        auto* buffer = reinterpret_cast<std::uint8_t*>(static_cast<std::uintptr_t>(command.addr));
        std::memcpy(buffer, nvmeLog.data(), std::min<std::size_t>(command.data_len, nvmeLog.size()));
        return 0;
    }

    int SgIo(int, sg_io_hdr_t& header) override {
        SgCall call;
        std::memcpy(call.cdb.data(), header.cmdp, std::min<std::size_t>(header.cmd_len, call.cdb.size()));
        call.direction = header.dxfer_direction;
        call.transferLength = header.dxfer_len;
        call.timeoutMs = header.timeout;
        call.interfaceId = header.interface_id;
        sgCalls.push_back(call);
        if (sgIoError != 0) return sgIoError;
        if (illegalRequest) {
            // Fixed-format sense: ILLEGAL REQUEST, INVALID COMMAND OPERATION CODE.
            std::uint8_t sense[18] = {0x70, 0, 0x05, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x20, 0x00};
            return Answer(header, 0x02, sense, sizeof(sense));
        }
        const std::uint8_t command = call.cdb[14];
        const std::uint8_t feature = call.cdb[4];
        if (command == 0xE5) return AnswerRegisters(header, powerModeCount, 0, 0);
        if (command == 0xB0 && feature == 0xDA) return AnswerRegisters(header, 0, statusLbaMid, statusLbaHigh);
        if (command == 0xB0 && (feature == 0xD0 || feature == 0xD1)) {
            const auto& block = feature == 0xD0 ? ataData : ataThresholds;
            std::memcpy(header.dxferp, block.data(), std::min<std::size_t>(header.dxfer_len, block.size()));
            return Answer(header, 0x00, nullptr, 0);
        }
        return Answer(header, 0x02, nullptr, 0);
    }

private:
    static constexpr int kFakeFd = 42;
    static constexpr std::size_t kNvmeLogBytes = 512;

    static int Answer(sg_io_hdr_t& header, std::uint8_t status, const std::uint8_t* sense, std::size_t length) {
        header.status = status;
        header.host_status = 0;
        header.driver_status = sense != nullptr ? 0x08 : 0;
        header.resid = 0;
        const std::size_t copied = std::min<std::size_t>(length, header.mx_sb_len);
        if (sense != nullptr) std::memcpy(header.sbp, sense, copied);
        header.sb_len_wr = static_cast<unsigned char>(copied);
        return 0;
    }

    // CK_COND: RECOVERED ERROR with the ATA Status Return descriptor.
    static int AnswerRegisters(sg_io_hdr_t& header, std::uint8_t count, std::uint8_t lbaMid, std::uint8_t lbaHigh) {
        const std::uint8_t sense[22] = {0x72, 0x01, 0x00, 0x1D, 0, 0, 0, 14,
                                        0x09, 0x0C, 0x00, 0x00, 0x00, count, 0x00, 0x00, 0x00, lbaMid, 0x00, lbaHigh,
                                        0xA0, 0x50};
        return Answer(header, 0x02, sense, sizeof(sense));
    }
};

}  // namespace korv::providers::test_support
