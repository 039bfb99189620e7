#pragma once

#include <linux/nvme_ioctl.h>
#include <scsi/sg.h>

#include <string>

namespace korv::providers {

struct SmartOpenResult {
    int fd = -1;
    int error = 0;  // errno of the failed open; 0 with a valid fd
};

// The device-node seam of the SMART readers: the real one talks to the kernel, tests put a fake
// in its place that serves captured bytes and records what was sent. Every call returns 0 or an
// errno value; none throws.
class ISmartDeviceIo {
public:
    virtual ~ISmartDeviceIo() = default;
    virtual SmartOpenResult Open(const std::string& path, int flags) = 0;
    virtual void Close(int fd) = 0;
    // A command the controller completed with an NVMe error status gives EIO.
    virtual int NvmeAdminCommand(int fd, nvme_admin_cmd& command) = 0;
    // The SCSI outcome (status, host and driver status, sense) is left in header for the caller.
    virtual int SgIo(int fd, sg_io_hdr_t& header) = 0;
};

class LinuxSmartDeviceIo final : public ISmartDeviceIo {
public:
    SmartOpenResult Open(const std::string& path, int flags) override;
    void Close(int fd) override;
    int NvmeAdminCommand(int fd, nvme_admin_cmd& command) override;
    int SgIo(int fd, sg_io_hdr_t& header) override;
};

}  // namespace korv::providers
