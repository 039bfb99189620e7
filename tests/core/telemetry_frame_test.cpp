#include "core/telemetry_frame.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace korv::core {
namespace {

template <typename Enum>
std::string_view Text(std::uint32_t number) {
    return ToString(static_cast<Enum>(number));
}

struct EnumText {
    const char* enumName;
    std::uint32_t number;
    std::string_view (*text)(std::uint32_t);
    std::string_view expected;
};

TEST(TelemetryFrameTest, EnumTexts) {
    const auto device = &Text<TelemetryDeviceKind>;
    const auto category = &Text<MetricCategory>;
    const auto unit = &Text<MetricUnit>;
    const auto kind = &Text<MetricKind>;
    const auto tier = &Text<ProvenanceTier>;
    const EnumText table[] = {
        {"device", 0, device, "system"}, {"device", 1, device, "cpuPackage"}, {"device", 2, device, "cpuCore"},
        {"device", 3, device, "cpuCluster"}, {"device", 4, device, "cpuLogicalProcessor"},
        {"device", 5, device, "memory"}, {"device", 6, device, "gpu"}, {"device", 7, device, "npu"},
        {"device", 8, device, "storageDevice"}, {"device", 9, device, "volume"},
        {"device", 10, device, "networkInterface"}, {"device", 11, device, "battery"},
        {"device", 12, device, "motherboard"}, {"device", 13, device, "other"}, {"device", 14, device, "other"},
        {"device", 0xFFFFFFFFu, device, "other"},
        {"category", 0, category, "general"}, {"category", 1, category, "voltages"},
        {"category", 2, category, "temperatures"}, {"category", 3, category, "powers"},
        {"category", 4, category, "levels"}, {"category", 5, category, "utilization"},
        {"category", 6, category, "clocks"}, {"category", 7, category, "counters"}, {"category", 8, category, "speed"},
        {"category", 9, category, "smart"}, {"category", 10, category, "memory"},
        {"category", 11, category, "throughput"},
        {"unit", 0, unit, ""}, {"unit", 1, unit, "%"}, {"unit", 2, unit, "V"}, {"unit", 3, unit, "C"},
        {"unit", 4, unit, "W"}, {"unit", 5, unit, "J"}, {"unit", 6, unit, "Hz"}, {"unit", 7, unit, "B"},
        {"unit", 8, unit, "B/s"}, {"unit", 9, unit, "bit/s"}, {"unit", 10, unit, "s"}, {"unit", 11, unit, "ms"},
        {"unit", 12, unit, "count"}, {"unit", 13, unit, "RPM"}, {"unit", 14, unit, "T/s"}, {"unit", 15, unit, ""},
        {"unit", 16, unit, ""}, {"unit", 1000, unit, ""},
        {"kind", 0, kind, "gauge"}, {"kind", 1, kind, "monotonicCounter"}, {"kind", 2, kind, "derivedRate"},
        {"kind", 3, kind, "staticProperty"}, {"kind", 4, kind, "policyValue"},
        {"tier", 0, tier, "nativeOs"}, {"tier", 1, tier, "officialVendorApi"}, {"tier", 2, tier, "optionalPrivateApi"},
        {"tier", 3, tier, "commercialSdk"}, {"tier", 4, tier, "privilegedHelper"},
    };
    for (const auto& row : table) {
        EXPECT_EQ(row.text(row.number), row.expected) << row.enumName << " " << row.number;
    }
}

TelemetryMetric Metric(std::string id, std::string deviceId, MetricAvailability availability,
                       std::optional<double> number = std::nullopt, std::optional<std::string> text = std::nullopt) {
    TelemetryMetric metric;
    metric.id = std::move(id);
    metric.deviceId = std::move(deviceId);
    metric.availability = availability;
    metric.numericValue = number;
    metric.textValue = std::move(text);
    return metric;
}

TelemetryDevice Device(std::string id, TelemetryDeviceKind kind) {
    TelemetryDevice device;
    device.id = std::move(id);
    device.kind = kind;
    return device;
}

// Two interfaces carry the same per-interface ids; the aggregate sits on the system device.
HardwareTelemetryFrame Frame() {
    HardwareTelemetryFrame frame;
    frame.generation = 3;
    frame.monotonicNs = 1'000;
    frame.devices = {Device("system", TelemetryDeviceKind::system),
                     Device("net:eth0", TelemetryDeviceKind::networkInterface),
                     Device("net:wlan0", TelemetryDeviceKind::networkInterface)};
    using MA = MetricAvailability;
    frame.metrics = {Metric("network.aggregate.rx_bytes_per_second", "system", MA::valid, 300.0),
                     Metric("network.rx_bytes_per_second", "net:eth0", MA::valid, 100.0),
                     Metric("network.rx_bytes_per_second", "net:wlan0", MA::zero, 0.0),
                     Metric("network.link_bits_per_second", "net:wlan0", MA::accessDenied),
                     Metric("system.power.input_w", "system", MA::notYetAvailable),
                     Metric("os.name", "system", MA::stale, std::nullopt, std::string("Linux"))};
    return frame;
}

struct FrameCase {
    const char* name;
    std::function<void(HardwareTelemetryFrame&)> mutate;
    bool valid;
};

TEST(TelemetryFrameTest, IsValid) {
    using MA = MetricAvailability;
    using F = HardwareTelemetryFrame;
    const FrameCase cases[] = {
        {"as built", [](F&) {}, true},
        {"empty frame", [](F& f) { f = F{}; }, true},
        {"ids without any scheme", [](F& f) { f.metrics[0].id = "Any Text at all"; }, true},
        {"duplicate device ids", [](F& f) { f.devices.push_back(Device("net:eth0", TelemetryDeviceKind::other)); },
         false},
        {"metric names a missing device", [](F& f) { f.metrics[1].deviceId = "net:eth1"; }, false},
        {"number with accessDenied", [](F& f) { f.metrics[3].numericValue = 5.0; }, false},
        {"text with unsupported", [](F& f) { f.metrics.push_back(Metric("t", "system", MA::unsupported, {}, "x")); },
         false},
        {"number with notYetAvailable", [](F& f) { f.metrics[4].numericValue = 0.0; }, false},
        {"valid without a value", [](F& f) { f.metrics[1].numericValue.reset(); }, false},
    };
    for (const auto& c : cases) {
        HardwareTelemetryFrame frame = Frame();
        c.mutate(frame);
        EXPECT_EQ(IsValid(frame), c.valid) << c.name;
    }
}

TEST(TelemetryFrameTest, FindByIdAndDevice) {
    const HardwareTelemetryFrame frame = Frame();
    const TelemetryMetric* first = frame.Find("network.rx_bytes_per_second");
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->deviceId, "net:eth0");
    EXPECT_EQ(first->numericValue, 100.0);
    const TelemetryMetric* wlan = frame.Find("network.rx_bytes_per_second", "net:wlan0");
    ASSERT_NE(wlan, nullptr);
    EXPECT_EQ(wlan, &frame.metrics[2]);
    EXPECT_EQ(frame.Find("network.rx_bytes_per_second", "system"), nullptr);
    EXPECT_EQ(frame.Find("network.rx_bytes_per_second", "net:eth1"), nullptr);
    EXPECT_EQ(frame.Find("network.rx_bytes"), nullptr);
    const TelemetryMetric* withoutValue = frame.Find("system.power.input_w");
    ASSERT_NE(withoutValue, nullptr);
    EXPECT_EQ(withoutValue->availability, MetricAvailability::notYetAvailable);
    EXPECT_FALSE(withoutValue->numericValue.has_value());
    ASSERT_NE(frame.FindDevice("net:wlan0"), nullptr);
    EXPECT_EQ(frame.FindDevice("net:wlan0")->kind, TelemetryDeviceKind::networkInterface);
    EXPECT_EQ(frame.FindDevice("net"), nullptr);
}

