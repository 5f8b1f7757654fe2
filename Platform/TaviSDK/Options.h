#pragma once

#include <string>
#include <string_view>
#include <unordered_map>

namespace TaviSDK {

// The named settings of table and spectrophotometer: what keys there are, their defaults, and which texts
// they take.
//
// Knows nothing of what the settings do. Options whose text is measured or comes from elsewhere (serial
// numbers, "LastError") are the Instrument's; they are not in here. Not thread-safe: the Instrument's call
// lock guards it.
class Options {
public:
    Options();

    // Throws Refusal for a key that does not exist or a value that is impossible; the old value stays then.
    void set(std::string_view key, std::string_view value);
    // The text; null for a key that is not in here.
    const std::string* find(std::string_view key) const;
    // The same, for keys that are known to exist.
    const std::string& text(std::string_view key) const;
    double number(std::string_view key) const;
    bool isYes(std::string_view key) const { return text(key) == "yes"; }
    // Whether the key is a setting of the spectrophotometer, which can be written only while it is there.
    bool isSpectrophotometers(std::string_view key) const;
    void resetToDefaults();

private:
    std::unordered_map<std::string_view, std::string> mValues;
};

// The two values of "MeasurementMode".
inline constexpr std::string_view kScanningMode = "ScanningReflectance";
inline constexpr std::string_view kSingleMode = "SingleReflectance";

} // namespace TaviSDK
