#pragma once

#include <support/Ref.h>

#include <filesystem>
#include <string>
#include <vector>

namespace tablectl {

// The file that stands for one attached device in the hardware folder, with the settings of the virtual
// instrument. Read whole, changed in memory, and replaced in one step, so that nobody ever reads half of it.
class HardwareFile {
public:
    // Throws DeviceFailure when the file cannot be read.
    static HardwareFile read(const std::filesystem::path& file);
    // A table of the kind that the plug-in is for, with a spectrophotometer on it.
    static HardwareFile make(const std::filesystem::path& file, const std::string& devicePath);
    // Those of the hardware folder; files that cannot be read are left out.
    static std::vector<HardwareFile> all();

    const std::filesystem::path& file() const { return mFile; }
    std::string devicePath() const;
    std::string serialNumber() const;     // "" when the file has none
    VellDictionaryRef simulation() const; // empty when the file has none

    void set(const char* key, const std::string& text);
    void set(const char* key, double number);
    void set(const char* key, long number);
    void set(const char* key, bool flag);
    void setSpectrophotometer(bool onTable);
    bool hasSpectrophotometer() const;

    void save() const; // throws DeviceFailure

private:
    explicit HardwareFile(std::filesystem::path file);

    void setValue(const char* key, tools::Ref<VellObjectRef> value);

    std::filesystem::path mFile;
    tools::Ref<VellDictionaryRef> mRoot;
};

// Sets the time scale of the virtual instrument with this device path; throws DeviceFailure when it is none.
void setTimeScale(const std::string& devicePath, double timeScale);

} // namespace tablectl
