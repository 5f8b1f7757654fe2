// A roomful of tables under one service: how soon they are there, what a scan on all of them at once takes of
// time, processor and memory, and what they leave behind.

#include "PluginProcess.h"
#include "Report.h"

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <thread>

namespace road {
namespace {

using Clock = std::chrono::steady_clock;

constexpr Grid kGrid{.rows = 6, .columns = 12, .pitch = 10};
constexpr int kSizes[] = {1, 8, 64, 256};
constexpr std::chrono::seconds kStagger{1}; // the scans of a fleet begin one after the other within this time

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

std::string devicePath(int table) {
    return "usb:fleet-" + std::to_string(table);
}

// vell-service with so many tables, in folders of its own; ended with the object.
class Fleet {
public:
    explicit Fleet(int size) : mSize(size) {
        for (int table = 0; table < size; ++table)
            mFolder.attach(devicePath(table), kGrid, 1);
        mProcess = std::make_unique<tools::ChildProcess>(
            SERVICE, std::vector<std::string>{"--quiet", "--bundle", PLUGIN_BUNDLE}, mFolder.environment());
    }

    // A connection to each table, as soon as it has told its status.
    std::vector<Connection> connect() {
        std::vector<Connection> tables;
        for (int table = 0; table < mSize; ++table) {
            tables.emplace_back(mFolder.waitForSocket(devicePath(table)));
            tables.back().receive();
        }
        return tables;
    }
    std::vector<pid_t> plugins() const {
        const std::string service = std::to_string(mProcess->processIdentifier());
        std::ifstream file("/proc/" + service + "/task/" + service + "/children");
        std::vector<pid_t> children;
        for (pid_t child = 0; file >> child;)
            children.push_back(child);
        return children;
    }
    // Seconds until service and plug-ins have gone.
    double end() {
        const auto begin = Clock::now();
        mProcess->signal(SIGTERM);
        const auto ended = mProcess->waitFor(std::chrono::seconds(60));
        if (!ended || ended->bySignal || ended->value != 0)
            throw std::runtime_error("the service does not end");
        return secondsSince(begin);
    }
    const Folder& folder() const { return mFolder; }

private:
    const Folder mFolder;
    const int mSize;
    std::unique_ptr<tools::ChildProcess> mProcess;
};

// One table's scan. Its rows are noted as they come.
struct Scan {
    Connection* connection;
    Clock::time_point begin;
    int rows = 0;
    double seconds = 0; // once the last row is there

    void begun() {
        begin = Clock::now();
        connection->send(commandFrame("Measure", "scan", kGrid.measureArguments()));
    }
    void take() {
        do {
            if (isResponse(connection->receive(), "scan") && ++rows == kGrid.rows)
                seconds = secondsSince(begin);
        } while (connection->holdsMore());
    }
};

void askAll(std::vector<Connection>& tables, const std::string& name,
            const std::map<std::string, std::string>& arguments = {}) {
    for (Connection& table : tables)
        table.send(commandFrame(name, name, arguments));
    for (Connection& table : tables)
        table.receiveResponse(name);
}

// The seconds that each table's scan took. The scans begin spread over a second, as nobody presses all
// buttons at once.
std::vector<double> scanAll(std::vector<Connection>& tables) {
    std::vector<Scan> scans;
    std::vector<pollfd> polled;
    for (Connection& table : tables) {
        scans.push_back({.connection = &table, .begin = {}});
        polled.push_back({table.descriptor(), POLLIN, 0});
    }
    const auto begin = Clock::now();
    std::size_t begun = 0;
    const auto isOver = [&] {
        return std::all_of(scans.begin(), scans.end(), [](const Scan& scan) { return scan.seconds > 0; });
    };
    while (!isOver()) {
        for (; begun < scans.size() && Clock::now() - begin >= kStagger * begun / scans.size(); ++begun)
            scans[begun].begun();
        ::poll(polled.data(), polled.size(), begun < scans.size() ? 1 : 1000);
        for (std::size_t i = 0; i < scans.size(); ++i)
            if (polled[i].revents != 0)
                scans[i].take();
        if (secondsSince(begin) > 300)
            throw std::runtime_error("a scan does not end");
    }
    std::vector<double> seconds;
    for (const Scan& scan : scans)
        seconds.push_back(scan.seconds);
    return seconds;
}

double processorSeconds(const std::vector<pid_t>& processes) {
    return std::accumulate(processes.begin(), processes.end(), 0.0,
                           [](double sum, pid_t process) { return sum + processorSecondsOf(process); });
}

double mebibytesEach(const std::vector<pid_t>& processes) {
    double sum = 0;
    for (const pid_t process : processes)
        sum += static_cast<double>(residentBytesOf(process)) / (1 << 20);
    return sum / static_cast<double>(processes.size());
}

// The lines in the tables' logs that say more than that something went as it should.
int warningsIn(const std::filesystem::path& logs) {
    int warnings = 0;
    for (const auto& log : std::filesystem::directory_iterator(logs)) {
        std::ifstream file(log.path());
        for (std::string line; std::getline(file, line);)
            warnings += line.find(" WARNING [") != line.npos || line.find(" ERROR [") != line.npos;
    }
    return warnings;
}

// What should have gone with the service.
int leftovers(const Folder& folder, const std::vector<pid_t>& plugins) {
    int left = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder.path()))
        left += entry.path().extension() == ".sock";
    for (const pid_t plugin : plugins)
        left += ::kill(plugin, 0) == 0;
    return left;
}

struct Figures {
    double up = 0;
    double scan = 0; // seconds, the slowest table's
    double processor = 0;
    double memory = 0;
    double down = 0;
    int warnings = 0;
    int left = 0;
};

Figures measure(int size) {
    Figures figures;
    const auto begin = Clock::now();
    Fleet fleet(size);
    std::vector<Connection> tables = fleet.connect();
    figures.up = secondsSince(begin);
    const std::vector<pid_t> plugins = fleet.plugins();
    if (plugins.size() != tables.size())
        throw std::runtime_error("plug-ins are missing");
    askAll(tables, "Calibrate");
    askAll(tables, "SetMode", {{"Mode", "ScanningReflectance"}});
    const double before = processorSeconds(plugins);
    const std::vector<double> seconds = scanAll(tables);
    figures.processor = (processorSeconds(plugins) - before) / size;
    figures.scan = *std::max_element(seconds.begin(), seconds.end());
    figures.memory = mebibytesEach(plugins);
    figures.down = fleet.end();
    figures.warnings = warningsIn(fleet.folder().logs());
    figures.left = leftovers(fleet.folder(), plugins);
    return figures;
}

} // namespace

void measureFleet(Report& report) {
    std::optional<Figures> single;
    for (const int size : kSizes) {
        const Figures figures = measure(size);
        if (!single)
            single = figures;
        report.add("fleet of " + std::to_string(size) + ": up", figures.up, "s", 10);
        report.add("  scan of " + std::to_string(kGrid.rows) + " rows, the slowest table", figures.scan, "s");
        report.add("  against the single table", figures.scan / single->scan, "", size <= 64 ? 1.02 : 1.05);
        report.add("  processor, a scan", 1000 * figures.processor, "ms");
        report.add("  against the single table", figures.processor / single->processor, "", 1.1);
        report.add("  resident, a table", figures.memory, "MiB");
        report.add("  against the single table", figures.memory / single->memory, "", 1.1);
        report.add("  warnings", figures.warnings, "", 0.5);
        report.add("  down", figures.down, "s", 5);
        report.add("  processes and sockets that are left", figures.left, "", 0.5);
    }
}

} // namespace road
