#include "DeviceService.h"

#include "Log.h"

#include <csignal>

namespace service {

namespace {

// How long a plug-in may take to park the head and disconnect, and to leave its loop after SIGTERM.
constexpr double kSecondsToDisconnect = 10;
constexpr double kSecondsToTerminate = 3;

std::string pathOf(VellHardwareDeviceRef device) {
    return tools::textOf(tools::Ref<VellStringRef>(VellHardwareDeviceCopyPath(device)).get());
}

int comparePaths(const std::string& left, const std::string& right) {
    return VellStringCompare(tools::makeString(left).get(), tools::makeString(right).get(), 1);
}

// The record that a plug-in has published for the path; null before it has.
VellDeviceRef recordFor(VellArrayRef devices, const std::string& path) {
    for (int index = 0; index < VellArrayGetCount(devices); ++index) {
        const auto device = static_cast<VellDeviceRef>(VellArrayGetValueAtIndex(devices, index));
        if (comparePaths(tools::textOf(VellDeviceGetPath(device)), path) == 0)
            return device;
    }
    return nullptr;
}

} // namespace

bool DeviceService::PathOrder::operator()(const std::string& left, const std::string& right) const {
    return comparePaths(left, right) < 0;
}

DeviceService::DeviceService(const Settings& settings, const Bundle& bundle)
    : mSettings(settings),
      mCenter(VellDeviceCenterGetDistributedCenter()),
      mManager(VellHardwareManagerCreate()) {
    VellDeviceCenterRegisterDeviceObserver(mCenter, this, nullptr, deviceChanged);
    VellHardwareManagerRegisterMatchCallback(mManager.get(), hardwareMatched, this);
    VellHardwareManagerRegisterRemovalCallback(mManager.get(), hardwareRemoved, this);
    VellHardwareManagerSetDeviceMatchingCriteria(mManager.get(), bundle.criteria());
    VellHardwareManagerOpen(mManager.get());
}

DeviceService::~DeviceService() {
    VellHardwareManagerClose(mManager.get());
    VellDeviceCenterUnregisterDeviceObserver(mCenter, this, nullptr);
}

void DeviceService::hardwareMatched(VellHardwareManagerRef, VellHardwareDeviceRef device,
                                    const void* context) {
    static_cast<DeviceService*>(const_cast<void*>(context))->attached(device);
}

void DeviceService::hardwareRemoved(VellHardwareManagerRef, VellHardwareDeviceRef device,
                                    const void* context) {
    static_cast<DeviceService*>(const_cast<void*>(context))->removed(device);
}

void DeviceService::deviceChanged(void*, VellDeviceRef device, unsigned event) {
    constexpr unsigned kAppeared = 1;
    constexpr unsigned kGone = 3;
    const std::string path = tools::textOf(VellDeviceGetPath(device));
    if (event == kAppeared)
        logDetail("%s: connected", path.c_str());
    else if (event == kGone)
        logDetail("%s: closed", path.c_str());
}

void DeviceService::attached(VellHardwareDeviceRef device) {
    if (mEnding)
        return;
    const std::string path = pathOf(device);
    log("%s: attached", path.c_str());
    auto& instrument = mInstruments[path];
    if (!instrument)
        instrument = std::make_unique<Instrument>(mSettings);
    const tools::Ref<VellStringRef> file(VellHardwareDeviceCopyFilePath(device));
    instrument->attach(path, tools::textOf(file.get()));
}

void DeviceService::removed(VellHardwareDeviceRef device) {
    const auto found = mInstruments.find(pathOf(device));
    if (found == mInstruments.end())
        return;
    found->second->detach();
    if (!found->second->hasProcess())
        mInstruments.erase(found);
}

void DeviceService::childrenChanged() {
    for (auto& [path, instrument] : mInstruments)
        instrument->reap();
    std::erase_if(mInstruments, [](const auto& entry) {
        return !entry.second->isAttached() && !entry.second->hasProcess();
    });
    if (mEnding)
        stopWhenAllEnded();
}

void DeviceService::end() {
    if (mEnding) {
        signalAll(SIGKILL);
        return;
    }
    mEnding = true;
    log("ending");
    const tools::Ref<VellArrayRef> devices(VellDeviceCenterCopyDevices(mCenter));
    for (auto& [path, instrument] : mInstruments) {
        if (!instrument->askToEnd(recordFor(devices.get(), path)))
            instrument->signal(SIGTERM);
    }
    mTerminateTimer = tools::LoopTimer(kSecondsToDisconnect, 0, [this] { signalAll(SIGTERM); });
    mKillTimer =
        tools::LoopTimer(kSecondsToDisconnect + kSecondsToTerminate, 0, [this] { signalAll(SIGKILL); });
    stopWhenAllEnded();
}

void DeviceService::signalAll(int number) {
    for (auto& [path, instrument] : mInstruments)
        instrument->signal(number);
}

void DeviceService::stopWhenAllEnded() {
    for (const auto& [path, instrument] : mInstruments) {
        if (instrument->hasProcess())
            return;
    }
    VellDeviceCenterStopRunLoop(mCenter);
}

} // namespace service
