#pragma once

#include "Context.h"
#include "Device.h"
#include "Session.h"

#include <Color/Point.h>

#include <functional>
#include <string>

namespace tablectl {

// The device counts as measuring, and does not do what it was asked. It does for a moment after a
// measurement's last row, too, so a command is tried again for a few seconds.
bool isBusy(int code);
constexpr Session::Seconds kBusyRetry{5};
constexpr Session::Seconds kBusyPause{0.1};

// The devices that are there, after a moment in which they may show themselves: all, or those that were
// named. Throws NoDevice when there is none of that name.
std::vector<DeviceStatus> chosenDevices(Context& context);

// Where devices were looked for in vain, and what may be missing.
std::string noDeviceText();

// The device that a command is for.
class Table {
public:
    // Throws NoDevice when there is none, UsageFailure when there are several and none was named.
    static Table find(Context& context);

    const std::string& path() const { return mPath; }
    Session& session() const { return mSession; }
    DeviceStatus status() const; // throws DeviceFailure when the device is gone

    // Sends the command and waits for its reply. A busy device is asked again for a few seconds. Throws
    // DeviceFailure with the code and what it means when the device refuses.
    Reply call(const Command& command) const;
    Exchange send(const Command& command) const { return mSession.send(mPath, command); }
    // Asks for a status and waits for it.
    DeviceStatus refreshedStatus() const;

    // Throws the failure that a reply stands for; nothing for code 0.
    void check(const Command& command, const Reply& reply) const;

private:
    Table(Session& session, std::string path);

    Session& mSession;
    std::string mPath;
};

// Brings the device into the mode that measures charts, and calibrates it when that is needed; `calibrating`
// is called just before. Throws DeviceFailure when the device refuses.
void makeReady(const Table& table, const std::function<void()>& calibrating);

// After an interruption: a measurement that nobody waits for any more does not go on.
void cancelAfterInterruption(const Table& table);

// Where the head is. Throws DeviceFailure when the device refuses, or answers with something else.
Color::Point positionOf(const Table& table);

// Sets the time scale that the command line asks for, if it does, of an attached virtual table.
void applyTimeScale(const Context& context, const Table& table);

// Holds the device lock, and renews it often enough for as long as the object lives. Throws DeviceFailure
// when another client holds it.
class DeviceLock {
public:
    explicit DeviceLock(const Table& table);
    DeviceLock(const DeviceLock&) = delete;
    DeviceLock& operator=(const DeviceLock&) = delete;
    ~DeviceLock();

private:
    const Table& mTable;
    tools::LoopTimer mRenewal;
};

} // namespace tablectl
