#include "TaviIO.h"

#include "InstrumentStatus.h"
#include "Locks.h"

using namespace VellDevice;

TaviIO* _thisIOProDevice = nullptr;

TaviIO::TaviIO(VellStringRef devicePath, VellStringRef pluginPath) : DevicePlugin(devicePath, pluginPath) {
    // An object that only answers for its device info is not the process's driver.
    if (devicePath != nullptr && pluginPath != nullptr)
        _thisIOProDevice = this;
    ThreadLock::InitializeMechanism(mCancelLock);
    ThreadLock::InitializeMechanism(mMeasuringLock);
    ThreadLock::InitializeMechanism(mSettingsLock);
    setAutoCalibrateOnButtonPress(false);

    registerCommandArgument("SetDevicePosition", "x");
    registerCommandArgument("SetDevicePosition", "y");
    registerCommand("GetDevicePosition");
    registerCommand("GoHome");
    for (const char* const argument :
         {"TopLeftX", "TopLeftY", "BotLeftX", "BotLeftY", "BotRightX", "BotRightY", "Rows", "Columns"})
        registerCommandArgument(DevicePluginCommandMeasure, argument);
    registerCommandArgument(DevicePluginCommandSetAttribute, "Key");
    registerCommandArgument(DevicePluginCommandSetAttribute, "Value");
    registerCommand("MeasureCancel");
    registerCommand("CancelMeasure");
}

TaviIO::~TaviIO() {
    endParentWatch();
    if (_thisIOProDevice == this)
        _thisIOProDevice = nullptr;
    for (pthread_mutex_t* const mutex : {&mCancelLock, &mMeasuringLock, &mSettingsLock})
        pthread_mutex_destroy(mutex);
}

Error TaviIO::sdkError2Error(int sdkCode) {
    switch (sdkCode) {
    case InstrumentStatus::kDone:
        return kSuccess;
    case InstrumentStatus::kNoTable:
        return ClientCode::kNoTable;
    case InstrumentStatus::kUnknownOption:
        return ClientCode::kUnknownOption;
    case InstrumentStatus::kNotCalibrated:
        return kNotCalibrated;
    case InstrumentStatus::kWrongMode:
        return ClientCode::kWrongMode;
    case InstrumentStatus::kCalibrationFailed:
        return ClientCode::kCalibrationFailed;
    case InstrumentStatus::kWrongNumberOfSamples:
        return ClientCode::kWrongNumberOfSamples;
    case InstrumentStatus::kReadOnlyOption:
        return ClientCode::kReadOnlyOption;
    case InstrumentStatus::kNoSpectrophotometer:
        return kNoInstrument;
    case InstrumentStatus::kOutsideTable:
        return ClientCode::kOutsideTable;
    // The instrument may answer these, and clients know what they stand for; here they have no meaning.
    case 9:
        return static_cast<Error>(27);
    case 10:
        return static_cast<Error>(9);
    case 12:
        return static_cast<Error>(26);
    case 102:
        return static_cast<Error>(37);
    case 103:
        return static_cast<Error>(38);
    case 104:
        return static_cast<Error>(39);
    default: // 4 and 11 among them
        return kInstrumentFailure;
    }
}

// The text belongs to the calling thread until it asks again. While another thread is inside the SDK, which
// for a strip takes seconds, the last text that was read stands in: nobody waits for an error message, the
// main thread least of all.
const char* TaviIO::sdkGetLastError() {
    thread_local std::string text;
    if (const LockedInstrument::Hold instrument = mInstrument.tryToHold()) {
        text = instrument->option("LastError");
        const ThreadLock lock(mSettingsLock);
        mLastErrorText = text;
    } else {
        const ThreadLock lock(mSettingsLock);
        text = mLastErrorText;
    }
    return text.c_str();
}

bool TaviIO::wantsAdvancedMeasurements() {
    return true;
}

bool TaviIO::wantsPolling() {
    return true;
}

void TaviIO::didPoll() {
    if (isMeasuring())
        return;
    if (updateAttributes())
        announceStatus();
}
