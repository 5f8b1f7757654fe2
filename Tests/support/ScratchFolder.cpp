#include "ScratchFolder.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace test {

ScratchFolder::ScratchFolder() {
    std::string name = (fs::temp_directory_path() / "tavi-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("no scratch folder");
    mPath = name;
    fs::create_directory(hardware());
    setenv("VELL_RUNTIME_DIR", mPath.c_str(), 1);
    setenv("VELL_HARDWARE_DIR", hardware().c_str(), 1);
    setenv("VELL_LOG_DIR", (mPath / "log").c_str(), 1);
    setenv("VELL_LOG_LEVEL", "runtime", 1);
}

ScratchFolder::~ScratchFolder() {
    std::error_code ignored;
    fs::remove_all(mPath, ignored);
}

void ScratchFolder::write(const fs::path& file, const std::string& contents) const {
    const fs::path temporary = file.string() + ".new";
    std::ofstream(temporary) << contents;
    fs::rename(temporary, file);
}

std::string ScratchFolder::log() const {
    std::ostringstream text;
    if (fs::exists(mPath / "log"))
        for (const auto& entry : fs::directory_iterator(mPath / "log"))
            text << std::ifstream(entry.path()).rdbuf();
    return text.str();
}

fs::path ScratchFolder::bundle(const std::string& extra) const {
    const fs::path bundle = mPath / "Test.bundle";
    fs::create_directories(bundle / "Contents");
    write(bundle / "Contents" / "Info.plist",
          plist("<key>VellPluginDeviceName</key><string>TableDevice</string>"
                "<key>VellPluginDeviceDisplayName</key><string>Table</string>"
                "<key>CFBundleVersion</key><string>7.8.9</string>"
                "<key>VellDevicePluginVendorID</key><integer>2417</integer>"
                "<key>VellDevicePluginProductID</key><integer>8193</integer>"
                "<key>VellDevicePluginDeviceClassx86</key><string>IOUSBDevice</string>"
                "<key>VellDevicePluginDeviceClassx64</key><string>IOUSBHostDevice</string>" +
                extra));
    return bundle;
}

std::string plist(const std::string& entries) {
    return R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)" + entries +
           "</dict></plist>";
}

std::string hardwareFile(const std::string& devicePath, bool withSpectrophotometer) {
    const std::string sibling = "<dict><key>VendorID</key><integer>2417</integer>"
                                "<key>ProductID</key><integer>8192</integer></dict>";
    return plist("<key>Path</key><string>" + devicePath +
                 "</string><key>VendorID</key><integer>2417</integer>"
                 "<key>ProductID</key><integer>8193</integer>"
                 "<key>DeviceClass</key><string>IOUSBHostDevice</string>"
                 "<key>Siblings</key><array>" +
                 (withSpectrophotometer ? sibling : "") + "</array>");
}

} // namespace test
