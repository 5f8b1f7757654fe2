#pragma once

#include "Context.h"

#include <support/ChildProcess.h>

#include <filesystem>
#include <optional>

namespace tablectl {

// A service of this command's own, in a runtime folder of its own, with one virtual table that holds a chart.
// Service and folder end with the object; the service itself sees to that when this process is killed.
class Simulation {
public:
    // Main thread, before the session exists. Points this process at the new runtime folder.
    explicit Simulation(const Options& options);
    Simulation(const Simulation&) = delete;
    Simulation& operator=(const Simulation&) = delete;
    ~Simulation();

    void checkService(); // throws DeviceFailure when the service has ended

private:
    std::filesystem::path mFolder;
    std::optional<tools::ChildProcess> mService;
};

} // namespace tablectl
