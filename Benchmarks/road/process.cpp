// The plug-in process: how soon it says something, and what it takes when nobody asks anything of it.

#include "PluginProcess.h"
#include "Report.h"

#include <chrono>
#include <thread>

namespace road {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kStarts = 9;
constexpr std::chrono::seconds kIdle{12}; // four polls
constexpr Grid kGrid{.rows = 2, .columns = 2, .pitch = 10};

} // namespace

void measureProcess(Report& report) {
    std::vector<double> starts;
    for (int i = 0; i < kStarts; ++i) {
        const auto begin = Clock::now();
        const PluginProcess plugin(kGrid, 0, true);
        Connection(plugin.socket()).receive();
        starts.push_back(std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
    }
    report.add("process start to first status, without the sleeps", quantile(starts, 0.5), "ms", 50);

    const PluginProcess plugin(kGrid, 0, false);
    Connection(plugin.socket()).receive();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    const double before = plugin.processorSeconds();
    std::this_thread::sleep_for(kIdle);
    const double used = plugin.processorSeconds() - before;
    report.add("idle plug-in: share of a core", 100 * used / static_cast<double>(kIdle.count()), "%", 0.1);
    report.add("  resident", static_cast<double>(plugin.residentBytes()) / (1 << 20), "MiB", 12);
}

} // namespace road
