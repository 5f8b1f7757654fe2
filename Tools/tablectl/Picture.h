#pragma once

#include "Chart.h"
#include "Terminal.h"

#include <Color/Colorimetry.h>

#include <optional>
#include <string>
#include <vector>

namespace tablectl {

// A chart in the colours that were measured, for a terminal: square patches of half blocks, two above each
// other in a line. What is not measured yet shows as points, what holds no patch as nothing.
class Picture {
public:
    Picture(const Color::ChartLayout& layout, ColorDepth depth);

    void add(const Row& row);
    // As large as fits, row 0 on top; no lines where it does not fit at all.
    std::vector<std::string> lines(int width, int height) const;

private:
    using Pixel = std::optional<Color::Rgb8>;

    Pixel at(int row, int column) const; // nothing outside the chart, too
    std::string line(int index, int scale) const;

    const Color::ChartLayout& mLayout;
    ColorDepth mDepth;
    std::vector<Pixel> mColors; // row after row of the full grid
};

} // namespace tablectl
