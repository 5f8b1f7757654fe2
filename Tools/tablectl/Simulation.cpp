#include "Simulation.h"

#include "Chart.h"
#include "Errors.h"
#include "Files.h"
#include "HardwareFile.h"

#include <stdlib.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
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

} // namespace

Simulation::Simulation(const Options& options) {
    const std::string layout = options.simulated.value();
    checkVirtualChart(layout); // an unreadable one is reported here, not from inside the plug-in
    mFolder = makeTemporaryFolder();
    try {
        setenv("VELL_RUNTIME_DIR", mFolder.c_str(), 1);
        setenv("VELL_HARDWARE_DIR", (mFolder / "hardware").c_str(), 1);
        std::filesystem::create_directory(mFolder / "hardware");
        HardwareFile table = HardwareFile::make(mFolder / "hardware" / "table.plist", "usb:virtual-table");
        table.set("Chart", std::filesystem::absolute(layout).string());
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
