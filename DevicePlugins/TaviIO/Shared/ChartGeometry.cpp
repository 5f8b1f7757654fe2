#include "ChartGeometry.h"

#include <cmath>

namespace {

double asDouble(float value) {
    return static_cast<double>(value);
}

float rounded(double value) {
    return static_cast<float>(value);
}

// The float difference of two coordinates, ready for double arithmetic.
double difference(float left, float right) {
    return asDouble(left - right);
}

float distance(IOPoint from, IOPoint to) {
    const double dy = difference(from.y, to.y);
    const double dx = difference(from.x, to.x);
    return rounded(std::sqrt(dy * dy + dx * dx));
}

float pitch(float length, int count) {
    return length / (static_cast<float>(count) - 1.0F);
}

cMatrixDC frameMatrix(const ChartCorners& corners) {
    const IOPoint& tl = corners.topLeft;
    const IOPoint& bl = corners.bottomLeft;
    const IOPoint& br = corners.bottomRight;
    const double onTable[] = {asDouble(tl.x), asDouble(tl.y), 1, asDouble(bl.x), asDouble(bl.y), 1,
                              asDouble(br.x), asDouble(br.y), 1};
    const double onChart[] = {0, 0, 1, 0, 1, 1, 1, 1, 1};
    const cMatrixDC a(3, 3, onTable);
    cMatrixDC b(3, 3, onChart);
    return b.pinv().mult(a);
}

} // namespace

IOPoint ChartCorners::topRight() const {
    return {bottomRight.x - bottomLeft.x + topLeft.x, bottomRight.y - bottomLeft.y + topLeft.y};
}

IOScanPath::IOScanPath(IOPoint from, IOPoint to, int number)
    : start(from), end(to), columnCount(0), row(number) {}

IOScanPath::IOScanPath(const IOScanPath* first, const IOScanPath* last, int rowCount, int number)
    : start(first->start), end(first->end), columnCount(0), row(number) {
    if (rowCount == 1)
        return; // there is nowhere to move to
    const double steps = static_cast<double>(rowCount) - 1.0;
    const double dx = difference(first->start.x, last->start.x) / steps * (static_cast<double>(number) - 1.0);
    const double dy = difference(first->start.y, last->start.y) / steps * (static_cast<double>(number) - 1.0);
    start = {rounded(asDouble(first->start.x) - dx), rounded(asDouble(first->start.y) - dy)};
    end = {rounded(asDouble(first->end.x) - dx), rounded(asDouble(first->end.y) - dy)};
}

IOPoint IOScanPath::calculatePointForColumnAtIndex(int i) const {
    if (columnCount == 1)
        return start;
    const float t = static_cast<float>(i) / static_cast<float>(columnCount - 1);
    return {rounded(asDouble(start.x) - difference(start.x, end.x) * asDouble(t)),
            rounded(asDouble(start.y) - difference(start.y, end.y) * asDouble(t))};
}

void IOScanPath::fixForLastRow(int columns, int k) {
    const int saved = columnCount;
    columnCount = columns;
    start = calculatePointForColumnAtIndex(columns - 1 - k);
    columnCount = saved;
}

void IOScanPath::eliminatePadding(int, int k) {
    start = calculatePointForColumnAtIndex(k);
}

ChartFrame::ChartFrame(const ChartCorners& corners) : mMatrix(frameMatrix(corners)) {}

IOPoint ChartFrame::pointAt(double u, double v) const {
    const double onChart[] = {u, v, 1};
    cMatrixDC onTable = cMatrixDC(1, 3, onChart).mult(mMatrix);
    return {rounded(onTable[0]), rounded(onTable[1])};
}

PatchPitches PitchesOf(const ChartCorners& corners, int rows, int columns) {
    const float height = distance(corners.topLeft, corners.bottomLeft);
    const float width = distance(corners.bottomLeft, corners.bottomRight);
    if (rows == 1 && columns == 1)
        return {0, 0};
    if (rows == 1)
        return {pitch(width, columns), pitch(width, columns)};
    if (columns == 1)
        return {pitch(height, rows), pitch(height, rows)};
    return {pitch(width, columns), pitch(height, rows)};
}

double ChartCoordinate(int index, int count) {
    return count == 1 ? 0.0 : static_cast<double>(index) / (static_cast<double>(count) - 1.0);
}

IOPoint SpotPoint(IOPoint centre, PatchPitches pitches, int index) {
    const float sx = pitches.x / 6;
    const float sy = pitches.y / 6;
    switch (index) {
    case 1:
        return {centre.x - sx, centre.y + sy};
    case 2:
        return {centre.x - sx, centre.y - sy};
    case 3:
        return {centre.x + sx, centre.y - sy};
    case 4:
        return {centre.x + sx, centre.y + sy};
    default:
        return centre;
    }
}
