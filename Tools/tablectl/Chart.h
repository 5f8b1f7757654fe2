// Charts as the scan command sees them: layouts, the device command that measures one, and the rows that come
// back.
#pragma once

#include "Commands.h"
#include "Device.h"

#include <Color/Colorimetry.h>
#include <Color/MeasurementFile.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tablectl {

// Throws UsageFailure with file, line and reason. What the reader took for granted is told on standard error.
Color::ChartLayout readLayout(const std::string& path, const Color::PlacementParts& given = {});

// The parts of a placement that the user gave. Throws UsageFailure for what is none.
Color::PlacementParts placementOf(const PlacementRequest& request);

// Throws UsageFailure when no virtual table can hold the chart: it is one that cannot be read, or has no
// spectra.
void checkVirtualChart(const std::string& path);

int patchesInRow(const Color::ChartLayout& layout, int row);

struct MeasureOptions {
    std::optional<int> row;          // one row; else the whole chart
    std::optional<int> spotReadings; // per patch; else strips
};

Command measureCommand(const Color::ChartLayout& layout, const MeasureOptions& options);

// The readings of one row, in the order of their columns and spots.
struct Row {
    int row = 0;
    Color::MeasurementCondition condition = Color::MeasurementCondition::M0;
    std::vector<Color::Reading> readings;
};

// The mean CIELAB colour of each patch, by column.
std::map<int, Color::Lab> meanColors(const Row& row);

// The readings as a JSON array: `sampleId`, `column`, `spotIndex`, `lab` and `spectrum` of each.
std::string readingsJson(const Row& row, const Color::ChartLayout& layout);

// Throws DeviceFailure when the reply does not hold exactly the patches of one row of the chart.
Row rowOf(const Reply& reply, const Color::ChartLayout& layout);

} // namespace tablectl
