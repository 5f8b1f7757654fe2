#include "Bench.h"

#include <limits>

namespace {

class OptionsTest : public Bench {
protected:
    // The option takes the value and gives it back as it was written.
    static void expectTaken(const char* key, const char* value) {
        EXPECT_EQ(Tavi_SetOption(key, value), 0) << key << "=" << value;
        EXPECT_EQ(option(key), value);
    }
    static void expectRefused(const char* key, const char* value, int status) {
        const std::string before = option(key);
        EXPECT_EQ(Tavi_SetOption(key, value), status) << key << "=" << value;
        EXPECT_NE(option("LastError").find(key), std::string::npos) << option("LastError");
        EXPECT_EQ(option(key), before);
    }
};

TEST_F(OptionsTest, takesWhatMakesSenseAndKeepsTheOldValueOtherwise) {
    for (const char* key : {"TaviTMoveSpeed", "TaviTScanSpeed"}) {
        for (const char* speed : {"1", "493", "8123", "0.5", "1e9"}) {
            expectTaken(key, speed);
        }
        for (const char* speed : {"0", "-12", "nan", "inf", "fast", "", " 5", "5 "}) {
            expectRefused(key, speed, 4);
        }
    }
    for (const char* key : {"TaviTHoldPosition", "TaviTIsVisorCoordinate", "TaviTEnableElectrostaticFoil",
                            "TaviTEnableElectrostaticFoilButton", "Beep", "Recognition"}) {
        expectTaken(key, "yes");
        expectTaken(key, "no");
        expectRefused(key, "YES", 4);
    }
    expectTaken("TaviTScanDelay", "0");
    expectTaken("TaviTScanDelay", "400");
    expectRefused("TaviTScanDelay", "-1", 4);
    expectTaken("IntegrationTime", "0.0143");
    expectRefused("IntegrationTime", "0", 4);
    expectTaken("PhysicalFilter", "0");
    expectRefused("PhysicalFilter", "x", 4);
    expectTaken("RECOGNITION_EDGE_LIMIT_FACTOR", "1.5");
    expectTaken("RECOGNITION_LOWEST_LIMIT", "2.0");
    expectRefused("RECOGNITION_LOWEST_LIMIT", "0", 4);
    expectTaken("ColorSpaceDescription.Type", "CIELab");
    expectTaken("Colorimetric.Illumination", "D50");
    expectRefused("Colorimetric.Illumination", "A", 4);
    expectTaken("Colorimetric.Observer", "TwoDegree");
    expectTaken("MeasurementMode", "ScanningReflectance");
    expectRefused("MeasurementMode", "singlereflectance", 4);
    expectRefused("MeasurementMode", "SingleEmission", 4);
    for (const char* key : {"TaviTSerialNumber", "TaviTTaviSerialNumber", "TaviTHalcyDeviceIdentifier",
                            "TaviTLastWhiteBaseTransferTime", "AvailableMeasurementModes"}) {
        expectRefused(key, "1", 8);
    }
    EXPECT_EQ(Tavi_SetOption("NoSuchOption", "1"), 2);
    EXPECT_EQ(Tavi_GetOption("NoSuchOption"), nullptr);
    const std::string longName(1 << 20, 'x'); // is not told as a whole
    EXPECT_EQ(Tavi_SetOption(longName.c_str(), longName.c_str()), 2);
    EXPECT_LT(option("LastError").size(), 400U);
    EXPECT_EQ(Tavi_GetOption(nullptr), nullptr);
    EXPECT_NE(Tavi_SetOption(nullptr, nullptr), 0);
}

TEST_F(OptionsTest, lastErrorStaysUntilTheNextOrAReset) {
    EXPECT_EQ(option("LastError"), "");
    ASSERT_NE(Tavi_SetPosition(1e6F, 0), 0);
    const std::string text = option("LastError");
    EXPECT_NE(text.find("outside the table"), std::string::npos);
    ASSERT_EQ(Tavi_SetPosition(1, 1), 0);
    EXPECT_EQ(option("LastError"), text);
    ASSERT_NE(Tavi_GetSpectrum(std::array<float, 36>().data(), 3), 0);
    EXPECT_NE(option("LastError"), text);
    ASSERT_EQ(Tavi_SetOption("Reset", "TaviTAll"), 0);
    EXPECT_EQ(option("LastError"), "");
}

TEST_F(OptionsTest, resetForgetsEverythingButWhereTheHeadIs) {
    lay(straightChart(2, 3));
    calibrate();
    ASSERT_EQ(Tavi_Scan(40, 30, 60, 30), 0);
    ASSERT_EQ(Tavi_SetOption("TaviTScanSpeed", "77"), 0);
    const std::string whiteTransfer = option("TaviTLastWhiteBaseTransferTime");
    EXPECT_NE(whiteTransfer, "0");
    EXPECT_NE(Tavi_SetOption("Reset", "something"), 0);
    EXPECT_EQ(Tavi_GetNumberOfAvailableSamples(), 3);

    ASSERT_EQ(Tavi_SetOption("Reset", "TaviTAll"), 0);
    EXPECT_EQ(Tavi_GetNumberOfAvailableSamples(), 0);
    EXPECT_EQ(option("MeasurementMode"), "SingleReflectance");
    EXPECT_NE(option("TaviTScanSpeed"), "77");
    EXPECT_EQ(option("TaviTLastWhiteBaseTransferTime"), whiteTransfer);
    EXPECT_EQ(Tavi_TriggerMeasurement(), 3);
    float x = 0;
    float y = 0;
    ASSERT_EQ(Tavi_GetPosition(&x, &y), 0);
    EXPECT_EQ(x, 60.0F);
    EXPECT_EQ(y, 30.0F);
}

TEST_F(OptionsTest, theVisorChangesWhatPositionsMeanAndMovesNothing) {
    float x = 0;
    float y = 0;
    for (const char* visor : {"no", "yes"}) {
        ASSERT_EQ(Tavi_SetOption("TaviTIsVisorCoordinate", visor), 0);
        for (const auto& [px, py] :
             {std::pair(0.0F, 0.0F), {100.0F, 150.0F}, {280.0F, 150.0F}, {12.5F, 7.1F}}) {
            ASSERT_EQ(Tavi_SetPosition(px, py), 0);
            ASSERT_EQ(Tavi_GetPosition(&x, &y), 0);
            EXPECT_EQ(x, px);
            EXPECT_EQ(y, py);
        }
    }
    // The aperture over the middle of a patch, named through the visor.
    const Color::ChartLayout layout = straightChart(2, 3);
    lay(layout);
    calibrate();
    ASSERT_EQ(Tavi_SetOption("MeasurementMode", "SingleReflectance"), 0);
    ASSERT_EQ(Tavi_SetOption("TaviTIsVisorCoordinate", "no"), 0);
    ASSERT_EQ(Tavi_SetPosition(50, 40), 0);
    ASSERT_EQ(Tavi_SetOption("TaviTIsVisorCoordinate", "yes"), 0);
    ASSERT_EQ(Tavi_GetPosition(&x, &y), 0);
    EXPECT_GT(std::hypot(x - 50.0F, y - 40.0F), 10.0F);
    ASSERT_EQ(Tavi_TriggerMeasurement(), 0);
    EXPECT_EQ(sample(0), expected(layout, 1, 1));
    ASSERT_EQ(Tavi_SetPosition(50, 40), 0);
    ASSERT_EQ(Tavi_TriggerMeasurement(), 0);
    EXPECT_NE(sample(0), expected(layout, 1, 1));
}

TEST_F(OptionsTest, positionsThatTheHeadCannotReachAreRefused) {
    ASSERT_EQ(Tavi_SetPosition(20, 30), 0);
    const float inf = std::numeric_limits<float>::infinity();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float beyond = static_cast<float>(TaviSDK::kTableArea.right) + 1;
    for (const auto& [px, py] :
         {std::pair(inf, 0.0F), {0.0F, -inf}, {nan, 0.0F}, {0.0F, nan}, {beyond, 0.0F}}) {
        EXPECT_EQ(Tavi_SetPosition(px, py), 101);
    }
    calibrate();
    ASSERT_EQ(Tavi_SetPosition(20, 30), 0);
    EXPECT_EQ(Tavi_Scan(0, 0, nan, 0), 101);
    EXPECT_EQ(Tavi_Scan(0, beyond * 2, 10, 0), 101);
    float x = 0;
    float y = 0;
    ASSERT_EQ(Tavi_GetPosition(&x, &y), 0);
    EXPECT_EQ(x, 20.0F);
    EXPECT_EQ(y, 30.0F);
    ASSERT_EQ(Tavi_GoToHomePosition(), 0);
    ASSERT_EQ(Tavi_GetPosition(&x, &y), 0);
    EXPECT_NE(x, 20.0F);
}

} // namespace
