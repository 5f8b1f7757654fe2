// A folder of its own for a test, with the platform's runtime, hardware and log folders in it, gone
// afterwards.
#pragma once

#include <filesystem>
#include <string>

namespace test {

class ScratchFolder {
public:
    ScratchFolder(); // sets VELL_RUNTIME_DIR, VELL_HARDWARE_DIR and VELL_LOG_DIR
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const std::filesystem::path& path() const { return mPath; }
    std::filesystem::path hardware() const { return mPath / "hardware"; }
    // Replaces a file by rename, as writers of hardware files do.
    void write(const std::filesystem::path& file, const std::string& contents) const;
    // Everything that was logged.
    std::string log() const;
    bool logged(const std::string& text) const { return log().find(text) != std::string::npos; }
    // Makes a bundle with the driver's properties, and `extra` beside them; its path.
    std::filesystem::path bundle(const std::string& extra = "") const;

private:
    std::filesystem::path mPath;
};

// A property list of one dictionary.
std::string plist(const std::string& entries);
// The hardware file of a table at `devicePath`, with its spectrophotometer on it or not.
std::string hardwareFile(const std::string& devicePath, bool withSpectrophotometer = true);

} // namespace test
