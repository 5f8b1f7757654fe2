// Where a chart's patches lie on the table.
//
// A chart is a parallelogram of patches in rows and columns, given by the table positions of the centres of
// three corner patches. Table coordinates are floats in the unit of the instrument SDK's positioning calls.
// Differences are taken in float; products and sums with them are formed in double and rounded to float when
// a point is stored.
#pragma once

#include "MatrixDC.h"

struct IOPoint {
    float x;
    float y;
};

// The three given corners: centres of the top-left, bottom-left and bottom-right patches.
struct ChartCorners {
    IOPoint topLeft;
    IOPoint bottomLeft;
    IOPoint bottomRight;

    // The fourth, of the parallelogram.
    IOPoint topRight() const;
};

// The path of one row's strip.
class IOScanPath {
public:
    IOScanPath(IOPoint start, IOPoint end, int row);
    // Row number `row`, counted from 1, of a chart of `rowCount` rows whose first row's path is `first` and
    // last row's path is `last`: the first row's path, moved along the chart's left edge.
    IOScanPath(const IOScanPath* first, const IOScanPath* last, int rowCount, int row);

    // The centre of column `i`, counted from 0, of the path's column count. A path of one column has its
    // start there.
    IOPoint calculatePointForColumnAtIndex(int i) const;
    // Moves the start to the column `columns` - 1 - `k` of a path of `columns` columns.
    void fixForLastRow(int columns, int k);
    // Moves the start to the column `k`. The first argument is not used.
    void eliminatePadding(int, int k);

    IOPoint start;
    IOPoint end;
    int columnCount; // patch centres on the path, start and end included; set by the user
    int row;
    int reserved = 0;
};

// The map from chart coordinates to the table: u across, 0 at the first column's centre and 1 at the last
// one's; v down, likewise for rows. F(u, v) = TL + u (BR - BL) + v (BL - TL).
class ChartFrame {
public:
    explicit ChartFrame(const ChartCorners& corners);

    IOPoint pointAt(double u, double v) const;

private:
    cMatrixDC mMatrix; // 3 x 3; [u, v, 1] times it is [x, y, 1]
};

// Distances between the centres of neighbouring patches.
struct PatchPitches {
    float x; // between columns
    float y; // between rows
};

// A chart of one row or one column has only one pitch; the other takes its value (0 for a single patch).
PatchPitches PitchesOf(const ChartCorners& corners, int rows, int columns);

// `index` / (`count` - 1): the chart coordinate of a row or column; 0 where there is only one.
double ChartCoordinate(int index, int count);

// Where the reading `index`, 0 to 4, of a patch is taken: at its centre, then a sixth of the pitches off it,
// along the table's axes.
IOPoint SpotPoint(IOPoint centre, PatchPitches pitches, int index);
