#pragma once

#include "ChartGeometry.h"
#include "DevicePlugin.h"
#include "LockedInstrument.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

// The device class of the scanning table: an X/Y table that carries a handheld spectrophotometer.
//
// The sources are split by concern: TaviIO.cpp (construction, error codes), Connection, Attributes, Modes,
// Commands, Position, Measuring (the worker, the flags, cancellation), ChartScan, SingleRowScan, RowReading,
// Data, Performers.
//
// Threads. The main thread connects, polls, and carries out commands. Each scanning measurement has a worker
// thread, which never talks to the service itself: its responses go through the main thread. The SDK's own
// thread reports the button and only schedules a performer.
//
// Locks, in the order in which they may be nested: SDK lock (base class), then mMeasuringLock, then
// mSettingsLock; the base class's polling and dying locks come after mMeasuringLock. mCancelLock is held
// alone. The SDK is called through mInstrument alone, which takes the SDK lock for every call.
//
// Measurements. Each has an identity. The measuring flag belongs to the newest one; a worker that a reset
// left behind finds that it is no longer the owner and stops at its next check, without touching head, flags
// or direction.
class TaviIO : public VellDevice::DevicePlugin {
public:
    TaviIO(VellStringRef devicePath, VellStringRef pluginPath);
    ~TaviIO() override;

    VellDevice::Error sdkError2Error(int sdkCode) override;
    const char* sdkGetLastError() override;
    VellDevice::DevicePluginConnectResult connect() override;
    bool disconnect() override;
    VellDevice::Error calibrate() override;
    VellDevice::Error measure(VellDevice::MutableMeasurementSet& set) override;
    VellDevice::Error setMode(const std::string& mode) override;
    bool wantsAdvancedMeasurements() override;
    void advancedMeasure(const VellDevice::Command& command) override;
    bool canMeasureIfNotCalibrated() override;
    bool processCommand(const VellDevice::Command& command, VellDevice::MutableResponse& response) override;
    bool wantsPolling() override;
    void didPoll() override;

    // --- Connection (Connection) ---

    // Whether the spectrophotometer is attached beside the table, as the service sees it now.
    bool hasTaviConnected();

    // --- Attributes (Attributes) ---

    // Brings the device record in step with the instrument; true when something that clients see has changed.
    bool updateAttributes();
    // "1": no filter in the way of the light, or no instrument; "0": ultraviolet is filtered out.
    void getIlluminationMode(std::string& mode);
    bool updateIlluminationMode();
    bool updateBeep();
    // How the instrument tells patches apart in strips; nothing while there is no instrument.
    void setupOptionsForLowRes(bool lowRes);

    // --- Modes (Modes) ---

    void supportedModeList(std::vector<std::string>& modes);
    VellDevice::Error changeMode(const std::string& mode);
    const char* measurementModeForMode(const std::string& mode);

    // --- Flags (Measuring); any thread ---

    void setIsCancelled(bool cancelled);
    bool isCancelled();
    void setIsMeasuring(bool measuring);
    bool isMeasuring();

    // --- Readings (Data). Spectra: 36 values, 380 to 730 nm in steps of 10. Results are SDK statuses. ---

    using Readings = std::vector<std::vector<double>>;

    // Appends the spectrum of a sample to `spectrum`; nothing when it fails.
    int getSpectrum(int index, std::vector<double>& spectrum);
    int getPositionMeasurementData(std::vector<double>& spectrum);
    // Appends the spectrum and the CIELAB triple of each of the instrument's samples; 7 when there are not
    // `count`.
    int getMeasurementData(int count, Readings& spectra, Readings& lab);
    // Turns readings into the response's measurement set: `spotsPerPatch` readings a patch, patches row after
    // row from `firstRow` and `firstColumn`; `reversed` when they were read against the columns' order.
    void formatMeasurements(Readings& spectra, Readings& lab, VellDevice::MutableResponse& response,
                            int firstRow, int firstColumn, int columnsPerRow, bool reversed,
                            int spotsPerPatch);
    // One strip, towards (x0, y0) when `reversed`, and its readings: exactly `columns` of them, or a status.
    int measureOneStrip(float x0, float y0, float x1, float y1, int columns, Readings& spectra, Readings& lab,
                        bool reversed);

