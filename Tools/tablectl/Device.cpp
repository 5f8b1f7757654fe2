#include "Device.h"

namespace tablectl {

namespace {

std::string valueOf(const TextTable& table, const std::string& key) {
    for (const auto& [name, value] : table) {
        if (name == key)
            return value;
    }
    return "";
}

std::string flag(bool on) {
    return on ? "yes" : "no";
}

} // namespace

std::string DeviceStatus::attribute(const std::string& key) const {
    return valueOf(attributes, key);
}

std::string ColorValues::attribute(const std::string& key) const {
    return valueOf(attributes, key);
}

TextTable DeviceStatus::fields() const {
    return {{"Name", name},
            {"DisplayName", displayName},
            {"Path", path},
            {"SerialNumber", serialNumber},
            {"ServiceVersion", serviceVersion},
            {"Modes", join(modes, " ")},
            {"Mode", mode},
            {"CalibrationStatus", std::to_string(calibrationStatus)},
            {"LockHolder", lockHolder},
            {"Enabled", flag(enabled)},
            {"Available", flag(available)},
            {"Connected", flag(connected)},
            {"SoftwareMeasurementAvailable", flag(softwareMeasurementAvailable)}};
}

std::string calibrationText(int calibrationStatus) {
    switch (calibrationStatus) {
    case 1:
        return "calibrated";
    case -1:
        return "calibrating";
    default:
        return "not calibrated";
    }
}

std::string join(const std::vector<std::string>& texts, const std::string& separator) {
    std::string result;
    for (const std::string& text : texts)
        result += (result.empty() ? "" : separator) + text;
    return result;
}

} // namespace tablectl
