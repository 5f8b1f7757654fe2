#pragma once

#include "Output.h"
#include "Session.h"

#include <optional>
#include <string>

namespace tablectl {

class Simulation;

// What holds for every command.
struct Options {
    std::string device; // name, path or serial number; "": the only one
    bool json = false;
    std::optional<std::string> simulated; // the layout of the chart on a virtual table of its own
    std::optional<std::string> replayed;  // the recording that is played back in its place
    double noise = 0;                     // of that table's readings
    std::string record;                   // the file for a recording of what is asked of that table; "": none
    std::optional<double> timeScale;
};

struct Context {
    const Options& options;
    Session& session;
    Output& output;
    Simulation* simulation; // null without --simulated
};

} // namespace tablectl
