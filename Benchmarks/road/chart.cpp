// A large chart: patches a second from the strip to the decoded response in the client, and what it takes of
// memory.

#include "PluginProcess.h"
#include "Report.h"

#include <VellDevice/Wire.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>

namespace road {
namespace {

constexpr Grid kGrid{.rows = 200, .columns = 100, .pitch = 7};
constexpr int kSettled = 20; // rows, after which nothing should grow any more
constexpr double kMebibyte = 1 << 20;

VellService::Ref<__VellDeviceCommandResponse> decoded(const std::string& payload) {
    const VellService::Message message(payload);
    return VellService::responseOf(message, VellService::answeredCommandOf(message));
}

// How many colours a row's response holds.
std::size_t colorsOf(const std::string& payload) {
    const auto response = decoded(payload);
    if (!response || response->code != 0 || !response->measurementSet)
        throw std::runtime_error("a row failed");
    const VellMeasurementSetRef set = response->measurementSet.get();
    std::size_t colors = 0;
    for (unsigned i = 0; i < VellMeasurementSetGetCount(set); ++i)
        colors += VellMeasurementGetColorCount(VellMeasurementSetGetMeasurementAtIndex(set, i));
    return colors;
}

} // namespace

void measureChart(Report& report) {
    const PluginProcess plugin(kGrid, 0, true);
    Connection client(plugin.socket());
    while (client.receive().find("Status") == std::string::npos) {
    }
    client.ask("Calibrate");
    client.ask("SetMode", {{"Mode", "ScanningReflectance"}});

    double best = 0;
    double growth = 0;
    double pluginTime = 1e9; // seconds of processor a patch
    double clientTime = 1e9;
    constexpr int patches = kGrid.rows * kGrid.columns;
    for (int run = 0; run < 3; ++run) {
        const std::string ticket = "chart-" + std::to_string(run);
        std::size_t colors = 0;
        std::size_t settled = 0;
        const auto resident = [&] { return plugin.residentBytes() + residentBytesOf(getpid()); };
        const auto begin = std::chrono::steady_clock::now();
        const double pluginBefore = plugin.processorSeconds();
        const double clientBefore = processorSecondsOf(getpid());
        client.send(commandFrame("Measure", ticket, kGrid.measureArguments()));
        for (int row = 0; row < kGrid.rows; ++row) {
            colors += colorsOf(client.receiveResponse(ticket));
            if (row == kSettled)
                settled = resident();
        }
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
        growth = std::max(growth, static_cast<double>(resident()) - static_cast<double>(settled));
        if (colors != static_cast<std::size_t>(patches) * 2)
            throw std::runtime_error("patches are missing");
        best = std::max(best, patches / time.count());
        pluginTime = std::min(pluginTime, (plugin.processorSeconds() - pluginBefore) / patches);
        clientTime = std::min(clientTime, (processorSecondsOf(getpid()) - clientBefore) / patches);
        while (decoded(client.ask("GoHome"))->code != 0) { // for a moment it still counts as measuring
        }
    }
    report.add("chart of 200 x 100: patches to the client", best, "/s", 20000, true);
    report.add("  processor a patch, plug-in", 1e6 * pluginTime, "us");
    report.add("  processor a patch, client", 1e6 * clientTime, "us");
    report.add("  resident growth, plug-in and client", growth / kMebibyte, "MiB", 8);
}

} // namespace road
