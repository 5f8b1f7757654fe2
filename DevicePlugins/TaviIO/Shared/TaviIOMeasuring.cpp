// Measurements and their worker threads: who owns the measuring flag, cancellation, and the way of a response
// to the main thread.

#include "Locks.h"
#include "Numbers.h"
#include "TaviIO.h"
#include "TaviIOPerformers.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>

using namespace VellDevice;

namespace {

// The measurement that this thread works on; 0 on every thread but the workers.
thread_local std::uint64_t tMeasurement = 0;
// Whether this thread has ended it, so that nobody can have taken it away.
thread_local bool tHasEnded = false;

// What the main thread hands to a worker.
struct WorkerRecord {
    std::unique_ptr<Command> command;
    TaviIO* device;
    std::uint64_t measurement;
};

} // namespace

// --- Flags

void TaviIO::setIsCancelled(bool cancelled) {
    const ThreadLock lock(mCancelLock);
    mIsCancelled = cancelled;
}

bool TaviIO::isCancelled() {
    const ThreadLock lock(mCancelLock);
    return mIsCancelled;
}

void TaviIO::setIsMeasuring(bool measuring) {
    const ThreadLock lock(mMeasuringLock);
    mIsMeasuring = measuring;
}

bool TaviIO::isMeasuring() {
    const ThreadLock lock(mMeasuringLock);
    return mIsMeasuring;
}

// Sets the measuring flag for a new measurement and counts its worker; 0 when one runs already or the plug-in
// is about to end.
TaviIO::MeasurementID TaviIO::beginMeasurement() {
    const ThreadLock lock(mMeasuringLock);
    // Asked here: whoever ends the plug-in sets dying first and looks at the flag afterwards.
    if (mIsMeasuring || IsDying())
        return 0;
    mIsMeasuring = true;
    ++mWorkers;
    return ++mMeasurement;
}

// Clears the flag, unless it stands for another measurement by now.
void TaviIO::endMeasurement() {
    const ThreadLock lock(mMeasuringLock);
    if (tMeasurement == 0 || tMeasurement == mMeasurement)
        mIsMeasuring = false;
    tHasEnded = tMeasurement != 0;
}

bool TaviIO::ownsMeasurement() {
    if (tMeasurement == 0)
        return true;
    const ThreadLock lock(mMeasuringLock);
    return mIsMeasuring && tMeasurement == mMeasurement;
}

bool TaviIO::hasWorkers() {
    const ThreadLock lock(mMeasuringLock);
    return mWorkers > 0;
}

void TaviIO::workerEnded() {
    const ThreadLock lock(mMeasuringLock);
    --mWorkers;
}

bool TaviIO::isReversed() {
    const ThreadLock lock(mSettingsLock);
    return mIsReversed;
}

// The direction belongs to the measurement that runs: a worker that was left behind does not change it.
void TaviIO::changeDirection(bool (*next)(bool reversed)) {
    const ThreadLock measuring(mMeasuringLock);
    if (!ownsMeasurement())
        return;
    const ThreadLock lock(mSettingsLock);
    mIsReversed = next(mIsReversed);
}

void TaviIO::startForward() {
    changeDirection([](bool) { return false; });
}

void TaviIO::toggleReversed() {
    changeDirection([](bool reversed) { return !reversed; });
}

bool TaviIO::lowResolutionScan() {
    const ThreadLock lock(mSettingsLock);
    return mLowResolutionScan;
}

void TaviIO::setLowResolutionScan(bool low) {
    const ThreadLock lock(mSettingsLock);
    mLowResolutionScan = low;
}

bool TaviIO::taviIsConnected() {
    const ThreadLock lock(mSettingsLock);
    return mTaviIsConnected;
}

void TaviIO::setTaviIsConnected(bool connected) {
    const ThreadLock lock(mSettingsLock);
    mTaviIsConnected = connected;
}

// --- Polling, while something long goes on

TaviIO::PollingPause::PollingPause(TaviIO& device) : mDevice(device) {
    const ThreadLock lock(mDevice.mPollingLock);
    ++mDevice.mPollingPauses;
    if (!mDevice.isPolling())
        return;
    mDevice.mPollingIsOwed = true;
    mDevice.stopPolling();
}

