// Clients, the instrument's user and the parent process interfere at every single call that an operation
// makes of the SDK.

#include "SweepBench.h"

#include <chrono>
#include <thread>

namespace test {
namespace {

constexpr int kCancelled = -1023;

void nap() {
    std::this_thread::sleep_for(std::chrono::microseconds(20));
}

class Interference : public SweepBench {
public:
    // --- What happens on the main thread, or inside one of its calls ---

    void cancel() { EXPECT_EQ(ask("CancelMeasure").code, 0); }
    void reset() { EXPECT_EQ(ask("__RESET__").code, 0); }
    void measureAgain() { EXPECT_EQ(ask("Measure", chart.measureArguments()).code, 23); }
    // The SDK reports the button on a thread of its own.
    void press() {
        std::thread([] { BenchDriver::__FPtr_Tavi_MessageHandler(0, nullptr); }).join();
    }
    void pressAndHandle() {
        press();
        pass();
        EXPECT_TRUE(postsFor("BeginMeasure").empty());
    }
    void lift() { liftSpectrophotometer(true); }
    void disconnect() {
        EXPECT_TRUE(driver->disconnect());
        EXPECT_FALSE(driver->hasWorkers());
    }
    void remove() {
        removeHardware();
        EXPECT_FALSE(driver->hasWorkers());
    }
    // As the watcher thread does.
    void loseParent() {
        driver->mRunLoopRunning = false; // else that is the end of the test program
        mWatcher = std::thread([this] {
            driver->die_a_QuickDeath();
            EXPECT_FALSE(driver->hasWorkers());
            mIsGone = true;
        });
        while (!driver->IsDying())
            nap();
    }
    void loseParentAndEnd() {
        loseParent();
        awaitEnd();
    }

protected:
    void awaitEnd() {
        if (!mWatcher.joinable())
            return;
        passUntil([&] { return mIsGone.load(); });
        mWatcher.join();
        mIsGone = false;
    }
    void expectEnded() {
        EXPECT_TRUE(driver->IsDying());
        EXPECT_FALSE(driver->isConnected());
        EXPECT_EQ(driver->exitCode(), 0);
        driver->beginPolling();
        EXPECT_FALSE(driver->isPolling()) << "while it dies, polling does not come back";
    }
    // The driver has noticed that the spectrophotometer is not there; it comes back.
    void expectLiftedAndPutBack() {
        passUntil([&] { return !driver->hasTaviConnected(); });
        driver->didPoll();
        EXPECT_EQ(driver->device()->calibrationStatus(), 0);
        EXPECT_STREQ(driver->device()->mode(), "");
        liftSpectrophotometer(false);
    }

private:
    std::thread mWatcher;
    std::atomic<bool> mIsGone{false};
};

// --- While a worker measures

enum class Ends { inFull, cancelled, disconnected, withTheDriver, withoutInstrument };

struct Interruption {
    const char* label;
    void (Interference::*happens)();
    Ends ends;
};

void PrintTo(const Interruption& interruption, std::ostream* out) {
    *out << interruption.label;
}

class WhileMeasuring : public Interference,
                       public ::testing::WithParamInterface<std::tuple<ScanCase, Interruption>> {
protected:
    // Rows, and then that the measurement was cancelled: by then one more row may have been on its way. A
    // row that is scanned alone may have been complete.
    void expectCancelled(const ScanCase& scan, const Hit& hit, const std::vector<Post>& answers) {
        ASSERT_GT(answers.size(), hit.answered);
        ASSERT_LE(answers.size(), scan.row >= 0 ? 1 : hit.answered + 2);
        for (std::size_t index = 0; index + 1 < answers.size(); ++index)
            expectRow(answers[index], scan.chart, static_cast<int>(index));
        const bool isComplete = !scan.endsAtHome() && (hit.is("Tavi_GetOption PhysicalFilter") ||
                                                       hit.is("Tavi_SetOption MeasurementMode=Scanning"));
        if (isComplete) {
            expectRow(answers.back(), scan.chart, scan.row);
            return;
        }
        EXPECT_EQ(answers.back().code, kCancelled);
        EXPECT_EQ(answers.back().message, "Measure Cancelled");
        EXPECT_TRUE(answers.back().onMainThread);
        EXPECT_TRUE(headWasSentHome());
    }
    void expectInFull(const ScanCase& scan, const std::vector<Post>& answers) {
        ASSERT_EQ(answers.size(), scan.answers());
        for (std::size_t index = 0; index < answers.size(); ++index)
            expectRow(answers[index], scan.chart, scan.row >= 0 ? scan.row : static_cast<int>(index));
    }
    void expectRowsAndThenNoInstrument(const ScanCase& scan, const Hit& hit,
                                       const std::vector<Post>& answers) {
        ASSERT_GT(answers.size(), hit.answered);
        ASSERT_LE(answers.size(), scan.answers());
        for (std::size_t index = 0; index + 1 < answers.size(); ++index)
            EXPECT_EQ(answers[index].code, 0);
        if (answers.back().code == 0) {
            EXPECT_EQ(answers.size(), scan.answers());
        } else {
            EXPECT_TRUE(answers.back().code == 25 || answers.back().code == 35) << answers.back().code;
            expectHeadAtHome();
        }
    }
};

TEST_P(WhileMeasuring, EndsWell) {
    const auto& [scan, interruption] = GetParam();
    chart = scan.chart;
    place(chart);
    std::atomic<bool> stands{false};
    std::atomic<bool> isDone{false};
    // The worker stays inside the call until the main thread is done, or waits for it.
    const auto stand = [&](const Hit& hit) -> std::optional<int> {
        if (!hit.onWorker)
            return std::nullopt;
        stands = true;
        while (!isDone && driver->isMeasuring() && !driver->isCancelled())
            nap();
        return std::nullopt;
    };
    const auto interrupt = [&] {
        passUntil([&] { return stands.load() || !driver->hasWorkers(); });
        if (stands)
            (this->*interruption.happens)();
        isDone = true;
    };
    Operation operation = scan.operation();
    operation.prepare = [&] { stands = isDone = false; };
    sweep(
        operation, interruption.label, stand,
        [&](const Hit& hit, const std::vector<Post>& answers) {
            switch (interruption.ends) {
            case Ends::inFull:
                return expectInFull(scan, answers);
            case Ends::withoutInstrument:
                expectRowsAndThenNoInstrument(scan, hit, answers);
                return expectLiftedAndPutBack();
            case Ends::cancelled:
                expectCancelled(scan, hit, answers);
                return;
            case Ends::disconnected:
                expectCancelled(scan, hit, answers);
                expectEmptyRecord();
                EXPECT_EQ(driver->connect(), VellDevice::kConnected);
                return driver->beginPolling();
            case Ends::withTheDriver:
                expectCancelled(scan, hit, answers);
                expectEmptyRecord();
                return expectEnded();
            }
        },
        interrupt);
}

INSTANTIATE_TEST_SUITE_P(
    Every, WhileMeasuring,
    ::testing::Combine(
        ::testing::Values(ScanCase{"Strips", {.rows = 2, .columns = 2}},
                          ScanCase{"StripsThenSpots", {.rows = 2, .columns = 2, .equalNeighbours = true}},
                          ScanCase{"MiddleRow", {.rows = 3, .columns = 2}, 1},
                          ScanCase{"LastRowBySpots", {.rows = 2, .columns = 2}, 1, 1}),
        ::testing::Values(Interruption{"Cancel", &Interference::cancel, Ends::cancelled},
                          Interruption{"Reset", &Interference::reset, Ends::cancelled},
                          Interruption{"SecondMeasure", &Interference::measureAgain, Ends::inFull},
                          Interruption{"Button", &Interference::pressAndHandle, Ends::inFull},
                          Interruption{"Lift", &Interference::lift, Ends::withoutInstrument},
                          Interruption{"Disconnect", &Interference::disconnect, Ends::disconnected},
                          Interruption{"HardwareRemoval", &Interference::remove, Ends::withTheDriver},
                          Interruption{"ParentDeath", &Interference::loseParentAndEnd, Ends::withTheDriver})),
    [](const auto& given) {
        return std::string(std::get<0>(given.param).label) + std::get<1>(given.param).label;
    });

// A worker that outlives the reset: its strip ends only when the reset has waited its time and given the
// measurement up.
TEST_F(Interference, WorkerThatAResetLeavesBehind) {
    chart = {.rows = 4, .columns = 4};
    place(chart);
    std::atomic<bool> inStrip{false};
    calls.interfere([&](int, const TaviSDK::Call& call) -> std::optional<int> {
        if (call.name == "Tavi_Scan" && !inStrip.exchange(true))
            while (driver->isMeasuring())
                nap();
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
    EXPECT_EQ(answersTo(first)[0].code, kCancelled);
    EXPECT_EQ(answersTo(first)[0].message, "Measure Cancelled");
    const std::vector<Post> rows = answersTo(second);
    ASSERT_EQ(rows.size(), 4U);
    for (int row = 0; row < 4; ++row)
        expectRow(rows[static_cast<std::size_t>(row)], chart, row);
    expectNoThreadLeft();
    expectCleanScan();
}

// --- While the main thread is inside a call: clients wait then

struct Task {
    const char* label;
    const char* command; // "": poll
    std::map<std::string, std::string> arguments{};
    const char* mode = "ScanningReflectance";
};

void PrintTo(const Task& task, std::ostream* out) {
    *out << task.label;
}

class WhileBusy : public Interference, public ::testing::WithParamInterface<Task> {
protected:
    Operation operation() {
        return {.label = GetParam().label,
                .command = GetParam().command,
                .arguments = GetParam().arguments,
                .act = [this] { driver->didPoll(); },
                .prepare =
                    [this] {
                        ask("SetMode", {{"Mode", GetParam().mode}});
                    }};
    }
    void expectAnswer(const std::vector<Post>& answers) {
        ASSERT_EQ(answers.size(), *GetParam().command != '\0' ? 1U : 0U);
    }
};

TEST_P(WhileBusy, Button) {
    sweep(
        operation(), "button",
        [&](const Hit&) {
            press();
            return std::nullopt;
        },
        [&](const Hit&, const std::vector<Post>& answers) {
            expectAnswer(answers);
            if (!answers.empty()) {
                EXPECT_EQ(answers[0].code, 0);
            }
            std::vector<Post> presses = postsFor("Measure");
            std::erase_if(presses, [](const Post& post) { return !post.ticket.empty(); });
            EXPECT_EQ(presses.size(), postsFor("BeginMeasure").size());
            EXPECT_LE(presses.size(), 1U);
            if (GetParam().label != std::string("Calibrate")) { // which the button does not disturb
                EXPECT_EQ(presses.size(), 1U);
            }
        });
}

TEST_P(WhileBusy, SpectrophotometerLifted) {
    sweep(
        operation(), "lifted",
        [&](const Hit&) {
            TaviSDK::Simulation simulation = TaviSDK::simulation();
            simulation.spectrophotometer = false;
            TaviSDK::setSimulation(simulation);
            scratch.write(scratch.hardware() / "table.plist", hardwareFile(kDevicePath, false));
            return std::nullopt;
        },
        [&](const Hit&, const std::vector<Post>& answers) {
            expectAnswer(answers);
            if (!answers.empty()) {
                EXPECT_TRUE(answers[0].code == 0 || answers[0].code == 35) << answers[0].code;
            }
            expectLiftedAndPutBack();
        });
}

TEST_P(WhileBusy, ParentDeath) {
    sweep(
        operation(), "parent death",
        [&](const Hit&) {
            loseParent();
            return std::nullopt;
        },
        [&](const Hit&, const std::vector<Post>& answers) {
            expectAnswer(answers);
            expectEnded();
        },
        [&] { awaitEnd(); });
}

INSTANTIATE_TEST_SUITE_P(
    Every, WhileBusy,
    ::testing::Values(Task{"Calibrate", "Calibrate"},
                      Task{"SetMode", "SetMode", {{"Mode", "SingleReflectance"}}},
                      Task{"SetOption", "SetAttribute", {{"key", "Beep"}, {"value", "no"}}},
                      Task{"Move", "SetDevicePosition", {{"x", "10"}, {"y", "10"}}},
                      Task{"Position", "GetDevicePosition"}, Task{"GoHome", "GoHome"},
                      Task{"MeasurePosition", "Measure", {}, "SingleReflectance"}, Task{"Poll", ""}),
    [](const auto& given) { return std::string(given.param.label); });

TEST_F(Interference, ParentDeathWhileConnecting) {
    sweep(
        connecting(), "parent death",
        [&](const Hit&) {
            loseParent();
            return std::nullopt;
        },
        [&](const Hit&, const std::vector<Post>&) {
            expectEmptyRecord();
            expectEnded();
        },
        [&] { awaitEnd(); });
}

} // namespace
} // namespace test
