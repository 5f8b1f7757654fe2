// Colour from reflectance: CIE 15 tristimulus values, CIELAB, sRGB for display, CIEDE2000.
//
// Everything is pure: any thread, no errors. Spectra are kBands reflectances, 1 being the perfect diffuser.
#pragma once

#include <Color/Spectrum.h>

#include <cstdint>
#include <span>

namespace Color {

struct XYZ {
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;
};

struct Lab {
    double l = 0.0;
    double a = 0.0;
    double b = 0.0;
};

struct Rgb8 {
    std::uint8_t r = 0;
    std::uint8_t g = 0;
    std::uint8_t b = 0;
};

// Tristimulus values under D50 for the 2-degree observer, summed over the bands; the perfect diffuser has Y =
// 100.
XYZ xyzFromSpectrum(std::span<const double, kBands> reflectance);
XYZ xyzFromSpectrum(std::span<const float, kBands> reflectance);
// Those of the perfect diffuser, by the same sums.
const XYZ& whitePoint();

// CIELAB against whitePoint().
Lab labFromXyz(const XYZ& xyz);
Lab labFromSpectrum(std::span<const double, kBands> reflectance);
Lab labFromSpectrum(std::span<const float, kBands> reflectance);
XYZ xyzFromLab(const Lab& lab);

// The nearest colour of the display, colours outside its gamut clipped channel by channel.
Rgb8 srgbFromXyz(const XYZ& xyz);
Rgb8 srgbFromLab(const Lab& lab);

// CIE 1976 and CIEDE2000 (all weights 1) colour difference.
double deltaE76(const Lab& first, const Lab& second);
double deltaE2000(const Lab& first, const Lab& second);

} // namespace Color