TaviIO::PollingPause::~PollingPause() {
    const ThreadLock lock(mDevice.mPollingLock);
    if (--mDevice.mPollingPauses > 0 || !mDevice.mPollingIsOwed)
        return;
    mDevice.mPollingIsOwed = false;
    if (!mDevice.isPolling())
        mDevice.beginPolling();
}

// For good: whoever has paused polling does not begin it again.
void TaviIO::forgetPolling() {
    const ThreadLock lock(mPollingLock);
    mPollingIsOwed = false;
    stopPolling();
}

// --- The measure command

void TaviIO::advancedMeasure(const Command& command) {
    VellLogInfo("TaviIODeviceService::advancedMeasure MODE: %s\n", device()->mode());
    if (!taviIsConnected()) {
        refuse(command, kNoInstrument);
        return;
    }
    if (isMeasuring() || IsDying()) {
        refuse(command, kMeasuring);
        return;
    }
    if (device()->mode() == DeviceModeSingleReflectance) {
        _measurePosition(command);
        return;
    }
    setIsCancelled(false);
    // Made first: once the flag is set and the worker counted, nothing may throw before the worker runs.
    auto record =
        std::make_unique<WorkerRecord>(WorkerRecord{std::unique_ptr<Command>(command.copy()), this, 0});
    // The flag is set here, not by the worker: the next command may already be waiting.
    record->measurement = beginMeasurement();
    if (record->measurement == 0) {
        refuse(command, kMeasuring);
        return;
    }
    pthread_t worker{};
    const int error = pthread_create(&worker, nullptr, _advancedMeasureThreaded, record.get());
    if (error != 0) {
        VellLogError("[TaviIO::advancedMeasure] - no thread to measure with: %s\n", std::strerror(error));
        setIsMeasuring(false);
        workerEnded();
        refuse(command, kInstrumentFailure, std::strerror(error));
        return;
    }
    static_cast<void>(record.release()); // the worker's now
    pthread_detach(worker);
}

void TaviIO::refuse(const Command& command, Error code, const char* message) {
    MutableResponse response(command);
    response.setCode(code);
    if (message != nullptr)
        response.setMessage(message);
    response.send();
}

void* TaviIO::_advancedMeasureThreaded(void* record) {
    if (record == nullptr)
        return nullptr;
    const std::unique_ptr<WorkerRecord> owned(static_cast<WorkerRecord*>(record));
    tMeasurement = owned->measurement;
    owned->device->measureOnWorker(*owned->command);
    owned->command.reset();
    // Last: a disconnect waits for it and may be followed by the end of the object.
    owned->device->workerEnded();
    return nullptr;
}

void TaviIO::measureOnWorker(const Command& command) {
    MutableResponse response(command);
    bool answersHere = requestOf(command).rowToScan >= 0;
    const auto breakOff = [&](const char* what) {
        VellLogError("[TaviIO::_advancedMeasureThreaded] - exception: %s\n", what);
        response = MutableResponse(command); // without what was read of the row
        recoverFromException(response);
        answersHere = true;
    };
    {
        const PollingPause pause(*this);
        try {
            if (answersHere)
                _measureSingleRowScanThreaded(command, response);
            else
                _measureScanThreaded(command);
        } catch (const std::exception& exception) {
            breakOff(exception.what());
        } catch (...) {
            breakOff("of no known kind");
        }
        endMeasurement();
    }
    if (answersHere)
        _SendResponseOnMainThread(&response);
}

// The instrument broke off in the middle of a scan: the head goes home as well as it can, and the client
// hears of it.
void TaviIO::recoverFromException(MutableResponse& response) {
    if (!ownsMeasurement()) {
        cancel(response);
        return;
    }
    mInstrument.trying([this] { endSpotReadings(); });
    mInstrument.trying([this] { mInstrument.park(); });
    response.setCode(kInstrumentFailure);
    const char* const text = lastErrorWhateverHappens();
    response.setMessage(text != nullptr ? text : "");
}

// --- Cancellation

void TaviIO::cancel(MutableResponse& response) {
    response.setCode(kMeasureCancelled);
    response.setMessage("Measure Cancelled");
}

