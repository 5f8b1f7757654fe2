// The modes that the device offers, and calibration.

#include "TaviIO.h"

#include <algorithm>

using namespace VellDevice;

namespace {

const std::vector<std::string>& calibrationModes() {
    static const std::vector<std::string> modes{DeviceModeScanningReflectance};
    return modes;
}

// Splits at every ";"; the piece after the last one counts too, so there is always one.
std::vector<std::string> split(const std::string& list) {
    std::vector<std::string> pieces;
    std::string::size_type start = 0;
    for (auto end = list.find(';'); end != std::string::npos; end = list.find(';', start)) {
        pieces.push_back(list.substr(start, end - start));
        start = end + 1;
    }
    pieces.push_back(list.substr(start));
    return pieces;
}

} // namespace

void TaviIO::supportedModeList(std::vector<std::string>& modes) {
    modes.clear();
    if (!taviIsConnected())
        return;
    modes = split(mInstrument.option("AvailableMeasurementModes"));
    // Whatever the instrument could do elsewhere, on the table it does these two.
    if (!modes.empty())
        modes = {DeviceModeScanningReflectance, DeviceModeSingleReflectance};
}

Error TaviIO::changeMode(const std::string& mode) {
    VellLogInfo("TaviProDeviceService::changeMode\n");
    if (!taviIsConnected())
        return kNoInstrument;
    const auto instrument = mInstrument.hold();
    if (isMeasuring())
        return kMeasuring;
    instrument->setOption("TaviTHoldPosition", "no");
    std::vector<std::string> offered;
    device()->modes(offered);
    if (std::find(offered.begin(), offered.end(), mode) == offered.end())
        return kModeNotOffered;
    return configureMode(mode);
}

// The instrument's options for a mode, up to the first that it refuses. Under the SDK lock.
Error TaviIO::configureMode(const std::string& mode) {
    const auto set = [&](const char* key, const std::string& value) {
        return sdkError2Error(mInstrument.setOption(key, value, "Tavi_SetOption"));
    };
    if (const Error error = set("MeasurementMode", mode))
        return error;
    mReadsSpots = false;
    const bool scanning = mode == DeviceModeScanningReflectance;
    if (scanning) {
        if (const Error error = set("Recognition", "yes"))
            return error;
        if (const Error error = set("TaviTMoveSpeed", "400"))
            return error;
    }
    if (const Error error = set("TaviTHoldPosition", "no"))
        return error;
    mInstrument.setOption("TaviTIsVisorCoordinate", scanning ? "no" : "yes");
    return kSuccess;
}

Error TaviIO::setMode(const std::string& mode) {
    if (!hasTaviConnected())
        return kNoInstrument;
    if (isMeasuring())
        return kModeWhileMeasuring;
    VellLogInfo("Trying to change mode to: %s\n", mode.c_str());
    if (const Error error = changeMode(mode))
        return error;
    device()->setMode(mode);
    device()->setSoftwareMeasurementAvailable(device()->calibrationStatus() == 1);
    announceStatus();
    return kSuccess;
}

Error TaviIO::calibrate() {
    VellLogInfo("TaviProDeviceService::calibrate\n");
    if (!hasTaviConnected())
        return kNoInstrument;
    if (isMeasuring())
        return kCalibrateWhileMeasuring;
    if (mInstrument.option("TaviTTaviSerialNumber").empty()) {
        VellLogInfo("No Tavi In device\n");
        return kNoInstrument;
    }
    const PollingPause pause(*this);
    mInstrument.goHome();
    device()->setCalibrationStatus(-1);
    announceStatus();

    const std::string mode = device()->mode();
    std::vector<std::string> modes;
    device()->modes(modes);
    try {
        device()->setModes(calibrationModes()); // changeMode takes only what is listed
        const Error error = calibrateModes();
        mInstrument.setOption("TaviTHoldPosition", "no");
        device()->setModes(modes);
        changeMode(mode);
        device()->setMode(mode);
        if (error == kSuccess) {
            const auto instrument = mInstrument.hold();
            instrument->moveTo(100.0F, 150.0F, LockedInstrument::Log::nothing);
            instrument->moveTo(280.0F, 150.0F, LockedInstrument::Log::nothing);
        }
        publishCalibration(error == kSuccess);
        mInstrument.setOption("TaviTHoldPosition", "no");
        announceStatus();
        return error;
    } catch (...) {
        // Nothing half done stays on the record; the next attribute pass brings the instrument back to its
        // mode.
        device()->setModes(modes);
        device()->setMode(mode);
        publishCalibration(false);
        announceStatus();
        throw;
    }
}

Error TaviIO::calibrateModes() {
    for (const std::string& mode : calibrationModes()) {
        if (const Error error = changeMode(mode))
            return error;
        if (const Error error = sdkError2Error(mInstrument.calibrate()))
            return error;
    }
    return kSuccess;
}

void TaviIO::publishCalibration(bool calibrated) {
    device()->setCalibrationStatus(calibrated ? 1 : 0);
    updateSoftwareMeasurement(calibrated);
}

bool TaviIO::canMeasureIfNotCalibrated() {
    if (device()->calibrationStatus() != 0)
        return false;
    const std::string mode = device()->mode();
    return mode == "SingleEmission" || mode == "SingleAmbientLight" || mode == "ScanningAmbientLight";
}

// Measurements go through advancedMeasure alone.
Error TaviIO::measure(MutableMeasurementSet&) {
    return kMeasureNotOffered;
}

const char* TaviIO::measurementModeForMode(const std::string&) {
    return MeasurementModeReflective;
}
