#pragma once

#include "RestartPolicy.h"

#include <support/CenterLoop.h>
#include <support/ChildProcess.h>
#include <support/Ref.h>

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace service {

// What all instruments of the service share.
struct Settings {
    std::filesystem::path host;       // the program that runs a plug-in
    std::filesystem::path bundle;     // of the plug-in
    double firstRestartPause;         // seconds
    std::filesystem::path recordings; // a folder; "": nothing is recorded
};

// One attached device and the plug-in process that serves it. Center's thread only.
//
// A device that is attached has a process, or is waiting for its restart, or has had its plug-in end for
// good; then it stays without one until it is attached again.
class Instrument {
public:
    explicit Instrument(const Settings& settings);
    Instrument(const Instrument&) = delete;
    Instrument& operator=(const Instrument&) = delete;

    bool hasProcess() const { return mProcess != nullptr; }
    bool isAttached() const { return mAttached; }

    // Starts the plug-in, or lets the one that is ending finish first.
    void attach(const std::string& path, const std::string& hardwareFile);
    void detach(); // the plug-in notices for itself and ends
    // To be called when some child of the service may have ended.
    void reap();

    // The end of the service: no process is started any more. True when the plug-in was asked over its
    // connection.
    bool askToEnd(VellDeviceRef record);
    void signal(int number);

private:
    void start();
    std::map<std::string, std::string> environment() const;
    std::string recordingName() const;
    void startAgainIn(double seconds);
    void ended(const tools::ProcessEnd& end, double secondsLived);
    void removeSocket() const;

    const Settings& mSettings;
    std::string mPath;
    std::string mHardwareFile;
    bool mAttached = false;
    bool mAttachedAgain = false; // while the process of the earlier attachment still runs
    bool mEnding = false;
    RestartPolicy mRestarts;
    std::unique_ptr<tools::ChildProcess> mProcess;
    double mStarted = 0;
    tools::LoopTimer mRestartTimer;
};

} // namespace service
