#include <Color/Colorimetry.h>

#include <algorithm>
#include <cmath>
#include <numbers>

namespace Color {

namespace {

// CIE standard illuminant D50 (CIE 15:2018, table 2), relative spectral power, 380 to 730 nm in steps of 10.
constexpr std::array<double, kBands> kD50 = {
    24.488, 29.871, 49.308, 56.513,  60.034,  57.818,  74.825,  87.247, 90.612, 91.368, 95.109, 91.963,
    95.724, 96.613, 97.129, 102.099, 100.755, 102.317, 100.000, 97.735, 98.918, 93.499, 97.688, 99.269,
    99.042, 95.722, 98.857, 95.667,  98.190,  103.003, 99.133,  87.381, 91.604, 92.889, 76.854, 86.511};

// Colour-matching functions of the CIE 1931 standard colorimetric observer (CIE 018:2019, table 6), same
// bands.
constexpr std::array<std::array<double, 3>, kBands> kObserver = {{
    {0.001368, 0.000039, 0.006450}, {0.004243, 0.000120, 0.020050}, {0.014310, 0.000396, 0.067850},
    {0.043510, 0.001210, 0.207400}, {0.134380, 0.004000, 0.645600}, {0.283900, 0.011600, 1.385600},
    {0.348280, 0.023000, 1.747060}, {0.336200, 0.038000, 1.772110}, {0.290800, 0.060000, 1.669200},
    {0.195360, 0.090980, 1.287640}, {0.095640, 0.139020, 0.812950}, {0.032010, 0.208020, 0.465180},
    {0.004900, 0.323000, 0.272000}, {0.009300, 0.503000, 0.158200}, {0.063270, 0.710000, 0.078250},
    {0.165500, 0.862000, 0.042160}, {0.290400, 0.954000, 0.020300}, {0.433450, 0.994950, 0.008750},
    {0.594500, 0.995000, 0.003900}, {0.762100, 0.952000, 0.002100}, {0.916300, 0.870000, 0.001650},
    {1.026300, 0.757000, 0.001100}, {1.062200, 0.631000, 0.000800}, {1.002600, 0.503000, 0.000340},
    {0.854450, 0.381000, 0.000190}, {0.642400, 0.265000, 0.000050}, {0.447900, 0.175000, 0.000020},
    {0.283500, 0.107000, 0.000000}, {0.164900, 0.061000, 0.000000}, {0.087400, 0.032000, 0.000000},
    {0.046770, 0.017000, 0.000000}, {0.022700, 0.008210, 0.000000}, {0.011359, 0.004102, 0.000000},
    {0.005790, 0.002091, 0.000000}, {0.002899, 0.001047, 0.000000}, {0.001440, 0.000520, 0.000000},
}};

// Illuminant times observer, scaled so that the perfect diffuser has Y = 100.
struct Weights {
    std::array<XYZ, kBands> bands{};

