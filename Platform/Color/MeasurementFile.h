#pragma once

#include <Color/ChartLayout.h>

#include <cstddef>
#include <span>

namespace Color {

// The light that the samples were measured with: M0 as the lamp gives it, M2 without its ultraviolet part.
enum class MeasurementCondition { M0, M2 };

// One reading of one patch. spotIndex counts the readings of the patch from 0.
struct Reading {
    std::string sampleId;
    int row = 0;
    int column = 0;
    int spotIndex = 0;
    std::array<float, 3> lab{};
    std::array<float, kBands> spectrum{};
    std::vector<Value> values{}; // of Measurements::fieldNames
};

// A measurement file that grows row by row.
//
// The file is whole after every call of add(): the last line stays END_DATA and NUMBER_OF_SETS is right, so
// that a scan that is interrupted leaves what it has. The file must be one that can be rewritten in place
// (not a pipe).
class MeasurementFile {
public:
    // Creates the file, or empties it, and writes the header with no readings. Throws CgatsError.
    MeasurementFile(std::string path, const ChartLayout& layout, MeasurementCondition condition);
    ~MeasurementFile();
    MeasurementFile(const MeasurementFile&) = delete;
    MeasurementFile& operator=(const MeasurementFile&) = delete;

    // Adds readings, one line each, with SAMPLE_ID and the values that the layout has for their cell (an
    // empty text for a cell without a patch); their own are not looked at. When the file cannot take them (a
    // full disk) it is left with the readings that it had, and CgatsError is thrown.
    void add(std::span<const Reading> readings);
    std::size_t count() const noexcept { return mCount; }

private:
    void write(std::string_view text, std::size_t offset);
    // Makes the file what it was before an add() that failed, as well as it can.
    void restore() noexcept;
    std::string countLine() const;

    std::string mPath;
    ChartLayout mLayout;
    int mDescriptor = -1;
    std::size_t mCountOffset = 0; // where the NUMBER_OF_SETS line begins
    std::size_t mTailOffset = 0;  // where END_DATA begins
    std::size_t mCount = 0;
};

// A measurement file as it was written.
struct Measurements {
    MeasurementCondition condition = MeasurementCondition::M0;
    std::string originator;
    std::string descriptor;
    std::vector<std::string> fieldNames; // the layout's own: device values, names, ...
    std::vector<Reading> readings;
};

// Reads a measurement file; throws CgatsError.
Measurements readMeasurements(const std::string& path);
Measurements parseMeasurements(std::string_view text, const std::string& name);

} // namespace Color
