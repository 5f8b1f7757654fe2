#include "Instrument.h"

#include "Log.h"

#include <VellDevice/RuntimeFolder.h>

#include <unistd.h>

#include <csignal>
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
    try {
        mProcess = std::make_unique<tools::ChildProcess>(
            mSettings.host, std::vector<std::string>{mPath, mSettings.bundle.string()},
            std::map<std::string, std::string>{{"TAVI_TABLE", mHardwareFile},
                                               {"VELL_SERVICE_PID", std::to_string(getpid())}});
    } catch (const std::system_error& error) {
        // For want of memory or processes, most likely, which may be there again soon.
        log("%s: %s", mPath.c_str(), error.what());
        startAgainIn(mRestarts.nextPause());
        return;
    }
    mStarted = CFAbsoluteTimeGetCurrent();
    log("%s: started process %d", mPath.c_str(), mProcess->processIdentifier());
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
