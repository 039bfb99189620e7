#include "core/atomic_file.h"
#include "core/settings.h"

#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>

#include "tests/core/temp_folder_test_base.h"
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/json.h"

namespace korv::core {
namespace {

namespace fs = std::filesystem;

std::string ReadAll(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void WriteAll(const fs::path& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string Doc(const std::string& members)
{
    return members.empty() ? R"({"schemaVersion":12})" : R"({"schemaVersion":12,)" + members + "}";
}

// Runs `work` in a child without root's power over permissions and returns what it produced, or
// nothing when privileges could not be dropped.
std::optional<std::string> RunUnprivileged(const std::function<std::string()>& work)
{
    int fds[2];
    if (::pipe(fds) != 0) {
        return std::nullopt;
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(fds[0]);
        if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) {
            ::_exit(3);
        }
        const std::string text = work();
        const bool sent = ::write(fds[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
        ::_exit(sent ? 0 : 4);
    }
    ::close(fds[1]);
    std::string text;
    char buffer[512];
    for (ssize_t got; (got = ::read(fds[0], buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(fds[0]);
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return std::nullopt;
    }
    return text;
}

class SettingsStoreTest : public TempFolderTest {
protected:
    SettingsStoreTest() : TempFolderTest("korv-settings") {}

    void SetUp() override
    {
        TempFolderTest::SetUp();
        file = dir / "settings.json";
    }

    // A file that was read but refused is moved aside whole, and nothing else happens to the folder.
    void ExpectQuarantined(const SettingsLoadResult& result, const std::string& original) const
    {
        EXPECT_EQ(result.settings, Settings{});
        EXPECT_FALSE(fs::exists(file));
        ASSERT_FALSE(result.quarantinedPath.empty());
        EXPECT_EQ(result.quarantinedPath.parent_path(), dir);
        EXPECT_TRUE(result.quarantinedPath.filename().native().starts_with("settings.json.corrupt."));
        EXPECT_EQ(ReadAll(result.quarantinedPath), original);
        EXPECT_EQ(Names().size(), 1u);
    }

    fs::path file;
};

TEST_F(SettingsStoreTest, MissingFileGivesDefaultsWithoutError)
{
    const SettingsLoadResult result = SettingsStore::Load(file);
    EXPECT_EQ(result.status, SettingsLoadStatus::missing);
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.settings, Settings{});
    EXPECT_TRUE(Names().empty());
}

TEST_F(SettingsStoreTest, DefaultsAreWrittenIndentedInKeyOrderWithoutOlderKeys)
{
    ASSERT_EQ(SettingsStore::Save(file, Settings{}), std::nullopt);
    const std::string text = ReadAll(file);
    EXPECT_TRUE(text.starts_with("{\n  \"schemaVersion\": 12,\n  \"theme\": \"system\",\n")) << text;
    const JsonParseResult parsed = ParseJson(text, JsonLimits::Default());
    ASSERT_TRUE(parsed.Ok());
    std::vector<std::string> keys;
    for (const JsonMember& member : parsed.value->Members()) {
        keys.emplace_back(member.Key());
    }
    const std::vector<std::string> expected{
        "schemaVersion", "theme", "temperatureUnit", "applicationFont", "applicationLanguage", "visualBloomLevel",
        "colorKeyedGraphs", "dashedSummaryGraphLines", "smoothGraphCurves", "visualFrameRate", "showSelfInReports",
        "perCoreCpuStatistics", "defaultPage", "updateSpeed", "graphPixelsPerUpdate", "compressedGraphTime",
        "graphHistoryMultiplier", "alwaysOnTop", "hideWhenMinimized", "showFullAccountName",
        "showAllAccountHistory", "confirmEfficiencyMode", "diskSpaceSuppressStopConfirm", "uptimeVisible",
        "popoutOpacity", "popoutOpaqueOnHover", "checkForUpdatesOnStart", "autoUpdateOnStart",
        "showSettingsAsDialog", "processTableHiddenColumns", "processTableColumnWidths"};
    EXPECT_EQ(keys, expected);
    EXPECT_EQ(parsed.value->Find("applicationFont")->AsString(), "Inter");
    EXPECT_EQ(parsed.value->Find("defaultPage")->AsString(), "summary");
    EXPECT_EQ(parsed.value->Find("updateSpeed")->AsString(), "medium");
    EXPECT_EQ(SettingsStore::Load(file).settings, Settings{});
}

Settings EveryFieldChanged()
{
    Settings s;
    s.theme = Theme::dark;
    s.temperatureUnit = TemperatureUnit::fahrenheit;
    s.applicationFont = "DejaVu \"Sans\"\n\u00e9\u4e2d";
    s.applicationLanguage = "de_DE";
    s.visualBloomLevel = 11;
    s.colorKeyedGraphs = false;
    s.dashedSummaryGraphLines = true;
    s.smoothGraphCurves = false;
    s.visualFrameRate = 15;
    s.showSelfInReports = true;
    s.perCoreCpuStatistics = true;
    s.defaultPage = DefaultPage::startupApps;
    s.updateSpeed = UpdateSpeed::paused;
    s.graphPixelsPerUpdate = 32;
    s.compressedGraphTime = false;
    s.graphHistoryMultiplier = 4;
    s.alwaysOnTop = true;
    s.hideWhenMinimized = true;
    s.showFullAccountName = true;
    s.showAllAccountHistory = true;
    s.confirmEfficiencyMode = false;
    s.diskSpaceSuppressStopConfirm = true;
    s.uptimeVisible = false;
    s.popoutOpacity = 0.15000000000000002;
    s.popoutOpaqueOnHover = false;
    s.checkForUpdatesOnStart = false;
    s.autoUpdateOnStart = true;
    s.showSettingsAsDialog = true;
    s.processTableHiddenColumns = {"pid", "", "user\tname"};
    s.processTableColumnWidths = {{"name", 240}, {"cpu", 0}, {"wide", 4294967295u}};
    s.extensionStrings = {{"displayMode", "amber"}, {"combinedGpus", "true"}};
    s.extensionJson = {{"futureThing", R"({"a":[1,2.50,null]})"}};
    return s;
}

TEST_F(SettingsStoreTest, EveryFieldSurvivesASaveAndOverwritesAnOlderFile)
{
    ASSERT_EQ(SettingsStore::Save(file, Settings{}), std::nullopt);
    const Settings changed = EveryFieldChanged();
    ASSERT_EQ(SettingsStore::Save(file, changed), std::nullopt);
    const SettingsLoadResult result = SettingsStore::Load(file);
    EXPECT_EQ(result.status, SettingsLoadStatus::loaded);
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.settings, changed);
    EXPECT_EQ(Names(), std::set<std::string>{"settings.json"});
}

TEST_F(SettingsStoreTest, UnknownRootKeysComeBackUnchangedAfterASave)
{
    const std::string original = Doc(R"("futureThing":{"nested":{"deep":[1,"two",false]},"n":1.50e+2},)"
                                     R"("futureList":[3,{"x":null}],"futureNumber":-0.000,"futureText":"t\u00e9xt",)"
                                     R"("futureFlag":true,"futureNull":null,"theme":"light")");
    WriteAll(file, original);
    const SettingsLoadResult loaded = SettingsStore::Load(file);
    ASSERT_EQ(loaded.status, SettingsLoadStatus::loaded) << loaded.error;
    EXPECT_EQ(loaded.settings.theme, Theme::light);
    EXPECT_EQ(loaded.settings.extensionStrings, (std::map<std::string, std::string>{{"futureText", "t\u00e9xt"}}));
    EXPECT_EQ(loaded.settings.extensionJson.size(), 5u);

    ASSERT_EQ(SettingsStore::Save(file, loaded.settings), std::nullopt);
    const JsonParseResult before = ParseJson(original, JsonLimits::Default());
    const JsonParseResult after = ParseJson(ReadAll(file), JsonLimits::Default());
    ASSERT_TRUE(before.Ok() && after.Ok());
    for (const char* key : {"futureThing", "futureList", "futureNumber", "futureText", "futureFlag", "futureNull"}) {
        const JsonValue* written = after.value->Find(key);
        ASSERT_NE(written, nullptr) << key;
        EXPECT_EQ(SerializeJson(*written), SerializeJson(*before.value->Find(key))) << key;
    }
    EXPECT_EQ(SettingsStore::Load(file).settings, loaded.settings);
}

TEST_F(SettingsStoreTest, ExtensionKeysNeverShadowKnownKeysOrRepeat)
{
    Settings settings;
    settings.extensionStrings = {{"theme", "dark"}, {"shared", "text"}};
    settings.extensionJson = {{"visualBloom", "true"}, {"shared", "1"}, {"schemaVersion", "3"}};
    ASSERT_EQ(SettingsStore::Save(file, settings), std::nullopt);
    const SettingsLoadResult result = SettingsStore::Load(file);
    ASSERT_EQ(result.status, SettingsLoadStatus::loaded) << result.error;
    EXPECT_EQ(result.settings.theme, Theme::system);
    EXPECT_EQ(result.settings.visualBloomLevel, 7u);
    EXPECT_EQ(result.settings.extensionStrings, (std::map<std::string, std::string>{{"shared", "text"}}));
    EXPECT_TRUE(result.settings.extensionJson.empty());
}

struct TypeCase {
    std::string key;
    std::string value;
    std::string suffix;
};

void PrintTo(const TypeCase& c, std::ostream* out)
{
    *out << c.key << "=" << c.value;
}

std::vector<TypeCase> TypeCases()
{
    const std::vector<std::pair<std::vector<std::string>, std::pair<std::string, std::vector<std::string>>>> kinds{
        {{"applicationFont", "applicationLanguage"}, {" must be a string", {"5", "null", R"(["a"])", "true"}}},
        {{"theme", "temperatureUnit", "defaultPage", "updateSpeed"},
         {" must be a string", {"1", "null", R"("")", R"("Dark")", R"("startupapps")", R"(["system"])"}}},
        {{"colorKeyedGraphs", "dashedSummaryGraphLines", "smoothGraphCurves", "showSelfInReports",
          "perCoreCpuStatistics", "compressedGraphTime", "alwaysOnTop", "hideWhenMinimized", "showFullAccountName",
          "showAllAccountHistory", "confirmEfficiencyMode", "diskSpaceSuppressStopConfirm", "uptimeVisible",
          "popoutOpaqueOnHover", "checkForUpdatesOnStart", "autoUpdateOnStart", "showSettingsAsDialog",
          "visualBloom", "highFrequencyVisuals"},
         {" must be boolean", {R"("true")", "1", "null"}}},
        {{"visualBloomLevel", "visualFrameRate", "graphPixelsPerUpdate", "graphHistoryMultiplier"},
         {" must be an unsigned integer", {R"("7")", "-1", "7.5", "8.0", "8e0", "4294967304", "null"}}},
        {{"popoutOpacity"}, {" must be a number", {R"("0.5")", "null", "true", "[0.5]"}}},
        {{"processTableHiddenColumns"},
         {" must be an array of strings", {R"("pid")", R"(["pid",1])", "[null]", "{}", "null"}}},
        {{"processTableColumnWidths"},
         {" must be an object of unsigned integers",
          {"[]", R"({"name":-1})", R"({"name":"80"})", R"({"a":1,"name":1.5})", R"({"a":4294967296})", "3"}}},
    };
    std::vector<TypeCase> cases;
    for (const auto& [keys, kind] : kinds) {
        for (const auto& key : keys) {
            for (const auto& value : kind.second) {
                cases.push_back({key, value, kind.first});
            }
        }
    }
    return cases;
}

class SettingsTypeTest : public SettingsStoreTest, public ::testing::WithParamInterface<TypeCase> {};

TEST_P(SettingsTypeTest, WrongTypeNamesTheKeyAndMovesTheFileAside)
{
    const TypeCase& c = GetParam();
    const std::string text = Doc(R"("futureThing":1,")" + c.key + "\":" + c.value);
    WriteAll(file, text);
    const SettingsLoadResult result = SettingsStore::Load(file);
    EXPECT_EQ(result.status, SettingsLoadStatus::failed);
    EXPECT_EQ(result.error, c.key + c.suffix);
    ExpectQuarantined(result, text);
}

INSTANTIATE_TEST_SUITE_P(EveryKey, SettingsTypeTest, ::testing::ValuesIn(TypeCases()));

TEST_F(SettingsStoreTest, FirstWrongKeyInFileOrderIsReported)
{
    WriteAll(file, Doc(R"("processTableHiddenColumns":5,"updateSpeed":"fast","theme":3)"));
    EXPECT_EQ(SettingsStore::Load(file).error, "theme must be a string");
}

struct ValueCase {
    std::string members;
    std::function<double(const Settings&)> field;
    double expected;  // NAN: the file is refused with the key's message
    std::string key;
};

void PrintTo(const ValueCase& c, std::ostream* out)
{
    *out << c.members;
}

double BloomLevel(const Settings& s) { return s.visualBloomLevel; }
double FrameRate(const Settings& s) { return s.visualFrameRate; }
double PixelsPerUpdate(const Settings& s) { return s.graphPixelsPerUpdate; }
double HistoryMultiplier(const Settings& s) { return s.graphHistoryMultiplier; }
double Opacity(const Settings& s) { return s.popoutOpacity; }
double Page(const Settings& s) { return static_cast<double>(s.defaultPage); }
double Speed(const Settings& s) { return static_cast<double>(s.updateSpeed); }
double ThemeValue(const Settings& s) { return static_cast<double>(s.theme); }
double Unit(const Settings& s) { return static_cast<double>(s.temperatureUnit); }

const ValueCase kValueCases[] = {
    {R"("visualBloomLevel":0)", BloomLevel, NAN, "visualBloomLevel"},
    {R"("visualBloomLevel":1)", BloomLevel, 1, ""},
    {R"("visualBloomLevel":11)", BloomLevel, 11, ""},
    {R"("visualBloomLevel":12)", BloomLevel, NAN, "visualBloomLevel"},
    {R"("graphPixelsPerUpdate":0)", PixelsPerUpdate, NAN, "graphPixelsPerUpdate"},
    {R"("graphPixelsPerUpdate":1)", PixelsPerUpdate, 1, ""},
    {R"("graphPixelsPerUpdate":32)", PixelsPerUpdate, 32, ""},
    {R"("graphPixelsPerUpdate":33)", PixelsPerUpdate, NAN, "graphPixelsPerUpdate"},
    {R"("graphHistoryMultiplier":3)", HistoryMultiplier, NAN, "graphHistoryMultiplier"},
    {R"("graphHistoryMultiplier":4)", HistoryMultiplier, 4, ""},
    {R"("graphHistoryMultiplier":63)", HistoryMultiplier, 63, ""},
    {R"("graphHistoryMultiplier":64)", HistoryMultiplier, NAN, "graphHistoryMultiplier"},
    {R"("visualFrameRate":0)", FrameRate, 0, ""},
    {R"("visualFrameRate":15)", FrameRate, 15, ""},
    {R"("visualFrameRate":30)", FrameRate, 30, ""},
    {R"("visualFrameRate":60)", FrameRate, 60, ""},
    {R"("visualFrameRate":20)", FrameRate, 60, ""},
    {R"("visualFrameRate":1)", FrameRate, 60, ""},
    {R"("visualFrameRate":59)", FrameRate, 60, ""},
    {R"("visualFrameRate":61)", FrameRate, NAN, "visualFrameRate"},
    {R"("popoutOpacity":0.1)", Opacity, 1.0, ""},
    {R"("popoutOpacity":0.15)", Opacity, 0.15, ""},
    {R"("popoutOpacity":0.5)", Opacity, 0.5, ""},
    {R"("popoutOpacity":1)", Opacity, 1.0, ""},
    {R"("popoutOpacity":1.0000001)", Opacity, 1.0, ""},
    {R"("popoutOpacity":-0.5)", Opacity, 1.0, ""},
    {R"("popoutOpacity":1e400)", Opacity, 1.0, ""},
    {R"("visualBloom":false)", BloomLevel, 1, ""},
    {R"("visualBloom":true)", BloomLevel, 11, ""},
    {R"("visualBloom":true,"visualBloomLevel":3)", BloomLevel, 3, ""},
    {R"("visualBloom":"ignored","visualBloomLevel":3)", BloomLevel, 3, ""},
    {R"("highFrequencyVisuals":false)", FrameRate, 0, ""},
    {R"("highFrequencyVisuals":true)", FrameRate, 60, ""},
    {R"("highFrequencyVisuals":false,"visualFrameRate":30)", FrameRate, 30, ""},
    {R"("highFrequencyVisuals":7,"visualFrameRate":15)", FrameRate, 15, ""},
    {R"("theme":"system")", ThemeValue, 0, ""},
    {R"("theme":"light")", ThemeValue, 1, ""},
    {R"("theme":"dark")", ThemeValue, 2, ""},
    {R"("temperatureUnit":"celsius")", Unit, 0, ""},
    {R"("temperatureUnit":"fahrenheit")", Unit, 1, ""},
    {R"("defaultPage":"processes")", Page, 1, ""},
    {R"("defaultPage":"performance")", Page, 2, ""},
    {R"("defaultPage":"startup")", Page, 4, ""},
    {R"("defaultPage":"startupApps")", Page, 4, ""},
    {R"("defaultPage":"users")", Page, 5, ""},
    {R"("defaultPage":"details")", Page, 6, ""},
    {R"("defaultPage":"services")", Page, 7, ""},
    {R"("defaultPage":"appHistory")", Page, 0, ""},
    {R"("updateSpeed":"high")", Speed, 0, ""},
    {R"("updateSpeed":"normal")", Speed, 2, ""},
    {R"("updateSpeed":"slow")", Speed, 3, ""},
    {R"("updateSpeed":"paused")", Speed, 4, ""},
};

class SettingsValueTest : public SettingsStoreTest, public ::testing::WithParamInterface<ValueCase> {};

// Each accepted value is also saved and read again: what the store writes for it must read the same.
TEST_P(SettingsValueTest, ReadsRangesWordsAndOlderKeys)
{
    const ValueCase& c = GetParam();
    const std::string text = Doc(R"("alwaysOnTop":true,"futureThing":[1],)" + c.members);
    WriteAll(file, text);
    const SettingsLoadResult result = SettingsStore::Load(file);
    if (std::isnan(c.expected)) {
        EXPECT_EQ(result.error, c.key + " must be an unsigned integer");
        ExpectQuarantined(result, text);
        return;
    }
    ASSERT_EQ(result.status, SettingsLoadStatus::loaded) << result.error;
    EXPECT_EQ(c.field(result.settings), c.expected);
    for (const char* legacy : {"visualBloom", "highFrequencyVisuals"}) {
        EXPECT_EQ(result.settings.extensionJson.count(legacy) + result.settings.extensionStrings.count(legacy), 0u);
    }
    ASSERT_EQ(SettingsStore::Save(file, result.settings), std::nullopt);
    const std::string written = ReadAll(file);
    EXPECT_EQ(written.find("visualBloom\""), std::string::npos);
    EXPECT_EQ(written.find("highFrequencyVisuals"), std::string::npos);
    EXPECT_EQ(SettingsStore::Load(file).settings, result.settings);
}

INSTANTIATE_TEST_SUITE_P(Table, SettingsValueTest, ::testing::ValuesIn(kValueCases));

struct SchemaCase {
    std::string text;
    SettingsLoadStatus status;
    std::string error;
};

void PrintTo(const SchemaCase& c, std::ostream* out)
{
    *out << c.text;
}

const std::string kSchemaMessage = "unsupported or missing settings schema version";
const SchemaCase kSchemaCases[] = {
    {R"({"schemaVersion":11,"theme":"dark"})", SettingsLoadStatus::reset, std::string(kSettingsResetNote)},
    {R"({"schemaVersion":1,"theme":"nonsense"})", SettingsLoadStatus::reset, std::string(kSettingsResetNote)},
    {R"({"schemaVersion":13})", SettingsLoadStatus::failed, kSchemaMessage},
    {R"({"schemaVersion":0})", SettingsLoadStatus::failed, kSchemaMessage},
    {R"({"theme":"dark"})", SettingsLoadStatus::failed, kSchemaMessage},
    {R"({"schemaVersion":"12"})", SettingsLoadStatus::failed, kSchemaMessage},
    {R"({"schemaVersion":12.0})", SettingsLoadStatus::failed, kSchemaMessage},
    {R"({"schemaVersion":-12})", SettingsLoadStatus::failed, kSchemaMessage},
    {R"({"schemaVersion":null})", SettingsLoadStatus::failed, kSchemaMessage},
    {R"({"schemaVersion":18446744073709551628})", SettingsLoadStatus::failed, kSchemaMessage},
    {R"([{"schemaVersion":12}])", SettingsLoadStatus::failed, "settings root must be an object"},
    {R"("settings")", SettingsLoadStatus::failed, "settings root must be an object"},
    {"", SettingsLoadStatus::failed, "unexpected end of JSON"},
    {R"({"schemaVersion":12,"theme":"dark","theme":"dark"})", SettingsLoadStatus::failed, "duplicate object key"},
    {R"({"schemaVersion":12} {})", SettingsLoadStatus::failed, "unexpected data after JSON value"},
};

class SettingsSchemaTest : public SettingsStoreTest, public ::testing::WithParamInterface<SchemaCase> {};

TEST_P(SettingsSchemaTest, UnusableDocumentGivesDefaultsAndIsMovedAside)
{
    const SchemaCase& c = GetParam();
    WriteAll(file, c.text);
    const SettingsLoadResult result = SettingsStore::Load(file);
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.error, c.error);
    ExpectQuarantined(result, c.text);
}

INSTANTIATE_TEST_SUITE_P(Table, SettingsSchemaTest, ::testing::ValuesIn(kSchemaCases));

TEST_F(SettingsStoreTest, ReadIsBoundedAtOneMebibyte)
{
    std::string text = Doc(R"("theme":"dark")");
    text.insert(text.size() - 1, 1048576 - text.size(), ' ');
    ASSERT_EQ(text.size(), 1048576u);
    WriteAll(file, text);
    const SettingsLoadResult exact = SettingsStore::Load(file);
    EXPECT_EQ(exact.status, SettingsLoadStatus::loaded) << exact.error;
    EXPECT_EQ(exact.settings.theme, Theme::dark);

    WriteAll(file, text + " ");
    const SettingsLoadResult over = SettingsStore::Load(file);
    EXPECT_EQ(over.status, SettingsLoadStatus::failed);
    EXPECT_EQ(over.error, "settings file exceeds size limit");
    EXPECT_EQ(over.settings, Settings{});
    EXPECT_TRUE(over.quarantinedPath.empty());
    EXPECT_EQ(Names(), std::set<std::string>{"settings.json"});
}

TEST_F(SettingsStoreTest, FolderAtThePathCannotBeOpened)
{
    fs::create_directory(file);
    const SettingsLoadResult result = SettingsStore::Load(file);
    EXPECT_EQ(result.status, SettingsLoadStatus::failed);
    EXPECT_EQ(result.error, "could not open settings file");
    EXPECT_TRUE(fs::is_directory(file));
    EXPECT_TRUE(result.quarantinedPath.empty());
}

TEST_F(SettingsStoreTest, UnreadableFileAndFailedQuarantineAreReported)
{
    // The folder may be entered but not written; the first file is readable by its owner alone.
    fs::permissions(dir, fs::perms::owner_all | fs::perms::others_read | fs::perms::others_exec);
    WriteAll(file, Doc(""));
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);
    const auto unreadable = RunUnprivileged([this] { return SettingsStore::Load(file).error; });
    if (!unreadable) {
        GTEST_SKIP() << "could not drop privileges";
    }
    EXPECT_EQ(*unreadable, "could not open settings file");

    WriteAll(file, "[]");
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write | fs::perms::others_read);
    const auto stuck = RunUnprivileged([this] {
        const SettingsLoadResult result = SettingsStore::Load(file);
        return result.error + "|" + result.quarantinedPath.native();
    });
    ASSERT_TRUE(stuck.has_value());
    EXPECT_EQ(*stuck, "quarantine failed: settings root must be an object|");
    EXPECT_EQ(ReadAll(file), "[]");
}

TEST_F(SettingsStoreTest, QuarantineKeepsTheFiveNewestCopiesAndClearsTemporaries)
{
    std::vector<std::string> older;
    for (int index = 0; index < 5; ++index) {
        older.push_back("settings.json.corrupt." + std::to_string(1600000000000000000LL + index));
        WriteAll(dir / older.back(), "old");
    }
    WriteAll(dir / "settings.json.tmp.5.0", "partial");
    fs::last_write_time(dir / "settings.json.tmp.5.0",
                        fs::file_time_type::clock::now() - kStaleTemporaryAge - std::chrono::seconds(5));
    WriteAll(file, "{");
    const SettingsLoadResult result = SettingsStore::Load(file);
    EXPECT_EQ(result.error, "unexpected end of JSON");
    std::set<std::string> expected(older.begin() + 1, older.end());
    expected.insert(result.quarantinedPath.filename().native());
    EXPECT_EQ(Names(), expected);
    EXPECT_EQ(ReadAll(result.quarantinedPath), "{");
}

struct SaveRefusal {
    std::function<void(Settings&)> change;
    std::string error;
};

TEST_F(SettingsStoreTest, RecordThatWouldNotLoadAgainIsNotSaved)
{
    const std::vector<SaveRefusal> refusals{
        {[](Settings& s) { s.visualBloomLevel = 0; },
         "settings would not load again: visualBloomLevel must be an unsigned integer"},
        {[](Settings& s) { s.schemaVersion = 11; },
         "settings would not load again: " + std::string(kSettingsResetNote)},
        {[](Settings& s) { s.popoutOpacity = NAN; }, "JSON number must be finite"},
        {[](Settings& s) { s.defaultPage = static_cast<DefaultPage>(3); }, "defaultPage has no word for value 3"},
        {[](Settings& s) { s.extensionJson["x"] = "{"; }, "x does not hold valid JSON: unexpected end of JSON"},
        {[](Settings& s) { s.extensionJson["x"] = R"(1, "theme": 2)"; },
         "x does not hold valid JSON: unexpected data after JSON value"},
        {[](Settings& s) { s.applicationFont = "\xff"; }, "invalid UTF-8 in string"},
        {[](Settings& s) { s.extensionStrings["caf\xe9"] = "x"; }, "invalid UTF-8 in string"},
        {[](Settings& s) { s.extensionStrings["huge"] = std::string(1048576, 'h'); },
         "settings file exceeds size limit"},
    };
    const Settings kept = EveryFieldChanged();
    ASSERT_EQ(SettingsStore::Save(file, kept), std::nullopt);
    const std::string before = ReadAll(file);
    for (const SaveRefusal& refusal : refusals) {
        Settings settings;
        refusal.change(settings);
        EXPECT_EQ(SettingsStore::Save(file, settings), refusal.error);
        EXPECT_EQ(ReadAll(file), before);
        EXPECT_EQ(Names(), std::set<std::string>{"settings.json"});
    }
}

TEST_F(SettingsStoreTest, BoolPreferencesFollowTheWindowRule)
{
    struct Case {
        std::string members;
        bool fallback;
        bool expected;
    };
    const std::vector<Case> cases{
        {"", true, true},
        {"", false, false},
        {R"("combinedDisks":"false")", true, false},
        {R"("combinedDisks":"true")", false, true},
        {R"("combinedDisks":"False")", true, true},
        {R"("combinedDisks":"0")", true, true},
        {R"("combinedDisks":"")", false, true},
        {R"("combinedDisks":false)", true, false},
        {R"("combinedDisks":0)", false, true},
    };
    for (const Case& c : cases) {
        WriteAll(file, Doc(c.members));
        const SettingsLoadResult result = SettingsStore::Load(file);
        ASSERT_EQ(result.status, SettingsLoadStatus::loaded) << c.members;
        EXPECT_EQ(ReadBoolPreference(result.settings, "combinedDisks", c.fallback), c.expected) << c.members;
    }

    Settings settings = SettingsStore::Load(file).settings;
    WriteBoolPreference(settings, kCombinedDisks.key, false);
    WriteBoolPreference(settings, kCombinedGpus.key, true);
    WriteStringPreference(settings, "displayMode", "amber");
    ASSERT_EQ(SettingsStore::Save(file, settings), std::nullopt);
    const Settings reloaded = SettingsStore::Load(file).settings;
    EXPECT_FALSE(ReadBoolPreference(reloaded, kCombinedDisks));
    EXPECT_TRUE(ReadBoolPreference(reloaded, kCombinedGpus));
    EXPECT_EQ(ReadBoolPreference(reloaded, kProcessTreeEnabled), kProcessTreeEnabled.fallback);
    EXPECT_EQ(StringPreference(reloaded, "displayMode", "color"), "amber");
    EXPECT_EQ(StringPreference(reloaded, "vfdTextColor", "automatic"), "automatic");
}

TEST_F(SettingsStoreTest, ResetRemovesOnlyTheSettingsFile)
{
    ASSERT_EQ(SettingsStore::Save(file, Settings{}), std::nullopt);
    WriteAll(dir / "settings.json.corrupt.1", "kept");
    EXPECT_EQ(SettingsStore::Reset(file).status, SettingsResetStatus::removed);
    EXPECT_EQ(Names(), std::set<std::string>{"settings.json.corrupt.1"});
    const SettingsResetResult again = SettingsStore::Reset(file);
    EXPECT_EQ(again.status, SettingsResetStatus::absent);
    EXPECT_EQ(again.error, "");

    fs::create_directory(file);
    const SettingsResetResult folder = SettingsStore::Reset(file);
    EXPECT_EQ(folder.status, SettingsResetStatus::failed);
    EXPECT_EQ(folder.error, std::generic_category().message(EISDIR));
    EXPECT_TRUE(fs::is_directory(file));
}

// A save killed at any moment leaves the previous document or the next one, never a mix.
TEST_F(SettingsStoreTest, KilledSaveLeavesTheOldOrTheNewFileWhole)
{
    Settings first = EveryFieldChanged();
    first.extensionStrings["padding"] = std::string(200000, 'a');
    Settings second;
    second.extensionJson["padding"] = "[\"" + std::string(200000, 'b') + "\"]";
    ASSERT_EQ(SettingsStore::Save(file, first), std::nullopt);

    std::mt19937 random(12345);
    std::uniform_int_distribution<int> delayMicroseconds(0, 4000);
    const auto budget = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    int rounds = 0;
    for (; rounds < 300 && std::chrono::steady_clock::now() < budget; ++rounds) {
        int fds[2];
        ASSERT_EQ(::pipe(fds), 0);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::close(fds[0]);
            for (bool useSecond = true;; useSecond = !useSecond) {
                if (SettingsStore::Save(file, useSecond ? second : first) || ::write(fds[1], "s", 1) != 1) {
                    ::_exit(1);
                }
            }
        }
        ::close(fds[1]);
        // Wait for one finished save, so the kill lands in a later one at a random point.
        pollfd ready{fds[0], POLLIN, 0};
        const int polled = ::poll(&ready, 1, 30000);
        ::usleep(static_cast<useconds_t>(delayMicroseconds(random)));
        ::kill(child, SIGKILL);
        int status = 0;
        const pid_t waited = ::waitpid(child, &status, 0);
        ::close(fds[0]);
        ASSERT_EQ(polled, 1) << "the saving child finished no save";
        ASSERT_EQ(waited, child);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the saving child stopped on its own";

        const SettingsLoadResult result = SettingsStore::Load(file);
        ASSERT_EQ(result.status, SettingsLoadStatus::loaded) << result.error;
        ASSERT_TRUE(result.settings == first || result.settings == second) << "round " << rounds;
    }
    EXPECT_GE(rounds, 20);
    ASSERT_EQ(SettingsStore::Save(file, first), std::nullopt);
    EXPECT_EQ(Names(), std::set<std::string>{"settings.json"});
}

}  // namespace
}  // namespace korv::core
