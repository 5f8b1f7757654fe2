#pragma once

#include "Bundle.h"
#include "Instrument.h"

#include <support/CenterLoop.h>

#include <map>
#include <memory>
#include <string>

namespace service {

// Watches the hardware and keeps one plug-in process per matching device. Center's thread only.
//
// The end: every plug-in is asked over its connection, which lets it park the head and give the instrument
// back; one that cannot be reached or takes too long gets SIGTERM, then SIGKILL. The center's loop is stopped
// when all are gone.
class DeviceService {
public:
    DeviceService(const Settings& settings, const Bundle& bundle);
    DeviceService(const DeviceService&) = delete;
    DeviceService& operator=(const DeviceService&) = delete;
    ~DeviceService();

    void childrenChanged(); // SIGCHLD
    void end();             // a second call does not wait any longer

private:
    static void hardwareMatched(VellHardwareManagerRef, VellHardwareDeviceRef device, const void* context);
    static void hardwareRemoved(VellHardwareManagerRef, VellHardwareDeviceRef device, const void* context);
    static void deviceChanged(void* context, VellDeviceRef device, unsigned event);

    // Paths that differ in letter case only name one device, as the plug-in compares them, too.
    struct PathOrder {
        bool operator()(const std::string& left, const std::string& right) const;
    };

    void attached(VellHardwareDeviceRef device);
    void removed(VellHardwareDeviceRef device);
    void signalAll(int number);
    void stopWhenAllEnded();

    Settings mSettings;
    VellDeviceCenterRef mCenter;
    tools::Ref<VellHardwareManagerRef> mManager;
    std::map<std::string, std::unique_ptr<Instrument>, PathOrder> mInstruments; // by device path
    bool mEnding = false;
    tools::LoopTimer mTerminateTimer;
    tools::LoopTimer mKillTimer;
};

} // namespace service
