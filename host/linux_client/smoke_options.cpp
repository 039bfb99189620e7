#include "host/linux_client/smoke_options.h"

#include <array>
#include <limits>

namespace korv::host::linux_client {
namespace {

struct PageEntry {
    const char* name;
    std::array<const char*, 3> aliases;
};

// Indexed by page number. 4 and 9 stand here only so that their names are known and refused.
constexpr std::array<PageEntry, kPageNumberCount> kPages{{
    {"summary", {}},
    {"performance", {}},
    {"processes", {"details"}},
    {"system-info", {"system"}},
    {"app-history", {"apphistory"}},
    {"startup", {"startup-apps"}},
    {"users", {}},
    {"services", {}},
    {"power-and-freq", {"power-freq", "power", "powerandfreq"}},
    {"apple-silicon", {}},
    {"flight-recorder", {"flight", "recorder", "ai"}},
    {"connections", {"network-connections"}},
    {"installed-apps", {"installedapps", "apps"}},
    {"drivers", {"kernel-modules", "modules"}},
    {"disk-space", {"diskspace", "disk"}},
    {"benchmarks", {"benchmark"}},
    {"settings", {}},
}};

struct DeviceEntry {
    const char* name;
    core::DeviceKind kind;
};

constexpr std::array<DeviceEntry, 10> kDevices{{
    {"cpu", core::DeviceKind::cpu},
    {"memory", core::DeviceKind::memory},
    {"disk", core::DeviceKind::disk},
    {"network", core::DeviceKind::network},
    {"gpu", core::DeviceKind::gpu},
    {"npu", core::DeviceKind::npu},
    {"energy", core::DeviceKind::energy},
    {"power", core::DeviceKind::energy},
    {"thermals", core::DeviceKind::thermals},
    {"temperature", core::DeviceKind::thermals},
}};

constexpr std::array<const char*, 5> kDisplayModes{"color", "mono", "green", "amber", "blue"};
constexpr std::array<const char*, 3> kWindowSizes{"normal", "narrow", "wide"};
constexpr std::array<const char*, 6> kRecordingTargets{"summary",         "performance", "power-and-freq",
                                                       "flight-recorder", "benchmarks",  "disk-space"};

constexpr std::int32_t kDefaultRecordSeconds = 5;

template <std::size_t N>
int IndexOf(const std::array<const char*, N>& words, const QString& value)
{
    for (std::size_t i = 0; i < N; ++i) {
        if (value == QLatin1String(words[i])) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

template <std::size_t N>
QString JoinWords(const std::array<const char*, N>& words)
{
    QStringList list;
    for (const char* word : words) {
        list << QString::fromLatin1(word);
    }
    return list.join(QStringLiteral(", "));
}

QString StackPageNames()
{
    QStringList names;
    for (int index = 0; index < kStackPageCount; ++index) {
        names << PageName(PageForStackIndex(index));
    }
    return names.join(QStringLiteral(", "));
}

// A whole number of seconds, 1 or more, that fits the record: digits only, no sign, no spaces.
std::optional<std::int32_t> ParseSeconds(const QString& text)
{
    if (text.isEmpty()) {
        return std::nullopt;
    }
    qint64 value = 0;
    for (const QChar c : text) {
        if (c < QLatin1Char('0') || c > QLatin1Char('9')) {
            return std::nullopt;
        }
        value = value * 10 + (c.unicode() - '0');
        if (value > std::numeric_limits<std::int32_t>::max()) {
            return std::nullopt;
        }
    }
    if (value < 1) {
        return std::nullopt;
    }
    return static_cast<std::int32_t>(value);
}

class Parser {
public:
    SmokeOptions Run(const QStringList& arguments)
    {
        for (qsizetype i = 1; i < arguments.size(); ++i) {
            const QString& argument = arguments.at(i);
            if (argument == QLatin1String("--language")) {
                ++i;  // the code that follows belongs to the language step
                continue;
            }
            if (!TryCaptureAndRecord(argument)) {
                TryTable(argument);
            }
        }
        Finish();
        return options_;
    }

private:
    static bool TakeValue(const QString& argument, const char* prefix, QString& value)
    {
        const QLatin1String latinPrefix(prefix);
        if (!argument.startsWith(latinPrefix)) {
            return false;
        }
        value = argument.mid(latinPrefix.size());
        return true;
    }

    void Fail(const QString& message)
    {
        // The first error written stands: it is the one the user should correct first.
        if (!options_.error) {
            options_.error = message;
        }
    }

    bool TryCaptureAndRecord(const QString& argument)
    {
        QString value;
        if (TakeValue(argument, "--capture=", value)) {
            options_.enabled = true;
            options_.capturePath = value;
            return true;
        }
        if (TakeValue(argument, "--capture-scope=", value)) {
            options_.enabled = true;
            value = value.toLower();
            if (value == QLatin1String("window")) {
                options_.captureScope = CaptureScope::window;
            } else if (value == QLatin1String("page")) {
                options_.captureScope = CaptureScope::page;
            } else {
                Fail(QStringLiteral("unknown --capture-scope value '%1'. Valid values: window, page").arg(value));
            }
            return true;
        }
        if (TakeValue(argument, "--record=", value)) {
            options_.enabled = true;
            value = value.toLower();
            const int index = IndexOf(kRecordingTargets, value);
            if (index < 0) {
                Fail(QStringLiteral("unknown --record value '%1'. Valid values: %2")
                         .arg(value, JoinWords(kRecordingTargets)));
            } else {
                options_.recordTarget = static_cast<RecordingTarget>(index);
                if (options_.recordSeconds < 1) {
                    options_.recordSeconds = kDefaultRecordSeconds;
                }
            }
            return true;
        }
        if (TakeValue(argument, "--record-seconds=", value)) {
            options_.enabled = true;
            value = value.toLower();
            if (const auto seconds = ParseSeconds(value)) {
                options_.recordSeconds = *seconds;
            } else {
                Fail(QStringLiteral("unknown --record-seconds value '%1'. Valid values: a whole number of "
                                    "seconds, 1 or more")
                         .arg(value));
            }
            return true;
        }
        return false;
    }

    void TryTable(const QString& argument)
    {
        QString value;
        if (argument == QLatin1String("--smoke")) {
            options_.enabled = true;
        } else if (argument == QLatin1String("--cycle-pages")) {
            options_.enabled = true;
            options_.cyclePages = true;
        } else if (TakeValue(argument, "--page=", value)) {
            options_.enabled = true;
            value = value.toLower();
            const std::optional<int> page = PageForName(value);
            if (page && StackIndexForPage(*page) >= 0) {
                options_.page = *page;
            } else {
                Fail(QStringLiteral("unknown --page value '%1'. Valid values: %2").arg(value, StackPageNames()));
            }
        } else if (argument == QLatin1String("--scan") || TakeValue(argument, "--scan=", value)) {
            options_.enabled = true;
            options_.page = kDiskSpacePage;
            options_.scanTarget = value;
        } else if (TakeValue(argument, "--device=", value)) {
            ParseDevice(value.toLower());
        } else if (TakeValue(argument, "--theme=", value)) {
            options_.enabled = true;
            value = value.toLower();
            if (value == QLatin1String("dark")) {
                options_.theme = ThemeChoice::dark;
            } else if (value == QLatin1String("light")) {
                options_.theme = ThemeChoice::light;
            } else {
                Fail(QStringLiteral("unknown --theme value '%1'. Valid values: dark, light").arg(value));
            }
        } else if (TakeValue(argument, "--display=", value)) {
            options_.enabled = true;
            value = value.toLower();
            const int index = IndexOf(kDisplayModes, value);
            if (index < 0) {
                Fail(QStringLiteral("unknown --display value '%1'. Valid values: %2").arg(value, JoinWords(kDisplayModes)));
            } else {
                options_.displayMode = static_cast<DisplayModeChoice>(index);
            }
        } else if (argument == QLatin1String("--show-popout") || argument == QLatin1String("--show-desktop-widget")) {
            options_.enabled = true;
            options_.popoutMode = PopoutModeChoice::normal;
        } else if (TakeValue(argument, "--popout-skin=", value)) {
            options_.enabled = true;
            if (value.trimmed().isEmpty()) {
                Fail(QStringLiteral("--popout-skin requires a non-empty skin identifier"));
            } else {
                options_.popoutSkin = value;
            }
        } else if (TakeValue(argument, "--window-size=", value)) {
            options_.enabled = true;
            value = value.toLower();
            const int index = IndexOf(kWindowSizes, value);
            if (index < 0) {
                Fail(QStringLiteral("unknown --window-size value '%1'. Valid values: normal, narrow, wide").arg(value));
            } else {
                options_.windowSize = static_cast<WindowSizeChoice>(index);
            }
        }
    }

    void ParseDevice(const QString& value)
    {
        options_.enabled = true;
        options_.page = kPerformancePage;
        for (const DeviceEntry& entry : kDevices) {
            if (value == QLatin1String(entry.name)) {
                options_.device = entry.kind;
                return;
            }
        }
        options_.device = core::DeviceKind::cpu;
        Fail(QStringLiteral("unknown --device value '%1'. Valid values: cpu, memory, disk, network, gpu, npu, "
                            "energy, thermals")
                 .arg(value));
    }

    void Finish()
    {
        if (options_.enabled && !options_.cyclePages && !options_.page) {
            options_.page = 0;
        }
        if (options_.recordSeconds >= 1 && !options_.recordTarget && !options_.error) {
            options_.error = QStringLiteral("--record-seconds needs --record=<target> to say what to film");
        }
    }

    SmokeOptions options_;
};

}  // namespace

SmokeOptions ParseSmokeOptions(const QStringList& arguments)
{
    return Parser().Run(arguments);
}

int StackIndexForPage(int pageNumber)
{
    if (pageNumber < 0 || pageNumber >= kPageNumberCount || pageNumber == 4 || pageNumber == 9) {
        return -1;
    }
    if (pageNumber < 4) {
        return pageNumber;
    }
    return pageNumber < 9 ? pageNumber - 1 : pageNumber - 2;
}

int PageForStackIndex(int stackIndex)
{
    if (stackIndex < 0 || stackIndex >= kStackPageCount) {
        return -1;
    }
    if (stackIndex < 4) {
        return stackIndex;
    }
    return stackIndex < 8 ? stackIndex + 1 : stackIndex + 2;
}

QString PageName(int pageNumber)
{
    if (pageNumber < 0 || pageNumber >= kPageNumberCount) {
        return {};
    }
    return QString::fromLatin1(kPages[static_cast<std::size_t>(pageNumber)].name);
}

std::optional<int> PageForName(const QString& name)
{
    const QString lower = name.toLower();
    for (std::size_t page = 0; page < kPages.size(); ++page) {
        if (lower == QLatin1String(kPages[page].name)) {
            return static_cast<int>(page);
        }
        for (const char* alias : kPages[page].aliases) {
            if (alias != nullptr && lower == QLatin1String(alias)) {
                return static_cast<int>(page);
            }
        }
    }
    return std::nullopt;
}

QString RecordingTargetName(RecordingTarget target)
{
    const auto index = static_cast<std::size_t>(target);
    return index < kRecordingTargets.size() ? QString::fromLatin1(kRecordingTargets[index]) : QString();
}

}  // namespace korv::host::linux_client
