#pragma once

#include <Color/ChartLayout.h>
#include <Color/Colorimetry.h>

#include <array>
#include <string>
#include <vector>

namespace TaviSDK {

using Color::Point;
using Spectrum = std::array<float, Color::kBands>;

// The round hole through which the spectrophotometer looks, in table units.
inline constexpr double kApertureDiameter = 3.5;
inline constexpr double kApertureRadius = kApertureDiameter / 2.0;

// What lies on the table: a chart on white paper, or the paper alone.
//
// The grid is affine: cell (row, column) is a parallelogram around topLeft + column * across + row * down,
// with sides as long as the pitches. Grid coordinates count cells: a cell's centre has whole numbers, its
// edges lie half a cell away. Immutable after construction, so any thread may look at it.
class VirtualChart {
public:
    // Bare paper.
    VirtualChart();
    explicit VirtualChart(const Color::ChartLayout& layout);

    struct Grid {
        double column = 0.0;
        double row = 0.0;
    };

    // What a cell shows: a patch, or the paper that empty cells and the surroundings show.
    struct Surface {
        Spectrum reflectance{};
        Color::Lab lab;
    };

    int rows() const { return mRows; }
    int columns() const { return mColumns; }
    Grid toGrid(const Point& place) const;
    // How far apart the two edges of a cell are that a move along a row crosses, and those of a move along a
    // column.
    double columnWidth() const { return mColumnWidth; }
    double rowHeight() const { return mRowHeight; }

    // The patch of a cell; null where there is none.
    const Surface* patch(int row, int column) const;
    const Surface& paper() const { return mPaper; }

    // The light that comes back through the aperture at a place of the table: the surfaces below it, by area.
    Spectrum under(const Point& place) const;

private:
    const Surface& surfaceAt(const Point& place) const;

    int mRows = 0;
    int mColumns = 0;
    int mFirstColumnOfLastRow = 0;
    Point mOrigin;
    Point mAcross; // from one column's centre to the next one's
    Point mDown;   // from one row's centre to the next one's
    double mDeterminant = 1.0;
    double mColumnWidth = 0.0;
    double mRowHeight = 0.0;
    std::vector<Surface> mPatches;
    Surface mPaper;
};

} // namespace TaviSDK
