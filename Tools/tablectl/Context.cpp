#include "Context.h"

#include <CLI/CLI.hpp>

namespace tablectl {

CLI::App& addCommand(CLI::App& app, Action& chosen, const std::string& name, const std::string& description,
                     Action action) {
    CLI::App* command = app.add_subcommand(name, description)->group("Commands");
    command->callback([&chosen, action = std::move(action)] { chosen = action; });
    return *command;
}

} // namespace tablectl
