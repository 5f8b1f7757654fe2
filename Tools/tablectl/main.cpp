// tablectl: the scanning table from the command line.
#include "Checks.h"
#include "Context.h"
#include "Errors.h"
#include "Simulation.h"

#include <support/SignalWatcher.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <thread>

namespace tablectl {
namespace {

void addOptions(CLI::App& app, Options& options, std::string& runtimeFolder) {
    app.set_version_flag("--version", "tablectl " TOOLS_VERSION);
    app.require_subcommand(1);
    app.fallthrough();
    app.get_formatter()->column_width(34);
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app.add_option("--runtime-dir", runtimeFolder, "Where the plug-ins' sockets are")
        ->type_name("DIR")
        ->envname("VELL_RUNTIME_DIR");
    app.add_option("--device", options.device, "Path, name or serial number, when there are several")
        ->type_name("NAME");
    app.add_flag("--json", options.json, "One JSON object per line on standard output");
    app.add_option("--simulated", options.simulated, "Use a virtual table of its own, with this chart on it")
        ->type_name("LAYOUT");
    app.add_option("--noise", options.noise, "Of the --simulated table's readings (standard deviation)")
        ->type_name("F")
        ->check(isNotNegative());
}

// Shows the help that was asked for, or says what is wrong with the command line. The exit status.
int explain(const CLI::App& app, const CLI::ParseError& error) {
    if (error.get_exit_code() == 0)
        return app.exit(error);
    const auto commands = app.get_subcommands();
    const auto unknown = app.remaining();
    std::string problem = error.what();
    if (commands.empty() && unknown.empty())
        problem = "name a command";
    else if (commands.empty())
        problem = std::string("no such ") + (unknown.front().starts_with("-") ? "option: " : "command: ") +
                  unknown.front();
    const std::string command = commands.empty() ? "" : " " + commands.front()->get_name();
    std::fprintf(stderr, "tablectl: %s\nSee tablectl%s --help.\n", problem.c_str(), command.c_str());
    return 2;
}

// Runs the command and reports how it failed. Command's thread.
int perform(const Action& action, Context& context) {
    try {
        action(context);
        return 0;
    } catch (const Failure& failure) {
        const auto* refused = dynamic_cast<const DeviceFailure*>(&failure);
        std::fprintf(stderr, "tablectl: %s\n", failure.what());
        try {
            if (context.output.isJson())
                context.output.object(Json()
                                          .add("event", "error")
                                          .add("code", refused ? refused->deviceCode : 0)
                                          .add("message", failure.what()));
        } catch (const Failure&) {
            // Nobody reads standard output any more.
        }
        return failure.exitStatus;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tablectl: %s\n", error.what());
        return 1;
    }
}

int run(const Options& options, const Action& action) {
    tools::makeFailedWritesErrors(); // or the head would stay where it is
    Session* session = nullptr;
    std::atomic<int> early{0};
    std::mutex mutex; // guards `session`
    const tools::SignalWatcher signals({SIGINT, SIGTERM, SIGHUP}, [&](int signal) {
        const std::lock_guard lock(mutex);
        if (session)
            session->interrupt(signal);
        else
            early = signal;
    });
    std::unique_ptr<Simulation> simulation;
    if (!options.simulated.empty())
        simulation = std::make_unique<Simulation>(options);

    Session here;
    {
        const std::lock_guard lock(mutex);
        session = &here;
        if (early != 0)
            here.interrupt(early);
    }
    Output output(options.json);
    Context context{options, here, output, simulation.get()};
    int status = 0;
    std::thread command([&] {
        status = perform(action, context);
        here.finish();
    });
    here.run();
    command.join();
    const std::lock_guard lock(mutex);
    session = nullptr;
    return status;
}

} // namespace

} // namespace tablectl

int main(int argc, char** argv) {
    using namespace tablectl;
    CLI::App app(
        "Drives a scanning table with a spectrophotometer.\n"
        "Exit status: 0 done, 1 the device refused or failed, 2 usage or an unreadable layout, 3 no such "
        "device,\n128 + N ended by signal N.",
        "tablectl");
    Options options;
    std::string runtimeFolder;
    Action action;
    addOptions(app, options, runtimeFolder);
    addInformationCommands(app, action);
    addControlCommands(app, action);
    addScanCommand(app, action, options);
    addSimulateCommand(app, action);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return explain(app, error);
    }
    try {
        if (!runtimeFolder.empty())
            setenv("VELL_RUNTIME_DIR", std::filesystem::absolute(runtimeFolder).c_str(), 1);
        return run(options, action);
    } catch (const Failure& failure) {
        std::fprintf(stderr, "tablectl: %s\n", failure.what());
        return failure.exitStatus;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tablectl: %s\n", error.what());
        return 1;
    }
}
