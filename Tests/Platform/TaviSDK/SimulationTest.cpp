#include "Bench.h"

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class SimulationTest : public Bench {
protected:
    void setFault(const std::string& fault) {
        mSimulation.fault = fault;
        apply();
    }
    void press() {
        ++mSimulation.presses;
        apply();
    }
    // Makes a call on a thread of its own, and returns when that sleeps in it.
    static std::future<int> startWaiting(const std::function<int()>& call) {
        std::promise<pid_t> thread;
        auto result = std::async(std::launch::async, [&thread, call] {
            thread.set_value(gettid());
            return call();
        });
        const std::string file = "/proc/self/task/" + std::to_string(thread.get_future().get()) + "/stat";
        std::string status;
        do {
            EXPECT_EQ(result.wait_for(1ms), std::future_status::timeout);
            std::getline(std::ifstream(file), status);
        } while (!HasFailure() && status.find(") S ") == std::string::npos);
        return result;
    }
    // Waits until a count of button reports is reached; false when it is not.
    static bool waitFor(const std::atomic<int>& count, int wanted) {
        for (const auto end = Clock::now() + 5s; Clock::now() < end; std::this_thread::sleep_for(1ms)) {
            if (count == wanted) {
                return true;
            }
        }
        return false;
    }
};

TEST_F(SimulationTest, faultsStrikeTheCallThatTheyName) {
    setFault("Tavi_SetPosition:2:9");
    EXPECT_EQ(Tavi_SetPosition(10, 10), 0);
    EXPECT_EQ(Tavi_GoToHomePosition(), 0);
    apply(); // the same setting again does not begin to count anew
    EXPECT_EQ(Tavi_SetPosition(20, 20), 9);
    EXPECT_NE(option("LastError").find("Tavi_SetPosition"), std::string::npos);
    float x = 0;
    float y = 0;
    ASSERT_EQ(Tavi_GetPosition(&x, &y), 0);
    EXPECT_EQ(x, 0.0F);                     // it did not happen
    EXPECT_EQ(Tavi_SetPosition(20, 20), 0); // once only

    setFault("GetNumberOfAvailableSamples:1:4");
    EXPECT_EQ(Tavi_GetNumberOfAvailableSamples(), 4);
    setFault("GetOption:1:-3");
    EXPECT_EQ(Tavi_GetOption("Beep"), nullptr);
    EXPECT_EQ(option("Beep"), "yes");

    setFault("Scan:1:throw");
    try {
        Tavi_Scan(0, 0, 1, 1);
        ADD_FAILURE() << "nothing was thrown";
    } catch (const TaviSDK::Exception& exception) {
        EXPECT_EQ(option("LastError"), exception.what());
    }
}

TEST_F(SimulationTest, faultsThatMakeNoSenseAreReportedAndHarmless) {
    for (const char* fault :
         {"Scan", "Scan:1", "Scan:0:3", "Scan:-1:3", "Scan:x:3", "Scan:1:", "Scan:1:crash", "Nothing:1:3",
          "Scan:1:hang=", "Scan:1:hang=-1", "Scan:1:hang=inf", "Scan:1:hang=nan",
          "Scan:99999999999999999999:1", ":::", "Scan:1:3:4"}) {
        mSimulation.fault = fault;
        EXPECT_NE(TaviSDK::setSimulation(mSimulation), "") << fault;
        EXPECT_NE(option("LastError").find(fault), std::string::npos);
        EXPECT_EQ(Tavi_Scan(0, 0, 1, 1), 5) << fault;
    }
}

TEST_F(SimulationTest, settingsThatMakeNoSenseAreToldOnce) {
    const auto logged = [this] {
        ::testing::internal::CaptureStderr();
        TaviSDK::setSimulation(mSimulation);
        return ::testing::internal::GetCapturedStderr();
    };
    mSimulation.fault = "Scann:1:11";
    const std::string line = logged();
    EXPECT_NE(line.find("Fault \"Scann:1:11\" makes no sense: there is no call \"Scann\"."),
              std::string::npos)
        << line;
    mSimulation.presses = 1;
    EXPECT_EQ(logged(), "");
    mSimulation.noise = -1.0;
    EXPECT_NE(logged().find("Noise must be 0 or more. Fault \"Scann:1:11\""), std::string::npos);
    mSimulation.noise = 0.0;
    mSimulation.fault = "Scan:1:11";
    EXPECT_EQ(logged(), "");
    mSimulation.fault = "Scann:1:11"; // a mistake made again is a new one
    EXPECT_NE(logged(), "");
}

