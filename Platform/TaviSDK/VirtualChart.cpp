#include "VirtualChart.h"

#include <algorithm>
#include <cmath>

namespace TaviSDK {

namespace {

// A chart of a single patch has no pitch to take its size from.
constexpr double kLonePatch = 10.0;

VirtualChart::Surface surfaceOf(const Spectrum& reflectance) {
    return {reflectance, Color::labFromSpectrum(std::span<const float, Color::kBands>(reflectance))};
}

// Uncoated white: a little darker at the violet end, no brightener.
VirtualChart::Surface paperWhite() {
    Spectrum reflectance{};
    for (std::size_t band = 0; band < reflectance.size(); ++band) {
        const double wavelength = 380.0 + 10.0 * static_cast<double>(band);
        reflectance[band] = static_cast<float>(0.90 - 0.30 * std::exp(-(wavelength - 380.0) / 30.0));
    }
    return surfaceOf(reflectance);
}

Point step(const Point& from, const Point& to, int count) {
    const double steps = count - 1;
    return {(to.x - from.x) / steps, (to.y - from.y) / steps};
}

double length(const Point& vector) {
    return std::hypot(vector.x, vector.y);
}

} // namespace

VirtualChart::VirtualChart() : mPaper(paperWhite()) {}

VirtualChart::VirtualChart(const Color::ChartLayout& layout)
    : mRows(layout.rows),
      mColumns(layout.columns),
      mFirstColumnOfLastRow(layout.firstColumn(layout.rows - 1)),
      mOrigin(layout.topLeft),
      mPaper(paperWhite()) {
    if (mColumns > 1) {
        mAcross = step(layout.bottomLeft, layout.bottomRight, mColumns);
    }
    if (mRows > 1) {
        mDown = step(layout.topLeft, layout.bottomLeft, mRows);
    }
    // The missing direction of a single row or column stands square on the other: its patches are squares.
    if (mColumns == 1 && mRows == 1) {
        mAcross = {kLonePatch, 0.0};
    }
    if (mColumns == 1 && mRows > 1) {
        mAcross = {mDown.y, -mDown.x};
    }
    if (mRows == 1) {
        mDown = {-mAcross.y, mAcross.x};
    }
    mDeterminant = mAcross.x * mDown.y - mAcross.y * mDown.x;
    mColumnWidth = std::fabs(mDeterminant) / length(mDown);
    mRowHeight = std::fabs(mDeterminant) / length(mAcross);

    mPatches.reserve(layout.patches.size());
    for (const Color::Patch& patch : layout.patches) {
        Spectrum reflectance{};
        std::transform(patch.reflectance.begin(), patch.reflectance.end(), reflectance.begin(),
                       [](double value) { return static_cast<float>(value); });
        mPatches.push_back(surfaceOf(reflectance));
    }
}

VirtualChart::Grid VirtualChart::toGrid(const Point& place) const {
    const double x = place.x - mOrigin.x;
    const double y = place.y - mOrigin.y;
    return {(x * mDown.y - y * mDown.x) / mDeterminant, (y * mAcross.x - x * mAcross.y) / mDeterminant};
}

const VirtualChart::Surface* VirtualChart::patch(int row, int column) const {
    if (row < 0 || row >= mRows || column < 0 || column >= mColumns) {
        return nullptr;
    }
    const int first = row == mRows - 1 ? mFirstColumnOfLastRow : 0;
    if (column < first) {
        return nullptr;
    }
    return &mPatches[static_cast<std::size_t>(row) * static_cast<std::size_t>(mColumns) +
                     static_cast<std::size_t>(column - first)];
}

const VirtualChart::Surface& VirtualChart::surfaceAt(const Point& place) const {
    const Grid grid = toGrid(place);
    // Places far from the chart would not fit an int.
    if (!(grid.column > -1.0 && grid.column < mColumns && grid.row > -1.0 && grid.row < mRows)) {
        return mPaper;
    }
    const Surface* found =
        patch(static_cast<int>(std::lround(grid.row)), static_cast<int>(std::lround(grid.column)));
    return found != nullptr ? *found : mPaper;
}

Spectrum VirtualChart::under(const Point& place) const {
    if (mRows == 0) {
        return mPaper.reflectance;
    }
    // Points spread evenly over the aperture stand for its area. Where all of them see one surface the
    // reading is that surface's, to the bit.
    constexpr int kAcrossAperture = 15;
    const Surface& centre = surfaceAt(place);
    std::array<double, Color::kBands> sum{};
    int points = 0;
    bool isUniform = true;
    for (int i = 0; i < kAcrossAperture; ++i) {
        for (int j = 0; j < kAcrossAperture; ++j) {
            const double u = (2.0 * i + 1.0) / kAcrossAperture - 1.0;
            const double v = (2.0 * j + 1.0) / kAcrossAperture - 1.0;
            if (u * u + v * v > 1.0) {
                continue;
            }
            const Surface& surface =
                surfaceAt({place.x + u * kApertureRadius, place.y + v * kApertureRadius});
            isUniform = isUniform && &surface == &centre;
            for (std::size_t band = 0; band < sum.size(); ++band) {
                sum[band] += static_cast<double>(surface.reflectance[band]);
            }
            ++points;
        }
    }
    if (isUniform) {
        return centre.reflectance;
    }
    Spectrum mixed{};
    std::transform(sum.begin(), sum.end(), mixed.begin(),
                   [points](double value) { return static_cast<float>(value / points); });
    return mixed;
}

} // namespace TaviSDK
