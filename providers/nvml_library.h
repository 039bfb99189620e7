#pragma once

#include "core/snapshot.h"

#include <cerrno>
#include <cstdint>
#include <stop_token>
#include <string>
#include <vector>

namespace korv::providers {

inline constexpr const char* kNvmlSource = "linux.gpu.nvml";

// The few declarations of NVIDIA's management library that this program calls, laid out as its C
// interface has them. The library is loaded at run time, so no vendor header is needed to build.
namespace nvml {
using nvmlReturn_t = int;
struct nvmlDevice_st;
using nvmlDevice_t = nvmlDevice_st*;
struct nvmlUtilization_t {
    unsigned int gpu;
    unsigned int memory;
};
struct nvmlMemory_t {
    unsigned long long total;
    unsigned long long free;
    unsigned long long used;
};
inline constexpr nvmlReturn_t NVML_SUCCESS = 0;
inline constexpr int NVML_TEMPERATURE_GPU = 0;
inline constexpr int NVML_CLOCK_GRAPHICS = 0;
inline constexpr int NVML_CLOCK_MEM = 2;
inline constexpr unsigned int kNameBufferSize = 96;  // NVML_DEVICE_NAME_V2_BUFFER_SIZE, the UUID's too
}  // namespace nvml

struct NvmlEntryPoints {
    nvml::nvmlReturn_t (*init)() = nullptr;
    nvml::nvmlReturn_t (*shutdown)() = nullptr;
    const char* (*errorString)(nvml::nvmlReturn_t) = nullptr;
    nvml::nvmlReturn_t (*getCount)(unsigned int*) = nullptr;
    nvml::nvmlReturn_t (*getHandleByIndex)(unsigned int, nvml::nvmlDevice_t*) = nullptr;
    nvml::nvmlReturn_t (*getName)(nvml::nvmlDevice_t, char*, unsigned int) = nullptr;
    nvml::nvmlReturn_t (*getUuid)(nvml::nvmlDevice_t, char*, unsigned int) = nullptr;
    nvml::nvmlReturn_t (*getUtilizationRates)(nvml::nvmlDevice_t, nvml::nvmlUtilization_t*) = nullptr;
    nvml::nvmlReturn_t (*getMemoryInfo)(nvml::nvmlDevice_t, nvml::nvmlMemory_t*) = nullptr;
    nvml::nvmlReturn_t (*getTemperature)(nvml::nvmlDevice_t, int, unsigned int*) = nullptr;
    nvml::nvmlReturn_t (*getPowerUsage)(nvml::nvmlDevice_t, unsigned int*) = nullptr;
    nvml::nvmlReturn_t (*getEnforcedPowerLimit)(nvml::nvmlDevice_t, unsigned int*) = nullptr;
    nvml::nvmlReturn_t (*getClockInfo)(nvml::nvmlDevice_t, int, unsigned int*) = nullptr;
    nvml::nvmlReturn_t (*getMaxClockInfo)(nvml::nvmlDevice_t, int, unsigned int*) = nullptr;
    nvml::nvmlReturn_t (*getEncoderUtilization)(nvml::nvmlDevice_t, unsigned int*, unsigned int*) = nullptr;
    nvml::nvmlReturn_t (*getDecoderUtilization)(nvml::nvmlDevice_t, unsigned int*, unsigned int*) = nullptr;
};

inline constexpr int kNvmlLibraryMissing = ENOENT;  // no library under any name
inline constexpr int kNvmlSymbolMissing = ENOSYS;   // an entry point is absent

// NVIDIA's management library, opened with dlopen(RTLD_NOW | RTLD_GLOBAL) under the first name that
// loads, every entry point resolved, then nvmlInit_v2. A failure is kept as text; Open does its work
// once. A loaded library stays loaded while the object lives; nvmlShutdown and dlclose run at
// destruction, and only when nvmlInit_v2 worked.
class NvmlLibrary {
public:
    explicit NvmlLibrary(std::vector<std::string> libraryNames = {"libnvidia-ml.so.1", "libnvidia-ml.so"});
    ~NvmlLibrary();
    NvmlLibrary(const NvmlLibrary&) = delete;
    NvmlLibrary& operator=(const NvmlLibrary&) = delete;

    bool Open();
    bool Loaded() const noexcept { return handle_ != nullptr; }
    bool Initialised() const noexcept { return initialised_; }
    const std::string& FailureText() const noexcept { return failureText_; }
    // Why loading failed, as an errno value (kNvmlLibraryMissing, kNvmlSymbolMissing); 0 otherwise.
    int FailureErrno() const noexcept { return failureErrno_; }
    // What nvmlInit_v2 returned when it failed; NVML_SUCCESS otherwise.
    nvml::nvmlReturn_t FailureReturn() const noexcept { return failureReturn_; }
    const NvmlEntryPoints& EntryPoints() const noexcept { return entry_; }
    // nvmlErrorString for a return code, with a plain text when the library gives none.
    std::string ErrorText(nvml::nvmlReturn_t code) const;

private:
    bool Fail(std::string text);

    std::vector<std::string> libraryNames_;
    void* handle_ = nullptr;
    NvmlEntryPoints entry_;
    bool opened_ = false;
    bool initialised_ = false;
    std::string failureText_;
    int failureErrno_ = 0;
    nvml::nvmlReturn_t failureReturn_ = nvml::NVML_SUCCESS;
};

// One device as NVML describes it, as a GPU row of its own (id: the UUID, else "linux-nvml-index-N").
struct NvmlDevice {
    unsigned int index = 0;
    std::string uuid;  // empty when NVML gave none
    core::DeviceSnapshot row;
};

struct NvmlReading {
    bool ok = false;  // the device count was read
    std::string message;
    nvml::nvmlReturn_t nvmlReturn = nvml::NVML_SUCCESS;  // of the failed nvmlDeviceGetCount_v2
    std::vector<NvmlDevice> devices;
};

// Reads every device of an initialised library. A call that fails for one device leaves that figure
// unsupported and the pass goes on.
NvmlReading ReadNvmlDevices(const NvmlLibrary& library, std::uint64_t generation, const std::stop_token& stop);

}  // namespace korv::providers
