#include "DevicePlugin.h"

#include "GlobalLocks.h"
#include "Locks.h"
#include "Trace.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace VellDevice {

namespace {

thread_local int tSDKLockDepth = 0;

VellStringRef copyOfPath(VellStringRef path) {
    return static_cast<VellStringRef>(VellCheckedCast(VellCopy(path), "VellStringRef"));
}

} // namespace

// --- The SDK lock

DevicePlugin::SDKLock::SDKLock(DevicePlugin& plugin)
    : mMutex(plugin.mSDKLock), mIsHeld(pthread_mutex_lock(&mMutex) == 0) {
    if (mIsHeld)
        ++tSDKLockDepth;
}

DevicePlugin::SDKLock::SDKLock(DevicePlugin& plugin, std::try_to_lock_t)
    : mMutex(plugin.mSDKLock), mIsHeld(pthread_mutex_trylock(&mMutex) == 0) {
    if (mIsHeld)
        ++tSDKLockDepth;
}

DevicePlugin::SDKLock::~SDKLock() {
    if (!mIsHeld)
        return;
    --tSDKLockDepth;
    pthread_mutex_unlock(&mMutex);
}

bool DevicePlugin::SDKLock::heldByThisThread() {
    return tSDKLockDepth > 0;
}

// --- Construction and destruction

DevicePlugin::DevicePlugin(VellStringRef devicePath, VellStringRef pluginPath)
    : mHardwareManager(VellHardwareManagerCreate()),
      mDevicePath(copyOfPath(devicePath)),
      mPluginPath(copyOfPath(pluginPath)),
      mPluginLibrary(VellLibraryCreate(mPluginPath)),
      mDeviceInfo(VellDictionaryCreate()) {
    VELL_TRACE();
    ThreadLock::InitializeMechanism(mSDKLock);
    ThreadLock::InitializeMechanism(mConnectionLock);
    ThreadLock::InitializeMechanism(mPollingLock);
    ThreadLock::InitializeMechanism(mDyingLock);
    if (devicePath == nullptr || pluginPath == nullptr)
        return;

    openLog();
    VellLogInfo("[DevicePlugin::DevicePlugin] - Plugin Device Path: %s\n", textOf(mDevicePath));
    VellLogInfo("[DevicePlugin::DevicePlugin] - Plugin: %s\n", textOf(mPluginPath));
    logBuildInformation();
    mParentThreadRuns = pthread_create(&mParentThread, nullptr, _parentDeathThread, this) == 0;
    if (!mParentThreadRuns)
        VellLogError("[DevicePlugin::DevicePlugin] - no thread to watch the parent process\n");
    VellHardwareManagerRegisterMatchCallback(mHardwareManager, __hardwareManagerMatchCallback, this);
    VellHardwareManagerRegisterRemovalCallback(mHardwareManager, __hardwareManagerRemovalCallback, this);
    registerDefaultCommands();
}

void DevicePlugin::openLog() {
    std::string name;
    deviceName(name);
    std::memset(mLogFileName, 0, sizeof mLogFileName);
    std::snprintf(mLogFileName, sizeof mLogFileName, "%s_%d.log", name.c_str(), getpid());
    VellLogSetOutputFile(mLogFileName);
}

void DevicePlugin::logBuildInformation() {
    VellLogBuildInformationForPlatform(nullptr);
    const CFStringRef path =
        CFStringCreateWithCString(kCFAllocatorDefault, textOf(mPluginPath), kCFStringEncodingUTF8);
    const CFURLRef url =
        path != nullptr ? CFURLCreateWithFileSystemPath(kCFAllocatorDefault, path, kCFURLPOSIXPathStyle, 1)
                        : nullptr;
    const CFBundleRef bundle = url != nullptr ? CFBundleCreate(kCFAllocatorDefault, url) : nullptr;
    if (bundle != nullptr) {
        VellLogBuildInformationForPlatform(bundle);
        CFRelease(bundle);
    }
    if (url != nullptr)
        CFRelease(url);
    if (path != nullptr)
        CFRelease(path);
}

