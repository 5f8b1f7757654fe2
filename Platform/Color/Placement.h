#pragma once

#include <Color/Point.h>

#include <optional>
#include <string>

namespace Color {

// The cells of a chart. A short last row holds the rightmost lastRowColumns of them; 0 means that it is full.
struct Grid {
    int rows = 0;
    int columns = 0;
    int lastRowColumns = 0;

    // First column of a row that holds a patch: 0 but for a short last row.
    int firstColumn(int row) const;
    // Whether the cell is one that holds a patch.
    bool holds(int row, int column) const;
    // How many patches there are.
    long patchCount() const;

    bool operator==(const Grid&) const = default;
};

// Where the centres of three of the grid's corner cells are on the table, whether these hold patches or not.
struct Corners {
    Point topLeft;
    Point bottomLeft;
    Point bottomRight;
};

// Where a chart lies.
struct Placement : Grid, Corners {};

// What is known of a placement; either half may be missing.
struct PlacementParts {
    std::optional<Grid> grid;
    std::optional<Corners> corners;
};

// Why no chart can lie like this, in one sentence: a grid without cells, corners on one line or in one place.
// "" when one can.
std::string problemOf(const Grid& grid);
std::string problemOf(const Placement& placement);

// A placement file is the header of a chart layout: the keywords CHART_ROWS, CHART_COLUMNS,
// CHART_LAST_ROW_COLUMNS (0 when it is left out), CHART_TOP_LEFT, CHART_BOTTOM_LEFT and CHART_BOTTOM_RIGHT,
// as CGATS.17 text. Whatever else the file holds is passed over, so that every layout with these keywords is
// a placement file, too. Both readers throw CgatsError.
Placement readPlacement(const std::string& path);
// The same where the grid or the corners may be missing, but neither of them by half.
PlacementParts readPlacementParts(const std::string& path);

// A placement file's text; `descriptor` tells people what lies there.
std::string placementText(const Placement& placement, const std::string& descriptor);

} // namespace Color
