// The parts of the programs that need no process: restarts, progress, rows, the plug-in's log, JSON.
#include "Chart.h"
#include "Errors.h"
#include "Output.h"
#include "PluginLog.h"
#include "Progress.h"
#include "RestartPolicy.h"
#include "Terminal.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

using namespace tablectl;
using testing::HasSubstr;

namespace {

TEST(RestartPolicy, PausesDoubleUpToAMinuteAndBeginAnewAfterAUsefulLife) {
    service::RestartPolicy policy(1);
    const tools::ProcessEnd askedFor{false, 4};
    const tools::ProcessEnd crashed{true, 11};
    std::vector<double> pauses;
    for (int count = 0; count < 8; ++count)
        pauses.push_back(policy.pauseAfter(count % 2 ? crashed : askedFor, 1).value());
    EXPECT_THAT(pauses, testing::ElementsAre(1, 2, 4, 8, 16, 32, 60, 60));
    EXPECT_EQ(policy.pauseAfter(crashed, 3600), 1);
    EXPECT_EQ(policy.pauseAfter(crashed, 0), 2);
    EXPECT_FALSE(policy.pauseAfter({false, 0}, 0));
    EXPECT_FALSE(policy.pauseAfter({false, 1}, 0));
}

TEST(Progress, LineFitsAnyWidth) {
    const ProgressState state{3, 11, 63, 231, 10.5, {1, 2}};
    const std::string wide = progressLine(state, 120);
    EXPECT_THAT(wide,
                testing::MatchesRegex(
                    "\\[#+\\.+\\] row  3/11   63/231 patches    0:28 left     6.0/s  rows 1, 2 by spots"));
    EXPECT_EQ(progressLine(state, 30), "row  3/11   63/231 patches");
    for (int width = 1; width < 120; ++width)
        EXPECT_LE(std::ssize(progressLine(state, width)), width);
    EXPECT_THAT(progressLine({0, 11, 0, 231, 5, {}}, 80), HasSubstr("-:-- left"));
    EXPECT_THAT(progressLine({11, 11, 231, 231, 5, {}}, 80), HasSubstr("0:00 left"));
}

TEST(Progress, NothingMovesFromTheFirstLineToTheLast) {
    for (const int width : {20, 40, 60, 80, 120}) {
        ProgressState state{0, 60, 0, 1200, 0, {}};
        const std::string first = progressLine(state, width);
        for (; state.rowsDone < 60; state.rowsDone++, state.patchesDone += 20, state.seconds += 9.7) {
            const std::string line = progressLine(state, width);
            for (const char* const part : {"/60", "/1200", "left", "/s", "]"})
                EXPECT_EQ(line.find(part), first.find(part)) << line;
            if (state.rowsDone > 0 && width >= 80) {
                EXPECT_THAT(line, HasSubstr("by spots"));
            }
            state.spotRows.push_back(state.rowsDone);
        }
    }
}

TEST(Terminal, ClipsWholeCharacters) {
    EXPECT_EQ(clipped("b\xc3\xa9ta", 2), "b\xc3\xa9");
    EXPECT_EQ(clipped("b\xc3\xa9ta", 9), "b\xc3\xa9ta");
}

TEST(Json, EscapesWhatItMust) {
    EXPECT_EQ(Json().add("a\"", "\\\n\xc3\xa9").add("b", 0.1).add("c", true).add("d", -5).text(),
              "{\"a\\\"\":\"\\\\\\u000a\xc3\xa9\",\"b\":0.1,\"c\":true,\"d\":-5}");
    EXPECT_EQ(Json().add("n", std::numeric_limits<double>::quiet_NaN()).text(), "{\"n\":null}");
    EXPECT_EQ(Json::quote("a\xff"), "\"a\xef\xbf\xbd\"");
}

TEST(PluginLog, KnowsRowsReadBySpotsFromNowOn) {
    const std::filesystem::path file =
        std::filesystem::temp_directory_path() / ("plugin-log-" + std::to_string(getpid()));
    std::ofstream stream(file);
    const std::string worker = "2026-01-02 03:04:05.678 INFO [1:2] ";
    const std::string row = worker + "TaviIODeviceService::advancedMeasure - measuring row ";
    const std::string spots = worker + "Error scanning, trying to scan using spot\n";
    stream << row + "7...\n" + spots << std::flush;
    PluginLog log(file);
    // Another client's command, which the main thread writes about, is none of the scan's words.
    stream << row + "0...\n"
           << "2026-01-02 03:04:05.678 ERROR [1:2] text\n"
           << "2026-01-02 03:04:05.678 ERROR [1:1] [1:2] Error scanning, trying to scan using spot\n"
           << "2026-01-02 03:04:05.678 INFO [1:2] name: Error scanning, trying to scan using spot\n"
           << row.substr(0, 60) << std::flush;
    log.update();
    stream << row.substr(60) + "12...\n" + spots << std::flush;
    log.update();
    EXPECT_EQ(log.wasSpotRead(0), false);
    EXPECT_EQ(log.wasSpotRead(7), std::nullopt) << "nothing was read of it";
    EXPECT_EQ(log.wasSpotRead(12), true);
    EXPECT_THAT(log.warnings(), testing::ElementsAre(HasSubstr("text")));
    const std::filesystem::path aside = file.string() + ".1"; // it has become too long
    std::filesystem::rename(file, aside);
    stream << row + "13...\n" << std::flush;
    std::ofstream(file) << spots;
    log.update();
    EXPECT_EQ(log.wasSpotRead(13), true);
    std::filesystem::remove(aside);
    std::filesystem::remove(file);
}

class RowTest : public testing::Test {
protected:
    RowTest() {
        mLayout.rows = 2;
        mLayout.columns = 2;
        mLayout.lastRowColumns = 1;
        for (const auto& [row, column] : {std::pair(0, 0), std::pair(0, 1), std::pair(1, 1)})
            mLayout.patches.push_back({"", row, column, {}});
    }

