#include <Color/CgatsReader.h>
#include <Color/ChartLayout.h>

#include <cmath>

namespace Color {

namespace {

// Percent scales and fluorescent papers stay far below; whatever lies beyond is no reflectance.
constexpr double kHighestReflectance = 1000.0;

// The index of a cell in ChartLayout::patches; the cell must hold a patch.
std::size_t indexOf(const ChartLayout& layout, int row, int column) {
    return static_cast<std::size_t>(row) * static_cast<std::size_t>(layout.columns) +
           static_cast<std::size_t>(column - layout.firstColumn(row));
}

std::string cellName(int row, int column) {
    return "row " + std::to_string(row) + ", column " + std::to_string(column);
}

// Three corners on one line, or two in one place, make no grid.
void checkCorners(const CgatsReader& reader, const ChartLayout& layout) {
    const Point across{layout.bottomRight.x - layout.bottomLeft.x,
                       layout.bottomRight.y - layout.bottomLeft.y};
    const Point down{layout.bottomLeft.x - layout.topLeft.x, layout.bottomLeft.y - layout.topLeft.y};
    const double width = std::hypot(across.x, across.y);
    const double height = std::hypot(down.x, down.y);
    constexpr double kShortest = 1e-6;
    if (layout.columns > 1 && width < kShortest) {
        reader.fail(reader.required("CHART_BOTTOM_RIGHT").line,
                    "CHART_BOTTOM_LEFT and CHART_BOTTOM_RIGHT are one point");
    }
    if (layout.rows > 1 && height < kShortest) {
        reader.fail(reader.required("CHART_BOTTOM_LEFT").line,
                    "CHART_TOP_LEFT and CHART_BOTTOM_LEFT are one point");
    }
    if (layout.columns > 1 && layout.rows > 1 &&
        std::fabs(across.x * down.y - across.y * down.x) < 1e-6 * width * height) {
        reader.fail(reader.required("CHART_BOTTOM_RIGHT").line, "the three corners lie on one line");
    }
}

ChartLayout readGrid(const CgatsReader& reader) {
    ChartLayout layout;
    layout.originator = reader.optionalText("ORIGINATOR");
    layout.descriptor = reader.optionalText("DESCRIPTOR");
    layout.rows = reader.integer("CHART_ROWS");
    layout.columns = reader.integer("CHART_COLUMNS");
    layout.lastRowColumns = reader.integer("CHART_LAST_ROW_COLUMNS");
    if (layout.rows <= 0) {
        reader.fail(reader.required("CHART_ROWS").line, "CHART_ROWS must be at least 1");
    }
    if (layout.columns <= 0) {
        reader.fail(reader.required("CHART_COLUMNS").line, "CHART_COLUMNS must be at least 1");
    }
    if (layout.lastRowColumns < 0 || layout.lastRowColumns > layout.columns) {
        reader.fail(reader.required("CHART_LAST_ROW_COLUMNS").line,
                    "CHART_LAST_ROW_COLUMNS must lie between 0 and CHART_COLUMNS");
    }
    layout.topLeft = reader.point("CHART_TOP_LEFT");
    layout.bottomLeft = reader.point("CHART_BOTTOM_LEFT");
    layout.bottomRight = reader.point("CHART_BOTTOM_RIGHT");
    checkCorners(reader, layout);
    return layout;
}

} // namespace

int ChartLayout::firstColumn(int row) const {
    return row == rows - 1 && lastRowColumns != 0 ? columns - lastRowColumns : 0;
}

const Patch* ChartLayout::patchAt(int row, int column) const {
    if (row < 0 || row >= rows || column < firstColumn(row) || column >= columns) {
        return nullptr;
    }
    return &patches[indexOf(*this, row, column)];
}

ChartLayout parseChartLayout(std::string_view text, const std::string& name) {
    CgatsReader reader(text, name);
    ChartLayout layout = readGrid(reader);
    const long last = layout.lastRowColumns != 0 ? layout.lastRowColumns : layout.columns;
    const long cells = static_cast<long>(layout.rows - 1) * layout.columns + last;
    if (reader.numberOfSets() != cells) {
        reader.fail(reader.required("NUMBER_OF_SETS").line, "the grid has " + std::to_string(cells) +
                                                                " patches, but NUMBER_OF_SETS is " +
                                                                std::to_string(reader.numberOfSets()));
    }
    // A set takes more bytes of the file than one for each band, so a file cannot promise more patches than
    // that.
    if (static_cast<std::size_t>(cells) > text.size() / kBands) {
        reader.fail(0, "is too short for " + std::to_string(cells) + " patches");
    }
    layout.patches.resize(static_cast<std::size_t>(cells));
    std::vector<bool> taken(layout.patches.size());

    const std::size_t idField = reader.field("SAMPLE_ID");
    const std::size_t rowField = reader.field("ROW");
    const std::size_t columnField = reader.field("COLUMN");
    const std::array<std::size_t, kBands> bandFields = reader.spectralFields();
    while (const std::vector<std::string>* set = reader.nextSet()) {
        const int row = reader.integerField((*set)[rowField]);
        const int column = reader.integerField((*set)[columnField]);
        if (row < 0 || row >= layout.rows || column < layout.firstColumn(row) || column >= layout.columns) {
            reader.fail("the chart has no patch at " + cellName(row, column));
        }
        const std::size_t index = indexOf(layout, row, column);
        if (taken[index]) {
            reader.fail("a second patch at " + cellName(row, column));
        }
        taken[index] = true;
        Patch& patch = layout.patches[index];
        patch.sampleId = (*set)[idField];
        patch.row = row;
        patch.column = column;
        for (std::size_t band = 0; band < kBands; ++band) {
            const double value = reader.number((*set)[bandFields[band]]);
            if (std::fabs(value) > kHighestReflectance) {
                reader.fail("no reflectance: " + (*set)[bandFields[band]]);
            }
            patch.reflectance[band] = value;
        }
    }
    // As many sets as cells and none of them twice: no cell was left out.
    return layout;
}

ChartLayout readChartLayout(const std::string& path) {
    return parseChartLayout(readWholeFile(path), path);
}

} // namespace Color
