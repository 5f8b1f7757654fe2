// Command dispatch, the client lock, and the publication of the device's status.

#include "DevicePlugin.h"
#include "Trace.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace VellDevice {

const std::string DevicePluginCommandPoll = "Poll";
const std::string DevicePluginCommandpoll = "poll";
const std::string DevicePluginCommandStatus = "Status";
const std::string DevicePluginCommandDisable = "Disable";
const std::string DevicePluginCommandEnable = "Enable";
const std::string DevicePluginCommandQuit = "Quit";
const std::string DevicePluginCommandCalibrate = "Calibrate";
const std::string DevicePluginCommandMeasure = "Measure";
const std::string DevicePluginCommandSetMode = "SetMode";
const std::string DevicePluginCommandSetAttribute = "SetAttribute";
const std::string DevicePluginCommandGetCommands = "GetCommands";
const std::string DevicePluginCommandLock = "Lock";
const std::string DevicePluginCommandUnlock = "Unlock";
const std::string DevicePluginCommandClearCalibration = "ClearCalibration";
const std::string DevicePluginCommandBeginMeasure = "BeginMeasure";
const std::string DevicePluginCommandBeginCalibrate = "BeginCalibrate";
const std::string DevicePluginCommandDieAQuickDeath = "DieAQuickDeath";
const std::string DevicePluginCommandUnproxy = "__Unproxy__";

const std::string DevicePluginCommandArgumentSource = "source";
const std::string DevicePluginCommandArgumentHardware = "hardware";
const std::string DevicePluginCommandArgumentMode = "Mode";
const std::string DevicePluginCommandArgumentKey = "Key";
const std::string DevicePluginCommandArgument_key = "key";
const std::string DevicePluginCommandArgumentValue = "value";

const std::string DevicePluginAttributeAutoCalibratesOnButtonPress = "AutoCalibratesOnButtonPress";
const std::string DevicePluginAttributeDisplayName = "DisplayName";
const std::string DevicePluginAttributeDevicePath = "DevicePath";
const std::string DevicePluginAttributeDeviceProcessPID = "DeviceProcessPID";
const std::string DevicePluginAttributeDeviceLogName = "DeviceLogName";
const std::string DevicePluginAttributeTrue = "true";
const std::string DevicePluginAttributeFalse = "false";

const std::string DeviceModeSingleReflectance = "SingleReflectance";
const std::string DeviceModeScanningReflectance = "ScanningReflectance";

namespace {

constexpr double kLongestLock = 30.0; // seconds

std::string senderOf(const Command& command) {
    Receipt receipt;
    command.receipt(receipt);
    return receipt.processIdentifier();
}

bool isHarmless(const std::string& name) {
    return name == DevicePluginCommandGetCommands || name == DevicePluginCommandPoll ||
           name == DevicePluginCommandpoll || name == DevicePluginCommandStatus;
}

bool comesFromHardware(const Command& command) {
    return command.argumentForKey(DevicePluginCommandArgumentSource) == DevicePluginCommandArgumentHardware;
}

bool readsAsTrue(const char* value) {
    return strncasecmp(value, "true", 4) == 0 || strncasecmp(value, "yes", 3) == 0 ||
           strncasecmp(value, "t", 1) == 0 || strncasecmp(value, "y", 1) == 0;
}

VellArrayRef argumentsOf(VellDictionaryRef commands, const std::string& name) {
    return static_cast<VellArrayRef>(
        VellDictionaryGetValueForKey(commands, VellConstStringCreateWithCString(name.c_str())));
}

} // namespace

// --- The command table

void DevicePlugin::registerCommand(const std::string& name) {
    VELL_TRACE();
    registerDefaultCommands();
    if (argumentsOf(mCommands, name) != nullptr)
        return;
    const VellArrayRef arguments = VellArrayCreate();
    VellDictionarySetValueForKey(mCommands, VellConstStringCreateWithCString(name.c_str()), arguments);
    VellRelease(arguments);
}

void DevicePlugin::registerCommandArgument(const std::string& name, const std::string& argument) {
    VELL_TRACE();
    registerDefaultCommands();
    registerCommand(name);
    VellArrayAppendValue(argumentsOf(mCommands, name), VellConstStringCreateWithCString(argument.c_str()));
}

void DevicePlugin::registerDefaultCommands() {
    VELL_TRACE();
    if (mCommands != nullptr)
        return;
    mCommands = VellDictionaryCreate();
    registerCommand(DevicePluginCommandGetCommands);
    registerCommand(DevicePluginCommandPoll);
    registerCommand(DevicePluginCommandpoll);
    registerCommand(DevicePluginCommandStatus);
    registerCommand(DevicePluginCommandDisable);
    registerCommand(DevicePluginCommandEnable);
    registerCommand(DevicePluginCommandQuit);
    registerCommandArgument(DevicePluginCommandMeasure, DevicePluginCommandArgumentSource);
    registerCommandArgument(DevicePluginCommandSetMode, DevicePluginCommandArgumentMode);
    registerCommandArgument(DevicePluginCommandCalibrate, DevicePluginCommandArgumentSource);
    registerCommandArgument(DevicePluginCommandSetAttribute, DevicePluginCommandArgumentKey);
    registerCommandArgument(DevicePluginCommandSetAttribute, DevicePluginCommandArgumentValue);
}

