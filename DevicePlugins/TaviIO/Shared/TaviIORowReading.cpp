// One row: strips at several speeds and resolutions, and spot readings when none of them finds the patches.

#include "InstrumentStatus.h"
#include "Numbers.h"
#include "TaviIO.h"

#include <cstdint>
#include <deque>

using namespace VellDevice;

namespace {

// An instrument that integrates longer needs more time for everything.
constexpr float kLongIntegration = 0.011F; // seconds
constexpr float kAperture = 3.5F;          // table units
constexpr float kWideAperture = 4.5F;      // the aperture with a margin
constexpr float kSmallPitch = 10.0F;

int middleSpeed(int least, int greatest, bool singleRow) {
    if (singleRow)
        return static_cast<int>((std::int64_t{least} + greatest) / 2);
    return SaturatedInt(least + (static_cast<double>(greatest) - least) * 0.5);
}

} // namespace

TaviIO::RowOutcome TaviIO::readRow(RowReading& reading) {
    const StripTiming timing = prepareStrips(reading);
    std::deque<StripAttempt> attempts = stripAttempts(timing, reading.singleRow);
    // A single patch has no strip.
    const bool spotsOnly = reading.request.measureFullInSpotMode() ||
                           (reading.request.rows == 1 && reading.request.columns == 1);
    int error = InstrumentStatus::kStripNotRecognised; // no strip has been read yet
    if (!spotsOnly) {
        if (!reading.singleRow)
            VellLogInfo("measure in scanning mode, scanTypes.size() = %d, err = %d\n",
                        static_cast<int>(attempts.size()), error);
        while (!attempts.empty() && error != 0) {
            if (reading.stopsForCancel())
                return RowOutcome::cancelled;
            const StripAttempt attempt = attempts.front();
            attempts.pop_front();
            error = tryStrip(reading, timing, attempt);
            if (reading.stopsForCancel())
                return RowOutcome::cancelled;
        }
        if (error == 0)
            return RowOutcome::stripRead;
    }
    return readRowBySpots(reading);
}

// Computes the row's speeds and delay from its pitch and the integration time, and tells the instrument.
TaviIO::StripTiming TaviIO::prepareStrips(const RowReading& reading) {
    StripTiming timing{};
    timing.integrationTime = FloatFromText(mInstrument.option("IntegrationTime").c_str());
    const bool isLong = timing.integrationTime > kLongIntegration;
    timing.slack = isLong ? 0.00884F : 0.0046F;
    const float timePerPatch = 3 * timing.integrationTime + timing.slack;
    timing.maxSpeed = SaturatedInt(static_cast<double>((reading.speedPitch - kAperture) / timePerPatch));
    timing.minSpeed = SaturatedInt(static_cast<double>((reading.speedPitch - kWideAperture) / timePerPatch));
    timing.delay = (reading.delayPitch < kSmallPitch ? 300 : 200) + (isLong ? 100 : 0);
    if (reading.singleRow) {
        VellLogInfo("Integration Time: %f\n", static_cast<double>(timing.integrationTime));
        VellLogInfo("maxSpeed: %d\n", timing.maxSpeed);
        VellLogInfo("minSpeed: %d\n", timing.minSpeed);
        VellLogInfo("delay: %d\n", timing.delay);
    }
    mInstrument.setOption("TaviTScanSpeed", TextFromInt(timing.maxSpeed), "Tavi_SetOption TAVIT_SCAN_SPEED");
    mInstrument.setOption("TaviTScanDelay", TextFromInt(timing.delay), "Tavi_SetOption TAVIT_SCAN_DELAY");
    return timing;
}

// The faster speed first, and at each speed normal resolution before low.
std::deque<TaviIO::StripAttempt> TaviIO::stripAttempts(const StripTiming& timing, bool singleRow) {
    const int middle = middleSpeed(timing.minSpeed, timing.maxSpeed, singleRow);
    if (lowResolutionScan())
        return {{true, timing.maxSpeed}, {true, middle}};
    return {{false, timing.maxSpeed}, {true, timing.maxSpeed}, {false, middle}, {true, middle}};
}

// Reads the row as one strip; an SDK status, 0 when the instrument recognised exactly the row's patches.
int TaviIO::tryStrip(RowReading& reading, const StripTiming& timing, const StripAttempt& attempt) {
    {
        const auto instrument = mInstrument.hold();
        if (mReadsSpots)
            endSpotReadings(); // those of an earlier scan, which ended with them
        instrument->setOption("TaviTScanSpeed", TextFromInt(attempt.speed));
        if (reading.singleRow)
            instrument->setOption("TaviTScanDelay", TextFromInt(timing.delay));
    }
    setupOptionsForLowRes(attempt.lowResolution);
    const int lowRes = attempt.lowResolution ? 1 : 0;
    if (reading.singleRow)
        logStripAttempt(reading, timing, attempt);
    else
        VellLogInfo("Will scan row %d at speed %d in LowRes=%d\n", reading.row, attempt.speed, lowRes);
    reading.spectra.clear();
    reading.lab.clear();
    const int error = measureOneStrip(reading.start.x, reading.start.y, reading.end.x, reading.end.y,
                                      reading.columnCount(), reading.spectra, reading.lab, isReversed());
    if (error != 0)
        toggleReversed();
    if (reading.singleRow) {
        VellLogInfo("Scan Result: %d\n", error);
        logIfError("measureOneStrip", error);
    } else {
        VellLogInfo("Scanned row %d at speed %d in LowRes=%d - err: %d\n", reading.row, attempt.speed, lowRes,
                    error);
    }
    return error;
}