TEST_F(SimulationTest, aCallThatHangsGoesOnWhenTheFaultIsLifted) {
    setFault("IsTableConnected:1:hang=0.03");
    const auto begin = Clock::now();
    EXPECT_EQ(Tavi_IsTableConnected(), 0);
    EXPECT_GE(Clock::now() - begin, 30ms);

    setFault("IsTableConnected:1:hang=3600");
    auto hanging = startWaiting([] { return Tavi_IsTableConnected(); });
    setFault("");
    EXPECT_EQ(hanging.get(), 0);
}

TEST_F(SimulationTest, chartsThatCannotBeReadLeaveBarePaper) {
    calibrate();
    mSimulation.chart = file("none.txt");
    EXPECT_EQ(TaviSDK::setSimulation(mSimulation), file("none.txt") + ": cannot be opened");
    EXPECT_EQ(option("LastError"), file("none.txt") + ": cannot be opened");
    EXPECT_EQ(Tavi_Scan(40, 30, 60, 30), 0);
    EXPECT_EQ(Tavi_GetNumberOfAvailableSamples(), 0);
    // The same name is looked at again once there is such a file.
    lay(straightChart(1, 3));
    std::filesystem::copy_file(mSimulation.chart, file("none.txt"));
    mSimulation.chart = file("none.txt");
    EXPECT_EQ(TaviSDK::setSimulation(mSimulation), "");
    EXPECT_EQ(Tavi_Scan(40, 30, 60, 30), 0);
    EXPECT_EQ(Tavi_GetNumberOfAvailableSamples(), 3);

    mSimulation.timeScale = std::nan("");
    mSimulation.noise = -1.0;
    EXPECT_NE(TaviSDK::setSimulation(mSimulation), "");
    EXPECT_EQ(TaviSDK::simulation().timeScale, 1.0);
    EXPECT_EQ(TaviSDK::simulation().noise, 0.0);
}

TEST_F(SimulationTest, movesTakeTheirTimeAtTheScaleThatHoldsNow) {
    mSimulation.timeScale = 0.0001;
    apply();
    ASSERT_EQ(Tavi_SetOption("TaviTMoveSpeed", "0.5"), 0);
    const auto begin = Clock::now();
    ASSERT_EQ(Tavi_SetPosition(300, 400), 0); // a thousand seconds of the table's
    const auto taken = Clock::now() - begin;
    EXPECT_GE(taken, 100ms);
    EXPECT_LT(taken, 1000s);

    // A year of a strip ends when the scale changes under it.
    mSimulation.timeScale = 1e8;
    apply();
    auto moving = startWaiting([] { return Tavi_SetPosition(0, 0); });
    mSimulation.timeScale = 0.0;
    apply();
    EXPECT_EQ(moving.get(), 0);
}

TEST_F(SimulationTest, aStripDuringWhichTheSpectrophotometerWentIsLost) {
    lay(straightChart(2, 3));
    calibrate();
    mSimulation.timeScale = 1e6;
    apply();
    auto strip = startWaiting([] { return Tavi_Scan(40, 30, 60, 30); });
    mSimulation.spectrophotometer = false;
    apply();
    mSimulation.spectrophotometer = true;
    mSimulation.timeScale = 0.0;
    apply();
    EXPECT_EQ(strip.get(), 100);

    calibrate();
    mSimulation.timeScale = 1e6;
    apply();
    strip = startWaiting([] { return Tavi_Scan(40, 30, 60, 30); });
    mSimulation.table = false;
    apply();
    EXPECT_EQ(strip.get(), 1);
}

TEST_F(SimulationTest, settingsMayChangeUnderRunningCalls) {
    const Color::ChartLayout layout = straightChart(2, 20);
    lay(layout);
    calibrate();
    std::atomic<bool> isDone{false};
    std::thread changer([&] {
        TaviSDK::Simulation simulation = mSimulation;
        while (!isDone) {
            simulation.timeScale = simulation.timeScale > 0.0 ? 0.0 : 0.001;
            ++simulation.presses;
            TaviSDK::setSimulation(simulation);
            TaviSDK::setCallHook([](const TaviSDK::Call&) { return std::nullopt; });
            TaviSDK::setCallHook(nullptr);
        }
    });
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(Tavi_Scan(40, 30, 230, 30), 0);
        ASSERT_EQ(Tavi_GetNumberOfAvailableSamples(), 20);
        ASSERT_EQ(sample(19), expected(layout, 0, 19));
    }
    isDone = true;
    changer.join();
}

