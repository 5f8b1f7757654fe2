// What the SDK answers. The values are those of its interface.
#pragma once

#include <stdexcept>
#include <string>

namespace TaviSDK {

enum class Status : int {
    NotAsRecorded = -1, // a recording is played back, and this call does not follow it
    Ok = 0,
    NoTable = 1,               // the table does not answer
    UnknownOption = 2,         // no option of that name
    NotCalibrated = 3,         // a reading before the white calibration of its mode
    ImpossibleValue = 4,       // an option's value that makes no sense
    WrongMode = 5,             // a strip in the mode for single readings, or the other way round
    CalibrationFailed = 6,     // the white reference was not read
    NoSuchSample = 7,          // the sample memory holds fewer
    ReadOnly = 8,              // an option that cannot be written
    StripNotRecognised = 11,   // the strip does not run along the patches
    NoSpectrophotometer = 100, // the table answers and carries no spectrophotometer
    OutsideTable = 101,        // a position that the head cannot reach, or that is no position
};

// Carries a status and its text out of the instrument; the interface turns it into the call's result and
// "LastError".
class Refusal : public std::runtime_error {
public:
    Refusal(Status status, const std::string& text) : std::runtime_error(text), mStatus(status) {}
    Status status() const noexcept { return mStatus; }

private:
    Status mStatus;
};

} // namespace TaviSDK
