// Measurement files as the commands take them that need no device.
#pragma once

#include <Color/MeasurementFile.h>

#include <string>
#include <vector>

namespace tablectl {

struct Measured {
    std::string file;
    Color::Measurements data;
    std::vector<Color::Reading> means; // one for each cell, in their order
};

// Throws UsageFailure with file, line and reason. What is missing of a file that was cut short is told on
// standard error.
Measured readMeasured(const std::string& file);

// The chart that was measured, its spectra as the reference; it lies square at the table's origin, as the
// file does not say where it was. Throws UsageFailure when no grid holds the cells.
Color::ChartLayout layoutOf(const Measured& measured);

// For a measurement file of our own. Throws UsageFailure for a condition or spectra that it cannot have.
Color::MeasurementHeader headerOf(const Measured& measured);

} // namespace tablectl
