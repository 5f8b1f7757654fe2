// What clients see of a device: its record, the commands it takes and the responses it gives.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace tablectl {

// In the order in which the device keeps them.
using TextTable = std::vector<std::pair<std::string, std::string>>;

struct DeviceStatus {
    std::string name;
    std::string displayName;
    std::string path;
    std::string serialNumber;
    std::string serviceVersion;
    std::vector<std::string> modes;
    std::string mode;
    int calibrationStatus = 0; // 0: not calibrated, -1: a calibration is under way, 1: calibrated
    std::string lockHolder;    // a process identifier; "" while nobody holds the lock
    bool enabled = false;
    bool available = false;
    bool connected = false;
    bool softwareMeasurementAvailable = false;
    TextTable attributes;

    std::string attribute(const std::string& key) const; // "" when there is none
    TextTable fields() const; // everything but the attributes, by the record's names
};

std::string calibrationText(int calibrationStatus);
std::string join(const std::vector<std::string>& texts, const std::string& separator);

struct Command {
    std::string name;
    TextTable arguments;
};

struct ColorValues {
    std::string colorSpace;
    std::vector<double> values;
    TextTable attributes;

    std::string attribute(const std::string& key) const; // "" when there is none
};

struct Measurement {
    std::string mode;
    std::vector<ColorValues> colors;
};

struct Reply {
    int code = 0;
    std::string message;
    std::string data; // bytes
    std::vector<Measurement> measurements;
};

} // namespace tablectl
