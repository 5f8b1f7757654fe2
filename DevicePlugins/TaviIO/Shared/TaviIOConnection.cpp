// Connecting to the table and its instrument, and letting go of them.

#include "InstrumentStatus.h"
#include "TaviIO.h"
#include "TaviIOPerformers.h"

#include <strings.h>
#include <unistd.h>

#include <cstring>

using namespace VellDevice;

namespace {

constexpr const char* kTable = "TaviTTaviTable1"; // the SDK's name of the table
constexpr int kTaviVendorID = 0x971;
constexpr int kTaviProductID = 0x2000;

} // namespace

bool TaviIO::hasTaviConnected() {
    if (mHardwareDevice == nullptr)
        return false;
    const VellHardwareDeviceRef sibling =
        VellHardwareDeviceCopyFirstSiblingWithInfo(mHardwareDevice, kTaviVendorID, kTaviProductID);
    const bool found = sibling != nullptr;
    VellRelease(sibling);
    return found;
}

DevicePluginConnectResult TaviIO::connect() {
    try {
        return _connect();
    } catch (const TaviSDK::Exception&) {
        VellLogDebug("[TaviIO::connect()] - TaviSDK exception\n");
        return kConnectFailed;
    }
}

bool TaviIO::disconnect() {
    try {
        _disconnect();
    } catch (const TaviSDK::Exception&) {
        VellLogDebug("[TaviIO::disconnect()] - TaviSDK exception\n");
    }
    return true;
}

DevicePluginConnectResult TaviIO::_connect() try {
    VellLogInfo("<%p> - %s\n", static_cast<void*>(this), "DevicePluginConnectResult TaviIO::_connect()");
    setTaviIsConnected(hasTaviConnected());
    VellLogInfo("[DEBUG ----] - TaviIsConnected = %d\n", taviIsConnected() ? 1 : 0);
    setIsCancelled(false);
    setIsMeasuring(false);

    mInstrument.reset();
    usleep(10);
    const int connected = mInstrument.isTableConnected();
    if ((connected != InstrumentStatus::kDone && connected != InstrumentStatus::kNoSpectrophotometer) ||
        !tableIsOurs()) {
        mInstrument.reset();
        return kConnectFailed;
    }
    std::strncpy(mUsedSDKDeviceName, kTable, sizeof mUsedSDKDeviceName - 1);
    VellLogInfo("mUsedSDKDeviceName: %s\n", mUsedSDKDeviceName);

    {
        const auto instrument = mInstrument.hold();
        device()->setSerialNumber(instrument->option("TaviTSerialNumber"));
        device()->setCalibrationStatus(0);
        updateSoftwareMeasurement(false);
    }
    std::vector<std::string> modes;
    supportedModeList(modes);
    device()->setModes(modes);
    setMode(DeviceModeSingleReflectance);
    {
        const auto instrument = mInstrument.hold();
        instrument->setOption("Beep", "yes");
        instrument->park();
    }
    updateAttributes();
    mInstrument.setMessageHandler(__FPtr_Tavi_MessageHandler);
    return kConnected;
} catch (const TaviSDK::Exception&) {
    VellLogError("TaviIO::connect - Caught exception coming from TaviIO SDK\n");
    return kConnectFailed;
}

// The table that the SDK found is the one that this plug-in was started for: the device path begins with the
// table's identifier.
bool TaviIO::tableIsOurs() {
    VellLogInfo("Found table for %s\n", kTable);
    const std::string identifier = mInstrument.option("TaviTHalcyDeviceIdentifier");
    if (identifier.empty()) {
        VellLogInfo("No path found for table %s\n", kTable);
        return false;
    }
    VellLogInfo("Path: %s\n", identifier.c_str());
    VellLogInfo("sdk Path: %s\n", textOf(mDevicePath));
    return strncasecmp(textOf(mDevicePath), identifier.c_str(), identifier.size()) == 0;
}

bool TaviIO::_disconnect() {
    VellLogInfo("<%p> - %s\n", static_cast<void*>(this), "bool TaviIO::_disconnect()");
    forgetPolling();
    // A worker that has given up the flag may still be waiting for its last response to be posted.
    if (isMeasuring() || hasWorkers()) {
        setIsCancelled(true);
        while (isMeasuring() || hasWorkers())
            waitOneSecond();
    }
    try {
        mInstrument.setMessageHandler(nullptr);
        sleep(1);
        mInstrument.reset();
    } catch (const TaviSDK::Exception&) {
        emptyRecord(); // the driver lets go all the same
        throw;
    }
    emptyRecord();
    return true;
}

void TaviIO::emptyRecord() {
    MutableDevice& record = *device();
    record.setSerialNumber("");
    record.setCalibrationStatus(0);
    record.setSoftwareMeasurementAvailable(false);
    record.clearAttributes();
    record.setModes({});
}

void TaviIO::__FPtr_Tavi_MessageHandler(Tavi_DeviceMessage message, const char*) {
    if (message != Tavi_MessageButtonPressed)
        return;
    VellLogInfo("Sending Tavi button press to device center runLoop\n");
    auto* const performer = new TaviIOButtonPressPerformer; // deletes itself
    performer->schedule(false);
}
