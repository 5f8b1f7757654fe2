#include "DriverBench.h"

#include <gmock/gmock.h>

namespace test {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;
using ::testing::Not;

class SingleRowScan : public DriverBench {
protected:
    void SetUp() override { makeReady(); }

    Post readRow(const ChartOnTable& chart, int row, std::map<std::string, std::string> extra = {}) {
        calls.take();
        extra["RowToScan"] = std::to_string(row);
        const std::vector<Post> answers = measure(chart, extra);
        EXPECT_EQ(answers.size(), 1U);
        made = calls.take();
        return answers.empty() ? Post{} : answers[0];
    }

    std::vector<std::string> made;
};

TEST_F(SingleRowScan, RowByRowAlternates) {
    const ChartOnTable chart{.rows = 4, .columns = 10, .lastRowColumns = 2};
    place(chart);
    expectRow(readRow(chart, 0), chart, 0);
    EXPECT_THAT(made, Contains("Tavi_Scan 40.5,30,129.5,30"));
    EXPECT_THAT(made, Not(Contains("Tavi_GoToHomePosition"))) << "the client goes on";
    EXPECT_TRUE(driver->isReversed());
    expectRow(readRow(chart, 1), chart, 1);
    EXPECT_THAT(made, Contains("Tavi_Scan 129.5,40,40.5,40"));
    expectRow(readRow(chart, 2), chart, 2);
    expectRow(readRow(chart, 3), chart, 3);
    EXPECT_THAT(made, Contains(HasSubstr("Tavi_Scan 129.5,60,119.6")));
    EXPECT_THAT(made, Contains("Tavi_GoToHomePosition"));
    EXPECT_TRUE(scratch.logged("Done for now 1, returning control to app\n"));
    EXPECT_TRUE(scratch.logged("Scanning LastRow\n"));
}

TEST_F(SingleRowScan, SpeedFollowsTheWholeUnitsOfTheBottomEdge) {
    // 199 / 20 = 9.95: below 10, so the longer delay, although the pitch along x is 9.95 or more.
    const ChartOnTable chart{.rows = 2, .columns = 21, .topLeft = {10, 20}};
    place(chart);
    readRow(chart, 0);
    EXPECT_THAT(made, Contains("Tavi_SetOption TaviTScanDelay=300"));
    for (const char* const line : {"maxSpeed: 489\n", "minSpeed: 413\n", "delay: 300\n"})
        EXPECT_TRUE(scratch.logged(line)) << line;
}

TEST_F(SingleRowScan, SpotsAndTheirWayBackToStrips) {
    const ChartOnTable chart{.rows = 3, .columns = 4, .equalNeighbours = true};
    place(chart);
    expectRow(readRow(chart, 1), chart, 1);
    EXPECT_THAT(made, IsSupersetOf({"Tavi_SetOption MeasurementMode=SingleReflectance",
                                    "Tavi_SetOption MeasurementMode=ScanningReflectance"}));
    EXPECT_TRUE(scratch.logged("Done for now 2, returning control to app\n"));
    expectRow(readRow(chart, 2, {{"SpotMeasureCount", "3"}}), chart, 2, 3);
    // After the last row the mode is left as it is; the attribute pass that follows brings it back.
    driver->updateAttributes();
    EXPECT_STREQ(Tavi_GetOption("MeasurementMode"), "ScanningReflectance");
}

TEST_F(SingleRowScan, FailuresAndCancellationAnswerOnce) {
    const ChartOnTable chart;
    place(chart);
    calls.interfere([](int, const TaviSDK::Call& call) -> std::optional<int> {
        return call.name == "Tavi_Scan" || call.name == "Tavi_TriggerMeasurement" ? std::optional<int>(9)
                                                                                  : std::nullopt;
    });
    EXPECT_EQ(readRow(chart, 1).code, 25);
    EXPECT_EQ(ask("SetMode", {{"Mode", "ScanningReflectance"}}).code, 0);
    calls.interfere([this](int, const TaviSDK::Call& call) -> std::optional<int> {
        if (call.name == "Tavi_Scan")
            driver->setIsCancelled(true);
        return std::nullopt;
    });
    EXPECT_EQ(readRow(chart, 1).code, -1023);
    calls.interfere([this](int, const TaviSDK::Call& call) -> std::optional<int> {
        if (call.name == "Tavi_GoToHomePosition")
            driver->setIsCancelled(true);
        return std::nullopt;
    });
    const Post last = readRow(chart, 2);
    EXPECT_EQ(last.code, -1023);
    EXPECT_EQ(last.patches.size(), 5U) << "the row had been read";
    EXPECT_EQ(readRow(chart, 7).code, 22) << "no such row";
    expectCleanScan();
}

} // namespace
} // namespace test
