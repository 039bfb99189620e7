#include "providers/smart_device_io.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace korv::providers {
namespace {

constexpr unsigned long kNvmeAdminCommandIoctl = 0xc0484e41;
constexpr unsigned long kSgIoIoctl = 0x2285;
static_assert(kNvmeAdminCommandIoctl == NVME_IOCTL_ADMIN_CMD);
static_assert(kSgIoIoctl == SG_IO);

}  // namespace

SmartOpenResult LinuxSmartDeviceIo::Open(const std::string& path, int flags) {
    for (;;) {
        const int fd = ::open(path.c_str(), flags);
        if (fd >= 0) return {fd, 0};
        if (errno != EINTR) return {-1, errno};
    }
}

void LinuxSmartDeviceIo::Close(int fd) {
    if (fd >= 0) ::close(fd);
}

int LinuxSmartDeviceIo::NvmeAdminCommand(int fd, nvme_admin_cmd& command) {
    for (;;) {
        const int result = ::ioctl(fd, kNvmeAdminCommandIoctl, &command);
        if (result == 0) return 0;
        // A positive result is the controller's status field: the command reached it and failed.
        if (result > 0) return EIO;
        if (errno != EINTR) return errno;
    }
}

int LinuxSmartDeviceIo::SgIo(int fd, sg_io_hdr_t& header) {
    for (;;) {
        if (::ioctl(fd, kSgIoIoctl, &header) == 0) return 0;
        if (errno != EINTR) return errno;
    }
}

}  // namespace korv::providers
