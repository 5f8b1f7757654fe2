// tablectl: the scanning table from the command line.
#include "CommandLine.h"
#include "Errors.h"
#include "Simulation.h"

#include <support/SignalWatcher.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <thread>

namespace tablectl {
namespace {

// The exit status of the work, after a report of how it failed.
template <class Work>
int statusOf(bool json, Work work) {
    try {
        return work();
    } catch (const Failure& failure) {
        const auto* refused = dynamic_cast<const DeviceFailure*>(&failure);
        reportFailure(json, failure.what(), refused ? refused->deviceCode : 0);
        return failure.exitStatus;
    } catch (const std::exception& error) {
        reportFailure(json, error.what());
        return 1;
    }
}

int run(const CommandLine& line) {
    const Options& options = line.options;
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
    if (!options.record.empty() && !options.simulated && !options.replayed)
        throw UsageFailure("--record needs --simulated; `vell-service --record DIR` records its tables");
    if (options.simulated || options.replayed)
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
        status = statusOf(options.json, [&] {
            line.command(context);
            return 0;
        });
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
    CommandLine line;
    if (const auto status = readCommandLine(argc, argv, line))
        return *status;
    return statusOf(line.options.json, [&] {
        if (!line.runtimeFolder.empty())
            setenv("VELL_RUNTIME_DIR", std::filesystem::absolute(line.runtimeFolder).c_str(), 1);
        return run(line);
    });
}
