// What a scan takes beside the instrument's own time (travel, delay, integration): a row's way from the SDK
// to the client and the next row's to the SDK.

#include "PluginProcess.h"
#include "Report.h"

#include <VellDevice/Wire.h>

#include <chrono>
#include <stdexcept>

namespace road {
namespace {

constexpr Grid kGrid{.rows = 11, .columns = 21, .pitch = 9.5}; // as large as the example chart
constexpr double kLimit = 20;                                  // milliseconds a row; the aim is 5

// From the command to the last row's response, in milliseconds.
double scanMilliseconds(double timeScale) {
    const PluginProcess plugin(kGrid, timeScale, false);
    Connection client(plugin.socket());
    while (client.receive().find("Status") == std::string::npos) {
    }
    client.ask("Calibrate");
    client.ask("SetMode", {{"Mode", "ScanningReflectance"}});
    const auto begin = std::chrono::steady_clock::now();
    client.send(commandFrame("Measure", "scan", kGrid.measureArguments()));
    for (int row = 0; row < kGrid.rows; ++row) {
        const VellService::Message message(client.receiveResponse("scan"));
        const auto response = VellService::responseOf(message, VellService::answeredCommandOf(message));
        if (!response || response->code != 0)
            throw std::runtime_error("a row failed");
    }
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
}

} // namespace

void measureScan(Report& report) {
    const double asLong = scanMilliseconds(1);
    const double halfAsLong = scanMilliseconds(0.5);
    report.add("scan of 11 x 21 at time scale 1", asLong / 1000, "s");
    // The instrument's share of the second is half of that of the first; the rest of both is the same.
    report.add("  outside the instrument, a row", (2 * halfAsLong - asLong) / kGrid.rows, "ms", kLimit);
}

} // namespace road
