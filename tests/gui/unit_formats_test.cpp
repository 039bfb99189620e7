#include "host/linux_client/unit_formats.h"

#include <gtest/gtest.h>

#include <QByteArrayView>
#include <QCoreApplication>
#include <QTranslator>

#include <cmath>
#include <limits>

namespace korv::host::linux_client {
namespace {

using core::MetricAvailability;

struct BytesCase {
    std::uint64_t bytes;
    const char* text;
};

class FormatBytesTest : public ::testing::TestWithParam<BytesCase> {};

TEST_P(FormatBytesTest, StepsBy1024UnderDecimalNames) {
    EXPECT_EQ(FormatBytes(GetParam().bytes).toStdString(), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, FormatBytesTest,
    ::testing::Values(BytesCase{0, "0 B"}, BytesCase{1, "1 B"}, BytesCase{1023, "1023 B"}, BytesCase{1024, "1.0 KB"},
                      BytesCase{1536, "1.5 KB"}, BytesCase{1048575, "1024.0 KB"}, BytesCase{1048576, "1.0 MB"},
                      BytesCase{5ULL << 30, "5.0 GB"}, BytesCase{5000ULL << 40, "5000.0 TB"},
                      BytesCase{std::numeric_limits<std::uint64_t>::max(), "16777216.0 TB"}));

struct RateCase {
    double rate;
    const char* text;
};

class FormatRateTest : public ::testing::TestWithParam<RateCase> {};

TEST_P(FormatRateTest, KeepsThreeSignificantDigits) {
    EXPECT_EQ(FormatRate(GetParam().rate).toStdString(), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Rates, FormatRateTest,
    ::testing::Values(RateCase{0.0, "0 B/sec"}, RateCase{-5.0, "0 B/sec"},
                      RateCase{std::numeric_limits<double>::quiet_NaN(), "0 B/sec"},
                      RateCase{std::numeric_limits<double>::infinity(), "0 B/sec"}, RateCase{0.4, "0 B/sec"},
                      RateCase{1023.0, "1023 B/sec"}, RateCase{1024.0, "1.00 KB/sec"},
                      RateCase{10.0 * 1024, "10.0 KB/sec"}, RateCase{100.0 * 1024, "100 KB/sec"},
                      RateCase{1023.99 * 1024 * 1024, "1024 MB/sec"}, RateCase{9.996 * 1024 * 1024, "10.00 MB/sec"},
                      RateCase{3.0 * 1024 * 1024 * 1024 * 1024 * 1024, "3072 TB/sec"}));

TEST(UnitFormats, PercentClockAndPower) {
    EXPECT_EQ(FormatPercent(12.345).toStdString(), "12.3%");
    EXPECT_EQ(FormatPercent(100.0).toStdString(), "100.0%");
    EXPECT_EQ(FormatClock(3.6e9).toStdString(), "3.60 GHz");
    EXPECT_EQ(FormatClock(1e9).toStdString(), "1.00 GHz");
    EXPECT_EQ(FormatClock(999.9e6).toStdString(), "999.9 MHz");
    EXPECT_EQ(FormatClock(25e6).toStdString(), "25.0 MHz");
    EXPECT_EQ(FormatClock(1500.0).toStdString(), "1.50 kHz");
    EXPECT_EQ(FormatClock(500.0).toStdString(), "500.0 Hz");
    EXPECT_EQ(FormatPower(12.5).toStdString(), "12.5 W");
    EXPECT_EQ(FormatPower(3.25).toStdString(), "3.25 W");
}

TEST(UnitFormats, TemperatureFollowsTheScaleSetting) {
    SetTemperatureScale(TemperatureScale::celsius);
    EXPECT_EQ(FormatTemperature(45.0), QStringLiteral("45.0 °C"));
    SetTemperatureScale(TemperatureScale::fahrenheit);
    EXPECT_EQ(FormatTemperature(100.0), QStringLiteral("212.0 °F"));
    EXPECT_EQ(FormatTemperature(-40.0), QStringLiteral("-40.0 °F"));
    EXPECT_DOUBLE_EQ(ToDisplayTemperature(37.0), 98.6);
    SetTemperatureScale(TemperatureScale::celsius);
    EXPECT_DOUBLE_EQ(ToDisplayTemperature(37.0), 37.0);
}

TEST(UnitFormats, AvailabilityWordsAndStaleSuffix) {
    EXPECT_TRUE(FormatAvailability(MetricAvailability::valid).isEmpty());
    EXPECT_TRUE(FormatAvailability(MetricAvailability::zero).isEmpty());
    for (auto a : {MetricAvailability::notApplicable, MetricAvailability::unsupported,
                   MetricAvailability::transientError}) {
        EXPECT_EQ(FormatAvailability(a), QStringLiteral("Unavailable"));
    }
    EXPECT_EQ(FormatAvailability(MetricAvailability::accessDenied), QStringLiteral("Access denied"));
    EXPECT_EQ(FormatAvailability(MetricAvailability::stale), QStringLiteral("Stale"));
    EXPECT_EQ(FormatAvailability(MetricAvailability::notYetAvailable), QStringLiteral("—"));
    EXPECT_EQ(AppendStale(QStringLiteral("4.0 GB"), MetricAvailability::stale), QStringLiteral("4.0 GB (stale)"));
    EXPECT_EQ(AppendStale(QStringLiteral("4.0 GB"), MetricAvailability::valid), QStringLiteral("4.0 GB"));
}

// A translator that knows only the shared availability words, in the context they are looked up in.
class AvailabilityTranslator final : public QTranslator {
public:
    QString translate(const char* context, const char* source, const char*, int) const override {
        if (QByteArrayView(context) != "QObject") return {};
        if (QByteArrayView(source) == "Access denied") return QStringLiteral("Zugriff verweigert");
        if (QByteArrayView(source) == "Unavailable") return QStringLiteral("Nicht verfügbar");
        if (QByteArrayView(source) == "Stale") return QStringLiteral("Veraltet");
        return {};
    }
    bool isEmpty() const override { return false; }
};

TEST(UnitFormats, AvailabilityWordsAreTranslatedAsSharedWords) {
    AvailabilityTranslator translator;
    ASSERT_TRUE(QCoreApplication::installTranslator(&translator));
    const QString denied = FormatAvailability(MetricAvailability::accessDenied);
    const QString unavailable = FormatAvailability(MetricAvailability::transientError);
    const QString stale = FormatAvailability(MetricAvailability::stale);
    QCoreApplication::removeTranslator(&translator);
    EXPECT_EQ(denied, QStringLiteral("Zugriff verweigert"));
    EXPECT_EQ(unavailable, QStringLiteral("Nicht verfügbar"));
    EXPECT_EQ(stale, QStringLiteral("Veraltet"));
}

}  // namespace
}  // namespace korv::host::linux_client
