// The scan of one row of a chart, for clients that ask row by row.

#include "Numbers.h"
#include "TaviIO.h"

#include <cmath>
#include <cstdlib>

using namespace VellDevice;

namespace {

constexpr float kInset = 0.5F; // how far the outer columns' centres are pulled in, along x

ChartCorners insetCorners(ChartCorners corners) {
    corners.topLeft.x += kInset;
    corners.bottomLeft.x += kInset;
    corners.bottomRight.x -= kInset;
    return corners;
}

// The pitch along x that speeds and delays follow: of the bottom edge, in whole units.
float scanPitchOf(const ChartCorners& corners, int columns, PatchPitches pitches) {
    if (columns == 1)
        return pitches.y;
    const int extent = SaturatedInt(static_cast<double>(corners.bottomRight.x - corners.bottomLeft.x));
    return static_cast<float>(std::fabs(static_cast<double>(extent)) / (columns - 1));
}

// Of the full grid's row, counted from 0.
IOScanPath pathOfRow(const ChartCorners& corners, int row, int rows, int columns) {
    const IOScanPath top(corners.topLeft, corners.topRight(), 1);
    const IOScanPath bottom(corners.bottomLeft, corners.bottomRight, rows);
    IOScanPath path = row > 0 ? IOScanPath(&top, &bottom, rows, row + 1) : top;
    path.columnCount = columns;
    return path;
}

} // namespace

void TaviIO::_measureSingleRowScanThreaded(const Command& command, MutableResponse& response) {
    ScanRequest request = requestOf(command);
    request.corners = insetCorners(request.corners);
    const PatchPitches pitches = PitchesOf(request.corners, request.rows, request.columns);
    logCorners(request.corners);
    logRequest(request);
    VellLogInfo("PatchSizeX: %f\n", static_cast<double>(pitches.x));
    VellLogInfo("PatchSizeY: %f\n", static_cast<double>(pitches.y));
    {
        const auto instrument = mInstrument.hold();
        instrument->setOption("TaviTHoldPosition", "no");
        instrument->setOption("TaviTIsVisorCoordinate", "no");
    }
    if (refusesChart(request, response))
        return;
    const int row = request.rowToScan;
    if (request.isLastRow(row))
        VellLogDebug("Scanning LastRow\n");
    if (row <= 0)
        startForward();
    if (_checkForCancelledMeasureAdavnced(command, response))
        return;
    VellLogInfo("TaviIODeviceService::advancedMeasure - measuring row %d...\n", row);

    const IOScanPath fullPath = pathOfRow(request.corners, row, request.rows, request.columns);
    IOScanPath path = fullPath;
    if (request.isShort(row))
        path.fixForLastRow(request.columns, request.lastRowColumns - 1);
    response.setCode(kSuccess);
    response.setMessage("");
    const float scanPitch = scanPitchOf(request.corners, request.columns, pitches);
    RowReading reading{
        .request = request,
        .row = row,
        .start = path.start,
        .end = path.end,
        .pitches = pitches,
        .speedPitch = scanPitch,
        .delayPitch = scanPitch,
        .singleRow = true,
        .stopsForCancel = [&] { return _checkForCancelledMeasureAdavnced(command, response); },
        .centreOf = [&](int column) { return fullPath.calculatePointForColumnAtIndex(column); },
        .response = response,
    };
    const RowOutcome outcome = readRow(reading);
    if (outcome == RowOutcome::cancelled || outcome == RowOutcome::failed)
        return;
    if (_checkForCancelledMeasureAdavnced(command, response))
        return;
    formatRow(reading, outcome);
    const bool spots = outcome == RowOutcome::spotRead;
    if (request.isLastRow(row)) {
        mInstrument.park();
    } else if (spots) {
        const auto instrument = mInstrument.hold();
        endSpotReadings();
    }
    response.setCode(kSuccess);
    response.setMessage("");
    if (request.isLastRow(row))
        _checkForCancelledMeasureAdavnced(command, response);
    else
        VellLogInfo("Done for now %d, returning control to app\n", spots ? 2 : 1);
}
