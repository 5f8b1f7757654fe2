#pragma once

#include "DeviceCenter.h"
#include "Error.h"
#include "Locks.h"
#include "MeasurementSet.h"
#include "ParentWatch.h"
#include "Response.h"

#include <Base/Mutex.h>

#include <pthread.h>

#include <string>

namespace VellDevice {

// Names of commands.
extern const std::string DevicePluginCommandPoll;
extern const std::string DevicePluginCommandpoll;
extern const std::string DevicePluginCommandStatus;
extern const std::string DevicePluginCommandDisable;
extern const std::string DevicePluginCommandEnable;
extern const std::string DevicePluginCommandQuit;
extern const std::string DevicePluginCommandCalibrate;
extern const std::string DevicePluginCommandMeasure;
extern const std::string DevicePluginCommandSetMode;
extern const std::string DevicePluginCommandSetAttribute;
extern const std::string DevicePluginCommandGetCommands;
extern const std::string DevicePluginCommandLock;
extern const std::string DevicePluginCommandUnlock;
extern const std::string DevicePluginCommandClearCalibration;
extern const std::string DevicePluginCommandBeginMeasure;
extern const std::string DevicePluginCommandBeginCalibrate;
extern const std::string DevicePluginCommandDieAQuickDeath;
extern const std::string DevicePluginCommandUnproxy;

// Argument keys of commands, and their values.
extern const std::string DevicePluginCommandArgumentSource;
extern const std::string DevicePluginCommandArgumentHardware;
extern const std::string DevicePluginCommandArgumentMode;
extern const std::string DevicePluginCommandArgumentKey;
extern const std::string DevicePluginCommandArgument_key;
extern const std::string DevicePluginCommandArgumentValue;

// Attributes of the device record, and their values.
extern const std::string DevicePluginAttributeAutoCalibratesOnButtonPress;
extern const std::string DevicePluginAttributeDisplayName;
extern const std::string DevicePluginAttributeDevicePath;
extern const std::string DevicePluginAttributeDeviceProcessPID;
extern const std::string DevicePluginAttributeDeviceLogName;
extern const std::string DevicePluginAttributeTrue;
extern const std::string DevicePluginAttributeFalse;

// Modes of devices.
extern const std::string DeviceModeSingleReflectance;
extern const std::string DeviceModeScanningReflectance;

// The plug-in of one instrument, and the process around it. A device class derives from it and fills in the
// virtual operations; this class does what every device needs: it publishes the device record, dispatches
// commands, keeps the client lock, connects when the hardware appears, polls, and ends the process exactly
// once.
//
// Threads. The main thread constructs, starts and runs the device center's loop; everything arrives there,
// one event at a time: commands, hardware, timers, and work handed over by RemoteObjectPerformer. The watcher
// thread only waits for the parent process to go and then calls die_a_QuickDeath. Operations are for the main
// thread unless they say other.
//
// Locks, all recursive but the last, in the order in which they may be nested: connection lock, SDK lock,
// polling lock, dying lock, mRunStateLock. A run-loop pass is never made by a thread that holds the SDK lock.
class DevicePlugin : public ICommandObserver {
public:
    // `devicePath` names the instrument, `pluginPath` the bundle; both are copied. With null paths the object
    // only answers for its device info: no log file, no thread, no hardware.
    DevicePlugin(VellStringRef devicePath, VellStringRef pluginPath);
    DevicePlugin(const DevicePlugin&) = delete;
    DevicePlugin& operator=(const DevicePlugin&) = delete;

    // --- Virtual operations; their order is their slot ---

    void didReceiveCommand(Command& command) override;
    virtual ~DevicePlugin();
    virtual void displayName(std::string& out);
    virtual void logIfError(const char* func, int err);
    virtual Error sdkError2Error(int sdkError);
    virtual const char* sdkGetLastError();
    virtual DevicePluginConnectResult connect();
    virtual bool disconnect();
    virtual Error calibrate();
    virtual Error measure(MutableMeasurementSet& set);
    virtual Error setMode(const std::string& mode);
    virtual bool wantsAdvancedMeasurements();
    virtual void advancedMeasure(const Command& command);
    virtual bool canMeasureIfNotCalibrated();
    virtual void clearCalibration();
    // Whether the command was handled; `response` is sent by the caller.
    virtual bool processCommand(const Command& command, MutableResponse& response);
    virtual bool wantsPolling();
    virtual void didPoll();
    virtual void didStart();
    virtual void didStop();
    virtual double timeoutForLockInSeconds();
    virtual void die_a_QuickDeath();
    virtual void hardwareWasMatched(const VellHardwareDeviceRef& device);
    virtual void hardwareWasRemoved(const VellHardwareDeviceRef& device);

    // --- Running ---

    // Starts, and runs the device center's loop until it is stopped.
    void start();
    // Starts and returns; the caller drives the loop.
    void startWithoutRunLoop();
    void stop();
    // Ends the run with `code`; with a running loop the process ends here. Any thread.
    void exitDeviceService(int code);
    // One pass of the device center's loop, once start() runs it. Any thread.
    void runLoopOnce();
    // The record; made on first use. Any thread.
    MutableDevice* device();
    void deviceName(std::string& out);
    void serviceVersion(std::string& out);
    int exitCode();
    // Static information about the device, for the service; lent.
    VellDictionaryRef deviceInfo() const { return mDeviceInfo; }

    // --- Commands ---

    void registerCommand(const std::string& name);
    void registerCommandArgument(const std::string& name, const std::string& argument);
    void registerDefaultCommands();
    void announceStatus();
    void announceStatusNoRunLoop();