TEST_F(SimulationTest, theHookSeesEveryCallAndMayAnswerIt) {
    std::vector<std::string> calls;
    TaviSDK::setCallHook([&](const TaviSDK::Call& call) -> std::optional<int> {
        calls.push_back(call.name + "(" + call.arguments + ")");
        if (call.name == "Tavi_Calibrate") {
            return 6;
        }
        if (call.name == "Tavi_GoToHomePosition") {
            throw TaviSDK::Exception("unplugged");
        }
        return std::nullopt;
    });
    EXPECT_EQ(Tavi_SetOption("Beep", "no"), 0);
    EXPECT_EQ(Tavi_Calibrate(), 6);
    EXPECT_THROW(Tavi_GoToHomePosition(), TaviSDK::Exception);
    EXPECT_EQ(Tavi_SetPosition(1.5F, -2), 0);
    EXPECT_EQ(Tavi_Scan(0, 1, 2, 3), 5);
    float lab[3] = {};
    EXPECT_EQ(Tavi_GetTriStimulus(lab, 4), 7);
    Tavi_RegisterDeviceMessageHandler(nullptr);
    TaviSDK::setCallHook([&](const TaviSDK::Call&) {
        TaviSDK::setCallHook(nullptr); // from within: does not wait for itself
        return std::optional(8);
    });
    EXPECT_EQ(Tavi_IsTableConnected(), 8);
    EXPECT_EQ(Tavi_IsTableConnected(), 0);
    EXPECT_EQ(calls, (std::vector<std::string>{"Tavi_SetOption(Beep=no)", "Tavi_Calibrate()",
                                               "Tavi_GoToHomePosition()", "Tavi_SetPosition(1.5,-2)",
                                               "Tavi_Scan(0,1,2,3)", "Tavi_GetTriStimulus(4)",
                                               "Tavi_RegisterDeviceMessageHandler(null)"}));
}

std::atomic<int> reported{0};
std::atomic<bool> isSlow{false};
std::atomic<bool> isInside{false};
std::thread::id reporter;

void onMessage(Tavi_DeviceMessage message, const char*) {
    EXPECT_EQ(message, Tavi_MessageButtonPressed);
    reporter = std::this_thread::get_id();
    isInside = true;
    while (isSlow) {
        std::this_thread::sleep_for(1ms);
    }
    isInside = false;
    ++reported;
}

void unregisterItself(Tavi_DeviceMessage, const char*) {
    Tavi_RegisterDeviceMessageHandler(nullptr);
    ++reported;
}

TEST_F(SimulationTest, theButtonReportsOnAThreadOfItsOwn) {
    reported = 0;
    press(); // nobody listens, then or later
    Tavi_RegisterDeviceMessageHandler(onMessage);
    press();
    EXPECT_TRUE(waitFor(reported, 1));
    EXPECT_NE(reporter, std::this_thread::get_id());
    mSimulation.presses += 3;
    apply();
    EXPECT_TRUE(waitFor(reported, 4));
    --mSimulation.presses; // taking one back is no press
    apply();
    mSimulation.spectrophotometer = false;
    press();
    mSimulation.spectrophotometer = true;
    apply();
    press();
    EXPECT_TRUE(waitFor(reported, 5));

    Tavi_RegisterDeviceMessageHandler(unregisterItself);
    mSimulation.presses += 2;
    apply();
    EXPECT_TRUE(waitFor(reported, 6));
    press();
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(reported, 6);
}

TEST_F(SimulationTest, unregisteringWaitsForTheHandlerThatRuns) {
    reported = 0;
    isSlow = true;
    Tavi_RegisterDeviceMessageHandler(onMessage);
    press();
    while (!isInside) {
        std::this_thread::sleep_for(1ms);
    }
    auto unregistering = startWaiting([] {
        Tavi_RegisterDeviceMessageHandler(nullptr);
        return isInside ? 1 : 0;
    });
    EXPECT_EQ(Tavi_IsTableConnected(), 0); // others are not held up
    isSlow = false;
    EXPECT_EQ(unregistering.get(), 0);
    EXPECT_EQ(reported, 1);
}

} // namespace
