#pragma once

#include <Color/Cgats.h>
#include <Color/CgatsText.h>
#include <Color/Placement.h>
#include <Color/Spectrum.h>

#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace Color {

// One patch as the layout describes it.
struct Patch {
    std::string sampleId;
    int row = 0;                              // from 0, downwards
    int column = 0;                           // from 0, to the right, counted over the full grid
    std::array<double, kBands> reflectance{}; // 1 being the perfect diffuser; all 0 when the layout has none
    std::vector<Value> values{};              // of ChartLayout::fieldNames
};

// A chart: its patches, and where they lie.
struct ChartLayout : Placement {
    std::string originator;
    std::string descriptor;
    bool hasSpectra = false; // the reference that a measurement can be compared with
    // The fields that are neither measured nor say where a patch lies, as the file has them: device values,
    // names and whatever else.
    std::vector<std::string> fieldNames;
    std::vector<Patch> patches; // row after row, whatever the order in the file
    // What the reader took for granted or passed over, in sentences for people.
    std::vector<std::string> notes;

    // The patch of a cell; null for a cell that is empty or outside the grid.
    const Patch* patchAt(int row, int column) const;
};

// Reads a layout file; throws CgatsError. What is `given` of the placement stands in for what the file says.
// Sets without ROW and COLUMN fill the grid row after row, in their order. Reflectances above 2 are percent.
ChartLayout readChartLayout(const std::string& path, const PlacementParts& given = {});
// The same from text; name stands for the file in error texts.
ChartLayout parseChartLayout(std::string_view text, const std::string& name,
                             const PlacementParts& given = {});

} // namespace Color
