#include "Bench.h"

#include <Color/Colorimetry.h>

namespace {

class ReadingTest : public Bench {
protected:
    static void read(double x, double y) {
        ASSERT_EQ(Tavi_SetPosition(static_cast<float>(x), static_cast<float>(y)), 0);
        ASSERT_EQ(Tavi_TriggerMeasurement(), 0);
        ASSERT_EQ(Tavi_GetNumberOfAvailableSamples(), 1);
    }
    static void prepareSingle() {
        calibrate();
        ASSERT_EQ(Tavi_SetOption("MeasurementMode", "SingleReflectance"), 0);
    }
};

TEST_F(ReadingTest, spotsWithinAPatchReadThePatchToTheBit) {
    const Color::ChartLayout layout = straightChart(3, 4, 2, 8.0);
    lay(layout);
    prepareSingle();
    const double offset = 8.0 / 6.0;
    for (const Color::Patch& patch : layout.patches) {
        const double x = 40.0 + 8.0 * patch.column;
        const double y = 30.0 + 8.0 * patch.row;
        for (const auto& [dx, dy] : {std::pair(0.0, 0.0),
                                     {-offset, offset},
                                     {-offset, -offset},
                                     {offset, -offset},
                                     {offset, offset}}) {
            read(x + dx, y + dy);
            ASSERT_EQ(sample(0), expected(layout, patch.row, patch.column));
        }
    }
    float lab[3] = {};
    ASSERT_EQ(Tavi_GetTriStimulus(lab, 0), 0);
    const Spectrum spectrum = sample(0);
    const Color::Lab exact = Color::labFromSpectrum(std::span<const float, Color::kBands>(spectrum));
    EXPECT_EQ(lab[0], static_cast<float>(exact.l));
    EXPECT_EQ(lab[1], static_cast<float>(exact.a));
    EXPECT_EQ(lab[2], static_cast<float>(exact.b));
    ASSERT_EQ(Tavi_SetOption("ColorSpaceDescription.Type", "CIEXYZ"), 0);
    float xyz[3] = {};
    ASSERT_EQ(Tavi_GetTriStimulus(xyz, 0), 0);
    EXPECT_NEAR(xyz[1], spectrum[0] * 100.0F, 1e-3F); // a grey
}

TEST_F(ReadingTest, anEdgeUnderTheApertureMixesWhatLiesOnBothSides) {
    Color::ChartLayout layout = straightChart(1, 2);
    layout.patches[0].reflectance.fill(0.2);
    layout.patches[1].reflectance.fill(0.6);
    lay(layout);
    prepareSingle();
    read(45.0, 30.0);
    EXPECT_NEAR(sample(0)[10], 0.4F, 0.03F);
    read(46.0, 30.0);
    EXPECT_GT(sample(0)[10], 0.45F);
    EXPECT_LT(sample(0)[10], 0.6F);
    // An empty place is paper: bright, and the same everywhere.
    read(100.0, 100.0);
    const Spectrum paper = sample(0);
    EXPECT_GT(paper[20], 0.8F);
    read(0.0, 0.0);
    EXPECT_EQ(sample(0), paper);
}

TEST_F(ReadingTest, calibrationHoldsForItsModeAndModesForTheirReadings) {
    EXPECT_EQ(Tavi_TriggerMeasurement(), 3);
    EXPECT_EQ(option("TaviTLastWhiteBaseTransferTime"), "0");
    ASSERT_EQ(Tavi_Calibrate(), 0); // for single readings only
    EXPECT_NE(option("TaviTLastWhiteBaseTransferTime"), "0");
    EXPECT_EQ(Tavi_TriggerMeasurement(), 0);
    ASSERT_EQ(Tavi_SetOption("MeasurementMode", "ScanningReflectance"), 0);
    EXPECT_EQ(Tavi_Scan(0, 0, 50, 0), 3);
    EXPECT_EQ(Tavi_TriggerMeasurement(), 5);
    ASSERT_EQ(Tavi_Calibrate(), 0); // for both
    EXPECT_EQ(Tavi_Scan(0, 0, 50, 0), 0);
    EXPECT_EQ(Tavi_GetNumberOfAvailableSamples(), 0);
    ASSERT_EQ(Tavi_SetOption("MeasurementMode", "SingleReflectance"), 0);
    EXPECT_EQ(Tavi_TriggerMeasurement(), 0);
    EXPECT_EQ(Tavi_GetNumberOfAvailableSamples(), 1);
    float values[Color::kBands] = {-1.0F};
    EXPECT_EQ(Tavi_GetSpectrum(values, 1), 7);
    EXPECT_EQ(Tavi_GetSpectrum(values, -1), 7);
    EXPECT_EQ(Tavi_GetTriStimulus(values, 1), 7);
    EXPECT_EQ(values[0], -1.0F);
}

TEST_F(ReadingTest, noiseSpreadsReadingsAsMuchAsItIsSet) {
    Color::ChartLayout layout = straightChart(1, 1);
    layout.patches[0].reflectance.fill(0.5);
    layout.patches[0].reflectance[3] = 0.0;
    lay(layout);
    mSimulation.noise = 0.01;
    apply();
    prepareSingle();
    ASSERT_EQ(Tavi_SetPosition(40, 30), 0);
    double sum = 0.0;
    double squares = 0.0;
    constexpr int kReadings = 400;
    for (int i = 0; i < kReadings; ++i) {
        ASSERT_EQ(Tavi_TriggerMeasurement(), 0);
        const Spectrum spectrum = sample(0);
        EXPECT_EQ(spectrum, sample(0)); // a reading that was taken stays
        EXPECT_GE(spectrum[3], 0.0F);
        const double deviation = static_cast<double>(spectrum[30]) - 0.5;
        sum += deviation;
        squares += deviation * deviation;
    }
    EXPECT_NEAR(sum / kReadings, 0.0, 0.002);
    EXPECT_NEAR(std::sqrt(squares / kReadings), 0.01, 0.002);
}

TEST_F(ReadingTest, liftingTheSpectrophotometerLosesCalibrationAndLeavesTheTable) {
    lay(straightChart(2, 3));
    calibrate();
    ASSERT_EQ(Tavi_Scan(40, 30, 60, 30), 0);
    EXPECT_EQ(Tavi_IsTableConnected(), 0);
    EXPECT_NE(option("TaviTTaviSerialNumber"), "");
    mSimulation.spectrophotometer = false;
    apply();
    EXPECT_EQ(Tavi_IsTableConnected(), 100);
    EXPECT_EQ(option("TaviTTaviSerialNumber"), "");
    EXPECT_EQ(option("AvailableMeasurementModes"), "");
    EXPECT_EQ(Tavi_Calibrate(), 100);
    EXPECT_EQ(Tavi_Scan(40, 30, 60, 30), 100);
    EXPECT_EQ(Tavi_SetOption("Recognition", "no"), 100);
    EXPECT_EQ(Tavi_SetOption("TaviTHoldPosition", "no"), 0);
    EXPECT_EQ(Tavi_SetOption("Reset", "TaviTAll"), 0);
    EXPECT_EQ(Tavi_SetPosition(10, 10), 0);
    EXPECT_EQ(Tavi_GoToHomePosition(), 0);
    mSimulation.spectrophotometer = true;
    apply();
    EXPECT_EQ(Tavi_IsTableConnected(), 0);
    EXPECT_EQ(Tavi_TriggerMeasurement(), 3);
    EXPECT_EQ(Tavi_GetNumberOfAvailableSamples(), 0);
}

TEST_F(ReadingTest, withoutATableNothingMoves) {
    calibrate();
    ASSERT_EQ(Tavi_SetOption("TaviTScanSpeed", "77"), 0);
    mSimulation.table = false;
    apply();
    EXPECT_EQ(Tavi_IsTableConnected(), 1);
    EXPECT_EQ(option("TaviTHalcyDeviceIdentifier"), "");
    EXPECT_EQ(option("TaviTSerialNumber"), "");
    float x = 0;
    float y = 0;
    EXPECT_EQ(Tavi_GetPosition(&x, &y), 1);
    EXPECT_EQ(Tavi_SetPosition(0, 0), 1);
    EXPECT_EQ(Tavi_SetOption("Reset", "TaviTAll"), 1);
    // Back again, it was switched off between.
    mSimulation.table = true;
    apply();
    EXPECT_EQ(option("TaviTHalcyDeviceIdentifier"), "bench");
    EXPECT_NE(option("TaviTScanSpeed"), "77");
    EXPECT_EQ(Tavi_TriggerMeasurement(), 3);
}

} // namespace