    Weights() {
        double sum = 0.0;
        for (std::size_t i = 0; i < kBands; ++i) {
            sum += kD50[i] * kObserver[i][1];
        }
        const double scale = 100.0 / sum;
        for (std::size_t i = 0; i < kBands; ++i) {
            const double power = kD50[i] * scale;
            bands[i] = {power * kObserver[i][0], power * kObserver[i][1], power * kObserver[i][2]};
        }
    }
};

template <typename Value>
XYZ sum(std::span<const Value, kBands> reflectance) {
    static const Weights weights;
    XYZ total;
    for (std::size_t i = 0; i < kBands; ++i) {
        const double value = static_cast<double>(reflectance[i]);
        total.x += weights.bands[i].x * value;
        total.y += weights.bands[i].y * value;
        total.z += weights.bands[i].z * value;
    }
    return total;
}

// The cube root of CIELAB with its straight part near black (CIE 15, 8.2.1).
constexpr double kKnee = 6.0 / 29.0;

double compress(double ratio) {
    return ratio > kKnee * kKnee * kKnee ? std::cbrt(ratio) : ratio / (3.0 * kKnee * kKnee) + 4.0 / 29.0;
}

double expand(double value) {
    return value > kKnee ? value * value * value : 3.0 * kKnee * kKnee * (value - 4.0 / 29.0);
}

using Matrix = std::array<std::array<double, 3>, 3>;

constexpr XYZ apply(const Matrix& m, const XYZ& v) {
    return {m[0][0] * v.x + m[0][1] * v.y + m[0][2] * v.z, m[1][0] * v.x + m[1][1] * v.y + m[1][2] * v.z,
            m[2][0] * v.x + m[2][1] * v.y + m[2][2] * v.z};
}

// The Bradford cone responses and their inverse.
constexpr Matrix kBradford = {
    {{0.8951, 0.2664, -0.1614}, {-0.7502, 1.7135, 0.0367}, {0.0389, -0.0685, 1.0296}}};
constexpr Matrix kBradfordInverse = {{{0.9869929054667123, -0.14705425642099013, 0.15996265166373125},
                                      {0.43230526972339456, 0.5183602715367776, 0.049291228212855607},
                                      {-0.008528664575177326, 0.04004282165408487, 0.9684866957875502}}};

// The white of IEC 61966-2-1, x = 0.3127, y = 0.3290, and its matrix from XYZ (white Y = 1) to linear light.
constexpr XYZ kDisplayWhite = {100.0 * 0.3127 / 0.3290, 100.0, 100.0 * (1.0 - 0.3127 - 0.3290) / 0.3290};
constexpr Matrix kLinearLight = {
    {{3.2406, -1.5372, -0.4986}, {-0.9689, 1.8758, 0.0415}, {0.0557, -0.2040, 1.0570}}};

std::uint8_t encode(double linear) {
    const double value = std::clamp(linear, 0.0, 1.0);
    const double encoded = value <= 0.0031308 ? 12.92 * value : 1.055 * std::pow(value, 1.0 / 2.4) - 0.055;
    return static_cast<std::uint8_t>(std::lround(255.0 * encoded));
}

constexpr double kDegree = std::numbers::pi / 180.0;

// Degrees, 0 to 360; 0 for a colour without hue.
double hueAngle(double a, double b) {
    if (a == 0.0 && b == 0.0) {
        return 0.0;
    }
    const double angle = std::atan2(b, a) / kDegree;
    return angle < 0.0 ? angle + 360.0 : angle;
}

} // namespace

XYZ xyzFromSpectrum(std::span<const double, kBands> reflectance) {
    return sum(reflectance);
}

XYZ xyzFromSpectrum(std::span<const float, kBands> reflectance) {
    return sum(reflectance);
}

const XYZ& whitePoint() {
    static const XYZ white = [] {
        std::array<double, kBands> diffuser;
        diffuser.fill(1.0);
        return xyzFromSpectrum(diffuser);
    }();
    return white;
}

Lab labFromXyz(const XYZ& xyz) {
    const XYZ& white = whitePoint();
    const double fx = compress(xyz.x / white.x);
    const double fy = compress(xyz.y / white.y);
    const double fz = compress(xyz.z / white.z);
    return {116.0 * fy - 16.0, 500.0 * (fx - fy), 200.0 * (fy - fz)};
}

Lab labFromSpectrum(std::span<const double, kBands> reflectance) {
    return labFromXyz(xyzFromSpectrum(reflectance));
}

Lab labFromSpectrum(std::span<const float, kBands> reflectance) {
    return labFromXyz(xyzFromSpectrum(reflectance));
}

XYZ xyzFromLab(const Lab& lab) {
    const XYZ& white = whitePoint();
    const double fy = (lab.l + 16.0) / 116.0;
    return {white.x * expand(fy + lab.a / 500.0), white.y * expand(fy), white.z * expand(fy - lab.b / 200.0)};
}

Rgb8 srgbFromXyz(const XYZ& xyz) {
    const XYZ from = apply(kBradford, whitePoint());
    const XYZ to = apply(kBradford, kDisplayWhite);
    const XYZ cones = apply(kBradford, xyz);
    const XYZ adapted =
        apply(kBradfordInverse, {cones.x * to.x / from.x, cones.y * to.y / from.y, cones.z * to.z / from.z});
    const XYZ linear = apply(kLinearLight, {adapted.x / 100.0, adapted.y / 100.0, adapted.z / 100.0});
    return {encode(linear.x), encode(linear.y), encode(linear.z)};
}

Rgb8 srgbFromLab(const Lab& lab) {
    return srgbFromXyz(xyzFromLab(lab));
}

double deltaE76(const Lab& first, const Lab& second) {
    return std::hypot(first.l - second.l, first.a - second.a, first.b - second.b);
}

// CIE 142, in the reading of Sharma, Wu and Dalal, "The CIEDE2000 color-difference formula" (2005), whose
// test pairs pin down the cases that the formula leaves open: colours without hue, and hues on either side of
// 0.
double deltaE2000(const Lab& first, const Lab& second) {
    const auto seventh = [](double c) {
        return std::sqrt(std::pow(c, 7) / (std::pow(c, 7) + std::pow(25.0, 7)));
    };
    const double meanC = (std::hypot(first.a, first.b) + std::hypot(second.a, second.b)) / 2.0;
    const double stretch = 1.0 + 0.5 * (1.0 - seventh(meanC));
    const double a1 = first.a * stretch;
    const double a2 = second.a * stretch;
    const double c1 = std::hypot(a1, first.b);
    const double c2 = std::hypot(a2, second.b);
    const double h1 = hueAngle(a1, first.b);
    const double h2 = hueAngle(a2, second.b);
    const bool hasHue = c1 * c2 != 0.0;

    double hueStep = hasHue ? h2 - h1 : 0.0;
    double hueMean = h1 + h2; // of a colour without hue: the other's
    if (hasHue) {
        hueMean /= 2.0;
        if (std::fabs(h2 - h1) > 180.0) {
            hueStep += hueStep > 0.0 ? -360.0 : 360.0;
            hueMean += hueMean < 180.0 ? 180.0 : -180.0;
        }
    }
    const double dL = second.l - first.l;
    const double dC = c2 - c1;
    const double dH = 2.0 * std::sqrt(c1 * c2) * std::sin(hueStep / 2.0 * kDegree);

    const double cMean = (c1 + c2) / 2.0;
    const double lOffset = std::pow((first.l + second.l) / 2.0 - 50.0, 2);
    const double t =
        1.0 - 0.17 * std::cos((hueMean - 30.0) * kDegree) + 0.24 * std::cos(2.0 * hueMean * kDegree) +
        0.32 * std::cos((3.0 * hueMean + 6.0) * kDegree) - 0.20 * std::cos((4.0 * hueMean - 63.0) * kDegree);
    const double sL = 1.0 + 0.015 * lOffset / std::sqrt(20.0 + lOffset);
    const double sC = 1.0 + 0.045 * cMean;
    const double sH = 1.0 + 0.015 * cMean * t;
    const double turn = 30.0 * std::exp(-std::pow((hueMean - 275.0) / 25.0, 2));
    const double rotation = -std::sin(2.0 * turn * kDegree) * 2.0 * seventh(cMean);

    const double l = dL / sL;
    const double c = dC / sC;
    const double h = dH / sH;
    return std::sqrt(std::max(0.0, l * l + c * c + h * h + rotation * c * h));
}

} // namespace Color
