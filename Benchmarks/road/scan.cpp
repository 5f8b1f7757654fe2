// What a scan takes beside the instrument's own time (travel, delay, integration): a row's way from the SDK
// to the client and the next row's to the SDK.

#include "PluginProcess.h"
#include "Report.h"

#include <VellDevice/Wire.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <stdexcept>

namespace road {
namespace {

constexpr Grid kGrid{.rows = 11, .columns = 21, .pitch = 9.5}; // as large as the example chart
constexpr double kLimit = 20;                                  // milliseconds a row; the aim is 5

// Another client of the plug-in, in a process of its own: one that asks and never reads, so that its answers
// pile up, or one that asks as fast as it gets answers.
class Neighbour {
public:
    enum Kind { none, deaf, flooding };

    Neighbour(Kind kind, const std::filesystem::path& socket) {
        if (kind == none)
            return;
        mProcess = fork();
        if (mProcess == 0) {
            run(kind, socket);
            _exit(0);
        }
    }
    ~Neighbour() {
        if (mProcess > 0) {
            kill(mProcess, SIGKILL);
            waitpid(mProcess, nullptr, 0);
        }
    }
    Neighbour(const Neighbour&) = delete;
    Neighbour& operator=(const Neighbour&) = delete;

private:
    static void run(Kind kind, const std::filesystem::path& socket) try {
        Connection connection(socket);
        const std::string command = commandFrame("Quit", "neighbour"); // is answered, and nothing else
        for (;;) {
            connection.send(command);
            if (kind == flooding)
                connection.receiveResponse("neighbour");
        }
    } catch (const std::exception&) {
        return; // cut off, or the scan is over
    }

    pid_t mProcess = 0;
};

// From the command to the last row's response, in milliseconds.
double scanMilliseconds(double timeScale, Neighbour::Kind kind = Neighbour::none) {
    const PluginProcess plugin(kGrid, timeScale, false);
    Connection client(plugin.socket());
    while (client.receive().find("Status") == std::string::npos) {
    }
    client.ask("Calibrate");
    client.ask("SetMode", {{"Mode", "ScanningReflectance"}});
    const Neighbour neighbour(kind, plugin.socket());
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
    const double instrument = 2 * (asLong - halfAsLong);
    const auto outside = [&](double scan) { return (scan - instrument) / kGrid.rows; };
    report.add("  outside the instrument, a row", outside(asLong), "ms", kLimit);
    report.add("  beside a client that does not read", outside(scanMilliseconds(1, Neighbour::deaf)), "ms",
               kLimit);
    report.add("  beside a client that floods", outside(scanMilliseconds(1, Neighbour::flooding)), "ms",
               kLimit);
}

} // namespace road