// --- Dispatch

void DevicePlugin::didReceiveCommand(Command& command) {
    VELL_TRACE();
    if (*command.devicePath() != '\0' && mDevicePath != nullptr && VellStringGetLength(mDevicePath) > 0) {
        const VellStringRef theirs =
            VellDeviceCommandGetDevicePath(static_cast<VellDeviceCommandRef>(command.objectPointer()));
        if (VellStringCompare(mDevicePath, theirs, 1) != 0)
            return; // for another instance of the same type
    }
    const std::string name = command.name();
    VellLogDebug("[DevicePlugin::didReceiveCommand] %s\n", name.c_str());
    if (name == DevicePluginCommandDieAQuickDeath) {
        if (!IsDying())
            die_a_QuickDeath();
        return;
    }
    if (name == DevicePluginCommandUnproxy)
        return;

    std::string deviceName;
    this->deviceName(deviceName);
    command.setDeviceName(deviceName);
    command.setDevicePath(textOf(mDevicePath));
    MutableResponse response(command);
    response.setCode(kSuccess);
    response.setMessage("");

    if (checkLockAndRespondAccordinglyForCommand(command)) {
        response.setCode(kLockedByAnother);
        response.send();
        runLoopOnce();
        return;
    }

    bool posts = true;
    try {
        dispatch(command, response, posts);
    } catch (...) {
        VellLogError("[DevicePlugin::didReceiveCommand] - exception in cmd %s\n", name.c_str());
        response.setCode(kInstrumentFailure);
        posts = true;
    }

    announceStatus();
    if (posts) {
        VellLogInfo("[DevicePlugin::didReceiveCommand] - posting response for cmd %s\n", name.c_str());
        // Only for a failure: asking the instrument can mean waiting for the strip that it is reading.
        if (response.code() != kSuccess) {
            if (const char* const text = lastErrorWhateverHappens())
                response.setMessage(text);
        }
        response.send();
    }
    runLoopOnce();
}

const char* DevicePlugin::lastErrorWhateverHappens() {
    try {
        return sdkGetLastError();
    } catch (...) {
        VellLogError("[DevicePlugin::didReceiveCommand] - exception while reading the last error\n");
        return nullptr;
    }
}

void DevicePlugin::dispatch(Command& command, MutableResponse& response, bool& posts) {
    const std::string name = command.name();
    if (name == DevicePluginCommandLock) {
        handleLock(command);
    } else if (name == DevicePluginCommandUnlock) {
        handleUnlock(command);
    } else if (name == DevicePluginCommandClearCalibration) {
        device()->setCalibrationStatus(0);
        clearCalibration();
        announceStatus();
    } else if (name == DevicePluginCommandGetCommands) {
        response.setData(Data(VellCoderCopyEncodedDataWithRootObject(mCommands), true));
    } else if (name == DevicePluginCommandPoll || name == DevicePluginCommandpoll ||
               name == DevicePluginCommandStatus) {
        posts = false;
        announceStatus();
    } else if (name == DevicePluginCommandDisable) {
        VellLogWarning("[DevicePlugin::didReceiveCommand] - Cmd Disable call is deprecated\n");
        response.setCode(kSuccess);
    } else if (name == DevicePluginCommandEnable) {
        VellLogWarning("[DevicePlugin::didReceiveCommand] - Cmd Enable call is deprecated\n");
        response.setCode(kSuccess);
    } else if (name == DevicePluginCommandSetAttribute) {
        handleSetAttribute(command, response);
    } else if (name == DevicePluginCommandQuit) {
        // Answered, and nothing else: a client may not end a device that others use.
    } else if (name == DevicePluginCommandCalibrate) {
        handleCalibrate(command, response);
    } else if (name == DevicePluginCommandMeasure) {
        posts = handleMeasure(command, response);
    } else if (name == DevicePluginCommandSetMode) {
        if (device()->calibrationStatus() == -1)
            response.setCode(kCalibrationUnderWay);
        else
            response.setCode(setMode(command.argumentForKey(DevicePluginCommandArgumentMode)));
    } else if (!processCommand(command, response)) {
        response.setCode(kCommandNotHandled);
    }
}

void DevicePlugin::handleSetAttribute(Command& command, MutableResponse& response) {
    const std::string value = command.argumentForKey(DevicePluginCommandArgumentValue);
    const std::string key = command.argumentForKey(DevicePluginCommandArgument_key);
    if (key == DevicePluginAttributeAutoCalibratesOnButtonPress) {
        setAutoCalibrateOnButtonPress(readsAsTrue(value.c_str()));
        response.setCode(kSuccess);
        return;
    }
    if (!processCommand(command, response))
        response.setCode(kCommandNotHandled);
    announceStatus();
}

