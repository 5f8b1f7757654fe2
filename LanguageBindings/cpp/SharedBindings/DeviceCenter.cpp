#include "DeviceCenter.h"

namespace VellDevice {

namespace {

// Names that the center keeps for its look-ups live as long as the process.
VellStringRef keptName(const std::string& name) {
    return VellConstStringCreateWithCString(name.c_str());
}

} // namespace

void __VellDeviceCenterCommandCallback(void* context, __VellDeviceCommand* command) {
    Command delivered(command, false);
    static_cast<ICommandObserver*>(context)->didReceiveCommand(delivered);
}

void __VellDeviceCenterDeviceCallback(void* context, __VellDevice* device, unsigned int event) {
    if (device == nullptr)
        return;
    Device* const known = DeviceCenter::sharedDeviceCenter()->deviceByName(textOf(VellDeviceGetName(device)));
    if (known == nullptr)
        return;
    auto* const observer = static_cast<IDeviceObserver*>(context);
    switch (event) {
    case 1:
        observer->deviceEvent1(known);
        break;
    case 2:
        observer->deviceEvent2(known);
        break;
    case 3:
        observer->deviceEvent3(known);
        break;
    default:
        break;
    }
}

DeviceCenter* DeviceCenter::sharedDeviceCenter() {
    // Never destroyed: threads may still reach it while the process ends.
    static auto* const center = new DeviceCenter(VellDeviceCenterGetDistributedCenter(), false);
    return center;
}

DeviceCenter::DeviceCenter(void* center, bool adopt) : Object(center, adopt) {}

DeviceCenter::~DeviceCenter() = default;

void DeviceCenter::registerCommandObserver(ICommandObserver* observer) {
    VellDeviceCenterRegisterCommandObserver(as<VellDeviceCenterRef>(), observer, nullptr,
                                            __VellDeviceCenterCommandCallback, 1);
}

void DeviceCenter::registerCommandObserver(ICommandObserver* observer, const std::string& deviceName) {
    VellDeviceCenterRegisterCommandObserver(as<VellDeviceCenterRef>(), observer, keptName(deviceName),
                                            __VellDeviceCenterCommandCallback, 1);
}

void DeviceCenter::unregisterCommandObserver(ICommandObserver* observer) {
    VellDeviceCenterUnregisterCommandObserver(as<VellDeviceCenterRef>(), observer, nullptr);
}

void DeviceCenter::unregisterCommandObserver(ICommandObserver* observer, const std::string& deviceName) {
    VellDeviceCenterUnregisterCommandObserver(as<VellDeviceCenterRef>(), observer, keptName(deviceName));
}

void DeviceCenter::registerDeviceObserver(IDeviceObserver* observer) {
    VellDeviceCenterRegisterDeviceObserver(as<VellDeviceCenterRef>(), observer, nullptr,
                                           __VellDeviceCenterDeviceCallback);
}

void DeviceCenter::registerDeviceObserver(IDeviceObserver* observer, const std::string& deviceName) {
    VellDeviceCenterRegisterDeviceObserver(as<VellDeviceCenterRef>(), observer, keptName(deviceName),
                                           __VellDeviceCenterDeviceCallback);
}

void DeviceCenter::unregisterDeviceObserver(IDeviceObserver* observer) {
    VellDeviceCenterUnregisterDeviceObserver(as<VellDeviceCenterRef>(), observer, nullptr);
}

void DeviceCenter::unregisterDeviceObserver(IDeviceObserver* observer, const std::string& deviceName) {
    VellDeviceCenterUnregisterDeviceObserver(as<VellDeviceCenterRef>(), observer, keptName(deviceName));
}

Device* DeviceCenter::deviceByName(const std::string& name) {
    const VellDeviceRef device = VellDeviceCenterGetDeviceByName(as<VellDeviceCenterRef>(), keptName(name));
    const auto cached = mDevices.find(name);
    if (cached != mDevices.end())
        return cached->second.get();
    if (device == nullptr)
        return nullptr;
    return mDevices.emplace(name, std::make_unique<Device>(device, false)).first->second.get();
}

void DeviceCenter::devices(std::vector<Device*>&) const {}

void DeviceCenter::startRunLoop() {
    VellDeviceCenterRunLoop(as<VellDeviceCenterRef>());
}

void DeviceCenter::stopRunLoop() {
    VellDeviceCenterStopRunLoop(as<VellDeviceCenterRef>());
}

void* DeviceCenter::runLoop() const {
    return VellDeviceCenterGetRunLoop(as<VellDeviceCenterRef>());
}

void DeviceCenter::registerSource(const std::string& name) {
    VellDeviceCenterRegisterSourceName(as<VellDeviceCenterRef>(), keptName(name));
}

void DeviceCenter::registerSourceAsServer(const std::string& name) {
    VellDeviceCenterRegisterSourceNameAsServer(as<VellDeviceCenterRef>(), keptName(name));
}

void DeviceCenter::postMessage(const std::string& first, const std::string& second) {
    VellDeviceCenterPostSimpleMessage(as<VellDeviceCenterRef>(), ServiceString(first), ServiceString(second));
}

} // namespace VellDevice
