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
    modes = split(option("AvailableMeasurementModes"));
    // Whatever the instrument could do elsewhere, on the table it does these two.
    if (!modes.empty())
        modes = {DeviceModeScanningReflectance, DeviceModeSingleReflectance};
}

Error TaviIO::changeMode(const std::string& mode) {
    VellLogInfo("TaviProDeviceService::changeMode\n");
    if (!taviIsConnected())
        return kNoInstrument;
    const SDKLock lock(*this);
    if (isMeasuring())
        return kMeasuring;
    Tavi_SetOption("TaviTHoldPosition", "no");
    std::vector<std::string> offered;
    device()->modes(offered);
    if (std::find(offered.begin(), offered.end(), mode) == offered.end())
        return kModeNotOffered;
    return configureMode(mode);
}

// The instrument's options for a mode, up to the first that it refuses. Under the SDK lock.
Error TaviIO::configureMode(const std::string& mode) {
    if (const Error error = setCheckedOption("MeasurementMode", mode.c_str()))
        return error;
    mReadsSpots = false;
    const bool scanning = mode == DeviceModeScanningReflectance;
    if (scanning) {
        if (const Error error = setCheckedOption("Recognition", "yes"))
            return error;
        if (const Error error = setCheckedOption("TaviTMoveSpeed", "400"))
            return error;
    }
    if (const Error error = setCheckedOption("TaviTHoldPosition", "no"))
        return error;
    Tavi_SetOption("TaviTIsVisorCoordinate", scanning ? "no" : "yes");
    return kSuccess;
}

Error TaviIO::setCheckedOption(const char* key, const char* value) {
    const int status = Tavi_SetOption(key, value);
    logIfError("Tavi_SetOption", status);
    return sdkError2Error(status);
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
    if (option("TaviTTaviSerialNumber").empty()) {
        VellLogInfo("No Tavi In device\n");
        return kNoInstrument;
    }
    const PollingPause pause(*this);
    int home = 0;
    {
        const SDKLock lock(*this);
        home = Tavi_GoToHomePosition();
    }
    logIfError("Tavi_GoToHomePosition", home);
    device()->setCalibrationStatus(-1);
    announceStatus();

    const std::string mode = device()->mode();
    std::vector<std::string> modes;
    device()->modes(modes);
    try {
        device()->setModes(calibrationModes()); // changeMode takes only what is listed
        const Error error = calibrateModes();
        {
            const SDKLock lock(*this);
            Tavi_SetOption("TaviTHoldPosition", "no");
        }
        device()->setModes(modes);
        changeMode(mode);
        device()->setMode(mode);
        if (error == kSuccess) {
            const SDKLock lock(*this);
            Tavi_SetPosition(100.0F, 150.0F);
            Tavi_SetPosition(280.0F, 150.0F);
        }
        publishCalibration(error == kSuccess);
        {
            const SDKLock lock(*this);
            Tavi_SetOption("TaviTHoldPosition", "no");
        }
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
        int status = 0;
        {
            const SDKLock lock(*this);
            status = Tavi_Calibrate();
        }
        logIfError("Tavi_Calibrate", status);
        if (status != 0)
            return sdkError2Error(status);
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
