#include "DriverBench.h"

#include <gmock/gmock.h>

#include <thread>

namespace test {
namespace {

class ChartScan : public DriverBench {
protected:
    void SetUp() override { makeReady(); }

    void expectChart(const std::vector<Post>& answers, const ChartOnTable& chart, int spots = 1) {
        ASSERT_EQ(answers.size(), static_cast<std::size_t>(chart.rows));
        for (int row = 0; row < chart.rows; ++row)
            expectRow(answers[static_cast<std::size_t>(row)], chart, row, spots);
        EXPECT_FALSE(driver->isMeasuring());
        EXPECT_TRUE(driver->isPolling());
    }
    int scans() {
        int count = 0;
        for (const std::string& call : calls.take())
            count += call.starts_with("Tavi_Scan") ? 1 : 0;
        return count;
    }
};

TEST_F(ChartScan, ReadsRowAfterRow) {
    const ChartOnTable chart{.rows = 4, .columns = 6};
    place(chart);
    expectChart(measure(chart), chart);
    EXPECT_EQ(scans(), 4) << "each row at the first attempt";
}

TEST_F(ChartScan, ShapesOfCharts) {
    for (const ChartOnTable& chart :
         {ChartOnTable{.rows = 3, .columns = 7, .lastRowColumns = 2}, ChartOnTable{.rows = 1, .columns = 5},
          ChartOnTable{.rows = 4, .columns = 1}, ChartOnTable{.rows = 1, .columns = 1},
          ChartOnTable{.rows = 3, .columns = 5, .pitchX = 8, .pitchY = 14},
          ChartOnTable{.rows = 1, .columns = 5, .lastRowColumns = 3}}) {
        SCOPED_TRACE(::testing::Message() << chart.rows << " by " << chart.columns);
        place(chart);
        ask("SetMode", {{"Mode", "ScanningReflectance"}});
        expectChart(measure(chart), chart);
    }
}

TEST_F(ChartScan, EqualNeighboursFallBackToSpots) {
    const ChartOnTable chart{.rows = 3, .columns = 5, .equalNeighbours = true};
    place(chart);
    expectChart(measure(chart), chart);
    EXPECT_TRUE(scratch.logged("Error scanning, trying to scan using spot\n"));
    EXPECT_EQ(scans(), 6) << "one, four that fail, one";
}

TEST_F(ChartScan, SpotCounts) {
    const ChartOnTable chart{.rows = 2, .columns = 3, .lastRowColumns = 2};
    place(chart);
    for (int count = 1; count <= 9; ++count) {
        SCOPED_TRACE(count);
        ask("SetMode", {{"Mode", "ScanningReflectance"}});
        expectChart(measure(chart, {{"SpotMeasureCount", std::to_string(count)}}), chart, std::min(count, 5));
    }
    EXPECT_EQ(scans(), 0);
}

TEST_F(ChartScan, StripsAfterAScanThatEndedInSpots) {
    const ChartOnTable chart{.rows = 3, .columns = 4};
    place(chart);
    // To the end, or cancelled on the way; no poll comes before the next scan.
    for (const bool cancels : {false, true}) {
        SCOPED_TRACE(cancels);
        calls.interfere([&](int, const TaviSDK::Call& call) -> std::optional<int> {
            if (cancels && call.name == "Tavi_TriggerMeasurement")
                driver->setIsCancelled(true);
            return std::nullopt;
        });
        EXPECT_EQ(measure(chart, {{"SpotMeasureCount", "1"}}).back().code, cancels ? -1023 : 0);
        calls.interfere({});
        calls.take();
        expectChart(measure(chart), chart);
        EXPECT_EQ(scans(), 3) << "each row at the first attempt";
    }
}

TEST_F(ChartScan, LowResolutionTriesTwoStrips) {
    const ChartOnTable chart{.rows = 2, .columns = 5, .equalNeighbours = true};
    place(chart);
    ask("SetAttribute", {{"key", "LowResolutionScan"}, {"value", "yes"}});
    calls.take();
    expectChart(measure(chart), chart);
    EXPECT_EQ(scans(), 3);
}

TEST_F(ChartScan, ChartsThatMakeNoSenseAnswer22) {
    const ChartOnTable chart;
    place(chart);
    for (const auto& [key, value] :
         {std::pair{"Rows", "0"}, std::pair{"Rows", "-3"}, std::pair{"Columns", "0"},
          std::pair{"Columns", "x"}, std::pair{"LastRowColumns", "6"}, std::pair{"LastRowColumns", "-1"},
          std::pair{"RowToScan", "3"}}) {
        calls.take();
        const std::vector<Post> answers = measure(chart, {{key, value}});
        ASSERT_EQ(answers.size(), 1U) << key << value;
        EXPECT_EQ(answers[0].code, 22) << key << value;
        EXPECT_FALSE(answers[0].hasMeasurements);
        const auto made = calls.take();
        EXPECT_TRUE(std::find(made.begin(), made.end(), "Tavi_GoToHomePosition") != made.end());
    }
    expectCleanScan();
}

TEST_F(ChartScan, PlacesThatAreNotOnTheTableFailTheRow) {
    const ChartOnTable chart;
    place(chart);
    for (const char* const x : {"nan", "inf", "-inf", "1e30", "-1e300", "-500"}) {
        SCOPED_TRACE(x);
        const std::vector<Post> answers = measure(chart, {{"TopLeftX", x}, {"BotLeftX", x}});
        ASSERT_EQ(answers.size(), 1U);
        EXPECT_EQ(answers[0].code, 25);
        EXPECT_EQ(answers[0].message, Tavi_GetOption("LastError"));
        EXPECT_NE(answers[0].message, "");
        ask("SetMode", {{"Mode", "ScanningReflectance"}});
    }
    // More patches than anybody could wait for: it can be cancelled like any other.
    const std::string endless = send("Measure", {{"Rows", "99999999999"}, {"Columns", "2147483647"}});
    EXPECT_EQ(ask("CancelMeasure").code, 0);
    finishMeasurements();
    ASSERT_EQ(answersTo(endless).size(), 1U);
    EXPECT_EQ(answersTo(endless)[0].code, -1023);
    expectCleanScan();
}

TEST_F(ChartScan, HandsBackAfterTheFirstRow) {
    const ChartOnTable chart{.rows = 4, .columns = 3};
    place(chart);
    const std::vector<Post> answers = measure(chart, {{"RowToScan", "-2"}});
    ASSERT_EQ(answers.size(), 1U);
    expectRow(answers[0], chart, 0);
    EXPECT_TRUE(scratch.logged("Done for now 1, returning control to app\n"));
    EXPECT_FALSE(driver->isMeasuring());
}

TEST_F(ChartScan, MeasuresUncalibratedOrUnattachedNothing) {
    ask("ClearCalibration");
    EXPECT_EQ(ask("Measure").code, 47);
    ask("Calibrate");
    driver->setTaviIsConnected(false);
    EXPECT_EQ(ask("Measure").code, 35);
    driver->setTaviIsConnected(true);
}

TEST_F(ChartScan, CommandsMeanwhile) {
    const ChartOnTable chart{.rows = 3, .columns = 4};
    place(chart);
    std::atomic<bool> inStrip{false};
    std::atomic<bool> goOn{false};
    calls.interfere([&](int, const TaviSDK::Call& call) -> std::optional<int> {
        if (call.name == "Tavi_Scan") {
            inStrip = true;
            while (!goOn)
                std::this_thread::yield();
        }
        return std::nullopt;
    });
    const std::string ticket = send("Measure", chart.measureArguments());
    EXPECT_TRUE(driver->isMeasuring()) << "set before the worker starts";
    passUntil([&] { return inStrip.load(); });
    // The worker is inside a strip and holds the SDK lock: whatever is refused is refused at once.
    EXPECT_EQ(ask("Measure", chart.measureArguments()).code, 23);
    EXPECT_EQ(ask("GoHome").code, 23);
    EXPECT_EQ(ask("GetDevicePosition").message, "") << "as it was sent, without an error text";
    EXPECT_EQ(ask("SetAttribute", {{"key", "Beep"}, {"value", "no"}}).code, 23);
    EXPECT_EQ(ask("Calibrate").code, 5);
    EXPECT_EQ(ask("SetMode", {{"Mode", "SingleReflectance"}}).code, 4);
    EXPECT_EQ(ask("CancelMeasure").code, 0);
    driver->didPoll();
    driver->buttonPressed();
    goOn = true;
    finishMeasurements();
    const std::vector<Post> answers = answersTo(ticket);
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].code, -1023);
    EXPECT_TRUE(postsFor("BeginMeasure").empty());
    expectCleanScan();
}

