#include "Command.h"

namespace VellDevice {

Command::Command(const std::string& name) : Object(false) {
    keep(VellDeviceCommandCreate(ServiceString(name)));
}

Command* Command::copy() const {
    return new Command(VellCopy(objectPointer()), true);
}

const char* Command::name() const {
    return textOf(VellDeviceCommandGetCommandName(as<VellDeviceCommandRef>()));
}

void Command::setName(const std::string& name) {
    VellDeviceCommandSetCommandName(as<VellDeviceCommandRef>(), ServiceString(name));
}

const char* Command::argumentForKey(const std::string& key) const {
    return textOf(VellDeviceCommandGetArgument(as<VellDeviceCommandRef>(), ServiceString(key)));
}

void Command::setArgumentForKey(const std::string& value, const std::string& key) {
    VellDeviceCommandSetArgument(as<VellDeviceCommandRef>(), ServiceString(key), ServiceString(value));
}

const char* Command::deviceName() const {
    const char* const device = argumentForKey("Device");
    return *device != '\0' ? device : argumentForKey("DeviceType");
}

void Command::setDeviceName(const std::string& name) {
    VellDeviceCommandSetDeviceName(as<VellDeviceCommandRef>(), ServiceString(name));
    setArgumentForKey(name, "Device");
}

const char* Command::devicePath() const {
    return textOf(VellDeviceCommandGetDevicePath(as<VellDeviceCommandRef>()));
}

void Command::setDevicePath(const std::string& path) {
    VellDeviceCommandSetDevicePath(as<VellDeviceCommandRef>(), ServiceString(path));
}

void Command::data(Data& out) const {
    out = Data(VellDeviceCommandGetData(as<VellDeviceCommandRef>()), false);
}

void Command::setData(const Data& data) {
    VellDeviceCommandSetData(as<VellDeviceCommandRef>(), static_cast<VellDataRef>(data.objectPointer()));
}

void Command::receipt(Receipt& out) const {
    out = Receipt(VellDeviceCommandGetReceipt(as<VellDeviceCommandRef>()), false);
}

} // namespace VellDevice
