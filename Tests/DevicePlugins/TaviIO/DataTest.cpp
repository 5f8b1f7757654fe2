#include "DriverBench.h"

namespace test {
namespace {

class DataAndFormat : public DriverBench {
protected:
    std::vector<Patch> format(int readings, int firstRow, int firstColumn, int columns, bool reversed,
                              int spots) {
        TaviIO::Readings spectra;
        TaviIO::Readings lab;
        for (int reading = 0; reading < readings; ++reading) {
            spectra.push_back(std::vector<double>(36, reading));
            lab.push_back({1.0 * reading, 0.25, -0.5});
        }
        clearPosts();
        VellDevice::MutableResponse response(VellDevice::Command("Measure"));
        driver->formatMeasurements(spectra, lab, response, firstRow, firstColumn, columns, reversed, spots);
        response.send();
        const Post post = posts().at(0);
        EXPECT_TRUE(post.hasMeasurements);
        return post.patches;
    }
    static std::string label(const Patch& patch) {
        return patch.spectralAttributes.at("Row") + ":" + patch.spectralAttributes.at("Column") + "=" +
               std::to_string(static_cast<int>(patch.spectrum.at(0)));
    }
};

TEST_F(DataAndFormat, LabelsPatchesRowByRow) {
    const std::vector<Patch> patches = format(6, 4, 5, 3, false, 1);
    ASSERT_EQ(patches.size(), 6U);
    EXPECT_EQ(label(patches[0]), "4:5=0");
    EXPECT_EQ(label(patches[2]), "4:7=2");
    EXPECT_EQ(label(patches[3]), "5:5=3");
    EXPECT_EQ(patches[0].spectralAttributes.at("Range"), "380,730");
    EXPECT_EQ(patches[0].labAttributes.at("Obs"), "2");
    EXPECT_EQ(patches[0].labAttributes.at("Ill"), "D50");
    EXPECT_EQ(patches[0].labAttributes.at("Illumination"), "M0");
    EXPECT_EQ(patches[1].lab, (std::vector<double>{1, 0.25, -0.5}));
    EXPECT_TRUE(format(0, 0, 0, 3, false, 1).empty());
}

TEST_F(DataAndFormat, ReversedReadingsComeInColumnOrder) {
    const std::vector<Patch> patches = format(3, 0, 10, 3, true, 1);
    ASSERT_EQ(patches.size(), 3U);
    EXPECT_EQ(label(patches[0]), "0:10=2");
    EXPECT_EQ(label(patches[2]), "0:12=0");
}

TEST_F(DataAndFormat, ReadingsOfAPatchStayTogether) {
    const std::vector<Patch> patches = format(5, 0, 0, 9, false, 2);
    ASSERT_EQ(patches.size(), 4U) << "the fifth reading has no partner";
    EXPECT_EQ(patches[1].spectralAttributes.at("SpotIndex"), "1");
    EXPECT_EQ(label(patches[3]), "0:1=3");
}

TEST_F(DataAndFormat, CountAndReadFailures) {
    makeReady();
    place({.rows = 1, .columns = 4});
    TaviIO::Readings spectra;
    TaviIO::Readings lab;
    ASSERT_EQ(driver->measureOneStrip(40, 30, 70, 30, 5, spectra, lab, false), 7);
    EXPECT_TRUE(spectra.empty());
    EXPECT_TRUE(scratch.logged("getMeasurementData - looking for 5 cols but only got 4\n"));
    calls.interfere([](int, const TaviSDK::Call& call) -> std::optional<int> {
        if (call.name == "Tavi_GetTriStimulus")
            return 9;
        return call.name == "Tavi_GetSpectrum" && call.arguments == "2" ? std::optional<int>(12)
                                                                        : std::nullopt;
    });
    EXPECT_EQ(driver->getMeasurementData(4, spectra, lab), 12);
    EXPECT_EQ(spectra.size(), 2U);
    EXPECT_EQ(lab, (TaviIO::Readings{{0, 0, 0}, {0, 0, 0}})) << "a reading without colour still counts";
    spectra.clear();
    calls.interfere([](int, const TaviSDK::Call& call) -> std::optional<int> {
        return call.name == "Tavi_Scan" ? std::optional<int>(9) : std::nullopt;
    });
    EXPECT_EQ(driver->measureOneStrip(40, 30, 70, 30, 4, spectra, lab, true), 9);
    EXPECT_TRUE(spectra.empty());
    EXPECT_TRUE(scratch.logged("[TaviIO] - measureOneStrip OUT err=9\n"));
}

} // namespace
} // namespace test
