#include "Device.h"

namespace VellDevice {

int Device::calibrationStatus() const {
    return VellDeviceGetCalibrationStatus(as<VellDeviceRef>());
}

const char* Device::mode() const {
    return textOf(VellDeviceGetMode(as<VellDeviceRef>()));
}

void Device::modes(std::vector<std::string>& out) const {
    const VellArrayRef modes = VellDeviceGetModes(as<VellDeviceRef>());
    const int count = VellArrayGetCount(modes);
    for (int index = 0; index < count; ++index)
        out.emplace_back(textOf(static_cast<VellStringRef>(VellArrayGetValueAtIndex(modes, index))));
}

const char* Device::displayName() const {
    return textOf(VellDeviceGetDisplayName(as<VellDeviceRef>()));
}

const char* Device::name() const {
    return textOf(VellDeviceGetName(as<VellDeviceRef>()));
}

const char* Device::serialNumber() const {
    return textOf(VellDeviceGetSerialNumber(as<VellDeviceRef>()));
}

const char* Device::path() const {
    return textOf(VellDeviceGetPath(as<VellDeviceRef>()));
}

bool Device::softwareMeasurementAvailable() const {
    return VellDeviceGetSoftwareMeasureAvailable(as<VellDeviceRef>()) == 1;
}

bool Device::isLocked() const {
    return VellDeviceGetIsLocked(as<VellDeviceRef>()) == 1;
}

const char* Device::serviceVersion() const {
    return textOf(VellDeviceGetServiceVersion(as<VellDeviceRef>()));
}

const char* Device::attributeForKey(const std::string& key) const {
    return textOf(VellDeviceGetAttributeForKeyAsString(as<VellDeviceRef>(), ServiceString(key)));
}

Receipt Device::sendCommand(const Command& command) {
    return {VellDeviceSendCommand(as<VellDeviceRef>(),
                                  static_cast<VellDeviceCommandRef>(command.objectPointer())),
            true};
}

Receipt Device::sendCalibrateCommand() {
    return {VellDeviceSendCalibrateCommand(as<VellDeviceRef>()), true};
}

Receipt Device::sendStatusCommand() {
    return {VellDeviceSendStatusCommand(as<VellDeviceRef>()), true};
}

Receipt Device::sendEnableCommand(const bool& enable) {
    return {VellDeviceSendEnableCommand(as<VellDeviceRef>(), enable ? 1 : 0), true};
}

Receipt Device::sendMeasureCommand() {
    return {VellDeviceSendMeasureCommand(as<VellDeviceRef>()), true};
}

Receipt Device::sendSetModeCommand(const std::string& mode) {
    return {VellDeviceSendSetModeCommand(as<VellDeviceRef>(), ServiceString(mode)), true};
}

MutableDevice::MutableDevice() : Device(false) {
    keep(VellDeviceCreate());
    VellDeviceSetIsProxy(as<VellDeviceRef>(), 0);
    setEnabled(true);
    setAvailable(true);
    setConnected(true);
}

void MutableDevice::setEnabled(const bool& enabled) {
    VellDeviceSetEnabled(as<VellDeviceRef>(), enabled ? 1 : 0);
}

void MutableDevice::setAvailable(const bool& available) {
    VellDeviceSetAvailable(as<VellDeviceRef>(), available ? 1 : 0);
}

void MutableDevice::setConnected(const bool& connected) {
    VellDeviceSetConnected(as<VellDeviceRef>(), connected ? 1 : 0);
}

void MutableDevice::setName(const std::string& name) {
    VellDeviceSetName(as<VellDeviceRef>(), ServiceString(name));
}

void MutableDevice::setSerialNumber(const std::string& serialNumber) {
    VellDeviceSetSerialNumber(as<VellDeviceRef>(), ServiceString(serialNumber));
}

void MutableDevice::setCalibrationStatus(int status) {
    VellDeviceSetCalibrationStatus(as<VellDeviceRef>(), status);
}

void MutableDevice::setSoftwareMeasurementAvailable(const bool& available) {
    VellDeviceSetSoftwareMeasurementAvailable(as<VellDeviceRef>(), available ? 1 : 0);
}

void MutableDevice::setModes(const std::vector<std::string>& modes) {
    const VellArrayRef array = VellArrayCreate();
    for (const std::string& mode : modes)
        VellArrayAppendValue(array, static_cast<VellStringRef>(ServiceString(mode)));
    VellDeviceSetModes(as<VellDeviceRef>(), array);
    VellRelease(array);
}

void MutableDevice::setMode(const std::string& mode) {
    VellDeviceSetMode(as<VellDeviceRef>(), ServiceString(mode));
}

void MutableDevice::setLockHolder(const std::string& holder) {
    if (holder.empty())
        VellDeviceSetLockHolder(as<VellDeviceRef>(), nullptr);
    else
        VellDeviceSetLockHolder(as<VellDeviceRef>(), ServiceString(holder));
}

const char* MutableDevice::lockHolder() {
    return textOf(VellDeviceGetLockHolder(as<VellDeviceRef>()));
}

void MutableDevice::setServiceVersion(const std::string& version) {
    VellDeviceSetServiceVersion(as<VellDeviceRef>(), ServiceString(version));
}

void MutableDevice::setAttributeForKey(const std::string& value, const std::string& key) {
    VellDeviceSetAttributeForKey(as<VellDeviceRef>(), ServiceString(key), ServiceString(value));
}

void MutableDevice::clearAttributes() {
    VellDeviceClearAttributes(as<VellDeviceRef>());
}

void MutableDevice::postStatus() {
    VellDevicePostStatus(as<VellDeviceRef>());
}

void MutableDevice::clearForDeparture() {
    setAvailable(false);
    setConnected(false);
}

void MutableDevice::postClose() {
    setAvailable(false);
    setConnected(false);
    VellDevicePostClose(as<VellDeviceRef>());
}

} // namespace VellDevice
