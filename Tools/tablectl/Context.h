#pragma once

#include "Output.h"
#include "Session.h"

#include <functional>
#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace tablectl {

class Simulation;

// What holds for every command.
struct Options {
    std::string device; // name, path or serial number; "": the only one
    bool json = false;
    std::string simulated; // the layout of the chart on a virtual table; "": none
    double noise = 0;      // of that table's readings
    std::optional<double> timeScale;
};

struct Context {
    const Options& options;
    Session& session;
    Output& output;
    Simulation* simulation; // null without --simulated
};

// A command, ready to run on its thread. It ends by returning or with a Failure.
using Action = std::function<void(Context&)>;

// Adds a command of the given name; `action` is called when the command line names it.
CLI::App& addCommand(CLI::App& app, Action& chosen, const std::string& name, const std::string& description,
                     Action action);

// Each adds the commands of its file. Arguments that a command line gives stay valid for the life of the
// program.
void addInformationCommands(CLI::App& app, Action& chosen); // list, status, commands, get
void addControlCommands(CLI::App& app, Action& chosen);     // set, mode, calibrate, move, position, home, ...
void addScanCommand(CLI::App& app, Action& chosen, Options& options);
void addSimulateCommand(CLI::App& app, Action& chosen);

// Sets the time scale of the virtual instrument with this device path; throws DeviceFailure when it is none.
void setTimeScale(const std::string& devicePath, double timeScale);

} // namespace tablectl
