// The disk and network stages of one Collect tick, in microseconds per tick: on this machine's
// /proc and /sys, and on a generated tree of 64 whole block devices (each with a partition, a
// device link and queue attributes) and 64 interfaces (each with a device and driver link), which
// the benchmark builds in a temporary folder and removes at the end. Every tick after the first
// has rates, so the figures are those of a steady tick.
#include "providers/disk_collector.h"
#include "providers/network_collector.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

namespace {

namespace fs = std::filesystem;
using korv::providers::CollectContext;
using korv::providers::DiskCollector;
using korv::providers::NetworkCollector;
using korv::providers::ProviderRoots;

constexpr int kDevices = 64;

void Write(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
}

// A tree of kDevices disks sd0..sd63 (with partitions sdNp1) and interfaces eth0..eth63.
class GeneratedTree {
public:
    GeneratedTree() {
        std::string pattern = (fs::temp_directory_path() / "korv-device-bench-XXXXXX").native();
        if (::mkdtemp(pattern.data()) == nullptr) return;
        root_ = pattern;
        std::string diskstats;
        std::string netdev =
            "Inter-|   Receive                                                |  Transmit\n"
            " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls "
            "carrier compressed\n";
        Write(root_ / "proc/self/mountinfo", "28 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sd0p1 rw\n");
        for (int i = 0; i < kDevices; ++i) {
            const std::string n = std::to_string(i);
            const std::string disk = "sd" + n;
            const fs::path block = root_ / "sys/devices/block" / disk;
            Write(block / "size", "1953525168\n");
            Write(block / "queue/rotational", "0\n");
            Write(block / "queue/logical_block_size", "512\n");
            Write(block / "queue/scheduler", "[none] mq-deadline kyber\n");
            Write(block / (disk + "p1/partition"), "1\n");
            Write(root_ / "sys/devices/hw" / ("disk" + n) / "model", "Bench SSD " + n + "   \n");
            fs::create_directory_symlink("../../hw/disk" + n, block / "device");
            fs::create_directories(root_ / "sys/class/block");
            fs::create_directory_symlink("../../devices/block/" + disk, root_ / "sys/class/block" / disk);
            fs::create_directory_symlink("../../devices/block/" + disk + "/" + disk + "p1",
                                         root_ / "sys/class/block" / (disk + "p1"));
            diskstats += "8 " + std::to_string(i * 16) + " " + disk + " 1000 10 20000 400 2000 20 40000 800 0 1500 1200 0 0 0 0 0 0\n";
            diskstats += "8 " + std::to_string(i * 16 + 1) + " " + disk + "p1 900 10 18000 380 1900 20 38000 780 0 1400 1160 0 0 0 0 0 0\n";

            const std::string nic = "eth" + n;
            const fs::path net = root_ / "sys/devices/net" / nic;
            Write(net / "ifindex", std::to_string(i + 2) + "\n");
            char address[32];
            std::snprintf(address, sizeof address, "3c:7c:3f:00:01:%02x\n", i);
            Write(net / "address", address);
            Write(net / "mtu", "1500\n");
            Write(net / "operstate", "up\n");
            Write(net / "speed", "1000\n");
            Write(root_ / "sys/devices/hw" / ("nic" + n) / "vendor", "0x8086\n");
            fs::create_directory_symlink("../../hw/nic" + n, net / "device");
            fs::create_directories(root_ / "sys/bus/pci/drivers/e1000e");
            fs::create_directory_symlink("../../../bus/pci/drivers/e1000e", root_ / "sys/devices/hw" / ("nic" + n) / "driver");
            fs::create_directories(root_ / "sys/class/net");
            fs::create_directory_symlink("../../devices/net/" + nic, root_ / "sys/class/net" / nic);
            netdev += "  " + nic + ": 12000000 10000 0 0 0 0 0 0 3000000 4000 0 0 0 0 0 0\n";
        }
        fs::create_directories(root_ / "sys/dev/block");
        fs::create_directory_symlink("../../devices/block/sd0/sd0p1", root_ / "sys/dev/block/8:1");
        Write(root_ / "proc/diskstats", diskstats);
        Write(root_ / "proc/net/dev", netdev);
    }

    ~GeneratedTree() {
        std::error_code ignored;
        if (!root_.empty()) fs::remove_all(root_, ignored);
    }

    GeneratedTree(const GeneratedTree&) = delete;
    GeneratedTree& operator=(const GeneratedTree&) = delete;

    bool Ok() const { return !root_.empty(); }
    ProviderRoots Roots() const { return {root_ / "proc", root_ / "sys", "/nonexistent", "/nonexistent"}; }

private:
    fs::path root_;
};

std::uint64_t SteadyNs() {
    return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
}

// state.range(0): 1 the disk stage, 2 the network stage, 3 both.
void RunTicks(benchmark::State& state, const ProviderRoots& roots) {
    const bool disks = (state.range(0) & 1) != 0;
    const bool networks = (state.range(0) & 2) != 0;
    DiskCollector disk(roots);
    NetworkCollector network(roots);
    std::vector<korv::core::DeviceSnapshot> devices;
    CollectContext ctx;
    ctx.generation = 1;
    ctx.monotonicNs = SteadyNs();
    if (disks) disk.Collect(ctx, devices);
    if (networks) network.Collect(ctx, devices);
    bool ok = true;
    for (auto _ : state) {
        devices.clear();
        ++ctx.generation;
        ctx.monotonicNs = SteadyNs();
        if (disks) ok = disk.Collect(ctx, devices).ok && ok;
        if (networks) ok = network.Collect(ctx, devices).ok && ok;
        benchmark::DoNotOptimize(devices.data());
    }
    if (!ok) state.SkipWithError("a stage failed");
    state.counters["devices"] = static_cast<double>(devices.size());
}

void BM_DeviceStagesLive(benchmark::State& state) { RunTicks(state, ProviderRoots{}); }

void BM_DeviceStagesGenerated64(benchmark::State& state) {
    const GeneratedTree tree;
    if (!tree.Ok()) {
        state.SkipWithError("could not create the generated tree");
        return;
    }
    RunTicks(state, tree.Roots());
}

}  // namespace

BENCHMARK(BM_DeviceStagesLive)->ArgName("stages")->Arg(1)->Arg(2)->Arg(3)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DeviceStagesGenerated64)->ArgName("stages")->Arg(1)->Arg(2)->Arg(3)->Unit(benchmark::kMicrosecond);
