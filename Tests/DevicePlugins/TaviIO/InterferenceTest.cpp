// Faults and interference at every single call that an operation makes of the SDK.

#include "DriverBench.h"

#include <chrono>
#include <thread>

namespace test {
namespace {

class Interference : public DriverBench {
protected:
    void SetUp() override { makeReady(); }

    // Runs `operation` once to count its calls, then once for each of them with `interference` at that call.
    void sweep(const std::function<std::string()>& operation,
               const std::function<std::optional<int>(const TaviSDK::Call&)>& interference,
               const std::function<void(const std::vector<Post>&)>& check) {
        calls.interfere({});
        operation();
        finishMeasurements();
        const int total = calls.count();
        ASSERT_GT(total, 0);
        for (int at = 1; at <= total; ++at) {
            SCOPED_TRACE(::testing::Message() << "call " << at << " of " << total);
            calls.interfere([&, at](int number, const TaviSDK::Call& call) {
                return number == at ? interference(call) : std::nullopt;
            });
            clearPosts();
            const std::string ticket = operation();
            finishMeasurements();
            calls.interfere({});
            check(answersTo(ticket));
            expectWhole();
            if (HasFatalFailure() || HasFailure())
                return;
        }
        expectCleanScan();
    }

    // What holds after everything, whatever went wrong.
    void expectWhole() {
        EXPECT_FALSE(driver->isMeasuring());
        EXPECT_FALSE(driver->hasWorkers());
        EXPECT_TRUE(driver->isPolling());
        EXPECT_NE(driver->device()->calibrationStatus(), -1);
        std::vector<std::string> modes;
        driver->device()->modes(modes);
        EXPECT_EQ(modes, (std::vector<std::string>{"ScanningReflectance", "SingleReflectance"}));
        // The next pass brings the instrument back into the record's mode.
        driver->updateAttributes();
        if (driver->device()->calibrationStatus() != 1)
            ask("Calibrate");
        EXPECT_EQ(ask("SetMode", {{"Mode", "ScanningReflectance"}}).code, 0);
    }

    static std::optional<int> failing(const TaviSDK::Call&) { return 8; }
    static std::optional<int> throwing(const TaviSDK::Call&) { throw TaviSDK::Exception("cable"); }

    // Rows in order, and at most one answer that says why there are no more.
    static void expectRowsThenReason(const std::vector<Post>& answers, std::size_t rows) {
        ASSERT_FALSE(answers.empty());
        ASSERT_LE(answers.size(), rows);
        for (std::size_t index = 0; index + 1 < answers.size(); ++index)
            EXPECT_EQ(answers[index].code, 0) << "answer " << index;
        if (answers.size() < rows) {
            EXPECT_NE(answers.back().code, 0);
        }
    }
};

struct CommandCase {
    const char* label;
    const char* name;
    std::map<std::string, std::string> arguments;
};

class CommandFaults : public Interference, public ::testing::WithParamInterface<CommandCase> {};

TEST_P(CommandFaults, AnswerOnce) {
    const auto operation = [&] { return send(GetParam().name, GetParam().arguments); };
    sweep(operation, failing, [](const std::vector<Post>& answers) { EXPECT_EQ(answers.size(), 1U); });
    sweep(operation, throwing, [](const std::vector<Post>& answers) {
        ASSERT_EQ(answers.size(), 1U);
        EXPECT_TRUE(answers[0].code == 14 || answers[0].code == 0) << answers[0].code;
    });
}

INSTANTIATE_TEST_SUITE_P(
    Every, CommandFaults,
    ::testing::Values(CommandCase{"Calibrate", "Calibrate", {}},
                      CommandCase{"SetMode", "SetMode", {{"Mode", "SingleReflectance"}}},
                      CommandCase{"SetOption", "SetAttribute", {{"key", "Beep"}, {"value", "no"}}},
                      CommandCase{
                          "LowResolution", "SetAttribute", {{"key", "LowResolutionScan"}, {"value", "no"}}},
                      CommandCase{"Move", "SetDevicePosition", {{"x", "10"}, {"y", "10"}}},
                      CommandCase{"Position", "GetDevicePosition", {}}, CommandCase{"GoHome", "GoHome", {}},
                      CommandCase{"Cancel", "CancelMeasure", {}}, CommandCase{"Reset", "__RESET__", {}}),
    [](const auto& given) { return std::string(given.param.label); });

class ScanFaults : public Interference {
protected:
    // Faults at every call of one measurement; `rows` is what it answers when nothing happens.
    void sweepScan(const ChartOnTable& chart, const std::map<std::string, std::string>& extra, bool throws,
                   std::size_t rows) {
        place(chart);
        auto arguments = chart.measureArguments();
        arguments.insert(extra.begin(), extra.end());
        sweep([&] { return send("Measure", arguments); }, throws ? throwing : failing,
              [&](const std::vector<Post>& answers) {
                  expectRowsThenReason(answers, rows);
                  if (throws && answers.back().code != 0) {
                      EXPECT_EQ(answers.back().code, 14);
                  }
              });
    }

