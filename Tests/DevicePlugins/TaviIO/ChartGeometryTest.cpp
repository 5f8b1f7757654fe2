#include "ChartGeometry.h"

#include <gtest/gtest.h>

namespace {

const ChartCorners kUpright{{10, 20}, {10, 120}, {210, 120}};
const ChartCorners kRotated{{20, 30}, {25, 130}, {225, 120}};

void expectPoint(IOPoint point, double x, double y) {
    EXPECT_FLOAT_EQ(point.x, static_cast<float>(x));
    EXPECT_FLOAT_EQ(point.y, static_cast<float>(y));
}

TEST(ChartGeometry, FrameMapsCornersAndPatches) {
    const ChartFrame upright(kUpright);
    expectPoint(kUpright.topRight(), 210, 20);
    expectPoint(upright.pointAt(0, 0.5), 10, 70);
    expectPoint(upright.pointAt(1, 0.5), 210, 70);
    expectPoint(upright.pointAt(ChartCoordinate(3, 21), ChartCoordinate(5, 11)), 40, 70);
    expectPoint(upright.pointAt(16.0 / 21.0, 1), 10 + 200 * 16.0 / 21.0, 120);

    const ChartFrame rotated(kRotated);
    expectPoint(kRotated.topRight(), 220, 20);
    expectPoint(rotated.pointAt(0, 0.5), 22.5, 80);
    expectPoint(rotated.pointAt(1, 0.5), 222.5, 70);
}

TEST(ChartGeometry, PitchesAreDistancesBetweenCentres) {
    const PatchPitches pitches = PitchesOf(kUpright, 11, 21);
    EXPECT_FLOAT_EQ(pitches.x, 10);
    EXPECT_FLOAT_EQ(pitches.y, 10);
    const PatchPitches oblique = PitchesOf({{0, 0}, {30, 40}, {130, 40}}, 6, 11);
    EXPECT_FLOAT_EQ(oblique.x, 10);
    EXPECT_FLOAT_EQ(oblique.y, 10);
}

TEST(ChartGeometry, ChartsOfOneRowOrColumnBorrowTheOtherPitch) {
    const PatchPitches row = PitchesOf({{0, 5}, {0, 5}, {80, 5}}, 1, 9);
    EXPECT_FLOAT_EQ(row.x, 10);
    EXPECT_FLOAT_EQ(row.y, 10);
    const PatchPitches column = PitchesOf({{0, 0}, {0, 60}, {0, 60}}, 7, 1);
    EXPECT_FLOAT_EQ(column.x, 10);
    EXPECT_FLOAT_EQ(column.y, 10);
    EXPECT_EQ(PitchesOf({{1, 1}, {1, 1}, {1, 1}}, 1, 1).x, 0);
    EXPECT_EQ(ChartCoordinate(0, 1), 0);

    const IOScanPath only({3, 4}, {3, 4}, 1);
    IOScanPath path(&only, &only, 1, 1);
    path.columnCount = 1;
    expectPoint(path.calculatePointForColumnAtIndex(0), 3, 4);
}

TEST(ChartGeometry, SpotsLieASixthOfThePitchesAroundTheCentre) {
    const PatchPitches pitches{10, 12};
    const double sx = 10.0 / 6;
    const double sy = 2;
    expectPoint(SpotPoint({40, 70}, pitches, 0), 40, 70);
    expectPoint(SpotPoint({40, 70}, pitches, 1), 40 - sx, 70 + sy);
    expectPoint(SpotPoint({40, 70}, pitches, 2), 40 - sx, 70 - sy);
    expectPoint(SpotPoint({40, 70}, pitches, 3), 40 + sx, 70 - sy);
    expectPoint(SpotPoint({40, 70}, pitches, 4), 40 + sx, 70 + sy);
}

TEST(ChartGeometry, RowPathsAreShiftedCopiesOfTheFirst) {
    const IOScanPath top(kRotated.topLeft, kRotated.topRight(), 1);
    const IOScanPath bottom(kRotated.bottomLeft, kRotated.bottomRight, 11);
    IOScanPath middle(&top, &bottom, 11, 6);
    EXPECT_EQ(middle.row, 6);
    expectPoint(middle.start, 22.5, 80);
    expectPoint(middle.end, 222.5, 70);
    middle.columnCount = 21;
    expectPoint(middle.calculatePointForColumnAtIndex(0), 22.5, 80);
    expectPoint(middle.calculatePointForColumnAtIndex(20), 222.5, 70);
    expectPoint(middle.calculatePointForColumnAtIndex(5), 72.5, 77.5);

    // Five patches at the right end of 21: the strip starts at column 16.
    middle.fixForLastRow(21, 4);
    expectPoint(middle.start, 22.5 + 160, 80 - 8);
    expectPoint(middle.end, 222.5, 70);
    EXPECT_EQ(middle.columnCount, 21);
    IOScanPath padded(kUpright.topLeft, kUpright.topRight(), 1);
    padded.columnCount = 21;
    padded.eliminatePadding(7, 2);
    expectPoint(padded.start, 30, 20);
}

} // namespace
