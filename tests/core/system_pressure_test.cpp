#include "core/snapshot.h"
#include "core/system_pressure.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <optional>

namespace korv::core {
namespace {

SystemSnapshot SnapshotWith(std::optional<double> load, std::optional<double> psi, std::uint32_t processors = 4) {
    SystemSnapshot snapshot;
    snapshot.logicalProcessorCount = processors;
    if (load) snapshot.loadAverage1.Set(*load);
    else snapshot.loadAverage1.MarkMissing(MetricAvailability::unsupported);
    if (psi) snapshot.memoryPsiSomeAvg10.Set(*psi);
    else snapshot.memoryPsiSomeAvg10.MarkMissing(MetricAvailability::unsupported);
    return snapshot;
}

struct LadderCase {
    double raw;
    double loadScore;
    double memoryScore;
};

class LadderTest : public ::testing::TestWithParam<LadderCase> {};

// Each band boundary and the middle of each band, for both signals.
TEST_P(LadderTest, ScoresFollowTheBands) {
    const LadderCase c = GetParam();
    if (c.loadScore >= 0) {
        EXPECT_NEAR(LoadDemandScore(c.raw), c.loadScore, 1e-9) << "load " << c.raw;
    }
    if (c.memoryScore >= 0) {
        EXPECT_NEAR(MemoryStallScore(c.raw), c.memoryScore, 1e-9) << "memory " << c.raw;
    }
}

INSTANTIATE_TEST_SUITE_P(Bands, LadderTest,
                         ::testing::Values(LadderCase{0.0, 0.0, 0.0}, LadderCase{-5.0, 0.0, 0.0},
                                           LadderCase{5.0, 1.95, 19.5}, LadderCase{10.0, 3.9, 40.0},
                                           LadderCase{17.5, -1, 52.0}, LadderCase{25.0, -1, 65.0},
                                           LadderCase{37.5, -1, 74.5}, LadderCase{50.0, 19.5, 85.0},
                                           LadderCase{75.0, -1, 92.5}, LadderCase{100.0, 40.0, 100.0},
                                           LadderCase{250.0, 100.0, 100.0}, LadderCase{125.0, 52.0, 100.0},
                                           LadderCase{150.0, 65.0, 100.0}, LadderCase{175.0, 74.5, 100.0},
                                           LadderCase{200.0, 85.0, 100.0}, LadderCase{225.0, 92.5, 100.0},
                                           LadderCase{1000.0, 100.0, 100.0}));

TEST(SystemPressureTest, NotFiniteRawScoresZero) {
    EXPECT_EQ(LoadDemandScore(std::numeric_limits<double>::quiet_NaN()), 0.0);
    EXPECT_EQ(MemoryStallScore(std::numeric_limits<double>::infinity()), 0.0);
}

struct SeverityCase {
    double loadDemand;
    const char* word;
};

class SeverityTest : public ::testing::TestWithParam<SeverityCase> {};

TEST_P(SeverityTest, LoadDemandWord) {
    const SeverityCase c = GetParam();
    // One processor so that the load average reads as the percent divided by 100.
    const SystemPressure pressure = ComputeSystemPressure(SnapshotWith(c.loadDemand / 100.0, std::nullopt, 1));
    EXPECT_EQ(SeverityKey(SeverityOf(pressure.loadDemandScore)), c.word) << c.loadDemand;
    EXPECT_EQ(SeverityKey(SeverityOf(pressure.score)), c.word) << c.loadDemand;
}

INSTANTIATE_TEST_SUITE_P(Thresholds, SeverityTest,
                         ::testing::Values(SeverityCase{0.0, "LOW"}, SeverityCase{99.999, "LOW"},
                                           SeverityCase{100.0, "ELEVATED"}, SeverityCase{149.99, "ELEVATED"},
                                           SeverityCase{150.0, "HIGH"}, SeverityCase{199.99, "HIGH"},
                                           SeverityCase{200.0, "CRITICAL"}, SeverityCase{400.0, "CRITICAL"}));

TEST(SystemPressureTest, HundredPercentIsElevatedAtFortyAndJustBelowIsLow) {
    const SystemPressure at = ComputeSystemPressure(SnapshotWith(4.0, std::nullopt, 4));
    ASSERT_TRUE(at.loadDemandPercent.Usable());
    EXPECT_DOUBLE_EQ(*at.loadDemandPercent.value, 100.0);
    EXPECT_DOUBLE_EQ(*at.loadDemandScore.value, 40.0);
    const SystemPressure below = ComputeSystemPressure(SnapshotWith(0.99999, std::nullopt, 1));
    EXPECT_NEAR(*below.loadDemandScore.value, 38.9996, 1e-4);
    EXPECT_EQ(SeverityOf(below.loadDemandScore), PressureSeverity::low);
}

TEST(SystemPressureTest, TieAtEightyFiveGoesToLoadDemand) {
    const SystemPressure pressure = ComputeSystemPressure(SnapshotWith(2.0, 50.0, 1));
    EXPECT_DOUBLE_EQ(*pressure.loadDemandScore.value, 85.0);
    EXPECT_DOUBLE_EQ(*pressure.memoryStallScore.value, 85.0);
    EXPECT_TRUE(pressure.hasPrimary);
    EXPECT_FALSE(pressure.primaryIsMemory);
    EXPECT_EQ(DriverKey(pressure.primary), "Load demand");
    EXPECT_EQ(SeverityKey(SeverityOf(pressure.score)), "CRITICAL");
}

TEST(SystemPressureTest, StrictlyHigherMemoryStallsDecide) {
    const SystemPressure pressure = ComputeSystemPressure(SnapshotWith(0.5, 30.0, 1));
    EXPECT_TRUE(pressure.primaryIsMemory);
    EXPECT_EQ(DriverKey(pressure.primary), "Memory stalls");
    EXPECT_DOUBLE_EQ(*pressure.score.value, *pressure.memoryStallScore.value);
    EXPECT_EQ(SeverityOf(pressure.score), PressureSeverity::high);
}

TEST(SystemPressureTest, StallsOfHundredOrMoreScoreExactlyHundred) {
    for (double stalls : {100.0, 100.5, 250.0}) {
        const SystemPressure pressure = ComputeSystemPressure(SnapshotWith(0.0, stalls, 1));
        EXPECT_EQ(*pressure.memoryStallScore.value, 100.0) << stalls;
        EXPECT_EQ(*pressure.score.value, 100.0) << stalls;
    }
}

TEST(SystemPressureTest, WithoutPsiLoadDemandAloneDecides) {
    const SystemPressure pressure = ComputeSystemPressure(SnapshotWith(6.0, std::nullopt, 4));
    EXPECT_DOUBLE_EQ(*pressure.loadDemandPercent.value, 150.0);
    EXPECT_FALSE(pressure.memoryStallPercent.Usable());
    EXPECT_EQ(SeverityKey(SeverityOf(pressure.memoryStallScore)), "Unavailable");
    EXPECT_EQ(pressure.memoryStallScore.availability, MetricAvailability::unsupported);
    EXPECT_FALSE(pressure.primaryIsMemory);
    EXPECT_EQ(SeverityOf(pressure.score), PressureSeverity::high);
}

TEST(SystemPressureTest, WithoutLoadAverageMemoryStallsDecide) {
    const SystemPressure pressure = ComputeSystemPressure(SnapshotWith(std::nullopt, 12.0, 4));
    EXPECT_TRUE(pressure.primaryIsMemory);
    EXPECT_EQ(SeverityOf(pressure.score), PressureSeverity::elevated);
}

TEST(SystemPressureTest, ZeroProcessorsCountAsOne) {
    const SystemPressure pressure = ComputeSystemPressure(SnapshotWith(1.5, std::nullopt, 0));
    EXPECT_DOUBLE_EQ(*pressure.loadDemandPercent.value, 150.0);
}

TEST(SystemPressureTest, StaleValuesStillCountAndStayStale) {
    SystemSnapshot snapshot = SnapshotWith(2.0, 5.0, 1);
    snapshot.loadAverage1.availability = MetricAvailability::stale;
    const SystemPressure pressure = ComputeSystemPressure(snapshot);
    EXPECT_EQ(pressure.loadDemandPercent.availability, MetricAvailability::stale);
    EXPECT_EQ(pressure.score.availability, MetricAvailability::stale);
    EXPECT_EQ(SeverityOf(pressure.score), PressureSeverity::critical);
}

TEST(SystemPressureTest, NegativeOrNotFiniteLoadIsNotUsed) {
    for (double bad : {-1.0, std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()}) {
        SystemSnapshot snapshot = SnapshotWith(std::nullopt, std::nullopt, 2);
        snapshot.loadAverage1.availability = MetricAvailability::valid;
        snapshot.loadAverage1.value = bad;
        const SystemPressure pressure = ComputeSystemPressure(snapshot);
        EXPECT_FALSE(pressure.loadDemandPercent.Usable()) << bad;
        EXPECT_FALSE(pressure.hasPrimary) << bad;
        EXPECT_EQ(SeverityOf(pressure.score), PressureSeverity::unavailable) << bad;
    }
}

struct MissingCase {
    MetricAvailability load;
    MetricAvailability memory;
    MetricAvailability expected;
};

class MissingPriorityTest : public ::testing::TestWithParam<MissingCase> {};

// With neither signal the composite says the most telling reason.
TEST_P(MissingPriorityTest, CompositeCarriesHigherPriorityReason) {
    const MissingCase c = GetParam();
    SystemSnapshot snapshot;
    snapshot.logicalProcessorCount = 2;
    snapshot.loadAverage1.MarkMissing(c.load);
    snapshot.memoryPsiSomeAvg10.MarkMissing(c.memory);
    const SystemPressure pressure = ComputeSystemPressure(snapshot);
    EXPECT_FALSE(pressure.hasPrimary);
    EXPECT_FALSE(pressure.score.value.has_value());
    EXPECT_EQ(pressure.score.availability, c.expected);
}

using A = MetricAvailability;
INSTANTIATE_TEST_SUITE_P(
    Reasons, MissingPriorityTest,
    ::testing::Values(MissingCase{A::unsupported, A::accessDenied, A::accessDenied},
                      MissingCase{A::accessDenied, A::notYetAvailable, A::accessDenied},
                      MissingCase{A::transientError, A::notYetAvailable, A::notYetAvailable},
                      MissingCase{A::notApplicable, A::transientError, A::transientError},
                      MissingCase{A::unsupported, A::notApplicable, A::unsupported}));

}  // namespace
}  // namespace korv::core