DevicePlugin::~DevicePlugin() {
    VELL_TRACE();
    endParentWatch();
    killLockTimer();
    if (mRegistered) {
        std::string name;
        deviceName(name);
        DeviceCenter::sharedDeviceCenter()->unregisterCommandObserver(this, name);
    }
    stop();
    VellRelease(mHardwareManager);
    mHardwareManager = nullptr;
    delete mDevice;
    mDevice = nullptr;
    VellRelease(mCommands);
    mCommands = nullptr;
    VellRelease(mHardwareDevice);
    VellRelease(mDevicePath);
    VellRelease(mPluginPath);
    VellRelease(mPluginLibrary);
    removeLockFile();
    VellRelease(mDeviceInfo);
    mDeviceInfo = nullptr;
    for (pthread_mutex_t* const mutex : {&mSDKLock, &mConnectionLock, &mPollingLock, &mDyingLock})
        pthread_mutex_destroy(mutex);
}

// --- The parent process

void* DevicePlugin::_parentDeathThread(void* plugin) {
    if (plugin == nullptr)
        return nullptr;
    auto* const self = static_cast<DevicePlugin*>(plugin);
    if (self->mParentWatch.waitUntilGone())
        self->die_a_QuickDeath();
    return nullptr;
}

void DevicePlugin::endParentWatch() {
    mParentWatch.retire();
    if (!mParentThreadRuns)
        return;
    mParentThreadRuns = false;
    pthread_join(mParentThread, nullptr);
}

// --- Running

void DevicePlugin::start() {
    VELL_TRACE();
    startWithoutRunLoop();
    bool endedMeanwhile = false;
    {
        const Base::Lock lock(mRunStateLock);
        endedMeanwhile = mExiting;
        mRunLoopRunning = !endedMeanwhile;
    }
    if (endedMeanwhile) {
        endParentWatch(); // the thread that ended it leaves nothing half done,
        DeviceCenter::sharedDeviceCenter()->stopRunLoop(); // and what was opened after its stop closes too
        return;
    }
    DeviceCenter::sharedDeviceCenter()->startRunLoop();
    bool exiting = false;
    {
        const Base::Lock lock(mRunStateLock);
        exiting = mExiting;
    }
    // The watcher thread ends the process, after it has tidied up. Returning now would let main's exit
    // handlers run beside it, with another exit code.
    while (exiting)
        pause();
}

void DevicePlugin::startWithoutRunLoop() {
    VELL_TRACE();
    DeviceCenter::sharedDeviceCenter(); // made by the main thread, before the watcher can ask for it
    mParentWatch.arm();
    registerIfNeeded();
    VellHardwareManagerOpen(mHardwareManager);
    didStart();
    announceStatus();
    if (wantsPolling())
        beginPolling();
}

void DevicePlugin::stop() {
    VELL_TRACE();
    stopPolling();
    VellHardwareManagerClose(mHardwareManager);
    didStop();
    announceStatus();
    bool running = false;
    {
        const Base::Lock lock(mRunStateLock);
        running = mRunLoopRunning;
    }
    if (running)
        DeviceCenter::sharedDeviceCenter()->stopRunLoop();
}

void DevicePlugin::exitDeviceService(int code) {
    VELL_TRACE();
    VellLogDebug("[DevicePlugin::exitDeviceService] - error code: %d\n", code);
    bool endsProcess = false;
    {
        const Base::Lock lock(mRunStateLock);
        mExitCode = code;
        mExiting = true;
        endsProcess = mRunLoopRunning;
    }
    runLoopOnce();
    DeviceCenter::sharedDeviceCenter()->stopRunLoop();
    removeLockFile();
    if (endsProcess) {
        GlobalLock::RemoveHeldFiles(); // the main thread may be about to connect
        _exit(code);
    }
}

void DevicePlugin::removeLockFile() {
    std::string path;
    {
        const Base::Lock lock(mRunStateLock);
        path = mLockFileName;
    }
    if (!path.empty())
        GlobalLock::RemoveFile(path);
}

