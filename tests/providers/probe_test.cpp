#include "core/json.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <string>
#include <sys/wait.h>

namespace korv::providers {
namespace {

struct ProbeRun {
    int status = -1;
    std::string output;
};

ProbeRun RunProbe(const std::string& arguments) {
    ProbeRun run;
    const std::string command = std::string(KORV_PROBE_BINARY) + " " + arguments + " 2>/dev/null";
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) return run;
    std::array<char, 65536> buffer;
    std::size_t got;
    while ((got = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0) run.output.append(buffer.data(), got);
    const int raw = ::pclose(pipe);
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return run;
}

TEST(ProbeTool, PrintsTheLastSnapshotAsOneJsonDocument) {
    const ProbeRun run = RunProbe("--ticks 2 --interval-ms 250 --compact");
    ASSERT_EQ(run.status, 0);
    core::JsonLimits limits = core::JsonLimits::Default();
    limits.maxValues = 10'000'000;
    limits.maxArrayElements = 1'000'000;
    const auto parsed = core::ParseJson(run.output, limits);
    ASSERT_TRUE(parsed.Ok()) << parsed.error.message;
    const core::JsonValue& root = *parsed.value;
    EXPECT_EQ(root.Find("generation")->AsUnsigned(), 2u);

    const core::JsonValue* cpu = root.Find("system")->Find("cpuUtilization");
    ASSERT_NE(cpu, nullptr);
    // An idle machine may show no busy tick between two samples: a measured zero.
    const std::string availability(cpu->Find("availability")->AsString());
    EXPECT_TRUE(availability == "valid" || availability == "zero") << availability;

    // The probe lists itself, named after its executable.
    bool sawProbe = false;
    for (const core::JsonValue& process : root.Find("processes")->Items()) {
        if (process.Find("name")->AsString() == "korv-probe") sawProbe = true;
    }
    EXPECT_TRUE(sawProbe);

    std::vector<std::string> providers;
    for (const core::JsonValue& row : root.Find("providers")->Items()) {
        providers.emplace_back(row.Find("provider")->AsString());
    }
    EXPECT_EQ(providers, (std::vector<std::string>{"linux.cpu", "linux.process", "linux.system", "linux.disk",
                                                   "linux.network", "linux.gpu.drm", "linux.gpu.nvml", "linux.hwmon",
                                                   "linux.power_supply", "linux.powercap", "linux.smart",
                                                   "sampling-engine"}));
    EXPECT_GT(root.Find("devices")->Size(), 0u);
    EXPECT_EQ(root.Find("capabilities")->Size(), 24u);
    ASSERT_TRUE(root.Find("telemetry")->IsObject());
    EXPECT_GT(root.Find("telemetry")->Find("metrics")->Size(), 0u);
}

TEST(ProbeTool, RefusesBadOptionsWithStatusTwo) {
    EXPECT_EQ(RunProbe("--interval-ms 300").status, 2);
    EXPECT_EQ(RunProbe("--ticks 0").status, 2);
    EXPECT_EQ(RunProbe("--ticks x").status, 2);
    EXPECT_EQ(RunProbe("--bogus").status, 2);
    EXPECT_EQ(RunProbe("--help").status, 0);
}

}  // namespace
}  // namespace korv::providers
