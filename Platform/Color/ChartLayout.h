#pragma once

#include <Color/Cgats.h>
#include <Color/Point.h>
#include <Color/Spectrum.h>

#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace Color {

// One patch as the layout describes it.
struct Patch {
    std::string sampleId;
    int row = 0;    // from 0, downwards
    int column = 0; // from 0, to the right, counted over the full grid
    std::array<double, kBands> reflectance{};
};

// A chart: a grid of patches whose three corner patches lie with their centres at the given places of the
// table. A short last row holds the rightmost lastRowColumns cells of the grid; 0 means that it is full.
struct ChartLayout {
    std::string originator;
    std::string descriptor;
    int rows = 0;
    int columns = 0;
    int lastRowColumns = 0;
    Point topLeft;
    Point bottomLeft;
    Point bottomRight;
    std::vector<Patch> patches; // row after row, whatever the order in the file

    // First column of a row that holds a patch: 0 but for a short last row.
    int firstColumn(int row) const;
    // The patch of a cell; null for a cell that is empty or outside the grid.
    const Patch* patchAt(int row, int column) const;
};

// Reads a layout file; throws CgatsError.
ChartLayout readChartLayout(const std::string& path);
// The same from text; name stands for the file in error texts.
ChartLayout parseChartLayout(std::string_view text, const std::string& name);

} // namespace Color
