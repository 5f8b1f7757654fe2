#include "DriverBench.h"

#include <algorithm>

namespace test {
namespace {

class Commands : public DriverBench {
protected:
    void SetUp() override { makeReady(); }
};

TEST_F(Commands, TableListsTheDriversBesideTheFramework) {
    clearPosts();
    ask("GetCommands");
    const CommandTable expected{{"GetCommands", {}},
                                {"Poll", {}},
                                {"poll", {}},
                                {"Status", {}},
                                {"Disable", {}},
                                {"Enable", {}},
                                {"Quit", {}},
                                {"Measure",
                                 {"source", "TopLeftX", "TopLeftY", "BotLeftX", "BotLeftY", "BotRightX",
                                  "BotRightY", "Rows", "Columns"}},
                                {"SetMode", {"Mode"}},
                                {"Calibrate", {"source"}},
                                {"SetAttribute", {"Key", "value", "Key", "Value"}},
                                {"SetDevicePosition", {"x", "y"}},
                                {"GetDevicePosition", {}},
                                {"GoHome", {}},
                                {"MeasureCancel", {}},
                                {"CancelMeasure", {}}};
    EXPECT_EQ(postedCommandTable(), expected);
}

TEST_F(Commands, StatusesPrecedeTheAnswerButThatOfABusyDevice) {
    const auto statusesBefore = [&](const char* name, const std::map<std::string, std::string>& arguments) {
        clearPosts();
        const int before = ask(name, arguments).statusesBefore;
        EXPECT_EQ(statusPosts(), std::max(before, 1)) << name;
        return before;
    };
    EXPECT_EQ(statusesBefore("SetMode", {{"Mode", "ScanningReflectance"}}), 2);
    EXPECT_EQ(statusesBefore("SetAttribute", {{"key", "Beep"}, {"value", "no"}}), 3);
    EXPECT_EQ(statusesBefore("Calibrate", {}), 3) << "under way, its end, and every command's";
    driver->setIsMeasuring(true);
    EXPECT_EQ(statusesBefore("GoHome", {}), 0);
    EXPECT_EQ(statusesBefore("Measure", {}), 0);
    driver->setIsMeasuring(false);
}

TEST_F(Commands, MoveTheHead) {
    EXPECT_EQ(ask("SetDevicePosition", {{"x", "12.5"}, {"y", "7"}}).code, 0);
    const Post position = ask("GetDevicePosition");
    EXPECT_EQ(position.code, 0);
    EXPECT_EQ(position.message, "12.500000,7.000000");
    EXPECT_EQ(ask("SetDevicePosition", {{"x", "left"}}).code, 0) << "no number reads as 0";
    EXPECT_EQ(ask("GetDevicePosition").message, "0.000000,0.000000");
    EXPECT_EQ(ask("GoHome").code, 0);
    for (const char* const beyond : {"1e9", "-1e9", "nan", "inf"}) {
        const Post refused = ask("SetDevicePosition", {{"x", beyond}, {"y", "0"}});
        EXPECT_NE(refused.code, 0) << beyond;
        EXPECT_NE(refused.message, "") << beyond;
    }
}

TEST_F(Commands, UnknownOnesAnswer15) {
    EXPECT_EQ(ask("gohome").code, 15);
    EXPECT_EQ(ask("").code, 15);
}

TEST_F(Commands, CancelWithoutMeasurementSendsTheHeadHome) {
    for (const char* const name : {"CancelMeasure", "MeasureCancel", "__RESET__"}) {
        ask("SetDevicePosition", {{"x", "50"}, {"y", "50"}});
        calls.take();
        EXPECT_EQ(ask(name).code, 0);
        const auto made = calls.take();
        ASSERT_EQ(made.size(), 3U) << name;
        EXPECT_EQ(made[1], "Tavi_GoToHomePosition");
        EXPECT_FALSE(driver->isCancelled());
    }
}

TEST_F(Commands, MeasureInTheSingleModeAnswersThePosition) {
    ASSERT_EQ(ask("SetMode", {{"Mode", "SingleReflectance"}}).code, 0);
    ask("SetDevicePosition", {{"x", "103.25"}, {"y", "7"}});
    const Post position = ask("Measure");
    EXPECT_EQ(position.code, 0);
    ASSERT_EQ(position.patches.size(), 1U);
    for (const auto& attributes :
         {position.patches[0].spectralAttributes, position.patches[0].labAttributes}) {
        EXPECT_EQ(attributes.at("x"), "103.250000");
        EXPECT_EQ(attributes.at("y"), "7.000000");
    }
    EXPECT_TRUE(position.patches[0].spectrum.empty());
    EXPECT_TRUE(driver->isPolling());
    EXPECT_FALSE(driver->isMeasuring());

    int broken = 0;
    for (const char* const call : {"Tavi_SetOption", "Tavi_GetPosition", "Tavi_GetOption"}) {
        calls.interfere([&](int, const TaviSDK::Call& made) -> std::optional<int> {
            if (made.name != call || (made.name == "Tavi_GetOption" && made.arguments != "LastError"))
                return std::nullopt;
            ++broken;
            if (made.name == "Tavi_GetOption")
                throw TaviSDK::Exception("cable");
            return 8;
        });
        const Post failed = ask("Measure");
        EXPECT_EQ(failed.code, std::string(call) == "Tavi_GetOption" ? 14 : 10) << call;
        EXPECT_FALSE(failed.hasMeasurements && failed.code != 14) << call;
        EXPECT_TRUE(driver->isPolling()) << call;
    }
    EXPECT_GE(broken, 3);
}

TEST_F(Commands, ButtonMeasuresOrCalibrates) {
    const auto press = [&] {
        clearPosts();
        TaviSDK::Simulation simulation = TaviSDK::simulation();
        ++simulation.presses;
        TaviSDK::setSimulation(simulation);
        passUntil([&] { return scratch.logged("void TaviIO::buttonPressed()"); });
    };
    press();
    passUntil([&] { return !postsFor("Measure").empty(); });
    EXPECT_EQ(postsFor("BeginMeasure").at(0).code, 0);
    EXPECT_EQ(postsFor("Measure").at(0).code, 22) << "a chart without rows";
    finishMeasurements();

    ASSERT_EQ(ask("ClearCalibration").code, 0);
    driver->buttonPressed();
    passUntil([&] { return postsFor("Measure").size() == 2; });
    EXPECT_EQ(postsFor("Measure").at(1).code, 47) << "automatic calibration is off";

    ASSERT_EQ(ask("SetAttribute", {{"key", "AutoCalibratesOnButtonPress"}, {"value", "Yes"}}).code, 0);
    driver->buttonPressed();
    passUntil([&] { return !postsFor("Calibrate").empty(); });
    EXPECT_EQ(postsFor("Calibrate").at(0).code, 0);
    EXPECT_EQ(driver->device()->calibrationStatus(), 1);
}

} // namespace
} // namespace test
