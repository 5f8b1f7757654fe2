// The exact calls that the driver makes of the SDK, in order. Whole sessions are in Tests/Recordings.

#include "DriverBench.h"

#include <gmock/gmock.h>

namespace test {
namespace {

using ::testing::ElementsAreArray;
using Calls = std::vector<std::string>;

Calls operator+(Calls left, const Calls& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

const Calls kPark{"Tavi_SetOption TaviTHoldPosition=no", "Tavi_GoToHomePosition",
                  "Tavi_SetOption TaviTHoldPosition=no"};
const Calls kBegin{"Tavi_SetOption TaviTHoldPosition=no", "Tavi_SetOption TaviTIsVisorCoordinate=no"};
const Calls kColorimetry{"Tavi_SetOption ColorSpaceDescription.Type=CIELab",
                         "Tavi_SetOption Colorimetric.Illumination=D50",
                         "Tavi_SetOption Colorimetric.Observer=TwoDegree"};

Calls timing(const std::string& speed, const std::string& delay) {
    return {"Tavi_GetOption IntegrationTime", "Tavi_SetOption TaviTScanSpeed=" + speed,
            "Tavi_SetOption TaviTScanDelay=" + delay};
}

Calls recognition(bool low) {
    return {"Tavi_SetOption Recognition=yes",
            std::string("Tavi_SetOption RECOGNITION_EDGE_LIMIT_FACTOR=") + (low ? "1.5" : "0.6"),
            std::string("Tavi_SetOption RECOGNITION_LOWEST_LIMIT=") + (low ? "2.0" : "0.2")};
}

Calls strip(const std::string& speed, bool low, const std::string& path) {
    return Calls{"Tavi_SetOption TaviTScanSpeed=" + speed} + recognition(low) +
           Calls{"Tavi_Scan " + path, "Tavi_GetNumberOfAvailableSamples"};
}

Calls sample(int index) {
    const std::string number = std::to_string(index);
    return Calls{"Tavi_GetSpectrum " + number} + kColorimetry + Calls{"Tavi_GetTriStimulus " + number};
}

Calls spot(const std::string& position) {
    return Calls{"Tavi_SetPosition " + position, "Tavi_TriggerMeasurement",
                 "Tavi_GetNumberOfAvailableSamples"} +
           sample(0);
}

const Calls kFormat{"Tavi_GetOption PhysicalFilter"};
const Calls kToSpots{"Tavi_SetOption MeasurementMode=SingleReflectance"};
const Calls kToStrips{"Tavi_SetOption MeasurementMode=ScanningReflectance"};

class Sequence : public DriverBench {
protected:
    void SetUp() override { makeReady(); }

    // Without the attribute pass that polling makes as soon as it is back.
    Calls take() {
        Calls made = calls.take();
        const auto pass = std::find(made.begin(), made.end(), "Tavi_GetOption AvailableMeasurementModes");
        if (pass != made.end())
            made.erase(pass - 1, made.end());
        return made;
    }
};

TEST_F(Sequence, StripRow) {
    const ChartOnTable chart{.rows = 1, .columns = 3};
    place(chart);
    ASSERT_EQ(measure(chart).size(), 1U);
    EXPECT_THAT(take(), ElementsAreArray(kBegin + timing("493", "200") + strip("493", false, "40,30,60,30") +
                                         sample(0) + sample(1) + sample(2) + kFormat + kPark));
}

TEST_F(Sequence, EveryPatchBySpotsWhereAskedFor) {
    const ChartOnTable chart{.rows = 2, .columns = 1, .pitchY = 12};
    place(chart);
    ASSERT_EQ(measure(chart, {{"SpotMeasureCount", "2"}}).size(), 2U);
    const Calls row = timing("644", "200") + kToSpots;
    EXPECT_THAT(take(), ElementsAreArray(kBegin + row + spot("40,30") + spot("38,32") + kFormat + kToStrips +
                                         row + spot("40,42") + spot("38,44") + kFormat + kPark));
}

TEST_F(Sequence, FailedRow) {
    const ChartOnTable chart{.rows = 3, .columns = 2};
    place(chart);
    calls.interfere([](int, const TaviSDK::Call& call) -> std::optional<int> {
        return call.name == "Tavi_TriggerMeasurement" ? std::optional<int>(8) : std::nullopt;
    });
    const std::vector<Post> answers = measure(chart, {{"SpotMeasureCount", "1"}});
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].code, 25) << "no sample: a wrong number of them";
    EXPECT_FALSE(answers[0].hasMeasurements);
    EXPECT_THAT(take(), ElementsAreArray(kBegin + timing("493", "200") + kToSpots +
                                         Calls{"Tavi_SetPosition 40,30", "Tavi_TriggerMeasurement",
                                               "Tavi_GetOption LastError"} +
                                         kToStrips + kPark + Calls{"Tavi_GetOption LastError"}));
}

TEST_F(Sequence, CancelledRow) {
    const ChartOnTable chart{.rows = 3, .columns = 2};
    place(chart);
    calls.interfere([this](int, const TaviSDK::Call& call) -> std::optional<int> {
        if (call.name == "Tavi_Scan")
            driver->setIsCancelled(true);
        return std::nullopt;
    });
    const std::vector<Post> answers = measure(chart);
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].code, -1023);
    EXPECT_EQ(answers[0].message, "Measure Cancelled");
    EXPECT_THAT(take(), ElementsAreArray(kBegin + timing("493", "200") + strip("493", false, "40,30,50,30") +
                                         sample(0) + sample(1) + kPark));
}

TEST_F(Sequence, Calibration) {
    ASSERT_EQ(ask("SetMode", {{"Mode", "SingleReflectance"}}).code, 0);
    calls.take();
    ASSERT_EQ(ask("Calibrate").code, 0);
    const Calls hold{"Tavi_SetOption TaviTHoldPosition=no"};
    EXPECT_THAT(take(),
                ElementsAreArray(Calls{"Tavi_GetOption TaviTTaviSerialNumber", "Tavi_GoToHomePosition"} +
                                 hold + kToStrips +
                                 Calls{"Tavi_SetOption Recognition=yes", "Tavi_SetOption TaviTMoveSpeed=400",
                                       "Tavi_SetOption TaviTHoldPosition=no",
                                       "Tavi_SetOption TaviTIsVisorCoordinate=no", "Tavi_Calibrate"} +
                                 hold + hold + kToSpots + hold +
                                 Calls{"Tavi_SetOption TaviTIsVisorCoordinate=yes",
                                       "Tavi_SetPosition 100,150", "Tavi_SetPosition 280,150"} +
                                 hold));
}

} // namespace
} // namespace test
