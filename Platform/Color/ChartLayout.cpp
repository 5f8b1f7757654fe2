#include <Color/CgatsReader.h>
#include <Color/ChartLayout.h>

#include <algorithm>
#include <cmath>
#include <optional>

namespace Color {

namespace {

// Percent scales and fluorescent papers stay far below; whatever lies beyond is no reflectance.
constexpr double kHighestReflectance = 1000.0;
// No paper sends back twice the light; in percent, paper is far above.
constexpr double kHighestFactor = 2.0;

std::string cellName(int row, int column) {
    return "row " + std::to_string(row) + ", column " + std::to_string(column);
}

std::string linesText(const std::vector<int>& lines) {
    std::string text;
    for (const int line : lines) {
        text += (text.empty() ? "" : ", ") + std::to_string(line);
    }
    return (lines.size() == 1 ? "line " : "lines ") + text;
}

// The parts that the file must have itself, and those that were given instead.
Placement placementOf(const CgatsReader& reader, const PlacementParts& given) {
    // Nothing of the file's is looked at that does not matter.
    PlacementParts parts = given;
    if (!parts.grid || !parts.corners) {
        const PlacementParts own = placementPartsOf(reader);
        parts.grid = parts.grid ? parts.grid : own.grid;
        parts.corners = parts.corners ? parts.corners : own.corners;
    }
    if (!parts.grid) {
        reader.fail(0, "the keyword CHART_ROWS is missing, and no grid was given");
    }
    if (!parts.corners) {
        reader.fail(0, "the keyword CHART_TOP_LEFT is missing, and no corners were given");
    }
    const Placement placement{*parts.grid, *parts.corners};
    if (const std::string problem = problemOf(placement); !problem.empty()) {
        reader.fail(0, problem);
    }
    return placement;
}

// Takes the sets of a table, in the order of the file.
class PatchReader {
public:
    PatchReader(CgatsReader& reader, const Grid& grid)
        : mReader(reader),
          mGrid(grid),
          mIdField(reader.field("SAMPLE_ID")),
          mRowField(reader.optionalField("ROW")),
          mColumnField(reader.optionalField("COLUMN")),
          mBandFields(reader.optionalSpectralFields()),
          mOtherFields(reader.otherFields()) {
        if (mRowField.has_value() != mColumnField.has_value()) {
            reader.field(mRowField ? "COLUMN" : "ROW");
        }
    }

    bool hasSpectra() const { return mBandFields.has_value(); }
    std::vector<std::string> otherNames() const { return mReader.namesOf(mOtherFields); }

    Patch read(const std::vector<std::string>& set) {
        Patch patch;
        patch.sampleId = set[mIdField];
        if (mRowField) {
            patch.row = mReader.integerField(set[*mRowField]);
            patch.column = mReader.integerField(set[*mColumnField]);
        } else {
            advance();
            patch.row = mRow;
            patch.column = mColumn;
        }
        if (!mGrid.holds(patch.row, patch.column)) {
            mReader.fail("the chart has no patch at " + cellName(patch.row, patch.column));
        }
        for (std::size_t band = 0; mBandFields && band < kBands; ++band) {
            const std::string& text = set[(*mBandFields)[band]];
            patch.reflectance[band] = mReader.number(text);
            if (std::fabs(patch.reflectance[band]) > kHighestReflectance) {
                mReader.fail("no reflectance: " + text);
            }
        }
        patch.values = mReader.valuesOf(mOtherFields);
        return patch;
    }

private:
    // The next cell of the grid.
    void advance() {
        if (mColumn < 0 || ++mColumn >= mGrid.columns) {
            mColumn = mGrid.firstColumn(++mRow);
        }
    }

    CgatsReader& mReader;
    const Grid& mGrid;
    std::size_t mIdField;
    std::optional<std::size_t> mRowField;
    std::optional<std::size_t> mColumnField;
    std::optional<std::array<std::size_t, kBands>> mBandFields;
    std::vector<std::size_t> mOtherFields;
    int mRow = -1;
    int mColumn = -1;
};

void checkCount(const CgatsReader& reader, const Grid& grid, long sets) {
    if (sets != grid.patchCount()) {
        reader.fail(reader.numberOfSetsLine(), "the grid has " + std::to_string(grid.patchCount()) +
                                                   " patches, but NUMBER_OF_SETS is " + std::to_string(sets));
    }
}

// Percent becomes a factor of 1.
void unifyScale(ChartLayout& layout) {
    double highest = 0;
    for (const Patch& patch : layout.patches) {
        highest = std::max(highest, *std::max_element(patch.reflectance.begin(), patch.reflectance.end()));
    }
    if (highest <= kHighestFactor) {
        return;
    }
    for (Patch& patch : layout.patches) {
        for (double& value : patch.reflectance) {
            value /= 100;
        }
    }
    layout.notes.push_back("the spectra, which go up to " + std::to_string(std::lround(highest)) +
                           ", are taken for percent");
}

} // namespace

const Patch* ChartLayout::patchAt(int row, int column) const {
    if (!holds(row, column)) {
        return nullptr;
    }
    return &patches[static_cast<std::size_t>(row) * static_cast<std::size_t>(columns) +
                    static_cast<std::size_t>(column - firstColumn(row))];
}

ChartLayout parseChartLayout(std::string_view text, const std::string& name, const PlacementParts& given) {
    CgatsReader reader(text, name);
    ChartLayout layout{placementOf(reader, given),
                       reader.optionalText("ORIGINATOR"),
                       reader.optionalText("DESCRIPTOR"),
                       false,
                       {},
                       {},
                       {}};
    if (reader.numberOfSets()) {
        checkCount(reader, layout, *reader.numberOfSets());
    }
    PatchReader patches(reader, layout);
    layout.hasSpectra = patches.hasSpectra();
    layout.fieldNames = patches.otherNames();
    std::vector<Patch>& found = layout.patches;
    std::map<std::pair<int, int>, std::size_t> cells;
    while (const std::vector<std::string>* set = reader.nextSet()) {
        found.push_back(patches.read(*set));
        const Patch& patch = found.back();
        if (!cells.try_emplace({patch.row, patch.column}, found.size()).second) {
            reader.fail("a second patch at " + cellName(patch.row, patch.column));
        }
    }
    checkCount(reader, layout, static_cast<long>(found.size()));
    // As many sets as cells and none of them twice: no cell was left out.
    std::sort(found.begin(), found.end(), [](const Patch& one, const Patch& other) {
        return std::pair(one.row, one.column) < std::pair(other.row, other.column);
    });
    if (layout.hasSpectra) {
        unifyScale(layout);
    } else if (std::any_of(reader.fieldNames().begin(), reader.fieldNames().end(),
                           [](const std::string& field) { return wavelengthOf(field).has_value(); })) {
        layout.notes.push_back("the spectra are not from 380 to 730 nm in steps of 10, and are passed over");
    }
    if (const std::vector<int> others = reader.otherTables(); !others.empty()) {
        layout.notes.push_back("the first table that holds sets is read, not that of " + linesText(others));
    }
    return layout;
}

ChartLayout readChartLayout(const std::string& path, const PlacementParts& given) {
    return parseChartLayout(readWholeFile(path), path, given);
}

} // namespace Color
