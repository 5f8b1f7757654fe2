#include "Simulation.h"

#include "Chart.h"
#include "Errors.h"
#include "Files.h"
#include "HardwareFile.h"
#include "RecordingFile.h"

#include <stdlib.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <system_error>

namespace tablectl {

namespace {

constexpr std::chrono::seconds kServiceEnd{20};
constexpr std::size_t kLongestFolder = sizeof(sockaddr_un::sun_path) - sizeof "/12345678.sock";

std::filesystem::path makeTemporaryFolder() {
    std::string name = (temporaryFolder() / "tablectl-XXXXXX").string();
    if (name.size() > kLongestFolder)
        throw DeviceFailure("the folder for temporary files has too long a name for sockets: " + name);
    if (!mkdtemp(name.data()))
        throw DeviceFailure("cannot make a folder " + name + ": " + std::strerror(errno));
    return name;
}

// The plug-in's process inherits the name. What is there is replaced, as with every output.
void prepareRecording(const Options& options) {
    const std::string& file = options.record;
    if (file.empty())
        return;
    for (const auto& needed : {options.simulated, options.replayed}) {
        if (needed && isSameFile(file, *needed))
            throw UsageFailure(file + ": the recording would replace what is simulated");
    }
    checkWritable(file);
    std::error_code error;
    if (std::filesystem::is_regular_file(file, error))
        std::filesystem::remove(file, error);
    setenv("TAVI_RECORDING", std::filesystem::absolute(file).c_str(), 1);
}

} // namespace

Simulation::Simulation(const Options& options) {
    // What is unreadable is reported here, not from inside the plug-in.
    std::string devicePath;
    if (options.replayed)
        devicePath = recordedPath(readRecordingFile(*options.replayed));
    else
        checkVirtualChart(options.simulated.value());
    if (devicePath.empty())
        devicePath = "usb:virtual-table";
    prepareRecording(options);
    mFolder = makeTemporaryFolder();
    try {
        setenv("VELL_RUNTIME_DIR", mFolder.c_str(), 1);
        setenv("VELL_HARDWARE_DIR", (mFolder / "hardware").c_str(), 1);
        std::ofstream(mFolder / ".temporary"); // tells the service to remove the folder
        std::filesystem::create_directory(mFolder / "hardware");
        HardwareFile table = HardwareFile::make(mFolder / "hardware" / "table.plist", devicePath);
        table.set(
            options.replayed ? "Recording" : "Chart",
            std::filesystem::absolute(options.replayed ? *options.replayed : *options.simulated).string());
        table.set("TimeScale", options.timeScale.value_or(1));
        table.set("Noise", options.noise);
        table.save();
        mService.emplace(tools::programFolder() / "vell-service",
                         std::vector<std::string>{"--quiet", "--temporary", std::to_string(getpid())});
    } catch (const std::exception& error) {
        std::error_code ignored;
        std::filesystem::remove_all(mFolder, ignored);
        throw DeviceFailure(error.what());
    }
}

Simulation::~Simulation() {
    mService->signal(SIGTERM);
    mService->waitFor(kServiceEnd);
    mService.reset();
    std::error_code ignored;
    std::filesystem::remove_all(mFolder, ignored);
}

void Simulation::checkService() {
    if (const auto end = mService->poll())
        throw DeviceFailure("the service ended, " + end->text());
}

} // namespace tablectl
