#include "providers/nvml_library.h"

#include "providers/drm_gpu_collector.h"

#include <algorithm>
#include <dlfcn.h>

namespace korv::providers {
namespace {

using core::MetricAvailability;
using nvml::NVML_SUCCESS;

constexpr std::uint64_t kHzPerMhz = 1'000'000;

template <typename Fn>
bool Resolve(void* handle, const char* name, Fn& out) {
    void* symbol = ::dlsym(handle, name);
    if (symbol == nullptr) return false;
    out = reinterpret_cast<Fn>(symbol);
    return true;
}

// Text out of a fixed NVML buffer that the library may have left without a terminator.
std::string BufferText(const char* buffer, std::size_t size) {
    return std::string(buffer, std::find(buffer, buffer + size, '\0'));
}

void SetPercent(core::Metric<double>& metric, unsigned int value, std::uint64_t generation) {
    if (value <= 100) metric.Set(static_cast<double>(value), generation);
}

}  // namespace

NvmlLibrary::NvmlLibrary(std::vector<std::string> libraryNames) : libraryNames_(std::move(libraryNames)) {}

// A library whose nvmlInit_v2 failed is left loaded: what the failed start left behind (threads,
// handlers) may still point into it.
NvmlLibrary::~NvmlLibrary() {
    if (!initialised_) return;
    entry_.shutdown();
    ::dlclose(handle_);
}

bool NvmlLibrary::Fail(std::string text) {
    failureText_ = std::move(text);
    entry_ = {};
    return false;
}

bool NvmlLibrary::Open() {
    if (opened_) return initialised_;
    opened_ = true;
    for (const auto& name : libraryNames_) {
        handle_ = ::dlopen(name.c_str(), RTLD_NOW | RTLD_GLOBAL);
        if (handle_ != nullptr) break;
    }
    if (handle_ == nullptr) {
        failureErrno_ = kNvmlLibraryMissing;
        return Fail("libnvidia-ml.so(.1) not found on this system's library path -- no NVIDIA driver installed");
    }
    const bool resolved = Resolve(handle_, "nvmlInit_v2", entry_.init) &&
                          Resolve(handle_, "nvmlShutdown", entry_.shutdown) &&
                          Resolve(handle_, "nvmlErrorString", entry_.errorString) &&
                          Resolve(handle_, "nvmlDeviceGetCount_v2", entry_.getCount) &&
                          Resolve(handle_, "nvmlDeviceGetHandleByIndex_v2", entry_.getHandleByIndex) &&
                          Resolve(handle_, "nvmlDeviceGetName", entry_.getName) &&
                          Resolve(handle_, "nvmlDeviceGetUUID", entry_.getUuid) &&
                          Resolve(handle_, "nvmlDeviceGetUtilizationRates", entry_.getUtilizationRates) &&
                          Resolve(handle_, "nvmlDeviceGetMemoryInfo", entry_.getMemoryInfo) &&
                          Resolve(handle_, "nvmlDeviceGetTemperature", entry_.getTemperature) &&
                          Resolve(handle_, "nvmlDeviceGetPowerUsage", entry_.getPowerUsage) &&
                          Resolve(handle_, "nvmlDeviceGetEnforcedPowerLimit", entry_.getEnforcedPowerLimit) &&
                          Resolve(handle_, "nvmlDeviceGetClockInfo", entry_.getClockInfo) &&
                          Resolve(handle_, "nvmlDeviceGetMaxClockInfo", entry_.getMaxClockInfo) &&
                          Resolve(handle_, "nvmlDeviceGetEncoderUtilization", entry_.getEncoderUtilization) &&
                          Resolve(handle_, "nvmlDeviceGetDecoderUtilization", entry_.getDecoderUtilization);
    if (!resolved) {
        failureErrno_ = kNvmlSymbolMissing;
        return Fail("libnvidia-ml.so was found but is missing an expected symbol");
    }

    const nvml::nvmlReturn_t rc = entry_.init();
    if (rc != NVML_SUCCESS) {
        failureReturn_ = rc;
        return Fail("nvmlInit_v2 failed: " + ErrorText(rc));
    }
    initialised_ = true;
    return true;
}

std::string NvmlLibrary::ErrorText(nvml::nvmlReturn_t code) const {
    const char* text = entry_.errorString != nullptr ? entry_.errorString(code) : nullptr;
    if (text == nullptr || *text == '\0') return "NVML error " + std::to_string(code);
    return text;
}

NvmlReading ReadNvmlDevices(const NvmlLibrary& library, std::uint64_t generation, const std::stop_token& stop) {
    NvmlReading reading;
    const NvmlEntryPoints& api = library.EntryPoints();
    unsigned int count = 0;
    const nvml::nvmlReturn_t countRc = api.getCount(&count);
    if (countRc != NVML_SUCCESS) {
        reading.message = "nvmlDeviceGetCount_v2 failed: " + library.ErrorText(countRc);
        reading.nvmlReturn = countRc;
        return reading;
    }
    reading.ok = true;
    reading.message = "NVML device telemetry collected";

    for (unsigned int index = 0; index < count && !stop.stop_requested(); ++index) {
        NvmlDevice device;
        device.index = index;
        core::DeviceSnapshot& row = device.row;
        core::GpuBlock& g = row.gpu;
        row.kind = core::DeviceKind::gpu;
        MarkGpuBlockUnsupported(g, kNvmlSource);
        g.vendor.Set("NVIDIA", generation);
        g.driver.Set("nvidia", generation);

        nvml::nvmlDevice_t handle = nullptr;
        const bool haveHandle = api.getHandleByIndex(index, &handle) == NVML_SUCCESS;
        char text[nvml::kNameBufferSize] = {};
        if (haveHandle && api.getName(handle, text, sizeof text) == NVML_SUCCESS) {
            row.displayName = BufferText(text, sizeof text);
        }
        if (row.displayName.empty()) row.displayName = "GPU " + std::to_string(index);
        std::fill(std::begin(text), std::end(text), '\0');
        if (haveHandle && api.getUuid(handle, text, sizeof text) == NVML_SUCCESS) {
            device.uuid = BufferText(text, sizeof text);
        }
        row.id = device.uuid.empty() ? "linux-nvml-index-" + std::to_string(index) : device.uuid;

        core::EngineUtilization encode{"Video encode", {}, "video-encode", "nvidia"};
        core::EngineUtilization decode{"Video decode", {}, "video-decode", "nvidia"};
        encode.utilizationPercent.source = kNvmlSource;
        encode.utilizationPercent.MarkMissing(MetricAvailability::unsupported);
        decode.utilizationPercent = encode.utilizationPercent;
        if (!haveHandle) {
            g.engines = {std::move(encode), std::move(decode)};
            reading.devices.push_back(std::move(device));
            continue;
        }

        nvml::nvmlUtilization_t utilization{};
        if (api.getUtilizationRates(handle, &utilization) == NVML_SUCCESS) {
            SetPercent(g.utilizationPercent, utilization.gpu, generation);
            SetPercent(g.memoryControllerPercent, utilization.memory, generation);
        }
        nvml::nvmlMemory_t memory{};
        if (api.getMemoryInfo(handle, &memory) == NVML_SUCCESS) {
            g.totalMemoryBytes.Set(memory.total, generation);
            g.dedicatedMemoryBytes.Set(memory.total, generation);
            g.inUseMemoryBytes.Set(memory.used, generation);
        }
        unsigned int value = 0;
        if (api.getTemperature(handle, nvml::NVML_TEMPERATURE_GPU, &value) == NVML_SUCCESS) {
            g.temperatureCelsius.Set(static_cast<double>(value), generation);
        }
        if (api.getPowerUsage(handle, &value) == NVML_SUCCESS) {
            g.powerWatts.Set(static_cast<double>(value) / 1000.0, generation);
        }
        if (api.getEnforcedPowerLimit(handle, &value) == NVML_SUCCESS) {
            g.powerLimitWatts.Set(static_cast<double>(value) / 1000.0, generation);
        }
        const struct {
            int (*call)(nvml::nvmlDevice_t, int, unsigned int*);
            int clock;
            core::Metric<std::uint64_t>& metric;
        } clocks[] = {
            {api.getClockInfo, nvml::NVML_CLOCK_GRAPHICS, g.clockHz},
            {api.getMaxClockInfo, nvml::NVML_CLOCK_GRAPHICS, g.maximumClockHz},
            {api.getClockInfo, nvml::NVML_CLOCK_MEM, g.memoryClockHz},
            {api.getMaxClockInfo, nvml::NVML_CLOCK_MEM, g.maximumMemoryClockHz},
        };
        for (const auto& clock : clocks) {
            if (clock.call(handle, clock.clock, &value) == NVML_SUCCESS) {
                clock.metric.Set(static_cast<std::uint64_t>(value) * kHzPerMhz, generation);
            }
        }
        unsigned int samplingPeriodUs = 0;
        if (api.getEncoderUtilization(handle, &value, &samplingPeriodUs) == NVML_SUCCESS) {
            SetPercent(g.videoEncodePercent, value, generation);
            encode.utilizationPercent = g.videoEncodePercent;
        }
        if (api.getDecoderUtilization(handle, &value, &samplingPeriodUs) == NVML_SUCCESS) {
            SetPercent(g.videoDecodePercent, value, generation);
            decode.utilizationPercent = g.videoDecodePercent;
        }
        g.engines = {std::move(encode), std::move(decode)};
        reading.devices.push_back(std::move(device));
    }
    return reading;
}

}  // namespace korv::providers
