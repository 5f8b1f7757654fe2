// What the instrument SDK answers, and what clients hear instead: names for the codes that mean something to
// the driver.
#pragma once

#include "Error.h"

// Statuses of the SDK's calls.
namespace InstrumentStatus {
constexpr int kDone = 0;
constexpr int kNoTable = 1; // the table does not answer
constexpr int kUnknownOption = 2;
constexpr int kNotCalibrated = 3; // for the reading that was asked for
constexpr int kWrongMode = 5;     // a strip in the mode for single readings, or the other way round
constexpr int kCalibrationFailed = 6;
constexpr int kWrongNumberOfSamples = 7; // the driver's own, too
constexpr int kReadOnlyOption = 8;
constexpr int kStripNotRecognised = 11;
constexpr int kNoSpectrophotometer = 100; // the table answers and carries none
constexpr int kOutsideTable = 101;
} // namespace InstrumentStatus

// Clients' codes that only a status of the SDK comes to; the others are in Error.h.
namespace ClientCode {
constexpr auto kUnknownOption = static_cast<VellDevice::Error>(1);
constexpr auto kNoTable = static_cast<VellDevice::Error>(3);
constexpr auto kReadOnlyOption = static_cast<VellDevice::Error>(10);
constexpr auto kCalibrationFailed = static_cast<VellDevice::Error>(16);
constexpr auto kWrongMode = static_cast<VellDevice::Error>(24);
constexpr auto kWrongNumberOfSamples = static_cast<VellDevice::Error>(25);
constexpr auto kOutsideTable = static_cast<VellDevice::Error>(36);
} // namespace ClientCode
