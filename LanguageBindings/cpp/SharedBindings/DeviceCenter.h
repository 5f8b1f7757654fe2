#pragma once

#include "Device.h"

#include <map>
#include <memory>

namespace VellDevice {

// Whoever carries out commands; the device center calls on the main thread.
class ICommandObserver {
public:
    // The command is lent for the call; what is needed longer is copied.
    virtual void didReceiveCommand(Command& command) = 0;

protected:
    ~ICommandObserver() = default;
};

// Whoever follows other devices; the device center calls on the main thread.
class IDeviceObserver {
public:
    virtual void deviceEvent1(Device* device) = 0;
    virtual void deviceEvent2(Device* device) = 0;
    virtual void deviceEvent3(Device* device) = 0;

protected:
    ~IDeviceObserver() = default;
};

// The process's link to the service: its run loop, its source name, its observers. Main thread only, except
// startRunLoop's counterpart stopRunLoop, and runLoop.
class DeviceCenter : public Object {
public:
    // The one instance, around the service's distributed center. The first call comes from the main thread.
    static DeviceCenter* sharedDeviceCenter();

    DeviceCenter(void* center, bool adopt);
    ~DeviceCenter() override;

    void registerCommandObserver(ICommandObserver* observer);
    void registerCommandObserver(ICommandObserver* observer, const std::string& deviceName);
    void unregisterCommandObserver(ICommandObserver* observer);
    void unregisterCommandObserver(ICommandObserver* observer, const std::string& deviceName);
    void registerDeviceObserver(IDeviceObserver* observer);
    void registerDeviceObserver(IDeviceObserver* observer, const std::string& deviceName);
    void unregisterDeviceObserver(IDeviceObserver* observer);
    void unregisterDeviceObserver(IDeviceObserver* observer, const std::string& deviceName);

    // Owned by the center; null while the service does not know the name. A name keeps its first wrapper.
    Device* deviceByName(const std::string& name);
    // Leaves `out` as it is.
    void devices(std::vector<Device*>& out) const;

    // Runs the service's run loop on this thread until it is stopped.
    void startRunLoop();
    // Any thread.
    void stopRunLoop();
    void* runLoop() const;

    void registerSource(const std::string& name);
    void registerSourceAsServer(const std::string& name);
    void postMessage(const std::string& first, const std::string& second);

private:
    std::map<std::string, std::unique_ptr<Device>> mDevices;
};

// What the service calls; `context` is the observer.
void __VellDeviceCenterCommandCallback(void* context, __VellDeviceCommand* command);
void __VellDeviceCenterDeviceCallback(void* context, __VellDevice* device, unsigned int event);

} // namespace VellDevice
