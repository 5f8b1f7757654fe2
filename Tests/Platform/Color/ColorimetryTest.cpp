#include <Color/Colorimetry.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace {

using Color::Lab;

struct Pair {
    Lab first;
    Lab second;
    double difference;
};

// Table 1 of Sharma, Wu and Dalal, "The CIEDE2000 color-difference formula: implementation notes,
// supplementary test data, and mathematical observations", Color Research and Application 30 (2005).
const Pair kPairs[] = {
    {{50.0000, 2.6772, -79.7751}, {50.0000, 0.0000, -82.7485}, 2.0425},
    {{50.0000, 3.1571, -77.2803}, {50.0000, 0.0000, -82.7485}, 2.8615},
    {{50.0000, 2.8361, -74.0200}, {50.0000, 0.0000, -82.7485}, 3.4412},
    {{50.0000, -1.3802, -84.2814}, {50.0000, 0.0000, -82.7485}, 1.0000},
    {{50.0000, -1.1848, -84.8006}, {50.0000, 0.0000, -82.7485}, 1.0000},
    {{50.0000, -0.9009, -85.5211}, {50.0000, 0.0000, -82.7485}, 1.0000},
    {{50.0000, 0.0000, 0.0000}, {50.0000, -1.0000, 2.0000}, 2.3669},
    {{50.0000, -1.0000, 2.0000}, {50.0000, 0.0000, 0.0000}, 2.3669},
    {{50.0000, 2.4900, -0.0010}, {50.0000, -2.4900, 0.0009}, 7.1792},
    {{50.0000, 2.4900, -0.0010}, {50.0000, -2.4900, 0.0010}, 7.1792},
    {{50.0000, 2.4900, -0.0010}, {50.0000, -2.4900, 0.0011}, 7.2195},
    {{50.0000, 2.4900, -0.0010}, {50.0000, -2.4900, 0.0012}, 7.2195},
    {{50.0000, -0.0010, 2.4900}, {50.0000, 0.0009, -2.4900}, 4.8045},
    {{50.0000, -0.0010, 2.4900}, {50.0000, 0.0010, -2.4900}, 4.8045},
    {{50.0000, -0.0010, 2.4900}, {50.0000, 0.0011, -2.4900}, 4.7461},
    {{50.0000, 2.5000, 0.0000}, {50.0000, 0.0000, -2.5000}, 4.3065},
    {{50.0000, 2.5000, 0.0000}, {73.0000, 25.0000, -18.0000}, 27.1492},
    {{50.0000, 2.5000, 0.0000}, {61.0000, -5.0000, 29.0000}, 22.8977},
    {{50.0000, 2.5000, 0.0000}, {56.0000, -27.0000, -3.0000}, 31.9030},
    {{50.0000, 2.5000, 0.0000}, {58.0000, 24.0000, 15.0000}, 19.4535},
    {{50.0000, 2.5000, 0.0000}, {50.0000, 3.1736, 0.5854}, 1.0000},
    {{50.0000, 2.5000, 0.0000}, {50.0000, 3.2972, 0.0000}, 1.0000},
    {{50.0000, 2.5000, 0.0000}, {50.0000, 1.8634, 0.5757}, 1.0000},
    {{50.0000, 2.5000, 0.0000}, {50.0000, 3.2592, 0.3350}, 1.0000},
    {{60.2574, -34.0099, 36.2677}, {60.4626, -34.1751, 39.4387}, 1.2644},
    {{63.0109, -31.0961, -5.8663}, {62.8187, -29.7946, -4.0864}, 1.2630},
    {{61.2901, 3.7196, -5.3901}, {61.4292, 2.2480, -4.9620}, 1.8731},
    {{35.0831, -44.1164, 3.7933}, {35.0232, -40.0716, 1.5901}, 1.8645},
    {{22.7233, 20.0904, -46.6940}, {23.0331, 14.9730, -42.5619}, 2.0373},
    {{36.4612, 47.8580, 18.3852}, {36.2715, 50.5065, 21.2231}, 1.4146},
    {{90.8027, -2.0831, 1.4410}, {91.1528, -1.6435, 0.0447}, 1.4441},
    {{90.9257, -0.5406, -0.9208}, {88.6381, -0.8985, -0.7239}, 1.5381},
    {{6.7747, -0.2908, -2.4247}, {5.8714, -0.0985, -2.2286}, 0.6377},
    {{2.0776, 0.0795, -1.1350}, {0.9033, -0.0636, -0.5514}, 0.9082},
};