void TaviIO::logStripAttempt(const RowReading& reading, const StripTiming& timing,
                             const StripAttempt& attempt) {
    VellLogInfo("        \n");
    VellLogInfo("Scanning Row {%d} with:\n", reading.row + 1);
    VellLogInfo("    Number Of Columns: %d\n", reading.columnCount());
    VellLogInfo("    Reversed: %d\n", isReversed() ? 1 : 0);
    VellLogInfo("    LargePatch: %d\n", reading.pitches.x >= kSmallPitch ? 1 : 0);
    VellLogInfo("    Speed: %s\n", TextFromInt(attempt.speed).c_str());
    VellLogInfo("    Delay: %s\n", TextFromInt(timing.delay).c_str());
    VellLogInfo("    Integration Time: %f\n", static_cast<double>(timing.integrationTime));
    VellLogInfo("    Min Integration Time: %f\n", static_cast<double>(timing.slack));
    VellLogInfo("    From: { %f, %f }\n", static_cast<double>(reading.start.x),
                static_cast<double>(reading.start.y));
    VellLogInfo("    To: { %f, %f }\n", static_cast<double>(reading.end.x),
                static_cast<double>(reading.end.y));
}

void TaviIO::beginSpotReadings() {
    mReadsSpots = true;
    mInstrument.setOption("MeasurementMode", "SingleReflectance");
}

void TaviIO::endSpotReadings() {
    mInstrument.setOption("MeasurementMode", "ScanningReflectance");
    mReadsSpots = false;
}

TaviIO::RowOutcome TaviIO::readRowBySpots(RowReading& reading) {
    if (reading.stopsForCancel())
        return RowOutcome::cancelled;
    toggleReversed();
    VellLogInfo("Error scanning, trying to scan using spot\n"); // programs tell these rows by it
    const int first = reading.firstColumn();
    VellLogInfo("numColumnsExpeted: %d, firstColumToScan: %d\n", reading.columnCount(), first);
    {
        const auto instrument = mInstrument.hold();
        beginSpotReadings();
    }
    reading.spectra.clear();
    reading.lab.clear();
    VellLogInfo("patch size x: %f patch size y: %f\n", static_cast<double>(reading.pitches.x),
                static_cast<double>(reading.pitches.y));
    VellLogInfo("fourthPatchX x: %f fourthPatchY: %f\n", static_cast<double>(reading.pitches.x / 6),
                static_cast<double>(reading.pitches.y / 6));
    for (int column = first; column < first + reading.columnCount(); ++column) {
        const std::optional<int> status = readPatchBySpots(reading, column);
        if (!status)
            return RowOutcome::cancelled;
        if (*status != InstrumentStatus::kDone)
            return bailOut(reading, *status);
    }
    return RowOutcome::spotRead;
}

// How the patch ended, an SDK status; nothing when the measurement was cancelled.
std::optional<int> TaviIO::readPatchBySpots(RowReading& reading, int column) {
    if (reading.stopsForCancel())
        return std::nullopt;
    const IOPoint centre = reading.centreOf(column);
    int available = 0;
    for (int spot = 0; spot < reading.request.spotsPerPatch(); ++spot) {
        if (reading.stopsForCancel())
            return std::nullopt;
        VellLogInfo("measuring in spot mode with measureIndex patch part %d for column %d \n", spot, column);
        const IOPoint point = SpotPoint(centre, reading.pitches, spot);
        const int moved = mInstrument.moveTo(point.x, point.y);
        if (reading.stopsForCancel())
            return std::nullopt;
        const int status = readSpot(reading, moved, available);
        if (status != InstrumentStatus::kDone)
            return status;
    }
    if (reading.stopsForCancel())
        return std::nullopt;
    return InstrumentStatus::kDone;
}

// Takes one reading where the head is and appends it to the lists. `error` is how moving there went,
// `available` the number of samples that the instrument held last; the result is an SDK status.
int TaviIO::readSpot(RowReading& reading, int error, int& available) {
    if (error == InstrumentStatus::kDone)
        error = mInstrument.triggerMeasurement();
    if (error == InstrumentStatus::kDone)
        available = mInstrument.numberOfAvailableSamples();
    if (available != 1)
        error = InstrumentStatus::kWrongNumberOfSamples;
    if (error != 0)
        return error;
    std::vector<double> spectrum;
    error = getSpectrum(0, spectrum);
    if (error != 0)
        return error;
    reading.spectra.push_back(std::move(spectrum));
    mInstrument.setColorimetry();
    std::vector<double> values;
    error = mInstrument.getTriStimulus(0, values);
    reading.lab.push_back(std::move(values));
    return error;
}

// The row cannot be read: the head goes home and the response says why.
TaviIO::RowOutcome TaviIO::bailOut(RowReading& reading, int error) {
    if (!ownsMeasurement()) {
        reading.stopsForCancel(); // answers
        return RowOutcome::cancelled;
    }
    VellLogInfo("Error scanning, bailling out\n");
    {
        const auto instrument = mInstrument.hold();
        endSpotReadings();
        instrument->park();
        reading.response.setCode(sdkError2Error(error));
        if (!reading.singleRow) {
            reading.response.setMessage(instrument->option("LastError"));
            endMeasurement(); // after everything that can still throw: the flag tells whose failure that is
        }
    }
    if (reading.singleRow)
        reading.response.setMessage(mInstrument.option("LastError"));
    return RowOutcome::failed;
}

void TaviIO::formatRow(RowReading& reading, RowOutcome outcome) {
    VellLogInfo("Measured full row, formatting and sending measurements\n");
    const bool spots = outcome == RowOutcome::spotRead;
    formatMeasurements(reading.spectra, reading.lab, reading.response, reading.row, reading.firstColumn(),
                       reading.columnCount(), !spots && isReversed(),
                       spots ? reading.request.spotsPerPatch() : 1);
    if (!spots)
        toggleReversed(); // the next strip runs the other way
}
