#include "Bench.h"

#include <algorithm>
#include <chrono>
#include <numbers>
#include <random>

namespace {

using Color::ChartLayout;
using Color::Point;

// Strips as a client runs them: from the centre of a row's first patch to that of its last, as fast as pitch
// and integration time allow.
class StripTest : public Bench {
protected:
    static double distance(const Point& a, const Point& b) { return std::hypot(a.x - b.x, a.y - b.y); }

    static int fastest(double pitch, double integrationTime = 0.00286) {
        const double overhead = integrationTime > 0.011 ? 0.00884 : 0.0046;
        return static_cast<int>((pitch - 3.5) / (3.0 * integrationTime + overhead));
    }
    static void setSpeed(int speed) {
        ASSERT_EQ(Tavi_SetOption("TaviTScanSpeed", std::to_string(speed).c_str()), 0);
    }
    static void setLowResolution(bool low) {
        ASSERT_EQ(Tavi_SetOption("RECOGNITION_EDGE_LIMIT_FACTOR", low ? "1.5" : "0.6"), 0);
        ASSERT_EQ(Tavi_SetOption("RECOGNITION_LOWEST_LIMIT", low ? "2.0" : "0.2"), 0);
    }

    static Point centre(const ChartLayout& layout, int row, double column) {
        const double u = layout.columns > 1 ? column / (layout.columns - 1) : 0.0;
        const double v = layout.rows > 1 ? static_cast<double>(row) / (layout.rows - 1) : 0.0;
        return {layout.topLeft.x + u * (layout.bottomRight.x - layout.bottomLeft.x) +
                    v * (layout.bottomLeft.x - layout.topLeft.x),
                layout.topLeft.y + u * (layout.bottomRight.y - layout.bottomLeft.y) +
                    v * (layout.bottomLeft.y - layout.topLeft.y)};
    }
    static int scan(const Point& from, const Point& to) {
        const int status = Tavi_Scan(static_cast<float>(from.x), static_cast<float>(from.y),
                                     static_cast<float>(to.x), static_cast<float>(to.y));
        return status != 0 ? -status : Tavi_GetNumberOfAvailableSamples();
    }
    // The number of patches recognised.
    static int scanRow(const ChartLayout& layout, int row) {
        return scan(centre(layout, row, layout.firstColumn(row)), centre(layout, row, layout.columns - 1));
    }
    // The samples are the row's patches, in this order or, backwards, in the other.
    static void expectRow(const ChartLayout& layout, int row, bool isBackwards = false) {
        const int first = layout.firstColumn(row);
        ASSERT_EQ(Tavi_GetNumberOfAvailableSamples(), layout.columns - first);
        for (int i = 0; i < layout.columns - first; ++i) {
            const int column = isBackwards ? layout.columns - 1 - i : first + i;
            ASSERT_EQ(sample(i), expected(layout, row, column)) << "row " << row << ", column " << column;
        }
    }
};

TEST_F(StripTest, everyRowOfTheExampleIsAStripButTheEvenOne) {
    const ChartLayout layout = Color::readChartLayout(EXAMPLE_CHART);
    mSimulation.chart = EXAMPLE_CHART;
    apply();
    calibrate();
    const double pitch = distance(layout.bottomLeft, layout.bottomRight) / (layout.columns - 1);
    std::vector<int> failed;
    for (int row = 0; row < layout.rows; ++row) {
        setSpeed(fastest(pitch));
        setLowResolution(false);
        // A short last row is begun part of a pitch before its first patch, as clients that divide the full
        // width by the number of columns do.
        const int spacers = layout.firstColumn(row);
        const Point from = centre(layout, row, spacers * (layout.columns - 1.0) / layout.columns);
        const Point to = centre(layout, row, layout.columns - 1);
        const int count = layout.columns - spacers;
        if (scan(from, to) == count) {
            expectRow(layout, row);
            EXPECT_EQ(scan(to, from), count);
            expectRow(layout, row, true);
        } else {
            failed.push_back(row);
            setLowResolution(true);
            EXPECT_NE(scan(from, to), count);
            setSpeed(fastest(pitch) / 2);
            EXPECT_NE(scan(from, to), count);
        }
    }
    EXPECT_EQ(failed, std::vector<int>{8});
}

TEST_F(StripTest, readsAtFullSpeedWhateverThePitch) {
    calibrate();
    for (const char* integrationTime : {"0.00286", "0.0143"}) {
        ASSERT_EQ(Tavi_SetOption("IntegrationTime", integrationTime), 0);
        for (double pitch = 7.5; pitch <= 20.0; pitch += 0.5) {
            const ChartLayout layout = straightChart(3, 9, 4, pitch);
            lay(layout);
            setSpeed(fastest(pitch, std::stod(integrationTime)));
            for (int row = 0; row < layout.rows; ++row) {
                ASSERT_EQ(scanRow(layout, row), layout.columns - layout.firstColumn(row)) << pitch;
                expectRow(layout, row);
            }
        }
    }
}

TEST_F(StripTest, aFasterStripMissesPatchesAndLowResolutionTakesMore) {
    const ChartLayout layout = straightChart(2, 9);
    lay(layout);
    calibrate();
    ASSERT_EQ(Tavi_SetOption("TaviTScanDelay", "0"), 0);
    setSpeed(595);
    EXPECT_LT(scanRow(layout, 0), 9);
    setLowResolution(true);
    // Half of either end patch is passed in too little time unless the head rests there.
    EXPECT_EQ(scanRow(layout, 0), 7);
    ASSERT_EQ(Tavi_SetOption("TaviTScanDelay", "200"), 0);
    EXPECT_EQ(scanRow(layout, 0), 9);
}

TEST_F(StripTest, equalNeighboursAreOnePatchAndCloseOnesAreToldApartInLowResolution) {
    ChartLayout layout = straightChart(2, 6);
    layout.patches[2].reflectance.fill(0.3);
    layout.patches[3].reflectance.fill(0.3);
    layout.patches[6 + 2].reflectance.fill(0.30); // about 0.9 CIELAB units apart
    layout.patches[6 + 3].reflectance.fill(0.31);
    lay(layout);
    calibrate();
    setSpeed(200);
    EXPECT_EQ(scanRow(layout, 0), 5);
    EXPECT_EQ(sample(2), expected(layout, 0, 2));
    EXPECT_EQ(sample(3), expected(layout, 0, 4));
    EXPECT_EQ(scanRow(layout, 1), 5);
    setLowResolution(true);
    EXPECT_EQ(scanRow(layout, 0), 5);
    EXPECT_EQ(scanRow(layout, 1), 6);
}

TEST_F(StripTest, paperAndGrazedCellsAreNoPatches) {
    const ChartLayout layout = straightChart(3, 5, 2);
    lay(layout);
    calibrate();
    setSpeed(100);
    EXPECT_EQ(scan({10.0, 40.0}, {150.0, 40.0}), 5); // over the paper on both sides
    expectRow(layout, 1);
    EXPECT_EQ(scan({10.0, 200.0}, {150.0, 200.0}), 0); // paper only
    EXPECT_EQ(scan({10.0, 50.0}, {68.0, 50.0}),
              1); // empty cells of the short last row, then a part of its first
    EXPECT_EQ(scan({40.0, 44.0}, {80.0, 44.0}), 0); // along the edge between two rows
    EXPECT_EQ(scan({60.0, 30.0}, {60.0, 50.0}), 2); // down a column that ends above an empty cell
    EXPECT_EQ(scan({60.0, 30.0}, {60.0, 30.0}), 1); // no way at all: what the head rests on
    EXPECT_EQ(scan({44.0, 30.0}, {44.0, 30.0}), 0);
}

// Charts that lie aslant on the table, their rows or columns at any angle.
TEST_F(StripTest, turnedAndSkewedChartsReadTheRowThatIsScanned) {
    std::mt19937 random(3);
    std::uniform_real_distribution<double> angle(-std::numbers::pi, std::numbers::pi);
    std::uniform_real_distribution<double> skew(-0.4, 0.4);
    std::uniform_real_distribution<double> pitch(8.0, 20.0);
    calibrate();
    for (int round = 0; round < 60; ++round) {
        const double turn = angle(random);
        const double lean = turn + std::numbers::pi / 2.0 + skew(random);
        const double p = pitch(random);
        const double q = pitch(random);
        const ChartLayout layout =
            chart(4, 7, round % 7, {450.0, 800.0}, {p * std::cos(turn), p * std::sin(turn)},
                  {q * std::cos(lean), q * std::sin(lean)});
        lay(layout);
        setSpeed(fastest(p));
        for (int row = 0; row < layout.rows; ++row) {
            ASSERT_EQ(scanRow(layout, row), layout.columns - layout.firstColumn(row)) << "round " << round;
            expectRow(layout, row);
        }
    }
}

// A client that takes the short last row's start from another row's height runs aslant over the chart when it
// lies turned. Such a strip may be right, or refused, or come back with another number of patches; it never
// passes for the row with patches that are not the row's.
TEST_F(StripTest, aSlantingStripNeverPassesForTheRow) {
    calibrate();
    int right = 0;
    int refused = 0;
    for (int degrees = -80; degrees <= 80; degrees += 5) {
        for (const int lastRowColumns : {1, 2, 3, 5, 8, 11}) {
            const double turn = degrees * std::numbers::pi / 180.0;
            const ChartLayout layout =
                chart(12, 12, lastRowColumns, {450.0, 800.0}, {10.0 * std::cos(turn), 10.0 * std::sin(turn)},
                      {-10.0 * std::sin(turn), 10.0 * std::cos(turn)});
            lay(layout);
            setSpeed(fastest(10.0));
            const int spacers = layout.firstColumn(11);
            const Point from{centre(layout, 11, spacers * 11.0 / 12.0).x, layout.bottomLeft.y};
            const Point to = centre(layout, 11, 11);
            if (scan(from, to) == lastRowColumns) {
                expectRow(layout, 11);
                ++right;
            } else {
                ++refused;
            }
        }
    }
    EXPECT_GT(right, 6);
    EXPECT_GT(refused, 100);
}

TEST_F(StripTest, chartsOfOneRowOrColumnHaveSquarePatches) {
    calibrate();
    setSpeed(100);
    const ChartLayout row = chart(1, 4, 0, {40.0, 30.0}, {0.0, 12.0}, {0.0, 0.0});
    lay(row);
    EXPECT_EQ(scanRow(row, 0), 4);
    expectRow(row, 0);
    EXPECT_EQ(scan({44.0, 30.0}, {44.0, 66.0}), 4); // 6 to either side belong to the patches
    EXPECT_EQ(scan({45.0, 30.0}, {45.0, 66.0}), 0);

    const ChartLayout column = chart(3, 1, 0, {40.0, 30.0}, {0.0, 0.0}, {9.0, 0.0});
    lay(column);
    EXPECT_EQ(scan({40.0, 30.0}, {58.0, 30.0}), 3);
    EXPECT_EQ(sample(2), expected(column, 2, 0));

    const ChartLayout lone = chart(1, 1, 0, {40.0, 30.0}, {0.0, 0.0}, {0.0, 0.0});
    lay(lone);
    EXPECT_EQ(scan({36.8, 30.0}, {43.2, 33.2}), 1);
    EXPECT_EQ(scan({40.0, 34.0}, {40.0, 34.0}), 0);
}

TEST_F(StripTest, needsItsModeACalibrationAndRecognition) {
    lay(straightChart(2, 4));
    ASSERT_EQ(Tavi_SetOption("MeasurementMode", "ScanningReflectance"), 0);
    EXPECT_EQ(Tavi_Scan(40, 30, 70, 30), 3);
    calibrate();
    EXPECT_EQ(Tavi_Scan(40, 30, 70, 30), 0);
    EXPECT_EQ(Tavi_GetNumberOfAvailableSamples(), 4);
    ASSERT_EQ(Tavi_SetOption("Recognition", "no"), 0);
    EXPECT_NE(Tavi_Scan(40, 30, 70, 30), 0);
    ASSERT_EQ(Tavi_SetOption("Recognition", "yes"), 0);
    ASSERT_EQ(Tavi_SetOption("MeasurementMode", "SingleReflectance"), 0);
    EXPECT_EQ(Tavi_Scan(40, 30, 70, 30), 5);
    EXPECT_NE(option("LastError").find("ScanningReflectance"), std::string::npos);
}

} // namespace