    const ChartOnTable kChart{.rows = 2, .columns = 3, .lastRowColumns = 2, .equalNeighbours = true};
};

TEST_F(ScanFaults, FailuresInAChart) {
    sweepScan(kChart, {}, false, 2);
}
TEST_F(ScanFaults, ExceptionsInAChart) {
    sweepScan(kChart, {}, true, 2);
}
TEST_F(ScanFaults, FailuresInSpots) {
    sweepScan(kChart, {{"SpotMeasureCount", "2"}}, false, 2);
}
TEST_F(ScanFaults, ExceptionsInSpots) {
    sweepScan(kChart, {{"SpotMeasureCount", "2"}}, true, 2);
}
TEST_F(ScanFaults, FailuresInTheFirstRowAlone) {
    sweepScan(kChart, {{"RowToScan", "0"}}, false, 1);
}
TEST_F(ScanFaults, ExceptionsInTheFirstRowAlone) {
    sweepScan(kChart, {{"RowToScan", "0"}}, true, 1);
}
TEST_F(ScanFaults, FailuresInTheLastRowAlone) {
    sweepScan(kChart, {{"RowToScan", "1"}}, false, 1);
}
TEST_F(ScanFaults, ExceptionsInTheLastRowAlone) {
    sweepScan(kChart, {{"RowToScan", "1"}}, true, 1);
}

// Commands that arrive on the main thread while the worker is inside a call.
class Meanwhile : public Interference {
protected:
    // Runs a scan for each call; when the worker reaches it, the main thread carries out `command` while the
    // worker waits inside the call, and the worker goes on when `until` says so.
    void sweepCommand(const std::function<void()>& command,
                      const std::function<void(const std::vector<Post>&)>& check) {
        const ChartOnTable chart{.rows = 2, .columns = 2};
        place(chart);
        calls.interfere({});
        measure(chart);
        const int total = calls.count();
        for (int at = 1; at <= total; ++at) {
            SCOPED_TRACE(::testing::Message() << "call " << at << " of " << total);
            std::atomic<bool> reached{false};
            std::atomic<bool> done{false};
            calls.interfere([&, at](int number, const TaviSDK::Call&) -> std::optional<int> {
                if (number == at && !reached.exchange(true)) {
                    const auto patience = std::chrono::steady_clock::now() + std::chrono::milliseconds(4);
                    while (!done && std::chrono::steady_clock::now() < patience)
                        std::this_thread::yield();
                }
                return std::nullopt;
            });
            clearPosts();
            const std::string ticket = send("Measure", chart.measureArguments());
            passUntil([&] { return reached.load() || !driver->hasWorkers(); });
            command();
            done = true;
            finishMeasurements();
            calls.interfere({});
            check(answersTo(ticket));
            expectWhole();
            if (HasFailure())
                return;
        }
        expectCleanScan();
    }
};

TEST_F(Meanwhile, CancelAtEveryCall) {
    sweepCommand([&] { send("CancelMeasure"); },
                 [](const std::vector<Post>& answers) {
                     ASSERT_FALSE(answers.empty());
                     ASSERT_LE(answers.size(), 3U);
                     if (answers.size() < 2 || answers.size() == 3) {
                         EXPECT_EQ(answers.back().code, -1023);
                     }
                 });
}

TEST_F(Meanwhile, ResetAtEveryCall) {
    sweepCommand([&] { EXPECT_EQ(ask("__RESET__").code, 0); },
                 [](const std::vector<Post>& answers) { ASSERT_FALSE(answers.empty()); });
}

TEST_F(Meanwhile, SecondMeasureAndButtonAtEveryCall) {
    const ChartOnTable chart{.rows = 2, .columns = 2};
    sweepCommand(
        [&] {
            if (driver->isMeasuring()) {
                EXPECT_EQ(ask("Measure", chart.measureArguments()).code, 23);
            }
            if (driver->isMeasuring())
                driver->buttonPressed();
        },
        [&](const std::vector<Post>& answers) {
            ASSERT_EQ(answers.size(), 2U);
            expectRow(answers[0], chart, 0);
            expectRow(answers[1], chart, 1);
        });
}

TEST_F(Meanwhile, SpectrophotometerLiftedAtEveryCall) {
    TaviSDK::Simulation lifted;
    sweepCommand(
        [&] {
            lifted = TaviSDK::simulation();
            lifted.spectrophotometer = false;
            TaviSDK::setSimulation(lifted);
            finishMeasurements();
            lifted.spectrophotometer = true;
            TaviSDK::setSimulation(lifted);
            ask("ClearCalibration"); // it lost it, sooner than the driver could notice
        },
        [](const std::vector<Post>& answers) { expectRowsThenReason(answers, 2); });
}

// A worker that outlives the reset: its strip ends only when the reset has waited its time and given the
// measurement up.
TEST_F(Interference, WorkerThatAResetLeavesBehind) {
    const ChartOnTable chart{.rows = 4, .columns = 4};
    place(chart);
    std::atomic<bool> inStrip{false};
    calls.interfere([&](int, const TaviSDK::Call& call) -> std::optional<int> {
        if (call.name == "Tavi_Scan" && !inStrip.exchange(true))
            while (driver->isMeasuring())
                std::this_thread::yield();
        return std::nullopt;
    });
    const std::string first = send("Measure", chart.measureArguments());
    passUntil([&] { return inStrip.load(); });
    takeSleptSeconds();
    EXPECT_EQ(ask("__RESET__").code, 0);
    EXPECT_GE(takeSleptSeconds(), 5U);
    const std::string second = send("Measure", chart.measureArguments());
    finishMeasurements();
    ASSERT_EQ(answersTo(first).size(), 1U);
    EXPECT_EQ(answersTo(first)[0].code, -1023);
    EXPECT_EQ(answersTo(first)[0].message, "Measure Cancelled");
    const std::vector<Post> rows = answersTo(second);
    ASSERT_EQ(rows.size(), 4U);
    for (int row = 0; row < 4; ++row)
        expectRow(rows[static_cast<std::size_t>(row)], chart, row);
    expectWhole();
    expectCleanScan();
}

TEST_F(Interference, DisconnectWaitsForTheScanAndItsAnswer) {
    const ChartOnTable chart{.rows = 5, .columns = 4};
    place(chart);
    const std::string ticket = send("Measure", chart.measureArguments());
    passUntil([&] { return !answersTo(ticket).empty(); });
    EXPECT_TRUE(driver->disconnect()); // on the main thread, which the worker needs to post its rows
    EXPECT_FALSE(driver->isMeasuring());
    EXPECT_FALSE(driver->hasWorkers());
    EXPECT_FALSE(driver->isPolling());
    const std::vector<Post> answers = answersTo(ticket);
    EXPECT_TRUE(answers.back().code == -1023 || answers.size() == 5U);
}

TEST_F(Interference, WatcherDisconnectsBesideTheMainThread) {
    const ChartOnTable chart{.rows = 5, .columns = 4};
    place(chart);
    const std::string ticket = send("Measure", chart.measureArguments());
    ASSERT_TRUE(driver->TestAndSetDying());
    std::atomic<bool> gone{false};
    std::thread watcher([&] {
        driver->disconnect();
        gone = true;
    });
    passUntil([&] { return gone.load(); });
    watcher.join();
    EXPECT_EQ(answersTo(ticket).back().code, -1023);
    EXPECT_EQ(ask("Measure", chart.measureArguments()).code, 47) << "the record is empty";
    EXPECT_FALSE(driver->isPolling());
    driver->beginPolling();
    EXPECT_FALSE(driver->isPolling()) << "while it dies, polling does not come back";
}

} // namespace
} // namespace test