TEST(ColorimetryTest, deltaE2000GivesThePublishedDifferencesBothWays) {
    for (const Pair& pair : kPairs) {
        EXPECT_NEAR(Color::deltaE2000(pair.first, pair.second), pair.difference, 5e-5);
        EXPECT_NEAR(Color::deltaE2000(pair.second, pair.first), pair.difference, 5e-5);
        EXPECT_EQ(Color::deltaE2000(pair.first, pair.first), 0.0);
    }
}

TEST(ColorimetryTest, whiteIsThePublishedD50AndExactlyNeutral) {
    // CIE 15 gives 96.42, 100, 82.51 for sums in steps of 5 nm; coarser steps move them by less than 0.1 %.
    EXPECT_NEAR(Color::whitePoint().x, 96.42, 0.05);
    EXPECT_NEAR(Color::whitePoint().y, 100.0, 1e-12);
    EXPECT_NEAR(Color::whitePoint().z, 82.51, 0.08);

    std::array<float, Color::kBands> diffuser;
    diffuser.fill(1.0F);
    const Lab white = Color::labFromSpectrum(diffuser);
    EXPECT_EQ(white.l, 100.0);
    EXPECT_EQ(white.a, 0.0);
    EXPECT_EQ(white.b, 0.0);

    // A neutral filter stays neutral, and Y = 18.42 % is the middle of the L* scale.
    std::array<double, Color::kBands> grey;
    grey.fill(0.184186518);
    EXPECT_NEAR(Color::labFromSpectrum(grey).l, 50.0, 1e-6);
    EXPECT_NEAR(std::hypot(Color::labFromSpectrum(grey).a, Color::labFromSpectrum(grey).b), 0.0, 1e-9);
}

TEST(ColorimetryTest, labReturnsToXyzAlsoNearBlack) {
    for (const Lab& lab :
         {Lab{0.5, 0.1, -0.2}, Lab{8.0, -1.0, 1.0}, Lab{50.0, 40.0, -60.0}, Lab{97.0, -3.0, 90.0}}) {
        const Lab back = Color::labFromXyz(Color::xyzFromLab(lab));
        EXPECT_NEAR(back.l, lab.l, 1e-9);
        EXPECT_NEAR(back.a, lab.a, 1e-9);
        EXPECT_NEAR(back.b, lab.b, 1e-9);
    }
}

TEST(ColorimetryTest, displayColoursOfKnownLabValues) {
    const auto isNear = [](const Color::Rgb8& rgb, int r, int g, int b) {
        return std::abs(rgb.r - r) <= 1 && std::abs(rgb.g - g) <= 1 && std::abs(rgb.b - b) <= 1;
    };
    EXPECT_TRUE(isNear(Color::srgbFromLab({100.0, 0.0, 0.0}), 255, 255, 255));
    EXPECT_TRUE(isNear(Color::srgbFromLab({0.0, 0.0, 0.0}), 0, 0, 0));
    EXPECT_TRUE(isNear(Color::srgbFromLab({53.585, 0.0, 0.0}), 128, 128, 128));
    // The primaries of the display as D50 CIELAB, to the digits that colour-management profiles give.
    EXPECT_TRUE(isNear(Color::srgbFromLab({54.29, 80.81, 69.89}), 255, 0, 0));
    EXPECT_TRUE(isNear(Color::srgbFromLab({87.82, -79.29, 80.99}), 0, 255, 0));
    EXPECT_TRUE(isNear(Color::srgbFromLab({29.57, 68.30, -112.03}), 0, 0, 255));
    EXPECT_EQ(Color::srgbFromLab({60.0, -120.0, 0.0}).r, 0); // out of gamut: clipped
}

} // namespace