void DevicePlugin::handleCalibrate(Command& command, MutableResponse& response) {
    std::string name;
    deviceName(name);
    Command begin(DevicePluginCommandBeginCalibrate);
    begin.setDeviceName(name);
    begin.setDevicePath(textOf(mDevicePath));
    MutableResponse beginning(begin);
    beginning.setCode(kSuccess);
    beginning.setMessage("");
    beginning.send();
    runLoopOnce();

    if (comesFromHardware(command) && !mAutoCalibratesOnButtonPress)
        response.setCode(kAutoCalibrationOff);
    else
        response.setCode(calibrate());
}

// Whether the dispatcher is to send the response.
bool DevicePlugin::handleMeasure(Command& command, MutableResponse& response) {
    if (device()->calibrationStatus() != 1 && !canMeasureIfNotCalibrated()) {
        response.setCode(mAutoCalibratesOnButtonPress ? kNotCalibrated : kAutoCalibrationOff);
    } else if (!comesFromHardware(command) && !device()->softwareMeasurementAvailable()) {
        response.setCode(kSoftwareMeasurementUnavailable);
    } else if (wantsAdvancedMeasurements()) {
        advancedMeasure(command);
        return false;
    } else {
        MutableMeasurementSet set;
        const Error code = measure(set);
        response.setCode(code);
        if (code == kSuccess)
            response.setMeasurementSet(set);
    }
    return true;
}

// --- Status

void DevicePlugin::announceStatus() {
    VELL_TRACE();
    announceStatusNoRunLoop();
    runLoopOnce();
}

void DevicePlugin::announceStatusNoRunLoop() {
    VELL_TRACE();
    if (!isConnected() || *device()->name() == '\0') {
        VellLogDebug("[DevicePlugin::announceStatusNoRunLoop] - Cannot annouce status at this time.\n");
        return;
    }
    MutableDevice& record = *device();
    record.setAttributeForKey(mAutoCalibratesOnButtonPress ? DevicePluginAttributeTrue
                                                           : DevicePluginAttributeFalse,
                              DevicePluginAttributeAutoCalibratesOnButtonPress);
    std::string text;
    displayName(text);
    record.setAttributeForKey(text, DevicePluginAttributeDisplayName);
    record.setLockHolder(mLockHolder);
    record.setAttributeForKey(textOf(mDevicePath), DevicePluginAttributeDevicePath);
    char processIdentifier[1024];
    std::snprintf(processIdentifier, sizeof processIdentifier, "%d", getpid());
    record.setAttributeForKey(processIdentifier, DevicePluginAttributeDeviceProcessPID);
    record.setAttributeForKey(mLogFileName, DevicePluginAttributeDeviceLogName);
    serviceVersion(text);
    record.setServiceVersion(text);
    record.postStatus();
}

// --- The client lock

bool DevicePlugin::checkLockAndRespondAccordinglyForCommand(const Command& command) {
    VELL_TRACE();
    if (mLockHolder.empty() || comesFromHardware(command))
        return false;
    if (senderOf(command) == mLockHolder) {
        startLockTimer(); // the holder is still there
        return false;
    }
    return !isHarmless(command.name());
}

void DevicePlugin::handleLock(Command& command) {
    mLockHolder = senderOf(command);
    startLockTimer();
    announceStatus();
}

void DevicePlugin::handleUnlock(Command& command) {
    if (senderOf(command) == mLockHolder) {
        mLockHolder.clear();
        killLockTimer();
    }
    announceStatus();
}

bool DevicePlugin::isLocked() {
    return !mLockHolder.empty();
}

void DevicePlugin::startLockTimer() {
    VELL_TRACE();
    if (mLockTimer != nullptr) {
        CFRunLoopTimerInvalidate(mLockTimer);
        CFRelease(mLockTimer);
    }
    const double timeout = std::clamp(timeoutForLockInSeconds(), 0.0, kLongestLock);
    CFRunLoopTimerContext context{0, this, nullptr, nullptr, nullptr};
    mLockTimer = CFRunLoopTimerCreate(kCFAllocatorDefault, CFAbsoluteTimeGetCurrent() + timeout, 0, 0, 0,
                                      deviceLockTimerCallback, &context);
    CFRunLoopAddTimer(VellDeviceCenterGetRunLoop(VellDeviceCenterGetDistributedCenter()), mLockTimer,
                      kCFRunLoopDefaultMode);
}

void DevicePlugin::killLockTimer() {
    VELL_TRACE();
    if (mLockTimer == nullptr)
        return;
    CFRunLoopTimerInvalidate(mLockTimer);
    CFRelease(mLockTimer);
    mLockTimer = nullptr;
}

void DevicePlugin::deviceLockTimerCallback(CFRunLoopTimerRef, void* info) {
    VELL_TRACE();
    auto* const self = static_cast<DevicePlugin*>(info);
    if (self->mLockTimer != nullptr) {
        CFRunLoopTimerInvalidate(self->mLockTimer);
        CFRelease(self->mLockTimer);
        self->mLockTimer = nullptr;
    }
    self->mLockHolder.clear();
    self->announceStatus();
}

} // namespace VellDevice