void DevicePlugin::runLoopOnce() {
    {
        const Base::Lock lock(mRunStateLock);
        if (!mRunLoopRunning)
            return;
    }
    if (SDKLock::heldByThisThread())
        return; // posts leave by themselves; whatever else is due waits for the next pass
    VellDeviceCenterRunLoopOnce(VellDeviceCenterGetDistributedCenter());
}

void DevicePlugin::waitOneSecond() {
    VellDeviceCenterRunLoopOnce(VellDeviceCenterGetDistributedCenter());
    sleep(1);
}

MutableDevice* DevicePlugin::device() {
    const Base::Lock lock(mRunStateLock);
    if (mDevice == nullptr)
        mDevice = new MutableDevice();
    return mDevice;
}

bool DevicePlugin::isConnected() {
    const Base::Lock lock(mRunStateLock);
    return mConnected;
}

void DevicePlugin::setConnected(bool connected) {
    const Base::Lock lock(mRunStateLock);
    mConnected = connected;
}

int DevicePlugin::exitCode() {
    const Base::Lock lock(mRunStateLock);
    return mExitCode;
}

// --- Bundle properties

void DevicePlugin::property(const char* key, std::string& out) {
    const VellObjectRef value = VellLibraryCopyPropertyForKey(mPluginLibrary, key);
    if (const VellObjectRef string = VellCheckedCast(value, "VellStringRef"))
        out = textOf(static_cast<VellStringRef>(string));
    VellRelease(value);
}

void DevicePlugin::deviceName(std::string& out) {
    VELL_TRACE();
    property("VellPluginDeviceName", out);
}

void DevicePlugin::displayName(std::string& out) {
    VELL_TRACE();
    property("VellPluginDeviceDisplayName", out);
}

void DevicePlugin::serviceVersion(std::string& out) {
    VELL_TRACE();
    out.clear();
    property("CFBundleVersion", out);
}

// --- What a device class may leave as it is

void DevicePlugin::logIfError(const char* func, int err) {
    VELL_TRACE();
    if (err != 0)
        VellLogError("[DevicePlugin::logIfError] - { func: %s, err: %d, msg: %s }\n", func, err,
                     sdkGetLastError());
}

Error DevicePlugin::sdkError2Error(int) {
    VELL_TRACE();
    return kInstrumentFailure;
}

const char* DevicePlugin::sdkGetLastError() {
    return "Unimplemented in DevicePlugin";
}

DevicePluginConnectResult DevicePlugin::connect() {
    VELL_TRACE();
    return kConnectFailed;
}

bool DevicePlugin::disconnect() {
    VELL_TRACE();
    return false;
}

Error DevicePlugin::calibrate() {
    VELL_TRACE();
    return kNotImplemented;
}

Error DevicePlugin::measure(MutableMeasurementSet&) {
    VELL_TRACE();
    return kNotImplemented;
}

Error DevicePlugin::setMode(const std::string&) {
    return kNotImplemented;
}

bool DevicePlugin::wantsAdvancedMeasurements() {
    return false;
}

void DevicePlugin::advancedMeasure(const Command&) {
    VELL_TRACE();
}

bool DevicePlugin::canMeasureIfNotCalibrated() {
    return false;
}

void DevicePlugin::clearCalibration() {
    VELL_TRACE();
}

bool DevicePlugin::processCommand(const Command&, MutableResponse&) {
    VELL_TRACE();
    return false;
}

bool DevicePlugin::wantsPolling() {
    return false;
}

void DevicePlugin::didPoll() {}

void DevicePlugin::didStart() {
    VELL_TRACE();
}

void DevicePlugin::didStop() {
    VELL_TRACE();
}

double DevicePlugin::timeoutForLockInSeconds() {
    return 30.0;
}

} // namespace VellDevice

int __InternalDevicePluginRunWithInstance(VellDevice::DevicePlugin* plugin, int argc, const char** argv) {
    VELL_TRACE();
    if (argc == 3 && std::strcmp(argv[2], "-norunloop") == 0)
        plugin->startWithoutRunLoop();
    else
        plugin->start();
    return plugin->exitCode();
}