    // --- Client lock ---

    bool checkLockAndRespondAccordinglyForCommand(const Command& command);
    bool isLocked();
    void startLockTimer();
    void killLockTimer();

    // --- Hardware, connection, dying ---

    void registerIfNeeded();
    bool runningAs64Bit();
    void didAttach(const VellHardwareDeviceRef& device);
    void didDetach(const VellHardwareDeviceRef& device);
    void fakeHardwareDetach();
    // True for the one caller that is to end the plug-in. Any thread, like the two after it.
    bool TestAndSetDying();
    void ResetDying();
    bool IsDying();

    // --- Polling; any thread ---

    void beginPolling();
    void stopPolling();
    bool isPolling();

    // --- The button on the instrument ---

    void setAutoCalibrateOnButtonPress(bool on);
    bool autoCalibratesOnButtonPress();
    void hardwareInitiatedCalibrateCommand();
    void hardwareInitiatedMeasurementCommand();
    void softwareInitiatedMeasurementCommand(const Command& command);

    // Holds the SDK lock for the life of a block. A thread that holds it makes no run-loop pass: a handler of
    // that pass could need what the holder has half done.
    class SDKLock {
    public:
        explicit SDKLock(DevicePlugin& plugin);
        // Without waiting; it is not held while another thread has it.
        SDKLock(DevicePlugin& plugin, std::try_to_lock_t);
        ~SDKLock();
        SDKLock(const SDKLock&) = delete;
        SDKLock& operator=(const SDKLock&) = delete;
        bool isHeld() const { return mIsHeld; }
        static bool heldByThisThread();

    private:
        pthread_mutex_t& mMutex;
        const bool mIsHeld;
    };

protected:
    bool isConnected();
    // Waits one second, and lets the main thread's timers run meanwhile when it is the main thread that
    // waits: whoever is waited for may need it.
    void waitOneSecond();
    // sdkGetLastError, or null when that throws.
    const char* lastErrorWhateverHappens();
    // After this the watcher thread does not touch the object; a subclass's destructor begins with it.
    void endParentWatch();

    pthread_mutex_t mSDKLock; // the subclass holds it around every call of the instrument SDK
    PthreadMutex mDyingLock;
    bool mDying GUARDED_BY(mDyingLock) = false;
    VellHardwareManagerRef mHardwareManager;
    bool mAutoCalibratesOnButtonPress = true;
    bool mRegistered = false;
    VellDictionaryRef mCommands = nullptr; // command name to array of argument names
    int mPollingCount GUARDED_BY(mPollingLock) = 0;
    CFRunLoopTimerRef mPollingTimer GUARDED_BY(mPollingLock) = nullptr;
    PthreadMutex mPollingLock;
    CFRunLoopTimerRef mLockTimer = nullptr;
    std::string mLockHolder;          // process identifier of the client that holds the device; "": nobody
    MutableDevice* mDevice = nullptr; // guarded by mRunStateLock until it is made
    bool mConnected GUARDED_BY(mRunStateLock) = false;
    VellStringRef mDevicePath;
    VellStringRef mPluginPath;
    VellLibraryRef mPluginLibrary;
    VellHardwareDeviceRef mHardwareDevice = nullptr;
    char mLogFileName[1024] = {};
    int mExitCode GUARDED_BY(mRunStateLock) = 0;
    pthread_mutex_t mConnectionLock;
    std::string mLockFileName GUARDED_BY(mRunStateLock);
    VellDictionaryRef mDeviceInfo;
    bool mRunLoopRunning GUARDED_BY(mRunStateLock) = false;
    ParentWatch mParentWatch;

private:
    static void* _parentDeathThread(void* plugin);
    static void _pollingCallback(CFRunLoopTimerRef timer, void* info);
    static void deviceLockTimerCallback(CFRunLoopTimerRef timer, void* info);
    static void __hardwareManagerMatchCallback(VellHardwareManagerRef manager, VellHardwareDeviceRef device,
                                               const void* context);
    static void __hardwareManagerRemovalCallback(VellHardwareManagerRef manager, VellHardwareDeviceRef device,
                                                 const void* context);

    void openLog();
    void logBuildInformation();
    void property(const char* key, std::string& out);
    void setConnected(bool connected);
    void removeLockFile();

    void dispatch(Command& command, MutableResponse& response, bool& posts);
    void handleSetAttribute(Command& command, MutableResponse& response);
    void handleCalibrate(Command& command, MutableResponse& response);
    bool handleMeasure(Command& command, MutableResponse& response);
    void handleLock(Command& command);
    void handleUnlock(Command& command);
    Command hardwareCommand(const std::string& name);

    void setMatchingCriteria();
    std::string familyName();
    DevicePluginConnectResult tryToConnect(const std::string& family, const char* exceptionText,
                                           DevicePluginConnectResult whenImpossible);
    bool disconnectLoggingExceptions(const char* exceptionText);

    // For what the watcher thread shares with the main thread, the making of mDevice included. Nothing else
    // is locked or called under it, but what makes the record.
    Base::Mutex mRunStateLock;
    bool mExiting GUARDED_BY(mRunStateLock) = false; // exitDeviceService has begun

    pthread_t mParentThread{};
    bool mParentThreadRuns = false;
};

} // namespace VellDevice

// Starts the plug-in, with or without the device center's loop ("-norunloop" as the third of three
// arguments), and returns its exit code.
int __InternalDevicePluginRunWithInstance(VellDevice::DevicePlugin* plugin, int argc, const char** argv);
