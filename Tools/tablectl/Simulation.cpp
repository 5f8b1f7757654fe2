#include "Simulation.h"

#include "Chart.h"
#include "Errors.h"
#include "HardwareFile.h"

#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <system_error>

namespace tablectl {

namespace {

constexpr std::chrono::seconds kServiceEnd{20};

std::filesystem::path makeTemporaryFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "tablectl-XXXXXX").string();
    if (!mkdtemp(name.data()))
        throw DeviceFailure("cannot make a folder " + name + ": " + std::strerror(errno));
    return name;
}

} // namespace

Simulation::Simulation(const Options& options) {
    readLayout(options.simulated); // an unreadable one is reported here, not from inside the plug-in
    mFolder = makeTemporaryFolder();
    try {
        setenv("VELL_RUNTIME_DIR", mFolder.c_str(), 1);
        setenv("VELL_HARDWARE_DIR", (mFolder / "hardware").c_str(), 1);
        std::filesystem::create_directory(mFolder / "hardware");
        HardwareFile table = HardwareFile::make(mFolder / "hardware" / "table.plist", "usb:virtual-table");
        table.set("Chart", std::filesystem::absolute(options.simulated).string());
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
