#include "Measured.h"

#include "Errors.h"

#include <Color/Average.h>

#include <algorithm>
#include <cstdio>

namespace tablectl {

namespace {

constexpr double kPitch = 10;
constexpr long kMostCells = 1'000'000;

Color::Grid gridOf(const Measured& measured) {
    Color::Grid grid = measured.data.grid.value_or(Color::Grid{1, 1, 0});
    for (const Color::Reading& reading : measured.means) {
        if (measured.data.grid && !grid.holds(reading.row, reading.column))
            throw UsageFailure(measured.file + ": the chart has no patch at row " +
                               std::to_string(reading.row) + ", column " + std::to_string(reading.column));
        if (!measured.data.grid) {
            grid.rows = std::max(grid.rows, reading.row + 1);
            grid.columns = std::max(grid.columns, reading.column + 1);
        }
    }
    if (grid.patchCount() > kMostCells)
        throw UsageFailure(measured.file + ": no chart has " + std::to_string(grid.patchCount()) +
                           " patches");
    return grid;
}

} // namespace

Measured readMeasured(const std::string& file) {
    try {
        Measured measured{file, Color::readMeasurements(file), {}};
        if (!measured.data.damage.empty())
            std::fprintf(stderr, "tablectl: %s: %s\n", file.c_str(), measured.data.damage.c_str());
        if (measured.data.readings.empty())
            throw UsageFailure(file + ": holds no reading");
        measured.means = Color::meanReadings(measured.data.readings, measured.data.hasSpectra);
        return measured;
    } catch (const Color::CgatsError& error) {
        throw UsageFailure(error.what());
    }
}

Color::ChartLayout layoutOf(const Measured& measured) {
    const Color::Grid grid = gridOf(measured);
    const Color::Point bottomLeft{0, kPitch * (grid.rows - 1)};
    const Color::Corners corners{{0, 0}, bottomLeft, {kPitch * (grid.columns - 1), bottomLeft.y}};
    Color::ChartLayout layout{{grid, corners},
                              measured.data.originator,
                              measured.data.descriptor,
                              measured.data.hasSpectra,
                              measured.data.fieldNames,
                              {},
                              {}};
    auto next = measured.means.begin();
    for (int row = 0; row < grid.rows; ++row) {
        for (int column = grid.firstColumn(row); column < grid.columns; ++column) {
            Color::Patch patch{"", row, column, {}, std::vector<Color::Value>(layout.fieldNames.size())};
            if (next != measured.means.end() && next->row == row && next->column == column) {
                patch.sampleId = next->sampleId;
                patch.values = next->values;
                std::copy(next->spectrum.begin(), next->spectrum.end(), patch.reflectance.begin());
                ++next;
            }
            layout.patches.push_back(std::move(patch));
        }
    }
    return layout;
}

Color::MeasurementHeader headerOf(const Measured& measured) {
    const std::string& condition = measured.data.condition;
    if (condition != "M0" && condition != "M2")
        throw UsageFailure(measured.file + ": the measurement condition is neither M0 nor M2");
    if (!measured.data.hasSpectra)
        throw UsageFailure(measured.file + ": has no spectra from 380 to 730 nm in steps of 10");
    return {condition == "M0" ? Color::MeasurementCondition::M0 : Color::MeasurementCondition::M2};
}

} // namespace tablectl
