#pragma once

#include <Color/ChartLayout.h>

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

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

// What a measurement file tells beside its readings.
struct MeasurementHeader {
    MeasurementCondition condition = MeasurementCondition::M0;
    bool hasXyz = false; // columns XYZ_X XYZ_Y XYZ_Z, from the spectra
};

// A measurement file's text: one line for each reading, with SAMPLE_ID and the values that the layout has for
// its cell (an empty text for a cell without a patch); the readings' own are not looked at.
std::string measurementText(const ChartLayout& layout, const MeasurementHeader& header,
                            std::span<const Reading> readings);

// A measurement file that grows row by row.
//
// Other programs can read the file after every call of add(): the last line stays END_DATA and NUMBER_OF_SETS
// is right, so that a scan that is interrupted leaves what it has. When the machine stops in the middle of a
// call, recoverReadings() finds the rows before. The file must be one that can be rewritten in place (not a
// pipe).
class MeasurementFile {
public:
    // Creates the file, or empties it, and writes the header with no readings. Throws CgatsError; a file that
    // takes no header is removed again.
    MeasurementFile(std::string path, const ChartLayout& layout, const MeasurementHeader& header);
    // Goes on with a file that holds exactly measurementText() of these readings.
    MeasurementFile(std::string path, const ChartLayout& layout, const MeasurementHeader& header,
                    std::span<const Reading> soFar);
    ~MeasurementFile();
    MeasurementFile(const MeasurementFile&) = delete;
    MeasurementFile& operator=(const MeasurementFile&) = delete;

    // Adds lines as measurementText() does. When the file cannot take them (a full disk) it is left with the
    // readings that it had, and CgatsError is thrown.
    void add(std::span<const Reading> readings);
    std::size_t count() const noexcept { return mCount; }
    // Returns when the disk has it all. Throws CgatsError.
    void sync();

private:
    void create(const std::string& header);
    void write(std::string_view text, std::size_t offset);
    // Makes the file what it was before an add() that failed, as well as it can.
    void restore() noexcept;

    std::string mPath;
    ChartLayout mLayout;
    MeasurementHeader mHeader;
    int mDescriptor = -1;
    std::size_t mCountOffset = 0; // where the NUMBER_OF_SETS line begins
    std::size_t mTailOffset = 0;  // where END_DATA begins
    std::size_t mCount = 0;
};

// A measurement file as it was written, by this system or another.
struct Measurements {
    // As the file names it; "" when it does not.
    std::string condition;
    std::string originator;
    std::string descriptor;
    std::optional<Grid> grid; // the layout's
    bool hasCells = false;    // ROW and COLUMN; else the readings are one row
    bool hasSpectra = false;
    std::vector<std::string> fieldNames; // the layout's own: device values, names, ...
    std::vector<Reading> readings;
    // What is missing of a file that was cut short, in a sentence; "" of a whole one. The readings before the
    // damage are there.
    std::string damage;
};

// Reads a measurement file; throws CgatsError. A file needs spectra or CIELAB; spectra give missing CIELAB.
Measurements readMeasurements(const std::string& path);
Measurements parseMeasurements(std::string_view text, const std::string& name);

// The readings that an interrupted measurement of this layout left: those of the whole rows, `spots` for each
// patch, before the first damage. Throws CgatsError with the first line that a measurement of this layout
// under this condition would not have.
std::vector<Reading> recoverReadings(const std::string& path, const ChartLayout& layout,
                                     const MeasurementHeader& header, int spots);

} // namespace Color