TEST(TelemetryFrameTest, MergeAddsOnlyWhatIsMissingAndStaysValid) {
    HardwareTelemetryFrame into = Frame();
    HardwareTelemetryFrame from;
    TelemetryDevice known = Device("net:eth0", TelemetryDeviceKind::networkInterface);
    known.properties = {{"driver", "virtio_net"}};
    from.devices.push_back(known);
    from.devices.push_back(Device("system/hwmon/it8686", TelemetryDeviceKind::other));
    from.metrics.push_back(Metric("network.rx_bytes_per_second", "net:eth0", MetricAvailability::valid, 999.0));
    from.metrics.push_back(Metric("hwmon.it8686.fan1", "system/hwmon/it8686", MetricAvailability::valid, 1200.0));
    from.metrics.push_back(Metric("hwmon.it8686.fan1", "system/hwmon/it8686", MetricAvailability::valid, 1300.0));
    const std::size_t devicesBefore = into.devices.size();
    const std::size_t metricsBefore = into.metrics.size();

    MergeTelemetryFrame(into, from);

    EXPECT_TRUE(IsValid(into));
    EXPECT_EQ(into.devices.size(), devicesBefore + 1);
    EXPECT_EQ(into.metrics.size(), metricsBefore + 1);
    EXPECT_EQ(*into.Find("network.rx_bytes_per_second", "net:eth0")->numericValue, 100.0);  // the frame's own wins
    EXPECT_EQ(*into.Find("hwmon.it8686.fan1")->numericValue, 1200.0);
    const TelemetryDevice* eth0 = into.FindDevice("net:eth0");
    ASSERT_NE(eth0, nullptr);
    ASSERT_EQ(eth0->properties.size(), 1U);
    EXPECT_EQ(eth0->properties[0].second, "virtio_net");
}

}  // namespace
}  // namespace korv::core
