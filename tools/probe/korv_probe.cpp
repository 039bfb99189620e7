// korv-probe: runs the Linux provider through the sampling engine and prints the last published
// snapshot as one JSON document on standard output.
#include "core/json.h"
#include "core/sampling_engine.h"
#include "providers/platform_services.h"
#include "tools/probe/snapshot_json.h"

#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <string_view>

namespace {

using namespace korv;

constexpr const char* kUsage =
    "Usage: korv-probe [--ticks N] [--interval-ms M] [--compact]\n"
    "\n"
    "Samples the machine through the provider and the sampling engine N times (default 2) at an\n"
    "interval of M milliseconds (250, 500, 1000 or 2000; default 250) and prints the last published\n"
    "snapshot as JSON. The first sample has no rates, so N of 2 or more shows CPU figures.\n";

struct Options {
    std::uint64_t ticks = 2;
    core::Cadence cadence = core::Cadence::high;
    bool compact = false;
};

bool ParseUnsigned(std::string_view text, std::uint64_t& out) {
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return ec == std::errc{} && end == text.data() + text.size();
}

// Returns an exit status when the program should end at once.
std::optional<int> ParseOptions(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (arg == "--compact") {
            options.compact = true;
            continue;
        }
        if ((arg == "--ticks" || arg == "--interval-ms") && i + 1 < argc) {
            std::uint64_t value = 0;
            if (!ParseUnsigned(argv[++i], value)) {
                std::fprintf(stderr, "korv-probe: %s needs a whole number, not \"%s\"\n", argv[i - 1], argv[i]);
                return 2;
            }
            if (arg == "--ticks") {
                if (value == 0 || value > 10000) {
                    std::fputs("korv-probe: --ticks must be from 1 to 10000\n", stderr);
                    return 2;
                }
                options.ticks = value;
            } else if (value == 250) {
                options.cadence = core::Cadence::high;
            } else if (value == 500) {
                options.cadence = core::Cadence::medium;
            } else if (value == 1000) {
                options.cadence = core::Cadence::normal;
            } else if (value == 2000) {
                options.cadence = core::Cadence::slow;
            } else {
                std::fputs("korv-probe: --interval-ms must be 250, 500, 1000 or 2000\n", stderr);
                return 2;
            }
            continue;
        }
        std::fprintf(stderr, "korv-probe: unknown or incomplete option \"%s\"\n\n%s", argv[i], kUsage);
        return 2;
    }
    return std::nullopt;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (auto status = ParseOptions(argc, argv, options)) return *status;

    auto services = providers::CreatePlatformServices();
    std::mutex mutex;
    std::condition_variable published;
    std::shared_ptr<const core::SystemSnapshot> last;
    std::uint64_t count = 0;

    core::SamplingEngine engine(
        services->SnapshotSource(),
        [&](std::shared_ptr<const core::SystemSnapshot> snapshot) {
            std::lock_guard lock(mutex);
            last = std::move(snapshot);
            ++count;
            published.notify_all();
        },
        options.cadence);
    engine.Start();
    {
        const auto interval = std::chrono::nanoseconds(core::CadenceIntervalNs(options.cadence));
        const auto patience = interval * (options.ticks * 4) + std::chrono::seconds(10);
        std::unique_lock lock(mutex);
        published.wait_for(lock, patience, [&] { return count >= options.ticks; });
    }
    engine.Stop();

    if (!last) {
        std::fputs("korv-probe: the engine published no snapshot\n", stderr);
        return 1;
    }
    try {
        core::JsonWriter writer(!options.compact);
        probe::WriteSnapshot(writer, *last);
        std::string text = writer.Finish();
        text += '\n';
        std::fwrite(text.data(), 1, text.size(), stdout);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "korv-probe: could not write the snapshot: %s\n", error.what());
        return 1;
    }
    return count >= options.ticks ? 0 : 1;
}
