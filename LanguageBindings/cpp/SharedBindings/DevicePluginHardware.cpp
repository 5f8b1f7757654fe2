// Registration, hardware attach and removal, dying, polling, and the commands that a press of the button
// makes.

#include "DevicePlugin.h"
#include "GlobalLocks.h"
#include "Locks.h"
#include "Trace.h"

#include <mach-o/arch.h>

#include <unistd.h>

namespace VellDevice {

namespace {

constexpr CFTimeInterval kPollingInterval = 3.0; // seconds

std::string pathOf(VellHardwareDeviceRef device) {
    const VellStringRef path = VellHardwareDeviceCopyPath(device);
    std::string text = textOf(path);
    VellRelease(path);
    return text;
}

// Whether the hardware is the one at `path`, as the service compares paths.
bool isAtPath(VellHardwareDeviceRef device, VellStringRef path) {
    const VellStringRef its = VellHardwareDeviceCopyPath(device);
    const bool same = its != nullptr && VellStringCompare(its, path, 1) == 0;
    VellRelease(its);
    return same;
}

} // namespace

// --- Registration

void DevicePlugin::registerIfNeeded() {
    VELL_TRACE();
    if (mRegistered)
        return;
    mRegistered = true;
    std::string name;
    deviceName(name);
    device()->setName(name);
    device()->setSerialNumber("");
    device()->setCalibrationStatus(0);
    device()->setSoftwareMeasurementAvailable(false);
    DeviceCenter::sharedDeviceCenter()->registerSourceAsServer(textOf(mDevicePath));
    DeviceCenter::sharedDeviceCenter()->registerCommandObserver(this, name);
    setMatchingCriteria();
}

void DevicePlugin::setMatchingCriteria() {
    const VellObjectRef vendor = VellLibraryCopyPropertyForKey(mPluginLibrary, "VellDevicePluginVendorID");
    const VellObjectRef product = VellLibraryCopyPropertyForKey(mPluginLibrary, "VellDevicePluginProductID");
    const VellObjectRef class86 =
        VellLibraryCopyPropertyForKey(mPluginLibrary, "VellDevicePluginDeviceClassx86");
    const VellObjectRef class64 =
        VellLibraryCopyPropertyForKey(mPluginLibrary, "VellDevicePluginDeviceClassx64");
    const VellDictionaryRef criteria = VellDictionaryCreate();
    if (const VellObjectRef number = VellCheckedCast(vendor, "VellNumberRef"))
        VellDictionarySetValueForKey(criteria, kVellHardwareVendorID, number);
    if (const VellObjectRef number = VellCheckedCast(product, "VellNumberRef"))
        VellDictionarySetValueForKey(criteria, kVellHardwareProductID, number);
    VellDictionarySetValueForKey(criteria, kVellHardwareDeviceClass,
                                 VellCheckedCast(runningAs64Bit() ? class64 : class86, "VellStringRef"));
    VellHardwareManagerSetDeviceMatchingCriteria(mHardwareManager, criteria);
    for (const VellObjectRef object :
         {vendor, product, class86, class64, static_cast<VellObjectRef>(criteria)})
        VellRelease(object);
}

bool DevicePlugin::runningAs64Bit() {
    VELL_TRACE();
    const NXArchInfo* const info = NXGetLocalArchInfo();
    return info != nullptr && (info->cputype == CPU_TYPE_X86_64 || info->cputype == CPU_TYPE_POWERPC64);
}

// --- Hardware comes and goes

void DevicePlugin::__hardwareManagerMatchCallback(VellHardwareManagerRef, VellHardwareDeviceRef device,
                                                  const void* context) {
    VELL_TRACE();
    VellLogDebug("[DevicePlugin::__hardwareManagerMatchCallback]\n");
    if (context != nullptr)
        static_cast<DevicePlugin*>(const_cast<void*>(context))->hardwareWasMatched(device);
}

void DevicePlugin::__hardwareManagerRemovalCallback(VellHardwareManagerRef, VellHardwareDeviceRef device,
                                                    const void* context) {
    VELL_TRACE();
    VellLogDebug("[DevicePlugin::__hardwareManagerRemovalCallback]\n");
    if (context != nullptr)
        static_cast<DevicePlugin*>(const_cast<void*>(context))->hardwareWasRemoved(device);
}

void DevicePlugin::hardwareWasMatched(const VellHardwareDeviceRef& device) {
    VELL_TRACE();
    VellLogDebug("[DevicePlugin::hardwareWasMatched]\n");
    if (isAtPath(device, mDevicePath))
        didAttach(device);
}

void DevicePlugin::hardwareWasRemoved(const VellHardwareDeviceRef& device) {
    VELL_TRACE();
    VellLogDebug("[DevicePlugin::hardwareWasRemoved]\n");
    if (isAtPath(device, mDevicePath))
        didDetach(device);
}

void DevicePlugin::didAttach(const VellHardwareDeviceRef& device) {
    VELL_TRACE();
    const std::string path = pathOf(device);
    VellLogDebug("[DevicePlugin::didAttach] - %s\n", path.empty() ? "no path" : path.c_str());
    if (isConnected() && mHardwareDevice != nullptr) {
        VellLogDebug("[DevicePlugin::didAttach] - already connected\n");
        return;
    }
    // Asked second: whoever ends the plug-in sets dying before it takes the connection away.
    if (IsDying())
        return; // and wait for no lock: that thread may need this one
    {
        std::string lockFileName;
        GlobalLock::EncodeMutexNameForPlatform(path, lockFileName);
        const Base::Lock lock(mRunStateLock);
        mLockFileName = lockFileName;
    }
    const GlobalLock deviceLock(path);
    setConnected(false);
    const VellHardwareDeviceRef previous = mHardwareDevice;
    mHardwareDevice =
        static_cast<VellHardwareDeviceRef>(VellCheckedCast(VellRetain(device), "VellHardwareDeviceRef"));
    VellRelease(previous);

    const std::string family = familyName();
    DevicePluginConnectResult result =
        tryToConnect(family, "[DevicePlugin::didAttach] - connect 1st try excetion\n", kConnectFailed);
    if (result == kConnectTryAgain) {
        VellLogWarning(
            "[DevicePlugin::didAttach] - Sleeping a bit then trying to connect again in 5 seconds\n");
        sleep(5);
        result =
            tryToConnect(family, "[DevicePlugin::didAttach] - connect 2nd try excetion\n", kConnectTryAgain);
    }
    if (result == kConnected) {
        this->device()->setAvailable(true);
        {
            const ThreadLock lock(mDyingLock); // nobody begins to end the plug-in between the two
            setConnected(!mDying);
        }
        announceStatus();
    } else if (TestAndSetDying()) {
        VellLogError(
            "[DevicePlugin::didAttach] - Failed to connect to device, killing with restart error code\n");
        VellHardwareManagerClose(mHardwareManager);
        stopPolling();
        exitDeviceService(kExitForRestart);
    }
}

std::string DevicePlugin::familyName() {
    std::string family;
    deviceName(family);
    property("VellDevicePluginSharedFamilyLockName", family);
    return family;
}

// `whenImpossible` is the result when connect cannot be asked: it throws, or another instrument of the family
// keeps its lock.
DevicePluginConnectResult DevicePlugin::tryToConnect(const std::string& family, const char* exceptionText,
                                                     DevicePluginConnectResult whenImpossible) {
    const GlobalDeviceLock familyLock(family);
    if (!familyLock.mLocked) {
        VellLogError("[DevicePlugin::didAttach] - Failed to aquire connection lock {%s}\n", family.c_str());
        return whenImpossible;
    }
    const ThreadLock lock(mConnectionLock);
    if (IsDying())
        return kConnectFailed; // it was disconnected for good while this thread waited
    try {
        return connect();
    } catch (...) {
        VellLogError("%s", exceptionText);
        return whenImpossible;
    }
}

void DevicePlugin::didDetach(const VellHardwareDeviceRef& device) {
    VELL_TRACE();
    VellLogInfo("[DevicePlugin::didDetach]\n");
    if (device != nullptr && mHardwareDevice != nullptr && VellCompareObjects(device, mHardwareDevice) != 0)
        return; // another one of the same path, which was ignored when it came
    if (!TestAndSetDying())
        return;
    setConnected(false);
    if (!disconnectLoggingExceptions("[DevicePlugin::didDetach] - disconnect excetion\n")) {
        setConnected(true);
        ResetDying();
        return;
    }
    stop();
    exitDeviceService(0);
}

// What disconnect returned; true when it threw.
bool DevicePlugin::disconnectLoggingExceptions(const char* exceptionText) {
    const ThreadLock lock(mConnectionLock);
    try {
        return disconnect();
    } catch (...) {
        VellLogError("%s", exceptionText);
        return true;
    }
}

void DevicePlugin::fakeHardwareDetach() {
    VELL_TRACE();
    VellLogDebug("DevicePlugin::fakeHardwareDetach\n");
    if (mHardwareDevice == nullptr)
        return;
    device()->clearForDeparture();
    device()->setAvailable(true);
    announceStatus();
    VellRelease(mHardwareDevice);
    mHardwareDevice = nullptr;
}

// --- Dying

bool DevicePlugin::TestAndSetDying() {
    const ThreadLock lock(mDyingLock);
    VellLogInfo("[DevicePlugin::TestAndSetDying] - {%s}\n", textOf(mDevicePath));
    if (mDying)
        return false;
    VellLogInfo("[DevicePlugin::TestAndSetDying] - device was not dying, setting it up to die now\n");
    mDying = true;
    return true;
}

void DevicePlugin::ResetDying() {
    const ThreadLock lock(mDyingLock);
    VellLogInfo("[DevicePlugin::ResetDying] {%s}\n", textOf(mDevicePath));
    mDying = false;
}

bool DevicePlugin::IsDying() {
    const ThreadLock lock(mDyingLock);
    return mDying;
}

void DevicePlugin::die_a_QuickDeath() {
    VELL_TRACE();
    if (!TestAndSetDying())
        return;
    VellLogDebug("[DevicePlugin::die_a_QuickDeath] - IN\n");
    setConnected(false);
    disconnectLoggingExceptions("[DevicePlugin::die_a_QuickDeath()] - disconnect excetion\n");
    VellLogDebug("[DevicePlugin::die_a_QuickDeath] - OUT\n");
    exitDeviceService(0);
}

// --- Polling

void DevicePlugin::beginPolling() {
    VELL_TRACE();
    const ThreadLock lock(mPollingLock);
    if (IsDying())
        return;
    if (++mPollingCount != 1)
        return;
    CFRunLoopTimerContext context{0, this, nullptr, nullptr, nullptr};
    mPollingTimer =
        CFRunLoopTimerCreate(kCFAllocatorDefault, 0, kPollingInterval, 0, 0, _pollingCallback, &context);
    CFRunLoopAddTimer(static_cast<CFRunLoopRef>(DeviceCenter::sharedDeviceCenter()->runLoop()), mPollingTimer,
                      kCFRunLoopDefaultMode);
}

void DevicePlugin::stopPolling() {
    VELL_TRACE();
    const ThreadLock lock(mPollingLock);
    // However often it was begun: the count falls to 0 at once, so the timer goes too.
    mPollingCount = 0;
    if (mPollingTimer == nullptr)
        return;
    CFRunLoopTimerInvalidate(mPollingTimer);
    CFRelease(mPollingTimer);
    mPollingTimer = nullptr;
}

bool DevicePlugin::isPolling() {
    const ThreadLock lock(mPollingLock);
    return mPollingCount > 0;
}

void DevicePlugin::_pollingCallback(CFRunLoopTimerRef, void* info) {
    if (info == nullptr)
        return;
    auto* const self = static_cast<DevicePlugin*>(info);
    if (self->isPolling())
        self->didPoll();
}

// --- The button on the instrument

void DevicePlugin::setAutoCalibrateOnButtonPress(bool on) {
    VELL_TRACE();
    if (on == mAutoCalibratesOnButtonPress)
        return;
    mAutoCalibratesOnButtonPress = on;
    announceStatus();
}

bool DevicePlugin::autoCalibratesOnButtonPress() {
    return mAutoCalibratesOnButtonPress;
}

Command DevicePlugin::hardwareCommand(const std::string& name) {
    std::string deviceName;
    this->deviceName(deviceName);
    Command command(name);
    command.setDeviceName(deviceName);
    command.setDevicePath(textOf(mDevicePath));
    command.setArgumentForKey(DevicePluginCommandArgumentHardware, DevicePluginCommandArgumentSource);
    return command;
}

void DevicePlugin::hardwareInitiatedCalibrateCommand() {
    VELL_TRACE();
    device()->sendCommand(hardwareCommand(DevicePluginCommandCalibrate));
}

void DevicePlugin::hardwareInitiatedMeasurementCommand() {
    VELL_TRACE();
    MutableResponse beginning(hardwareCommand(DevicePluginCommandBeginMeasure));
    beginning.setCode(kSuccess);
    beginning.setMessage("");
    beginning.send();
    runLoopOnce();
    device()->sendCommand(hardwareCommand(DevicePluginCommandMeasure));
}

void DevicePlugin::softwareInitiatedMeasurementCommand(const Command& command) {
    VELL_TRACE();
    device()->sendCommand(command);
}

} // namespace VellDevice