    static Measurement patch(const std::string& row, const std::string& column, std::size_t bands = 36) {
        const TextTable attributes = {
            {"Row", row}, {"Column", column}, {"SpotIndex", "0"}, {"Illumination", "M2"}};
        return {"Reflective",
                {{"Spectral", std::vector<double>(bands, 0.5), attributes}, {"Lab", {50, 1, 2}, attributes}}};
    }

    Row read(std::vector<Measurement> patches) const {
        return rowOf({0, "", "", std::move(patches)}, mLayout);
    }

    Color::ChartLayout mLayout;
};

TEST_F(RowTest, HoldsTheReadingsOfOneRow) {
    const Row row = read({patch("0", "0"), patch("0", "1")});
    EXPECT_EQ(row.row, 0);
    EXPECT_EQ(row.condition, Color::MeasurementCondition::M2);
    ASSERT_EQ(row.readings.size(), 2u);
    EXPECT_EQ(row.readings[1].column, 1);
    EXPECT_EQ(row.readings[1].spectrum[35], 0.5f);
    EXPECT_EQ(row.readings[1].lab[2], 2.0f);
    EXPECT_EQ(read({patch("1", "1")}).readings.size(), 1u);
}

TEST_F(RowTest, RefusesWhatIsNotARowOfTheChart) {
    EXPECT_THROW(read({}), DeviceFailure);
    EXPECT_THROW(read({patch("0", "0")}), DeviceFailure) << "a patch is missing";
    EXPECT_THROW(read({patch("0", "0"), patch("1", "1")}), DeviceFailure) << "two rows";
    EXPECT_THROW(read({patch("1", "0")}), DeviceFailure) << "an empty cell";
    EXPECT_THROW(read({patch("9", "0")}), DeviceFailure);
    EXPECT_THROW(read({patch("x", "0")}), DeviceFailure);
    EXPECT_THROW(read({patch("0", "0", 35), patch("0", "1")}), DeviceFailure);
}

TEST_F(RowTest, MeasureCommandHoldsNumbersThatReadBackExactly) {
    mLayout.topLeft = {0.1, 1.0 / 3};
    const Command command = measureCommand(mLayout, {1, 4});
    EXPECT_EQ(command.name, "Measure");
    ASSERT_EQ(command.arguments[1].first, "TopLeftY");
    EXPECT_EQ(std::stod(command.arguments[1].second), 1.0 / 3);
    const TextTable expected = {{"TopLeftX", "0.1"}, {"RowToScan", "1"}, {"SpotMeasureCount", "4"}};
    EXPECT_THAT(command.arguments, testing::IsSupersetOf(expected));
}

} // namespace
