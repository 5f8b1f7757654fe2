// Chart layouts and measurement files: CGATS.17 text.
//
// A file is a header of keywords, the names of the fields between BEGIN_DATA_FORMAT and END_DATA_FORMAT, and
// one line per data set between BEGIN_DATA and END_DATA. Fields may stand in any order; keywords and fields
// that nobody asks for are passed over; "#" begins a comment; a quoted text may hold spaces, and a doubled
// quote stands for one.
//
// Nothing here keeps global state: every function may be called from any thread, a MeasurementFile from one
// at a time.
#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Color {

// 380 to 730 nm in steps of 10.
inline constexpr std::size_t kBands = 36;

// A file that makes no sense or cannot be read or written. what() is "FILE:LINE: REASON", or "FILE: REASON"
// where the file as a whole is meant (line 0).
class CgatsError : public std::runtime_error {
public:
    CgatsError(std::string file, int line, std::string reason);
    const std::string& file() const noexcept { return mFile; }
    int line() const noexcept { return mLine; }
    const std::string& reason() const noexcept { return mReason; }

private:
    std::string mFile;
    int mLine;
    std::string mReason;
};

// A place on the table, in table coordinates.
struct Point {
    double x = 0.0;
    double y = 0.0;
};

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

    // Adds readings, one line each, with the layout's SAMPLE_ID for their cell (an empty text for a cell
    // without a patch); their own sampleId is not looked at. When the file cannot take them (a full disk) it
    // is left with the readings that it had, and CgatsError is thrown.
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
    std::vector<Reading> readings;
};

// Reads a measurement file; throws CgatsError.
Measurements readMeasurements(const std::string& path);
Measurements parseMeasurements(std::string_view text, const std::string& name);

} // namespace Color
