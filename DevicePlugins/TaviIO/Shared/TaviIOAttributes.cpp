// The device record and the instrument's options, kept in step.

#include "InstrumentStatus.h"
#include "Numbers.h"
#include "TaviIO.h"

using namespace VellDevice;

namespace {

constexpr const char* kMirroredOptions[] = {
    "TaviTMoveSpeed",
    "TaviTScanDelay",
    "TaviTScanSpeed",
    "TaviTEnableElectrostaticFoil",
    "TaviTHoldPosition",
    "TaviTEnableElectrostaticFoilButton",
    "TaviTLastWhiteBaseTransferTime",
    "TaviTIsVisorCoordinate",
};
constexpr const char* kIntegrationTime = "IntegrationTime";
constexpr const char* kLowResolutionScan = "LowResolutionScan";

// Clients write yes and no in several ways; the instrument knows one.
std::string normalised(const std::string& value) {
    if (value == "Yes" || value == "YES")
        return "yes";
    if (value == "No" || value == "NO")
        return "no";
    return value;
}

} // namespace

bool TaviIO::updateAttributes() {
    try {
        return _updateAttributes();
    } catch (const TaviSDK::Exception&) {
        VellLogError("[TaviIO::updateAttributes] - TaviSDK exception\n");
        return false;
    }
}

bool TaviIO::_updateAttributes() {
    const bool connected = hasTaviConnected();
    if (connected != taviIsConnected()) {
        setTaviIsConnected(connected);
        if (!connected) {
            VellLogInfo("RESETTING TaviT NOW\n");
            mInstrument.reset();
        }
    }

    const auto instrument = mInstrument.hold();
    if (isMeasuring())
        return false;
    bool changed = updateIlluminationMode();
    if (changed)
        VellLogInfo("updateIlluminationMode changed\n");
    device()->setAttributeForKey(lowResolutionScan() ? "yes" : "no", kLowResolutionScan);
    std::vector<std::string> modes;
    supportedModeList(modes);
    device()->setModes(modes);
    changed = updateMode() || changed;
    changed = updateSerialNumber() || changed;
    if (updateBeep()) {
        changed = true;
        VellLogInfo("beep changed\n");
    }
    changed = updateTaviSerialNumber() || changed;
    changed = updateMirroredOptions() || changed;
    return changed;
}

void TaviIO::getIlluminationMode(std::string& mode) {
    mode = "1";
    if (taviIsConnected() && IntFromText(mInstrument.option("PhysicalFilter").c_str()) != 1)
        mode = "0";
}

bool TaviIO::updateIlluminationMode() {
    std::string mode;
    getIlluminationMode(mode);
    if (device()->attributeForKey("IlluminationMode") == mode)
        return false;
    device()->setAttributeForKey(mode, "IlluminationMode");
    return true;
}

bool TaviIO::updateBeep() {
    if (!taviIsConnected())
        return false;
    const auto instrument = mInstrument.hold();
    const std::string beep = instrument->option("Beep");
    if (device()->attributeForKey("Beep") == beep)
        return false;
    device()->setAttributeForKey(beep, "Beep");
    return true;
}

bool TaviIO::updateMode() {
    const std::string mode = device()->mode();
    if (!taviIsConnected()) {
        if (mode.empty())
            return false;
        device()->setMode("");
        return true;
    }
    const std::string theirs = mInstrument.option("MeasurementMode");
    if (mode == theirs)
        return false;
    setMode(mode.empty() ? theirs : mode);
    return true;
}

bool TaviIO::updateSerialNumber() {
    if (!taviIsConnected()) {
        device()->setSerialNumber("");
        return true;
    }
    const std::string serialNumber = mInstrument.option("TaviTSerialNumber");
    if (device()->serialNumber() == serialNumber)
        return false;
    VellLogInfo("TAVIT_SERIAL_NUMBER changed\n");
    device()->setSerialNumber(serialNumber);
    return true;
}

// The instrument's own serial number: without one there is no instrument, and no calibration.
bool TaviIO::updateTaviSerialNumber() {
    const std::string published = device()->attributeForKey("TaviProSerialNumber");
    std::string serialNumber;
    if (taviIsConnected())
        serialNumber = mInstrument.option("TaviTTaviSerialNumber");
    if (published == serialNumber)
        return false;
    if (taviIsConnected())
        VellLogInfo("TaviProSerialNumber changed\n");
    if (serialNumber.empty())
        markUncalibrated();
    device()->setAttributeForKey(serialNumber, "TaviProSerialNumber");
    return true;
}

bool TaviIO::updateMirroredOptions() {
    bool changed = false;
    const auto publish = [&](const char* key, const std::string& value) {
        if (device()->attributeForKey(key) == value)
            return;
        VellLogInfo("%s changed\n", key);
        device()->setAttributeForKey(value, key);
        changed = true;
    };
    const bool connected = taviIsConnected();
    for (const char* const key : kMirroredOptions) {
        if (connected)
            publish(key, mInstrument.option(key));
        else
            device()->setAttributeForKey("", key);
    }
    publish(kIntegrationTime, connected ? mInstrument.option(kIntegrationTime) : "0");
    return changed;
}

void TaviIO::markUncalibrated() {
    device()->setCalibrationStatus(0);
    updateSoftwareMeasurement(false);
}

// Software may measure when it is allowed to anyway, or when the mode needs no calibration.
void TaviIO::updateSoftwareMeasurement(bool available) {
    device()->setSoftwareMeasurementAvailable(available);
    device()->setSoftwareMeasurementAvailable(device()->softwareMeasurementAvailable() ||
                                              canMeasureIfNotCalibrated());
}

void TaviIO::handleSetAttribute(const Command& command, MutableResponse& response) {
    const std::string key = command.argumentForKey(DevicePluginCommandArgument_key);
    const std::string value = normalised(command.argumentForKey(DevicePluginCommandArgumentValue));
    int status = InstrumentStatus::kDone;
    if (key == kLowResolutionScan) {
        setLowResolutionScan(value == "yes");
        setupOptionsForLowRes(lowResolutionScan());
    } else {
        status = mInstrument.setOption(key.c_str(), value, "Tavi_SetOption");
    }
    response.setCode(sdkError2Error(status));
    response.setMessage(mInstrument.option("LastError"));
    updateAttributes();
    announceStatus();
}

void TaviIO::setupOptionsForLowRes(bool lowRes) {
    const auto instrument = mInstrument.hold();
    if (!taviIsConnected())
        return;
    instrument->setOption("Recognition", "yes", "Tavi_SetOption TAVI_IS_RECOGNITION_ENABLED");
    instrument->setOption("RECOGNITION_EDGE_LIMIT_FACTOR", lowRes ? "1.5" : "0.6",
                          "Tavi_SetOption RECOGNITION_EDGE_LIMIT_FACTOR");
    instrument->setOption("RECOGNITION_LOWEST_LIMIT", lowRes ? "2.0" : "0.2",
                          "Tavi_SetOption RECOGNITION_LOWEST_LIMIT");
}
