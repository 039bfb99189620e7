// A stand-in for NVIDIA's management library, built as libnvidia-ml.so.1 so that the program's loader
// finds it through the library path exactly as it finds the real one. Its behaviour is read from the
// environment at each nvmlInit_v2:
//   KORV_FAKE_NVML_DEVICES  number of devices (at most 8); unset: nvmlInit_v2 fails, "Driver Not Loaded"
//   KORV_FAKE_NVML_FAIL     name of one entry point that fails, with "Not Supported" unless
//   KORV_FAKE_NVML_FAIL_CODE names another return code
//   KORV_FAKE_NVML_UUIDS    comma-separated UUIDs by index; default "GPU-fake-<index>"
// Built with KORV_FAKE_NVML_INCOMPLETE it lacks nvmlDeviceGetDecoderUtilization.

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

extern "C" {

typedef int nvmlReturn_t;
struct nvmlDevice_st {
    unsigned int index;
};
typedef nvmlDevice_st* nvmlDevice_t;
struct nvmlUtilization_t {
    unsigned int gpu;
    unsigned int memory;
};
struct nvmlMemory_t {
    unsigned long long total;
    unsigned long long free;
    unsigned long long used;
};

}  // extern "C"

namespace {

constexpr nvmlReturn_t kSuccess = 0;
constexpr nvmlReturn_t kUninitialized = 1;
constexpr nvmlReturn_t kInvalidArgument = 2;
constexpr nvmlReturn_t kNotSupported = 3;
constexpr nvmlReturn_t kInsufficientSize = 7;
constexpr nvmlReturn_t kDriverNotLoaded = 9;
constexpr unsigned int kMaxDevices = 8;

struct State {
    bool initialised = false;
    unsigned int devices = 0;
    std::string failing;
    nvmlReturn_t failCode = kNotSupported;
    std::string uuids;
    unsigned int initCalls = 0;
    unsigned int shutdownCalls = 0;
    nvmlDevice_st handles[kMaxDevices] = {{0}, {1}, {2}, {3}, {4}, {5}, {6}, {7}};
};

State& TheState() {
    static State state;
    return state;
}

// The return of an entry point that needs an initialised library and may be the one set to fail.
nvmlReturn_t Gate(std::string_view function) {
    const State& s = TheState();
    if (!s.initialised) return kUninitialized;
    return s.failing == function ? s.failCode : kSuccess;
}

nvmlReturn_t CheckDevice(nvmlDevice_t device, std::string_view function) {
    const nvmlReturn_t rc = Gate(function);
    if (rc != kSuccess) return rc;
    if (device == nullptr || device->index >= TheState().devices) return kInvalidArgument;
    return kSuccess;
}

nvmlReturn_t CopyText(const std::string& text, char* out, unsigned int length) {
    if (out == nullptr || length <= text.size()) return kInsufficientSize;
    std::memcpy(out, text.c_str(), text.size() + 1);
    return kSuccess;
}

std::string UuidOf(unsigned int index) {
    const std::string& list = TheState().uuids;
    std::size_t start = 0;
    for (unsigned int i = 0; i < index && start != std::string::npos; ++i) {
        start = list.find(',', start);
        if (start != std::string::npos) ++start;
    }
    if (list.empty() || start == std::string::npos) return "GPU-fake-" + std::to_string(index);
    return list.substr(start, list.find(',', start) - start);
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) nvmlReturn_t nvmlInit_v2() {
    State& s = TheState();
    ++s.initCalls;
    const char* devices = std::getenv("KORV_FAKE_NVML_DEVICES");
    const char* failing = std::getenv("KORV_FAKE_NVML_FAIL");
    const char* uuids = std::getenv("KORV_FAKE_NVML_UUIDS");
    const char* failCode = std::getenv("KORV_FAKE_NVML_FAIL_CODE");
    s.failing = failing != nullptr ? failing : "";
    s.failCode = failCode != nullptr ? static_cast<nvmlReturn_t>(std::strtol(failCode, nullptr, 10)) : kNotSupported;
    s.uuids = uuids != nullptr ? uuids : "";
    if (devices == nullptr) return kDriverNotLoaded;
    if (s.failing == "nvmlInit_v2") return s.failCode;
    const unsigned long count = std::strtoul(devices, nullptr, 10);
    s.devices = count > kMaxDevices ? kMaxDevices : static_cast<unsigned int>(count);
    s.initialised = true;
    return kSuccess;
}

__attribute__((visibility("default"))) nvmlReturn_t nvmlShutdown() {
    State& s = TheState();
    ++s.shutdownCalls;
    if (!s.initialised) return kUninitialized;
    s.initialised = false;
    return kSuccess;
}

__attribute__((visibility("default"))) const char* nvmlErrorString(nvmlReturn_t result) {
    switch (result) {
        case kSuccess: return "Success";
        case kUninitialized: return "Uninitialized";
        case kInvalidArgument: return "Invalid Argument";
        case kNotSupported: return "Not Supported";
        case kInsufficientSize: return "Insufficient Size";
        case kDriverNotLoaded: return "Driver Not Loaded";
        default: return "Unknown Error";
    }
}

__attribute__((visibility("default"))) nvmlReturn_t nvmlDeviceGetCount_v2(unsigned int* count) {
    const nvmlReturn_t rc = Gate("nvmlDeviceGetCount_v2");
    if (rc == kSuccess) *count = TheState().devices;
    return rc;
}

__attribute__((visibility("default"))) nvmlReturn_t nvmlDeviceGetHandleByIndex_v2(unsigned int index,
                                                                                   nvmlDevice_t* device) {
    const nvmlReturn_t rc = Gate("nvmlDeviceGetHandleByIndex_v2");
    if (rc != kSuccess) return rc;
    if (index >= TheState().devices) return kInvalidArgument;
    *device = &TheState().handles[index];
    return kSuccess;
}

__attribute__((visibility("default"))) nvmlReturn_t nvmlDeviceGetName(nvmlDevice_t device, char* name,
                                                                      unsigned int length) {
    const nvmlReturn_t rc = CheckDevice(device, "nvmlDeviceGetName");
    if (rc != kSuccess) return rc;
    return CopyText("NVIDIA Fake RTX " + std::to_string(device->index), name, length);
}

__attribute__((visibility("default"))) nvmlReturn_t nvmlDeviceGetUUID(nvmlDevice_t device, char* uuid,
                                                                      unsigned int length) {
    const nvmlReturn_t rc = CheckDevice(device, "nvmlDeviceGetUUID");
    if (rc != kSuccess) return rc;
    return CopyText(UuidOf(device->index), uuid, length);
}

__attribute__((visibility("default"))) nvmlReturn_t nvmlDeviceGetUtilizationRates(nvmlDevice_t device,
                                                                                  nvmlUtilization_t* utilization) {
    const nvmlReturn_t rc = CheckDevice(device, "nvmlDeviceGetUtilizationRates");
    if (rc != kSuccess) return rc;
    utilization->gpu = 40 + device->index;
    utilization->memory = 20 + device->index;
    return kSuccess;
}

__attribute__((visibility("default"))) nvmlReturn_t nvmlDeviceGetMemoryInfo(nvmlDevice_t device,
                                                                            nvmlMemory_t* memory) {
    const nvmlReturn_t rc = CheckDevice(device, "nvmlDeviceGetMemoryInfo");
    if (rc != kSuccess) return rc;
    memory->total = 8ULL << 30;
    memory->used = (1ULL << 30) * (device->index + 1);
    memory->free = memory->total - memory->used;
    return kSuccess;
}

__attribute__((visibility("default"))) nvmlReturn_t nvmlDeviceGetTemperature(nvmlDevice_t device, int sensor,
                                                                             unsigned int* temperature) {
    const nvmlReturn_t rc = CheckDevice(device, "nvmlDeviceGetTemperature");
    if (rc != kSuccess) return rc;
    if (sensor != 0) return kInvalidArgument;
    *temperature = 55 + device->index;
    return kSuccess;
}

__attribute__((visibility("default"))) nvmlReturn_t nvmlDeviceGetPowerUsage(nvmlDevice_t device,
                                                                            unsigned int* milliwatts) {
    const nvmlReturn_t rc = CheckDevice(device, "nvmlDeviceGetPowerUsage");
    if (rc != kSuccess) return rc;
    *milliwatts = 120500 + device->index * 1000;
    return kSuccess;
}

__attribute__((visibility("default"))) nvmlReturn_t nvmlDeviceGetEnforcedPowerLimit(nvmlDevice_t device,
                                                                                    unsigned int* milliwatts) {
    const nvmlReturn_t rc = CheckDevice(device, "nvmlDeviceGetEnforcedPowerLimit");
    if (rc != kSuccess) return rc;
    *milliwatts = 250000;
    return kSuccess;
}

// Clock types: 0 graphics, 1 SM, 2 memory, 3 video.
__attribute__((visibility("default"))) nvmlReturn_t nvmlDeviceGetClockInfo(nvmlDevice_t device, int type,
                                                                           unsigned int* mhz) {
    const nvmlReturn_t rc = CheckDevice(device, "nvmlDeviceGetClockInfo");
    if (rc != kSuccess) return rc;
    if (type != 0 && type != 2) return kInvalidArgument;
    *mhz = type == 0 ? 1500 + device->index : 9501;
    return kSuccess;
}

__attribute__((visibility("default"))) nvmlReturn_t nvmlDeviceGetMaxClockInfo(nvmlDevice_t device, int type,
                                                                              unsigned int* mhz) {
    const nvmlReturn_t rc = CheckDevice(device, "nvmlDeviceGetMaxClockInfo");
    if (rc != kSuccess) return rc;
    if (type != 0 && type != 2) return kInvalidArgument;
    *mhz = type == 0 ? 2100 : 9751;
    return kSuccess;
}

__attribute__((visibility("default"))) nvmlReturn_t nvmlDeviceGetEncoderUtilization(nvmlDevice_t device,
                                                                                    unsigned int* utilization,
                                                                                    unsigned int* samplingPeriodUs) {
    const nvmlReturn_t rc = CheckDevice(device, "nvmlDeviceGetEncoderUtilization");
    if (rc != kSuccess) return rc;
    *utilization = 5;
    *samplingPeriodUs = 167000;
    return kSuccess;
}

#ifndef KORV_FAKE_NVML_INCOMPLETE
__attribute__((visibility("default"))) nvmlReturn_t nvmlDeviceGetDecoderUtilization(nvmlDevice_t device,
                                                                                    unsigned int* utilization,
                                                                                    unsigned int* samplingPeriodUs) {
    const nvmlReturn_t rc = CheckDevice(device, "nvmlDeviceGetDecoderUtilization");
    if (rc != kSuccess) return rc;
    *utilization = 0;
    *samplingPeriodUs = 167000;
    return kSuccess;
}
#endif

// For the tests only: how often the program called nvmlInit_v2 and nvmlShutdown.
__attribute__((visibility("default"))) unsigned int korvFakeNvmlInitCalls() { return TheState().initCalls; }
__attribute__((visibility("default"))) unsigned int korvFakeNvmlShutdownCalls() { return TheState().shutdownCalls; }

}  // extern "C"
