#pragma once

#include "Command.h"

#include <vector>

namespace VellDevice {

// A device record of the service: what every client sees of a device.
class Device : public Object {
public:
    Device(void* device, bool adopt) : Object(device, adopt) {}

    int calibrationStatus() const;
    const char* mode() const;
    // Appends to `out`.
    void modes(std::vector<std::string>& out) const;
    const char* displayName() const;
    const char* name() const;
    const char* serialNumber() const;
    const char* path() const;
    bool softwareMeasurementAvailable() const;
    bool isLocked() const;
    const char* serviceVersion() const;
    const char* attributeForKey(const std::string& key) const;

    // Each sends a command to the device's plug-in and returns its receipt.
    Receipt sendCommand(const Command& command);
    Receipt sendCalibrateCommand();
    Receipt sendStatusCommand();
    Receipt sendEnableCommand(const bool& enable);
    Receipt sendMeasureCommand();
    Receipt sendSetModeCommand(const std::string& mode);

protected:
    explicit Device(bool adopt) : Object(adopt) {}
};

// The record that the plug-in owns and edits. Edits reach clients with the next postStatus.
class MutableDevice : public Device {
public:
    // No proxy; enabled, available and connected.
    MutableDevice();

    void setEnabled(const bool& enabled);
    void setAvailable(const bool& available);
    void setConnected(const bool& connected);
    void setName(const std::string& name);
    void setSerialNumber(const std::string& serialNumber);
    void setCalibrationStatus(int status);
    void setSoftwareMeasurementAvailable(const bool& available);
    void setModes(const std::vector<std::string>& modes);
    void setMode(const std::string& mode);
    // "" for nobody.
    void setLockHolder(const std::string& holder);
    const char* lockHolder();
    void setServiceVersion(const std::string& version);
    void setAttributeForKey(const std::string& value, const std::string& key);
    void clearAttributes();
    void postStatus();
    // Unavailable and disconnected; posts nothing.
    void clearForDeparture();
    // The same, and tells the service that the record closes.
    void postClose();
};

} // namespace VellDevice
