#pragma once

#include "core/snapshot.h"

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace korv::test {

// One scripted process. Keys are {pid, start}; a parent of pid 0 means none.
struct ScriptedProcess {
    std::uint32_t pid = 0;
    std::uint32_t parentPid = 0;
    std::string name;
    core::ProcessGroup group = core::ProcessGroup::background;
    double cpu = 0.0;
    std::uint64_t memory = 1024 * 1024;
    std::string user = "alice";
    std::string applicationKey;
    std::uint64_t start = 100;
    std::uint64_t parentStart = 100;

    ScriptedProcess& Group(core::ProcessGroup value) {
        group = value;
        return *this;
    }
    ScriptedProcess& Cpu(double value) {
        cpu = value;
        return *this;
    }
    ScriptedProcess& Memory(std::uint64_t value) {
        memory = value;
        return *this;
    }
    ScriptedProcess& User(std::string value) {
        user = std::move(value);
        return *this;
    }
    ScriptedProcess& Application(std::string value) {
        applicationKey = std::move(value);
        return *this;
    }
};

inline ScriptedProcess Scripted(std::uint32_t pid, std::uint32_t parentPid, std::string name) {
    ScriptedProcess process;
    process.pid = pid;
    process.parentPid = parentPid;
    process.name = std::move(name);
    return process;
}

inline core::ProcessSnapshot MakeScriptedProcess(const ScriptedProcess& spec) {
    core::ProcessSnapshot process;
    process.key = core::ProcessKey{spec.pid, spec.start};
    if (spec.parentPid != 0) process.parentKey = core::ProcessKey{spec.parentPid, spec.parentStart};
    process.name = spec.name;
    process.executablePath = "/usr/bin/" + spec.name;
    process.userName = spec.user;
    process.state = core::ProcessState::sleeping;
    process.group = spec.group;
    process.applicationKey = spec.applicationKey;
    process.cpuPercent.Set(spec.cpu);
    process.workingSetBytes.Set(spec.memory);
    process.virtualBytes.Set(spec.memory * 4);
    process.threadCount.Set(2);
    process.handleCount.Set(8);
    process.nice.Set(0.0);
    process.readBytesPerSecond.Set(0.0);
    process.writeBytesPerSecond.Set(0.0);
    return process;
}

// A snapshot of the given processes taken `milliseconds` into the run, with a known memory total.
inline std::shared_ptr<core::SystemSnapshot> ScriptedSnapshot(std::uint64_t generation,
                                                              const std::vector<ScriptedProcess>& processes,
                                                              std::uint64_t milliseconds = 0) {
    auto snapshot = std::make_shared<core::SystemSnapshot>();
    snapshot->schemaVersion = core::kSnapshotSchemaVersion;
    snapshot->generation = generation;
    snapshot->monotonicNs = (milliseconds == 0 ? generation * 1000 : milliseconds) * 1'000'000ULL;
    snapshot->logicalProcessorCount = 4;
    snapshot->memoryTotalBytes.Set(16ULL * 1024 * 1024 * 1024);
    for (const ScriptedProcess& spec : processes) snapshot->processes.push_back(MakeScriptedProcess(spec));
    return snapshot;
}

// A small desktop: an application with a helper child, a shell with a compiler under it, and a
// lone daemon.
inline std::vector<ScriptedProcess> DesktopProcesses() {
    std::vector<ScriptedProcess> processes;
    processes.push_back(Scripted(1, 0, "systemd").Cpu(0.5).Memory(12ULL << 20).User("root"));
    processes.push_back(
        Scripted(200, 1, "firefox").Group(core::ProcessGroup::apps).Cpu(12.0).Memory(800ULL << 20).Application("firefox"));
    processes.push_back(Scripted(201, 200, "firefox-helper")
                            .Group(core::ProcessGroup::apps)
                            .Cpu(3.0)
                            .Memory(200ULL << 20)
                            .Application("firefox"));
    processes.push_back(Scripted(300, 1, "bash").Cpu(0.0).Memory(5ULL << 20));
    processes.push_back(Scripted(301, 300, "gcc").Cpu(40.0).Memory(300ULL << 20));
    processes.push_back(Scripted(400, 1, "cron").Cpu(0.0).Memory(2ULL << 20).User("root"));
    return processes;
}

inline ScriptedProcess* FindScripted(std::vector<ScriptedProcess>& processes, std::uint32_t pid) {
    for (ScriptedProcess& process : processes) {
        if (process.pid == pid) return &process;
    }
    return nullptr;
}

}  // namespace korv::test
