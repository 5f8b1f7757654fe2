#include "Table.h"

#include "Errors.h"
#include "HardwareFile.h"
#include "Simulation.h"

#include <VellDevice/RuntimeFolder.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

namespace tablectl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr Session::Seconds kDiscovery{2};
constexpr Session::Seconds kSimulationStart{60};
constexpr Session::Seconds kStatusReply{10};
constexpr Session::Seconds kUnlockReply{5};
constexpr Session::Seconds kCancelReply{10};
constexpr Session::Seconds kDeparture{1};
constexpr int kLocked = -1022;
constexpr int kMeasureCancelled = -1023;
constexpr double kRenewLockEvery = 10; // the device drops a lock after 30 seconds of silence

std::size_t socketCount() {
    std::error_code error;
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(VellService::runtimeFolderPath(), error))
        count += entry.path().extension() == ".sock" ? 1 : 0;
    return count;
}

bool matches(const DeviceStatus& status, const std::string& wanted) {
    return wanted.empty() || wanted == status.path || wanted == status.name || wanted == status.displayName ||
           wanted == status.serialNumber;
}

std::string processText(const std::string& identifier) {
    std::string name;
    std::getline(std::ifstream("/proc/" + identifier + "/comm"), name);
    return "process " + identifier +
           (name.empty() ? ", which has ended: for up to 30 seconds" : " (" + name + ")");
}

// Waits a moment for the plug-ins of the runtime folder to show themselves; with --simulated, until its table
// has.
std::vector<DeviceStatus> discover(Context& context) {
    if (context.simulation) {
        const auto isThere = [](const auto& devices) { return !devices.empty(); };
        const auto deadline = Clock::now() + kSimulationStart;
        while (!context.session.waitUntil(isThere, Session::Seconds(0.2))) {
            context.simulation->checkService();
            if (Clock::now() > deadline)
                throw NoDevice("the virtual table does not answer");
        }
        return context.session.devices();
    }
    // A plug-in whose instrument is not connected has a socket and no status: the wait ends by its time limit
    // then.
    const auto haveAll = [](const auto& devices) {
        return !devices.empty() && devices.size() >= socketCount();
    };
    context.session.waitUntil(haveAll, kDiscovery);
    return context.session.devices();
}

} // namespace

bool isBusy(int code) {
    return code == 23 || code == 4 || code == 5;
}

std::string noDeviceText() {
    return "no device in " + VellService::runtimeFolderPath() +
           (socketCount() > 0 ? ": the plug-in there has not connected its table yet"
                              : "; is vell-service running, and a table attached?");
}

Table::Table(Session& session, std::string path) : mSession(session), mPath(std::move(path)) {}

std::vector<DeviceStatus> chosenDevices(Context& context) {
    const std::string& wanted = context.options.device;
    std::vector<DeviceStatus> devices = discover(context);
    std::erase_if(devices, [&](const DeviceStatus& status) { return !matches(status, wanted); });
    if (devices.empty() && !wanted.empty())
        throw NoDevice("no such device: " + wanted);
    return devices;
}

Table Table::find(Context& context) {
    const std::vector<DeviceStatus> devices = chosenDevices(context);
    if (devices.empty())
        throw NoDevice(noDeviceText());
    if (devices.size() > 1) {
        std::string paths;
        for (const DeviceStatus& status : devices)
            paths += " " + status.path;
        throw UsageFailure("several devices, name one with --device:" + paths);
    }
    return Table(context.session, devices.front().path);
}

DeviceStatus Table::status() const {
    const auto status = mSession.status(mPath);
    if (!status)
        throw DeviceFailure("the device went away");
    return *status;
}

void Table::check(const Command& command, const Reply& reply) const {
    if (reply.code == 0)
        return;
    std::string text = meaningOf(reply.code, reply.message);
    if (reply.code == kMeasureCancelled) {
        // A device that goes away cancels what it does.
        mSession.waitUntil(
            mPath, [](const DeviceStatus* status) { return !status; }, kDeparture);
        status(); // says so
    }
    if (reply.code == kLocked) {
        if (const auto status = mSession.status(mPath); status && !status->lockHolder.empty())
            text += ", " + processText(status->lockHolder);
    }
    throw DeviceFailure(command.name + ": " + std::to_string(reply.code) + ": " + text, reply.code);
}

Reply Table::call(const Command& command) const {
    const auto deadline = Clock::now() + kBusyRetry;
    for (;;) {
        Exchange exchange = send(command);
        const Reply reply = *exchange.next();
        if (!isBusy(reply.code) || Clock::now() > deadline) {
            check(command, reply);
            return reply;
        }
        mSession.sleep(kBusyPause);
    }
}

DeviceStatus Table::refreshedStatus() const {
    const unsigned revision = mSession.revision(mPath);
    mSession.sendAndForget(mPath, {"Status", {}});
    if (!mSession.waitForNewStatus(mPath, revision, kStatusReply)) {
        status(); // says when it is gone
        throw DeviceFailure("Status: the device does not answer");
    }
    return status();
}

void makeReady(const Table& table, const std::function<void()>& calibrating) {
    if (table.status().mode != "ScanningReflectance")
        table.call({"SetMode", {{"Mode", "ScanningReflectance"}}});
    // Another client's calibration is over: the device has answered since.
    if (table.status().calibrationStatus == 1)
        return;
    calibrating();
    table.call({"Calibrate", {}});
}

void cancelAfterInterruption(const Table& table) {
    const Session::CleanUp cleanUp(table.session());
    try {
        table.send({"CancelMeasure", {}}).next(kCancelReply);
    } catch (const Failure&) {
        // The interruption is what the user is told.
    }
}

Color::Point positionOf(const Table& table) {
    const std::string text = table.call({"GetDevicePosition", {}}).message;
    Color::Point place;
    char rest = 0;
    if (std::sscanf(text.c_str(), "%lf,%lf%c", &place.x, &place.y, &rest) != 2)
        throw DeviceFailure("GetDevicePosition: not a position: " + text);
    return place;
}

void applyTimeScale(const Context& context, const Table& table) {
    if (context.options.timeScale && !context.simulation)
        setTimeScale(table.path(), *context.options.timeScale);
}

DeviceLock::DeviceLock(const Table& table) : mTable(table) {
    table.call({"Lock", {}});
    Session& session = table.session();
    mRenewal = tools::LoopTimer(kRenewLockEvery, kRenewLockEvery, [&session, path = table.path()] {
        session.sendAndForget(path, {"Lock", {}});
    });
}

DeviceLock::~DeviceLock() {
    mRenewal.cancel();
    try {
        const Session::CleanUp cleanUp(mTable.session());
        mTable.send({"Unlock", {}}).next(kUnlockReply);
    } catch (const Failure&) {
        // The device is gone, or the user does not want to wait: the lock ends by itself.
    }
}

} // namespace tablectl
