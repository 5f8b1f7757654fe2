#include <Color/CgatsReader.h>
#include <Color/CgatsText.h>
#include <Color/Placement.h>

#include <cmath>

namespace Color {

namespace {

// The line of the keyword, or 0 when the file does not have it.
int lineOf(const CgatsReader& reader, const std::string& keyword) {
    const CgatsReader::Keyword* found = reader.optional(keyword);
    return found != nullptr ? found->line : 0;
}

std::optional<Grid> gridOf(const CgatsReader& reader) {
    if (reader.optional("CHART_ROWS") == nullptr && reader.optional("CHART_COLUMNS") == nullptr) {
        return std::nullopt;
    }
    Grid grid{reader.integer("CHART_ROWS"), reader.integer("CHART_COLUMNS"), 0};
    if (reader.optional("CHART_LAST_ROW_COLUMNS") != nullptr) {
        grid.lastRowColumns = reader.integer("CHART_LAST_ROW_COLUMNS");
    }
    if (const std::string problem = problemOf(grid); !problem.empty()) {
        const char* const keyword = grid.rows <= 0      ? "CHART_ROWS"
                                    : grid.columns <= 0 ? "CHART_COLUMNS"
                                                        : "CHART_LAST_ROW_COLUMNS";
        reader.fail(lineOf(reader, keyword), problem);
    }
    return grid;
}

std::optional<Corners> cornersOf(const CgatsReader& reader) {
    if (reader.optional("CHART_TOP_LEFT") == nullptr && reader.optional("CHART_BOTTOM_LEFT") == nullptr &&
        reader.optional("CHART_BOTTOM_RIGHT") == nullptr) {
        return std::nullopt;
    }
    return Corners{reader.point("CHART_TOP_LEFT"), reader.point("CHART_BOTTOM_LEFT"),
                   reader.point("CHART_BOTTOM_RIGHT")};
}

Point operator-(const Point& to, const Point& from) {
    return {to.x - from.x, to.y - from.y};
}

std::string pointText(const Point& point) {
    std::string text;
    appendNumber(text, point.x);
    text += ' ';
    appendNumber(text, point.y);
    return text;
}

} // namespace

int Grid::firstColumn(int row) const {
    return row == rows - 1 && lastRowColumns != 0 ? columns - lastRowColumns : 0;
}

bool Grid::holds(int row, int column) const {
    return row >= 0 && row < rows && column >= firstColumn(row) && column < columns;
}

long Grid::patchCount() const {
    return static_cast<long>(rows - 1) * columns + (lastRowColumns != 0 ? lastRowColumns : columns);
}

std::string problemOf(const Grid& grid) {
    if (grid.rows <= 0) {
        return "the number of rows must be at least 1";
    }
    if (grid.columns <= 0) {
        return "the number of columns must be at least 1";
    }
    if (grid.lastRowColumns < 0 || grid.lastRowColumns > grid.columns) {
        return "the number of columns in the last row must lie between 0 and " + std::to_string(grid.columns);
    }
    return {};
}

std::string problemOf(const Placement& placement) {
    if (std::string problem = problemOf(static_cast<const Grid&>(placement)); !problem.empty()) {
        return problem;
    }
    const Point across = placement.bottomRight - placement.bottomLeft;
    const Point down = placement.bottomLeft - placement.topLeft;
    const double width = std::hypot(across.x, across.y);
    const double height = std::hypot(down.x, down.y);
    constexpr double kShortest = 1e-6;
    if (placement.columns > 1 && width < kShortest) {
        return "the bottom left and the bottom right corner are one point";
    }
    if (placement.rows > 1 && height < kShortest) {
        return "the top left and the bottom left corner are one point";
    }
    if (placement.columns > 1 && placement.rows > 1 &&
        std::fabs(across.x * down.y - across.y * down.x) < 1e-6 * width * height) {
        return "the three corners lie on one line";
    }
    return {};
}

PlacementParts placementPartsOf(const CgatsReader& reader) {
    const PlacementParts parts{gridOf(reader), cornersOf(reader)};
    if (parts.grid && parts.corners) {
        if (const std::string problem = problemOf({*parts.grid, *parts.corners}); !problem.empty()) {
            reader.fail(lineOf(reader, "CHART_BOTTOM_RIGHT"), problem);
        }
    }
    return parts;
}

PlacementParts readPlacementParts(const std::string& path) {
    const std::string text = readWholeFile(path);
    return placementPartsOf(CgatsReader(text, path, CgatsReader::Extent::Keywords));
}

Placement readPlacement(const std::string& path) {
    const PlacementParts parts = readPlacementParts(path);
    if (!parts.grid || !parts.corners) {
        throw CgatsError(path, 0,
                         std::string("the keyword ") + (parts.grid ? "CHART_TOP_LEFT" : "CHART_ROWS") +
                             " is missing");
    }
    return {*parts.grid, *parts.corners};
}

std::string placementText(const Placement& placement, const std::string& descriptor) {
    std::string text = "CGATS.17\n";
    appendKeyword(text, "DESCRIPTOR", descriptor);
    const auto add = [&text](const char* keyword, const std::string& value) {
        appendKeyword(text, "KEYWORD", keyword);
        appendKeyword(text, keyword, value);
    };
    add("CHART_ROWS", std::to_string(placement.rows));
    add("CHART_COLUMNS", std::to_string(placement.columns));
    add("CHART_LAST_ROW_COLUMNS", std::to_string(placement.lastRowColumns));
    add("CHART_TOP_LEFT", pointText(placement.topLeft));
    add("CHART_BOTTOM_LEFT", pointText(placement.bottomLeft));
    add("CHART_BOTTOM_RIGHT", pointText(placement.bottomRight));
    return text;
}

} // namespace Color
