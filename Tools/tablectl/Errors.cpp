#include "Errors.h"

#include <map>

namespace tablectl {

std::string meaningOfCode(int code) {
    static const std::map<int, std::string> kMeanings = {
        {-1, "the device does not do this"},
        {-1022, "the device is locked by another client"},
        {-1023, "the measurement was cancelled"},
        {1, "the instrument has no such option"},
        {3, "no table answers"},
        {4, "the mode cannot change while a measurement runs"},
        {5, "no calibration while a measurement runs"},
        {6, "the device measures charts and positions only"},
        {7, "the device has no such mode"},
        {8, "a calibration is under way"},
        {10, "the option cannot be written"},
        {11, "the device is not calibrated"},
        {13, "the device is not ready to measure"},
        {14, "the instrument failed"},
        {15, "the device knows no such command"},
        {16, "the calibration failed"},
        {22, "the chart has no rows or no columns"},
        {23, "a measurement is running"},
        {24, "not in this measurement mode"},
        {25, "the instrument recognised a different number of patches"},
        {35, "no spectrophotometer on the table"},
        {36, "not a position on the table"},
        {47, "the device is not calibrated and does not calibrate on a press of its button"},
    };
    const auto found = kMeanings.find(code);
    return found != kMeanings.end() ? found->second : "the instrument failed";
}

} // namespace tablectl
