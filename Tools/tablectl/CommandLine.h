#pragma once

#include "Context.h"

#include <functional>
#include <optional>
#include <string>

namespace tablectl {

// What the user typed: the command, ready to run on its thread, and what holds for every command.
struct CommandLine {
    Options options;
    std::string runtimeFolder; // "": the usual one
    std::function<void(Context&)> command;
};

// Reads the program's arguments. When they ask for help only, or make no sense, that is printed, and the exit
// status comes instead of a command.
std::optional<int> readCommandLine(int argc, const char* const* argv, CommandLine& line);

} // namespace tablectl
