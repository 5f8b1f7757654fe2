#include "Instrument.h"

#include "Log.h"
#include "OldLogs.h"

#include <VellDevice/RuntimeFolder.h>

#include <unistd.h>

#include <array>
#include <cctype>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <system_error>
#include <utility>

namespace service {

Instrument::Instrument(const Settings& settings)
    : mSettings(settings), mRestarts(settings.firstRestartPause) {}

void Instrument::attach(const std::string& path, const std::string& hardwareFile) {
    mPath = path;
    mHardwareFile = hardwareFile;
    mAttached = true;
    mRestarts = RestartPolicy(mSettings.firstRestartPause);
    if (mProcess)
        mAttachedAgain = true;
    else
        start();
}

void Instrument::detach() {
    mAttached = false;
    mAttachedAgain = false;
    mRestartTimer.cancel();
    log("%s: detached", mPath.c_str());
}

void Instrument::start() {
    mRestartTimer.cancel();
    if (mEnding)
        return;
    removeOldLogs();
    try {
        mProcess = std::make_unique<tools::ChildProcess>(
            mSettings.host, std::vector<std::string>{mPath, mSettings.bundle.string()}, environment());
    } catch (const std::system_error& error) {
        // For want of memory or processes, most likely, which may be there again soon.
        log("%s: %s", mPath.c_str(), error.what());
        startAgainIn(mRestarts.nextPause());
        return;
    }
    mStarted = CFAbsoluteTimeGetCurrent();
    log("%s: started process %d", mPath.c_str(), mProcess->processIdentifier());
}

std::map<std::string, std::string> Instrument::environment() const {
    std::map<std::string, std::string> variables = {{"TAVI_TABLE", mHardwareFile},
                                                    {"VELL_SERVICE_PID", std::to_string(getpid())}};
    const char* const recording = std::getenv("TAVI_RECORDING");
    if (!mSettings.recordings.empty())
        variables["TAVI_RECORDING"] = recordingName();
    else if (!recording || *recording == '\0')
        return variables;
    // The loader takes the list apart at blanks and colons, whichever folder it names, and puts the host's
    // own folder in afterwards.
    const char* const others = std::getenv("LD_PRELOAD");
    variables["LD_PRELOAD"] =
        (others ? std::string(others) + ":" : "") + "$ORIGIN/../lib/tavi-io/libTaviRecorder.so";
    return variables;
}

std::string Instrument::recordingName() const {
    std::string name;
    for (const char character : mPath)
        name += std::isalnum(static_cast<unsigned char>(character)) || character == '-' ? character : '_';
    std::array<char, 32> date;
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    std::strftime(date.data(), date.size(), "-%Y%m%d-%H%M%S.jsonl", gmtime_r(&now, &parts));
    return mSettings.recordings / (name + date.data());
}

void Instrument::reap() {
    if (!mProcess)
        return;
    const auto end = mProcess->poll();
    if (!end)
        return;
    const std::string how = end->text();
    log("%s: process %d ended, %s", mPath.c_str(), mProcess->processIdentifier(), how.c_str());
    mProcess.reset();
    if (end->bySignal)
        removeSocket();
    ended(*end, CFAbsoluteTimeGetCurrent() - mStarted);
}

void Instrument::ended(const tools::ProcessEnd& end, double secondsLived) {
    if (mEnding || !mAttached)
        return;
    if (std::exchange(mAttachedAgain, false)) {
        start();
        return;
    }
    const auto pause = mRestarts.pauseAfter(end, secondsLived);
    if (!pause) {
        log("%s: stays down until it is attached again", mPath.c_str());
        return;
    }
    startAgainIn(*pause);
}

void Instrument::startAgainIn(double seconds) {
    log("%s: starts again in %g s", mPath.c_str(), seconds);
    mRestartTimer = tools::LoopTimer(seconds, 0, [this] { start(); });
}

bool Instrument::askToEnd(VellDeviceRef record) {
    mEnding = true;
    mRestartTimer.cancel();
    if (!mProcess || !record)
        return false;
    const auto name = tools::makeString("DieAQuickDeath");
    const auto path = tools::makeString(mPath);
    const tools::Ref<VellDeviceCommandRef> command(VellDeviceCommandCreate(name.get()));
    VellDeviceCommandSetDeviceName(command.get(), VellDeviceGetName(record));
    VellDeviceCommandSetDevicePath(command.get(), path.get());
    return tools::Ref<VellReceiptRef>(VellDeviceSendCommand(record, command.get())) != nullptr;
}

void Instrument::signal(int number) {
    if (mProcess)
        mProcess->signal(number);
}

// A process that a signal ended could not remove its socket, and clients would go on trying it.
void Instrument::removeSocket() const {
    unlink(VellService::socketPath(mPath).c_str());
}

} // namespace service