TEST_F(ChartScan, RetryOnTheCancelAnswerIsLeftAlone) {
    const ChartOnTable chart{.rows = 6, .columns = 4};
    place(chart);
    const std::string first = send("Measure", chart.measureArguments());
    ASSERT_EQ(ask("CancelMeasure").code, 0);
    // The first worker has given up the flag and still waits for its answer to be posted, polling still
    // paused.
    std::string second;
    passUntil([&] {
        second = send("Measure", chart.measureArguments());
        return answersTo(second).empty() || answersTo(second)[0].code != 23;
    });
    finishMeasurements();
    // Rows may have been read before the cancellation; it is answered once, and nothing comes after it.
    const std::vector<Post> answers = answersTo(first);
    ASSERT_FALSE(answers.empty());
    for (std::size_t index = 0; index + 1 < answers.size(); ++index)
        EXPECT_EQ(answers[index].code, 0);
    EXPECT_EQ(answers.back().code, -1023);
    expectChart(answersTo(second), chart);
}

// Whatever the instrument throws.
TEST_F(ChartScan, ExceptionEndsTheScanAndLeavesADeviceThatWorks) {
    const ChartOnTable chart{.rows = 3, .columns = 4};
    place(chart);
    for (const bool isKnown : {true, false}) {
        int scanned = 0;
        calls.take();
        calls.interfere([&](int, const TaviSDK::Call& call) -> std::optional<int> {
            if (call.name == "Tavi_Scan" && ++scanned == 2)
                isKnown ? throw TaviSDK::Exception("cable") : throw 4;
            return std::nullopt;
        });
        const std::vector<Post> answers = measure(chart);
        ASSERT_EQ(answers.size(), 2U);
        expectRow(answers[0], chart, 0);
        EXPECT_EQ(answers[1].code, 14);
        EXPECT_EQ(answers[1].message, Tavi_GetOption("LastError"));
        const auto made = calls.take();
        EXPECT_EQ(std::count(made.begin(), made.end(), "Tavi_GoToHomePosition"), 1);
        expectCleanScan();
    }
}

} // namespace
} // namespace test
