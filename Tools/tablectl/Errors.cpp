#include "Errors.h"

#include <map>

namespace tablectl {

namespace {

struct Meaning {
    std::string text;
    bool isTheInstruments = false; // whose own text, when there is one, says more
};

const Meaning& meaningOf(int code) {
    static const std::map<int, Meaning> kMeanings = {
        {-1, {"the device does not do this"}},
        {-1022, {"the device is locked by another client"}},
        {-1023, {"the measurement was cancelled"}},
        {1, {"the instrument has no such option", true}},
        {3, {"no table answers", true}},
        {4, {"the mode cannot change while a measurement runs"}},
        {5, {"no calibration while a measurement runs"}},
        {6, {"the device measures charts and positions only"}},
        {7, {"the device has no such mode"}},
        {8, {"a calibration is under way"}},
        {10, {"the option cannot be written", true}},
        {11, {"the device is not calibrated"}},
        {13, {"the device is not ready to measure"}},
        {14, {"the instrument failed", true}},
        {15, {"the device knows no such command"}},
        {16, {"the calibration failed", true}},
        {22, {"the chart has no such rows or columns", true}},
        {23, {"a measurement is running"}},
        {24, {"not in this measurement mode", true}},
        {25, {"the instrument recognised a different number of patches", true}},
        {35, {"no spectrophotometer on the table"}},
        {36, {"not a position on the table", true}},
        {47, {"the device is not calibrated and does not calibrate on a press of its button"}},
    };
    static const Meaning kUnknown{"the instrument failed", true};
    const auto found = kMeanings.find(code);
    return found != kMeanings.end() ? found->second : kUnknown;
}

} // namespace

std::string meaningOf(int code, const std::string& message) {
    const Meaning& meaning = meaningOf(code);
    return meaning.isTheInstruments && !message.empty() ? message : meaning.text;
}

} // namespace tablectl
