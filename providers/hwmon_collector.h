#pragma once

#include "core/telemetry_frame.h"
#include "providers/cpu_topology.h"
#include "providers/provider_context.h"
#include "providers/stage_result.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace korv::providers {

enum class SensorOwnerKind { gpu, storage };

// Tells the sensor stages which telemetry device a sysfs device belongs to. devicePath is the
// canonical sysfs device directory: a GPU's PCI directory, or an NVMe disk's block device directory
// such as /sys/devices/.../nvme/nvme0/nvme0n1.
struct SensorOwnerHint {
    std::filesystem::path devicePath;
    std::string telemetryDeviceId;
    SensorOwnerKind kind = SensorOwnerKind::gpu;
};

struct HwmonStageResult {
    StageResult stage;
    bool anyTemperature = false;  // some temperature sensor with a value entered the frame
};

// Sensors of <sys>/class/hwmon. A CPU chip goes to "cpu:package:<p>"; a GPU chip joins the hinted
// "gpu:..." device (and is skipped without one, since the GPU stage reads the card itself); an
// NVMe chip joins the hinted storage device; any other chip gets "system/hwmon/<chip>". A file that
// cannot be read leaves its sensor out. Called by the Collect thread once a tick.
class HwmonCollector {
public:
    explicit HwmonCollector(ProviderRoots roots);

    HwmonStageResult Collect(const CollectContext& context, const std::vector<SensorOwnerHint>& owners,
                             core::HardwareTelemetryFrame& frame);

private:
    std::uint32_t PackageOfCpuList(const std::filesystem::path& device);
    std::uint32_t PackageOrdinal(std::int64_t packageId);
    const CpuTopology& Topology();

    std::filesystem::path classDirectory_;
    std::filesystem::path cpuDirectory_;
    std::optional<CpuTopology> topology_;  // read once: the package layout does not change during a run
};

}  // namespace korv::providers
