// The scan of a whole chart, row by row.

#include "TaviIO.h"

using namespace VellDevice;

namespace {

// The strip of a row of a full grid. The first and last rows' ends are corners; the others come from the
// frame.
void pathOfRow(const ChartCorners& corners, const ChartFrame& frame, int row, int rows, IOPoint& start,
               IOPoint& end) {
    if (row == 0) {
        start = corners.topLeft;
        end = corners.topRight();
    } else if (row == rows - 1) {
        start = corners.bottomLeft;
        end = corners.bottomRight;
    } else {
        const double v = ChartCoordinate(row, rows);
        start = frame.pointAt(0, v);
        end = frame.pointAt(1, v);
    }
}

} // namespace

void TaviIO::_measureScanThreaded(const Command& command) {
    const ScanRequest request = requestOf(command);
    const ChartFrame frame(request.corners);
    logCorners(request.corners);
    {
        const auto instrument = mInstrument.hold();
        instrument->setOption("TaviTHoldPosition", "no");
        instrument->setOption("TaviTIsVisorCoordinate", "no");
    }
    logRequest(request);
    MutableResponse refusal(command);
    if (refusesChart(request, refusal)) {
        endMeasurement();
        _SendResponseOnMainThread(&refusal);
        return;
    }
    const PatchPitches pitches = PitchesOf(request.corners, request.rows, request.columns);
    VellLogInfo("PatchSizeY: %f\n", static_cast<double>(pitches.y));
    VellLogInfo("PatchSizeX: %f\n", static_cast<double>(pitches.x));
    startForward();
    for (int row = 0; row < request.rows; ++row) {
        if (!scanRow(command, request, frame, pitches, row))
            return;
    }
    endMeasurement();
}

// Whether the scan goes on with the next row.
bool TaviIO::scanRow(const Command& command, const ScanRequest& request, const ChartFrame& frame,
                     PatchPitches pitches, int row) {
    if (_checkForCancelledMeasure(command))
        return false;
    VellLogInfo("TaviIODeviceService::advancedMeasure - measuring row %d...\n", row);
    IOPoint start{};
    IOPoint end{};
    pathOfRow(request.corners, frame, row, request.rows, start, end);
    if (request.isShort(row)) {
        const int spacers = request.firstColumnOf(row);
        VellLogInfo("will scan last row with %d spacers at start\n", spacers);
        const float u = static_cast<float>(spacers) / static_cast<float>(request.columns);
        start.x = frame.pointAt(static_cast<double>(u), ChartCoordinate(row, request.rows)).x;
    }
    MutableResponse response(command);
    response.setCode(kSuccess);
    response.setMessage("");
    RowReading reading{
        .request = request,
        .row = row,
        .start = start,
        .end = end,
        .pitches = pitches,
        .speedPitch = pitches.x,
        .delayPitch = pitches.y,
        .singleRow = false,
        .stopsForCancel = [&] { return _checkForCancelledMeasure(command); },
        .centreOf =
            [&](int column) {
                return frame.pointAt(ChartCoordinate(column, request.columns),
                                     ChartCoordinate(row, request.rows));
            },
        .response = response,
    };
    const RowOutcome outcome = readRow(reading);
    const bool isDoneForNow = request.rowToScan != -1 && !request.isLastRow(row);
    VellLogInfo("isDoneForNow: %d\n", isDoneForNow ? 1 : 0);
    if (outcome == RowOutcome::failed)
        _SendResponseOnMainThread(&response);
    if (outcome == RowOutcome::failed || outcome == RowOutcome::cancelled)
        return false;
    return deliverRow(command, reading, outcome, isDoneForNow);
}

// Formats and sends a row that was read; whether the scan goes on.
bool TaviIO::deliverRow(const Command& command, RowReading& reading, RowOutcome outcome, bool isDoneForNow) {
    if (_checkForCancelledMeasure(command))
        return false;
    formatRow(reading, outcome);
    const bool spots = outcome == RowOutcome::spotRead;
    if (reading.request.isLastRow(reading.row))
        mInstrument.park();
    {
        // One hold of the lock: no command gets between the two. The flag is cleared after what can throw,
        // as it tells whose failure that is.
        const auto instrument = mInstrument.hold();
        if (spots && !reading.request.isLastRow(reading.row))
            endSpotReadings();
        if (isDoneForNow)
            endMeasurement();
    }
    reading.response.setCode(kSuccess);
    reading.response.setMessage("");
    _SendResponseOnMainThread(&reading.response);
    if (isDoneForNow) {
        VellLogInfo("Done for now %d, returning control to app\n", spots ? 2 : 1);
        return false;
    }
    return !_checkForCancelledMeasure(command);
}
