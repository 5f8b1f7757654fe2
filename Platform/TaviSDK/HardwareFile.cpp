#include "HardwareFile.h"

#include <Base/File.h>
#include <Base/Number.h>
#include <Base/PropertyList.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>

namespace TaviSDK {

namespace {

using Base::stringIn;

constexpr std::size_t kLargestFile = std::size_t{1} << 20;
constexpr std::int64_t kSpectrophotometerVendor = 0x971;
constexpr std::int64_t kSpectrophotometerProduct = 0x2000;

// A number, which may also be written as text.
std::optional<double> numberIn(plist_t dictionary, const char* key) {
    if (const auto text = stringIn(dictionary, key)) {
        return Base::parseNumber<double>(*text);
    }
    return Base::realIn(dictionary, key);
}

bool hasSpectrophotometer(plist_t device) {
    bool isThere = false;
    Base::forEachElement(Base::arrayIn(device, "Siblings"), [&](plist_t sibling) {
        isThere = isThere || (Base::integerIn(sibling, "VendorID") == kSpectrophotometerVendor &&
                              Base::integerIn(sibling, "ProductID") == kSpectrophotometerProduct);
    });
    return isThere;
}

long wholeNumber(double value) {
    // Written so that what is no number gives 0; the limit keeps every count exact.
    constexpr double kLargest = 9e15;
    return value >= 0.0 ? static_cast<long>(std::min(value, kLargest)) : 0;
}

Simulation settings(plist_t device, const std::string& path) {
    const plist_t given = Base::dictionaryIn(device, "Simulation");
    Simulation result;
    result.spectrophotometer = hasSpectrophotometer(device);
    result.identifier =
        stringIn(given, "Identifier").value_or(stringIn(device, "Path").value_or(std::string()));
    result.serialNumber = stringIn(given, "SerialNumber").value_or(result.serialNumber);
    result.timeScale = numberIn(given, "TimeScale").value_or(result.timeScale);
    result.noise = numberIn(given, "Noise").value_or(result.noise);
    result.fault = stringIn(given, "Fault").value_or(std::string());
    result.presses = wholeNumber(numberIn(given, "Presses").value_or(0.0));
    result.table = Base::flagIn(given, "Table").value_or(true);
    const auto besideIt = [&](const char* key) {
        const std::string file = stringIn(given, key).value_or(std::string());
        return file.empty() ? file : (std::filesystem::path(path).parent_path() / file).string();
    };
    result.chart = besideIt("Chart");
    result.recording = besideIt("Recording");
    return result;
}

} // namespace

std::optional<Simulation> readHardwareFile(const std::string& path) {
    const Base::FileContents file = Base::readFile(path, kLargestFile);
    if (file.isMissing()) {
        Simulation absent;
        absent.table = false;
        absent.spectrophotometer = false;
        return absent;
    }
    const Base::PropertyListPtr device = file ? Base::parsePropertyList(file.bytes) : nullptr;
    if (!device || plist_get_node_type(device.get()) != PLIST_DICT) {
        return std::nullopt;
    }
    return settings(device.get(), path);
}

} // namespace TaviSDK
