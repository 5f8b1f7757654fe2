#pragma once

namespace VellDevice {

// The service's status codes: what the virtual operations of a device return and responses carry. The names
// are for the values that the plug-in itself decides on; others come from the instrument's codes
// (TaviIO::sdkError2Error).
enum Error : int {
    kSuccess = 0,
    kModeWhileMeasuring = 4,
    kCalibrateWhileMeasuring = 5,
    kMeasureNotOffered = 6,
    kModeNotOffered = 7,
    kCalibrationUnderWay = 8,
    kNotCalibrated = 11,
    kSoftwareMeasurementUnavailable = 13,
    kInstrumentFailure = 14,
    kCommandNotHandled = 15,
    kChartMakesNoSense = 22,
    kMeasuring = 23,
    kNoInstrument = 35,
    kAutoCalibrationOff = 47,
    kNotImplemented = -1,
    kLockedByAnother = -1022,
    kMeasureCancelled = -1023,
};

// Process exit code: connecting failed, the service is asked to start the plug-in again. A parent sees 8 bits
// of it.
constexpr int kExitForRestart = -1020;

// What DevicePlugin::connect came to; any other value counts as failed.
enum DevicePluginConnectResult : int {
    kConnected = 0,
    kConnectFailed = 2,
    kConnectTryAgain = 3, // once, after 5 seconds
};

} // namespace VellDevice