bool TaviIO::_checkForCancelledMeasureAdavnced(const Command&, MutableResponse& response) {
    if (tHasEnded) // and answered
        return false;
    const bool leftBehind = !ownsMeasurement();
    if (!leftBehind && (!isMeasuring() || !isCancelled()))
        return false;
    VellLogInfo("Cancelling measure...\n");
    if (!leftBehind) // else the head may be somebody else's already
        mInstrument.trying([this] { mInstrument.park(); });
    cancel(response);
    return true;
}

bool TaviIO::_checkForCancelledMeasure(const Command& command) {
    MutableResponse response(command);
    const bool cancelled = _checkForCancelledMeasureAdavnced(command, response);
    if (cancelled) {
        endMeasurement();
        _SendResponseOnMainThread(&response);
    }
    return cancelled;
}

void TaviIO::_SendResponseOnMainThread(MutableResponse* response) {
    ResponseSendRemoteObjectPerformer performer(response);
    performer.schedule(true);
}

// --- The button

void TaviIO::buttonPressed() {
    VellLogInfo("<%p> - %s\n", static_cast<void*>(this), "void TaviIO::buttonPressed()");
    if (isMeasuring())
        return;
    if (canMeasureIfNotCalibrated()) {
        hardwareInitiatedMeasurementCommand();
        return;
    }
    const int status = device()->calibrationStatus();
    if (status == 0 && autoCalibratesOnButtonPress())
        hardwareInitiatedCalibrateCommand();
    else if (status == 0 || status == 1)
        hardwareInitiatedMeasurementCommand();
}

// --- What a measure command asks for

int TaviIO::ScanRequest::numMeasureForSpot() const {
    return std::min(spotMeasureCount, 5);
}

bool TaviIO::ScanRequest::makesNoSense() const {
    return lastRowColumns < 0 || lastRowColumns > columns || rowToScan >= rows;
}

TaviIO::ScanRequest TaviIO::requestOf(const Command& command) {
    const auto number = [&](const char* key) { return IntFromText(command.argumentForKey(key)); };
    const auto coordinate = [&](const char* key) { return FloatFromText(command.argumentForKey(key)); };
    ScanRequest request;
    request.corners.topLeft = {coordinate("TopLeftX"), coordinate("TopLeftY")};
    request.corners.bottomLeft = {coordinate("BotLeftX"), coordinate("BotLeftY")};
    request.corners.bottomRight = {coordinate("BotRightX"), coordinate("BotRightY")};
    request.rows = number("Rows");
    request.columns = number("Columns");
    request.lastRowColumns = number("LastRowColumns");
    request.spotMeasureCount = number("SpotMeasureCount");
    request.rowToScan = *command.argumentForKey("RowToScan") == '\0' ? -1 : number("RowToScan");
    return request;
}

void TaviIO::logCorners(const ChartCorners& corners) {
    const auto log = [](const char* name, IOPoint point) {
        VellLogInfo("%s: %f %f\n", name, static_cast<double>(point.x), static_cast<double>(point.y));
    };
    VellLogInfo("Beginning scan...\n");
    log("TopLeft", corners.topLeft);
    log("TopRight", corners.topRight());
    log("BotLeft", corners.bottomLeft);
    log("BotRight", corners.bottomRight);
}

void TaviIO::logRequest(const ScanRequest& request) {
    VellLogInfo("NumRows: %d NumCols %d lastRowNumCols %d\n", request.rows, request.columns,
                request.lastRowColumns);
    VellLogInfo("rowToScan: %d\n", request.rowToScan);
    VellLogInfo("measureFullInSpotMode: %d\n", request.measureFullInSpotMode() ? 1 : 0);
    VellLogInfo("numMeasureForSpot: %d\n", request.numMeasureForSpot());
    VellLogInfo("rowToScan: %d\n", request.rowToScan);
}

// True when there is nothing to scan: the head is at home and the response says why.
bool TaviIO::refusesChart(const ScanRequest& request, MutableResponse& response) {
    if (!request.isEmpty() && !request.makesNoSense())
        return false;
    mInstrument.park();
    if (request.isEmpty())
        VellLogInfo("numrows <= 0 or numcols <= 0, bailling on scan\n");
    else
        VellLogInfo("row to scan or columns of the last row are not on the chart, bailling on scan\n");
    response.setCode(kChartMakesNoSense);
    response.setMessage(request.isEmpty() ? "" : "The row or the last row's columns are not on the chart");
    return true;
}
