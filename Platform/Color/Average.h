// What several readings of a patch say together. Pure: any thread, no errors.
#pragma once

#include <Color/Colorimetry.h>
#include <Color/MeasurementFile.h>

#include <span>
#include <vector>

namespace Color {

// One reading for each cell, in the order of rows and columns: the mean of its spectra and the CIELAB of that
// mean, or without spectra the mean of its CIELAB. A cell's only reading stays as it is. SAMPLE_ID and values
// are those of the cell's first reading.
std::vector<Reading> meanReadings(std::span<const Reading> readings, bool hasSpectra = true);

// How far readings lie from the means of their cells, in CIEDE2000.
struct Scatter {
    double mean = 0;
    double maximum = 0;
};

// The means are in the order of meanReadings(), and have all of the readings' cells.
Scatter scatterOf(std::span<const Reading> readings, std::span<const Reading> means);

// The reading's CIELAB.
Lab labOf(const Reading& reading);

} // namespace Color