    // What a press of the button on the instrument comes to; main thread.
    void buttonPressed();

protected:
    using MeasurementID = std::uint64_t; // 0: none

    // Keeps the instrument from being polled for the life of a block. Polling that was on comes back when the
    // last of the blocks that overlap ends. Any thread.
    class PollingPause {
    public:
        explicit PollingPause(TaviIO& device);
        ~PollingPause();
        PollingPause(const PollingPause&) = delete;
        PollingPause& operator=(const PollingPause&) = delete;

    private:
        TaviIO& mDevice;
    };

    // What a measure command asks for.
    struct ScanRequest {
        ChartCorners corners{};
        int rows = 0;
        int columns = 0;
        int lastRowColumns = 0; // 0: the last row is full
        int spotMeasureCount = 0;
        int rowToScan = -1;

        bool measureFullInSpotMode() const { return spotMeasureCount > 0; }
        int numMeasureForSpot() const;
        int spotsPerPatch() const { return measureFullInSpotMode() ? numMeasureForSpot() : 1; }
        bool isLastRow(int row) const { return row == rows - 1; }
        bool isShort(int row) const { return isLastRow(row) && lastRowColumns != 0; }
        int columnsOf(int row) const { return isShort(row) ? lastRowColumns : columns; }
        int firstColumnOf(int row) const { return isShort(row) ? columns - lastRowColumns : 0; }
        bool isEmpty() const { return rows <= 0 || columns <= 0; }
        // A row that is not on the chart, or a last row longer than the others.
        bool makesNoSense() const;
    };

    enum class RowOutcome { stripRead, spotRead, cancelled, failed };

    // One row on its way from the table into the reading lists, and what tells the two kinds of scan apart.
    struct RowReading {
        const ScanRequest& request;
        int row;
        IOPoint start;
        IOPoint end;
        PatchPitches pitches;
        float speedPitch;
        float delayPitch;
        bool singleRow; // the single-row scan; else the chart scan
        // The scan's cancel check: false, or the head goes home and the measurement is answered as cancelled.
        std::function<bool()> stopsForCancel;
        std::function<IOPoint(int)> centreOf; // of a column's patch, over the full grid
        VellDevice::MutableResponse& response;
        Readings spectra{};
        Readings lab{};

        int columnCount() const { return request.columnsOf(row); }
        int firstColumn() const { return request.firstColumnOf(row); }
    };
    struct StripAttempt {
        bool lowResolution;
        int speed;
    };
    struct StripTiming {
        float integrationTime;
        float slack; // what a patch needs beyond its integrations
        int maxSpeed;
        int minSpeed;
        int delay;
    };

    // Connection
    VellDevice::DevicePluginConnectResult _connect();
    bool _disconnect();
    void emptyRecord();
    bool tableIsOurs();
    static void __FPtr_Tavi_MessageHandler(Tavi_DeviceMessage message, const char* text);

    // Attributes
    bool _updateAttributes();
    bool updateMode();
    bool updateSerialNumber();
    bool updateTaviSerialNumber();
    bool updateMirroredOptions();
    void markUncalibrated();
    void handleSetAttribute(const VellDevice::Command& command, VellDevice::MutableResponse& response);

    // Modes
    VellDevice::Error configureMode(const std::string& mode);
    VellDevice::Error calibrateModes();
    void publishCalibration(bool calibrated);
    void updateSoftwareMeasurement(bool available);

    // Commands
    void handleReset();
    void handleCancel();
    void handleSetDevicePosition(const VellDevice::Command& command, VellDevice::MutableResponse& response);
    void handleGetDevicePosition(VellDevice::MutableResponse& response);
    void handleGoHome(VellDevice::MutableResponse& response);

    // Position
    void _measurePosition(const VellDevice::Command& command);
    int readPosition(VellDevice::MutableResponse& response);

