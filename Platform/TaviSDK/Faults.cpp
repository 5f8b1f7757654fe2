#include "Faults.h"

#include <Base/Number.h>

#include <algorithm>
#include <array>
#include <stdexcept>

namespace TaviSDK {

namespace {

constexpr std::string_view kPrefix = "Tavi_";
constexpr std::array<std::string_view, 13> kCalls = {"SetOption",
                                                     "GetOption",
                                                     "IsTableConnected",
                                                     "GoToHomePosition",
                                                     "SetPosition",
                                                     "GetPosition",
                                                     "Calibrate",
                                                     "TriggerMeasurement",
                                                     "Scan",
                                                     "GetNumberOfAvailableSamples",
                                                     "GetSpectrum",
                                                     "GetTriStimulus",
                                                     "RegisterDeviceMessageHandler"};

void parseEffect(std::string_view text, Fault& fault) {
    constexpr std::string_view kHang = "hang=";
    constexpr double kLongest = 86400.0;
    if (text == "throw") {
        fault.effect = Fault::Effect::Throw;
    } else if (text.starts_with(kHang)) {
        fault.effect = Fault::Effect::Hang;
        const auto seconds = Base::parseNumber<double>(text.substr(kHang.size()));
        if (!seconds || !(*seconds >= 0.0 && *seconds <= kLongest)) {
            throw std::invalid_argument("the seconds must be a number from 0 to 86400");
        }
        fault.seconds = *seconds;
    } else if (const auto status = Base::parseNumber<int>(text)) {
        fault.status = *status;
    } else {
        throw std::invalid_argument("the effect must be a status, \"throw\" or \"hang=SECONDS\"");
    }
}

} // namespace

Fault parseFault(std::string_view text) {
    const std::size_t first = text.find(':');
    const std::size_t second = first == text.npos ? text.npos : text.find(':', first + 1);
    if (second == text.npos) {
        throw std::invalid_argument("the form is CALL:N:EFFECT");
    }
    std::string_view call = text.substr(0, first);
    if (call.starts_with(kPrefix)) {
        call.remove_prefix(kPrefix.size());
    }
    if (std::find(kCalls.begin(), kCalls.end(), call) == kCalls.end()) {
        throw std::invalid_argument("there is no call \"" + std::string(call) + "\"");
    }
    Fault fault;
    fault.call = std::string(kPrefix) + std::string(call);
    fault.occurrence = Base::parseNumber<long>(text.substr(first + 1, second - first - 1)).value_or(0);
    if (fault.occurrence < 1) {
        throw std::invalid_argument("the number of the call must be 1 or more");
    }
    parseEffect(text.substr(second + 1), fault);
    return fault;
}

} // namespace TaviSDK
