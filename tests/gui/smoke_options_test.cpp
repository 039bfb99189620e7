#include <gtest/gtest.h>

#include <cctype>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "host/linux_client/smoke_options.h"

namespace korv::host::linux_client {
namespace {

using core::DeviceKind;

const QString kPageList = QStringLiteral(
    "summary, performance, processes, system-info, startup, users, services, power-and-freq, flight-recorder, "
    "connections, installed-apps, drivers, disk-space, benchmarks, settings");
const QString kDeviceList = QStringLiteral("cpu, memory, disk, network, gpu, npu, energy, thermals");
const QString kRecordList =
    QStringLiteral("summary, performance, power-and-freq, flight-recorder, benchmarks, disk-space");

std::optional<std::string> Utf8(const std::optional<QString>& text)
{
    return text ? std::optional<std::string>(text->toStdString()) : std::nullopt;
}

template <typename Enum>
std::optional<int> Number(const std::optional<Enum>& value)
{
    return value ? std::optional<int>(static_cast<int>(*value)) : std::nullopt;
}

void ExpectSameRecord(const SmokeOptions& actual, const SmokeOptions& expected)
{
    EXPECT_EQ(actual.enabled, expected.enabled);
    EXPECT_EQ(actual.cyclePages, expected.cyclePages);
    EXPECT_EQ(actual.page, expected.page);
    EXPECT_EQ(Number(actual.device), Number(expected.device));
    EXPECT_EQ(Number(actual.theme), Number(expected.theme));
    EXPECT_EQ(Number(actual.windowSize), Number(expected.windowSize));
    EXPECT_EQ(Number(actual.displayMode), Number(expected.displayMode));
    EXPECT_EQ(Number(actual.popoutMode), Number(expected.popoutMode));
    EXPECT_EQ(Utf8(actual.popoutSkin), Utf8(expected.popoutSkin));
    EXPECT_EQ(Utf8(actual.scanTarget), Utf8(expected.scanTarget));
    EXPECT_EQ(actual.capturePath.toStdString(), expected.capturePath.toStdString());
    EXPECT_EQ(static_cast<int>(actual.captureScope), static_cast<int>(expected.captureScope));
    EXPECT_EQ(Number(actual.recordTarget), Number(expected.recordTarget));
    EXPECT_EQ(actual.recordSeconds, expected.recordSeconds);
    EXPECT_EQ(Utf8(actual.error), Utf8(expected.error));
}

SmokeOptions Parse(const QStringList& arguments)
{
    return ParseSmokeOptions(QStringList{QStringLiteral("korv-task-manager")} + arguments);
}

struct ParseCase {
    const char* name;
    QStringList arguments;
    SmokeOptions expected;
};

void PrintTo(const ParseCase& parseCase, std::ostream* out)
{
    *out << parseCase.name << ": " << parseCase.arguments.join(QLatin1Char(' ')).toStdString();
}

// Smoke mode with the page that a smoke run opens when none was chosen.
SmokeOptions Smoke(int page = 0)
{
    SmokeOptions options;
    options.enabled = true;
    options.page = page;
    return options;
}

SmokeOptions Failed(const QString& error, int page = 0)
{
    SmokeOptions options = Smoke(page);
    options.error = error;
    return options;
}

template <typename Change>
SmokeOptions With(SmokeOptions options, Change change)
{
    change(options);
    return options;
}

std::vector<ParseCase> ParseCases()
{
    std::vector<ParseCase> cases = {
        {"NoArguments", {}, SmokeOptions{}},
        {"ToolkitAndUnknownArgumentsPassThrough",
         {"-platform", "offscreen", "--style=fusion", "--verbose", "--capture", "--scanner"},
         SmokeOptions{}},
        {"OptionNamesAreCaseSensitive", {"--SMOKE", "--Page=users", "--THEME=dark"}, SmokeOptions{}},
        {"EntryOptionsStayOutOfTheRecord",
         {"--self-test", "--language-relaunch", "--reset-settings", "--screensaver", "--register-screensaver"},
         SmokeOptions{}},
        {"LanguageTakesTheNextArgument", {"--language", "--smoke"}, SmokeOptions{}},
        {"LanguagePairThenSmoke", {"--language", "de", "--smoke"}, Smoke()},
        {"SmokeAloneOpensSummary", {"--smoke"}, Smoke()},
        {"CyclePagesLeavesPageUnset", {"--cycle-pages"},
         With(SmokeOptions{}, [](SmokeOptions& o) { o.enabled = true; o.cyclePages = true; })},
        {"CyclePagesKeepsAnExplicitPage", {"--cycle-pages", "--page=users"},
         With(Smoke(6), [](SmokeOptions& o) { o.cyclePages = true; })},
        {"PageMatchesWithoutCase", {"--page=System"}, Smoke(3)},
        {"LaterPageWins", {"--page=users", "--page=drivers"}, Smoke(13)},
        {"PageAppHistoryRefused", {"--page=app-history"},
         Failed(QStringLiteral("unknown --page value 'app-history'. Valid values: ") + kPageList)},
        {"PageAppHistoryAliasRefused", {"--page=AppHistory"},
         Failed(QStringLiteral("unknown --page value 'apphistory'. Valid values: ") + kPageList)},
        {"PageAppleSiliconRefused", {"--page=apple-silicon"},
         Failed(QStringLiteral("unknown --page value 'apple-silicon'. Valid values: ") + kPageList)},
        {"PageEmptyRefused", {"--page="}, Failed(QStringLiteral("unknown --page value ''. Valid values: ") + kPageList)},
        {"PageUnknownReportedLowerCased", {"--page=Bogus"},
         Failed(QStringLiteral("unknown --page value 'bogus'. Valid values: ") + kPageList)},
        {"ScanWithoutTarget", {"--scan"}, With(Smoke(14), [](SmokeOptions& o) { o.scanTarget = QString(); })},
        {"ScanTargetKeepsItsCase", {"--scan=/Home/Data"},
         With(Smoke(14), [](SmokeOptions& o) { o.scanTarget = QStringLiteral("/Home/Data"); })},
        {"ScanEmptyTarget", {"--scan="}, With(Smoke(14), [](SmokeOptions& o) { o.scanTarget = QString(); })},
        {"DeviceUnknownFallsBackToCpu", {"--device=Floppy"},
         With(Failed(QStringLiteral("unknown --device value 'floppy'. Valid values: ") + kDeviceList, 1),
              [](SmokeOptions& o) { o.device = DeviceKind::cpu; })},
        {"ThemeDark", {"--theme=dark"}, With(Smoke(), [](SmokeOptions& o) { o.theme = ThemeChoice::dark; })},
        {"ThemeLightAnyCase", {"--theme=LIGHT"}, With(Smoke(), [](SmokeOptions& o) { o.theme = ThemeChoice::light; })},
        {"ThemeUnknown", {"--theme=Blue"},
         Failed(QStringLiteral("unknown --theme value 'blue'. Valid values: dark, light"))},
        {"DisplayUnknown", {"--display=Red"},
         Failed(QStringLiteral("unknown --display value 'red'. Valid values: color, mono, green, amber, blue"))},
        {"ShowPopout", {"--show-popout"},
         With(Smoke(), [](SmokeOptions& o) { o.popoutMode = PopoutModeChoice::normal; })},
        {"ShowDesktopWidget", {"--show-desktop-widget"},
         With(Smoke(), [](SmokeOptions& o) { o.popoutMode = PopoutModeChoice::normal; })},
        {"PopoutSkinKeepsItsCase", {"--popout-skin=Com.Korv.Console"},
         With(Smoke(), [](SmokeOptions& o) { o.popoutSkin = QStringLiteral("Com.Korv.Console"); })},
        {"PopoutSkinEmpty", {"--popout-skin="}, Failed(QStringLiteral("--popout-skin requires a non-empty skin identifier"))},
        {"PopoutSkinBlank", {"--popout-skin=  "},
         Failed(QStringLiteral("--popout-skin requires a non-empty skin identifier"))},
        {"WindowSizeNarrow", {"--window-size=Narrow"},
         With(Smoke(), [](SmokeOptions& o) { o.windowSize = WindowSizeChoice::narrow; })},
        {"WindowSizeWide", {"--window-size=wide"},
         With(Smoke(), [](SmokeOptions& o) { o.windowSize = WindowSizeChoice::wide; })},
        {"WindowSizeNormal", {"--window-size=normal"},
         With(Smoke(), [](SmokeOptions& o) { o.windowSize = WindowSizeChoice::normal; })},
        {"WindowSizeUnknown", {"--window-size=huge"},
         Failed(QStringLiteral("unknown --window-size value 'huge'. Valid values: normal, narrow, wide"))},
        {"CapturePathKeepsItsCase", {"--capture=/Tmp/Shot.PNG"},
         With(Smoke(), [](SmokeOptions& o) { o.capturePath = QStringLiteral("/Tmp/Shot.PNG"); })},
        {"CaptureScopePage", {"--capture-scope=PAGE"},
         With(Smoke(), [](SmokeOptions& o) { o.captureScope = CaptureScope::page; })},
        {"CaptureScopeWindowAfterPage", {"--capture-scope=page", "--capture-scope=window"}, Smoke()},
        {"CaptureScopeUnknown", {"--capture-scope=Screen"},
         Failed(QStringLiteral("unknown --capture-scope value 'screen'. Valid values: window, page"))},
        {"RecordAloneFilmsFiveSeconds", {"--record=summary"},
         With(Smoke(), [](SmokeOptions& o) { o.recordTarget = RecordingTarget::summary; o.recordSeconds = 5; })},
        {"RecordSecondsAfterRecord", {"--record=Disk-Space", "--record-seconds=9"},
         With(Smoke(), [](SmokeOptions& o) { o.recordTarget = RecordingTarget::diskSpace; o.recordSeconds = 9; })},
        {"RecordSecondsBeforeRecordIsKept", {"--record-seconds=2", "--record=benchmarks"},
         With(Smoke(), [](SmokeOptions& o) { o.recordTarget = RecordingTarget::benchmarks; o.recordSeconds = 2; })},
        {"RecordUnknown", {"--record=video"},
         Failed(QStringLiteral("unknown --record value 'video'. Valid values: ") + kRecordList)},
        {"RecordSecondsWithoutTarget", {"--record-seconds=3"},
         With(Failed(QStringLiteral("--record-seconds needs --record=<target> to say what to film")),
              [](SmokeOptions& o) { o.recordSeconds = 3; })},
        {"RecordSecondsLargestValue", {"--record=summary", "--record-seconds=2147483647"},
         With(Smoke(), [](SmokeOptions& o) { o.recordTarget = RecordingTarget::summary; o.recordSeconds = 2147483647; })},
        {"FirstErrorStands", {"--theme=x", "--display=y", "--page=z"},
         Failed(QStringLiteral("unknown --theme value 'x'. Valid values: dark, light"))},
        {"ParseErrorHidesTheMissingRecordTarget", {"--record-seconds=4", "--window-size=tiny"},
         With(Failed(QStringLiteral("unknown --window-size value 'tiny'. Valid values: normal, narrow, wide")),
              [](SmokeOptions& o) { o.recordSeconds = 4; })},
    };

    const std::vector<std::pair<const char*, int>> pages = {
        {"summary", 0},        {"performance", 1},     {"processes", 2},           {"details", 2},
        {"system-info", 3},    {"system", 3},          {"startup", 5},             {"startup-apps", 5},
        {"users", 6},          {"services", 7},        {"power-and-freq", 8},      {"power-freq", 8},
        {"power", 8},          {"powerandfreq", 8},    {"flight-recorder", 10},    {"flight", 10},
        {"recorder", 10},      {"ai", 10},             {"connections", 11},        {"network-connections", 11},
        {"installed-apps", 12}, {"installedapps", 12}, {"apps", 12},               {"drivers", 13},
        {"kernel-modules", 13}, {"modules", 13},       {"disk-space", 14},         {"diskspace", 14},
        {"disk", 14},          {"benchmarks", 15},     {"benchmark", 15},          {"settings", 16},
        {"DiSk-SpAcE", 14},    {"AI", 10},
    };
    for (const auto& [name, page] : pages) {
        cases.push_back({name, {QStringLiteral("--page=") + QLatin1String(name)}, Smoke(page)});
    }

    const std::vector<std::pair<const char*, DeviceKind>> devices = {
        {"cpu", DeviceKind::cpu},         {"memory", DeviceKind::memory},   {"disk", DeviceKind::disk},
        {"network", DeviceKind::network}, {"gpu", DeviceKind::gpu},         {"npu", DeviceKind::npu},
        {"energy", DeviceKind::energy},   {"power", DeviceKind::energy},    {"thermals", DeviceKind::thermals},
        {"temperature", DeviceKind::thermals}, {"GPU", DeviceKind::gpu},
    };
    for (const auto& [name, kind] : devices) {
        const DeviceKind device = kind;
        cases.push_back({name, {QStringLiteral("--device=") + QLatin1String(name)},
                         With(Smoke(1), [device](SmokeOptions& o) { o.device = device; })});
    }

    const std::vector<std::pair<const char*, DisplayModeChoice>> displays = {
        {"color", DisplayModeChoice::color}, {"mono", DisplayModeChoice::mono},   {"green", DisplayModeChoice::green},
        {"amber", DisplayModeChoice::amber}, {"blue", DisplayModeChoice::blue},   {"Amber", DisplayModeChoice::amber},
    };
    for (const auto& [name, mode] : displays) {
        const DisplayModeChoice choice = mode;
        cases.push_back({name, {QStringLiteral("--display=") + QLatin1String(name)},
                         With(Smoke(), [choice](SmokeOptions& o) { o.displayMode = choice; })});
    }

    const std::vector<std::pair<const char*, RecordingTarget>> targets = {
        {"summary", RecordingTarget::summary},          {"performance", RecordingTarget::performance},
        {"power-and-freq", RecordingTarget::powerAndFreq}, {"flight-recorder", RecordingTarget::flightRecorder},
        {"benchmarks", RecordingTarget::benchmarks},    {"disk-space", RecordingTarget::diskSpace},
    };
    for (const auto& [name, target] : targets) {
        const RecordingTarget chosen = target;
        cases.push_back({name, {QStringLiteral("--record=") + QLatin1String(name)},
                         With(Smoke(), [chosen](SmokeOptions& o) { o.recordTarget = chosen; o.recordSeconds = 5; })});
    }

    for (const char* bad : {"0", "x", "-1", "+3", " 3", "3s", "", "2147483648", "99999999999999999999"}) {
        cases.push_back({"RecordSecondsRefused", {QStringLiteral("--record-seconds=") + QLatin1String(bad)},
                         Failed(QStringLiteral("unknown --record-seconds value '%1'. Valid values: a whole number of "
                                               "seconds, 1 or more")
                                    .arg(QLatin1String(bad)))});
    }
    return cases;
}

class SmokeOptionsParse : public testing::TestWithParam<ParseCase> {};

TEST_P(SmokeOptionsParse, FillsTheRecord)
{
    const ParseCase& parseCase = GetParam();
    SCOPED_TRACE(parseCase.arguments.join(QLatin1Char(' ')).toStdString());
    ExpectSameRecord(Parse(parseCase.arguments), parseCase.expected);
}

std::string CaseName(const testing::TestParamInfo<ParseCase>& info)
{
    std::string name = std::to_string(info.index) + "_";
    for (const char c : std::string(info.param.name)) {
        name += (std::isalnum(static_cast<unsigned char>(c)) != 0) ? c : '_';
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(Table, SmokeOptionsParse, testing::ValuesIn(ParseCases()), CaseName);

TEST(SmokeOptionsParse, ArgumentZeroIsNeverParsed)
{
    ExpectSameRecord(ParseSmokeOptions({QStringLiteral("--smoke")}), SmokeOptions{});
    ExpectSameRecord(ParseSmokeOptions({}), SmokeOptions{});
}

TEST(PageTable, StackPlacesAndPageNumbersMapBothWays)
{
    const std::vector<int> expectedPages = {0, 1, 2, 3, 5, 6, 7, 8, 10, 11, 12, 13, 14, 15, 16};
    ASSERT_EQ(static_cast<int>(expectedPages.size()), kStackPageCount);
    for (int stack = 0; stack < kStackPageCount; ++stack) {
        const int page = expectedPages[static_cast<std::size_t>(stack)];
        EXPECT_EQ(PageForStackIndex(stack), page) << "stack " << stack;
        EXPECT_EQ(StackIndexForPage(page), stack) << "page " << page;
    }
    for (const int noPage : {-1, 4, 9, 17, 100}) {
        EXPECT_EQ(StackIndexForPage(noPage), -1) << "page " << noPage;
    }
    for (const int noStack : {-1, 15, 40}) {
        EXPECT_EQ(PageForStackIndex(noStack), -1) << "stack " << noStack;
    }
}

TEST(PageTable, NamesCoverEveryPageNumber)
{
    QStringList names;
    for (int page = 0; page < kPageNumberCount; ++page) {
        names << PageName(page);
        EXPECT_EQ(PageForName(PageName(page)), page) << PageName(page).toStdString();
    }
    EXPECT_EQ(names.join(QLatin1Char(',')).toStdString(),
              "summary,performance,processes,system-info,app-history,startup,users,services,power-and-freq,"
              "apple-silicon,flight-recorder,connections,installed-apps,drivers,disk-space,benchmarks,settings");
    EXPECT_TRUE(PageName(-1).isEmpty());
    EXPECT_TRUE(PageName(kPageNumberCount).isEmpty());
    EXPECT_EQ(PageForName(QStringLiteral("no-such-page")), std::nullopt);
}

TEST(PageTable, RecordingTargetsHaveTheirCommandLineNames)
{
    QStringList names;
    for (int target = 0; target <= static_cast<int>(RecordingTarget::diskSpace); ++target) {
        const QString name = RecordingTargetName(static_cast<RecordingTarget>(target));
        names << name;
        const SmokeOptions options = Parse({QStringLiteral("--record=") + name});
        EXPECT_EQ(Number(options.recordTarget), target);
    }
    EXPECT_EQ(names.join(QStringLiteral(", ")), kRecordList);
}

}  // namespace
}  // namespace korv::host::linux_client