    // Measuring: identity of measurements. "This thread's" is none on the main thread, which may do
    // everything.
    MeasurementID beginMeasurement();
    void endMeasurement();
    bool ownsMeasurement(); // whether the measuring flag stands for this thread's measurement
    bool hasWorkers();
    void workerEnded();
    bool isReversed();
    void startForward();
    void toggleReversed();
    void changeDirection(bool (*next)(bool reversed));
    bool lowResolutionScan();
    void setLowResolutionScan(bool low);
    bool taviIsConnected();
    void setTaviIsConnected(bool connected);
    void forgetPolling();

    // Measuring: the worker
    static void* _advancedMeasureThreaded(void* record);
    void measureOnWorker(const VellDevice::Command& command);
    void recoverFromException(VellDevice::MutableResponse& response);
    void refuse(const VellDevice::Command& command, VellDevice::Error code, const char* message = nullptr);
    static void cancel(VellDevice::MutableResponse& response);
    bool _checkForCancelledMeasureAdavnced(const VellDevice::Command& command,
                                           VellDevice::MutableResponse& response);
    bool _checkForCancelledMeasure(const VellDevice::Command& command);
    static void _SendResponseOnMainThread(VellDevice::MutableResponse* response);
    static ScanRequest requestOf(const VellDevice::Command& command);
    static void logCorners(const ChartCorners& corners);
    static void logRequest(const ScanRequest& request);
    bool refusesChart(const ScanRequest& request, VellDevice::MutableResponse& response);

    // Scans
    void _measureScanThreaded(const VellDevice::Command& command);
    bool scanRow(const VellDevice::Command& command, const ScanRequest& request, const ChartFrame& frame,
                 PatchPitches pitches, int row);
    bool deliverRow(const VellDevice::Command& command, RowReading& reading, RowOutcome outcome,
                    bool isDoneForNow);
    void _measureSingleRowScanThreaded(const VellDevice::Command& command,
                                       VellDevice::MutableResponse& response);

    // Row reading
    RowOutcome readRow(RowReading& reading);
    StripTiming prepareStrips(const RowReading& reading);
    std::deque<StripAttempt> stripAttempts(const StripTiming& timing, bool singleRow);
    int tryStrip(RowReading& reading, const StripTiming& timing, const StripAttempt& attempt);
    void logStripAttempt(const RowReading& reading, const StripTiming& timing, const StripAttempt& attempt);
    RowOutcome readRowBySpots(RowReading& reading);
    // The instrument's way between strips and the spot readings of a scan, which the record's mode does not
    // follow. Under the SDK lock.
    void beginSpotReadings();
    void endSpotReadings();
    std::optional<int> readPatchBySpots(RowReading& reading, int column);
    int readSpot(RowReading& reading, int error, int& available);
    RowOutcome bailOut(RowReading& reading, int error);
    void formatRow(RowReading& reading, RowOutcome outcome);

    // Fields, with what guards them.
    bool mLowResolutionScan = false; // mSettingsLock
    char mUsedSDKDeviceName[256] = {};
    bool mIsReversed = false; // mSettingsLock; direction of the next strip
    pthread_mutex_t mCancelLock;
    pthread_mutex_t mMeasuringLock;
    bool mIsCancelled = false;     // mCancelLock; a client wants the running measurement to stop
    bool mIsMeasuring = false;     // mMeasuringLock; a measurement runs on a worker thread
    bool mTaviIsConnected = false; // mSettingsLock; the spectrophotometer was there when last looked for
    pthread_mutex_t mSettingsLock;
    bool mReadsSpots = false;       // the SDK lock; a scan's spot readings have begun and not been ended
    MeasurementID mMeasurement = 0; // mMeasuringLock; the newest
    int mWorkers = 0;               // mMeasuringLock; worker threads that have not ended
    int mPollingPauses = 0;         // the base's polling lock; blocks that keep polling paused
    bool mPollingIsOwed = false;    // the base's polling lock; the last of them begins it again
    std::string mLastErrorText;     // mSettingsLock; the SDK's, when it was last asked
    LockedInstrument mInstrument{*this};
};

// The plug-in's one driver; null before it is constructed and after it is gone.
extern TaviIO* _thisIOProDevice;
