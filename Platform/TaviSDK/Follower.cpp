#include "Follower.h"

#include <Base/FolderEvents.h>

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <optional>

namespace TaviSDK {

namespace {

constexpr int kLookAgainMilliseconds = 1000;

} // namespace

// The watch on the file's folder, or the memory of what the file looked like where there is no watch.
class Follower::Watch {
public:
    int descriptor() const { return isWatching() ? mEvents.descriptor() : -1; }
    bool isWatching() const { return mEvents.isWatching(); }

    // Sees to it that the file's folder is watched. True when the file may have changed unseen until now.
    bool aim(const std::string& path) {
        if (path != mPath) {
            mEvents.stop();
            mPath = path;
            mStamp.reset();
        }
        if (mPath.empty() || isWatching()) {
            return false;
        }
        const std::filesystem::path folder = std::filesystem::path(mPath).parent_path();
        return mEvents.watch(folder.empty() ? "." : folder.string()) || looksDifferent();
    }

    // Takes what the watch reports; true when it concerns the file.
    bool read() {
        const Base::FolderEvents::Changes changes = mEvents.take();
        return changes.isOverflown || changes.isFolderGone ||
               changes.touched.contains(std::filesystem::path(mPath).filename());
    }

private:
    struct Stamp {
        unsigned long long identity = 0;
        long long size = -1;
        long long seconds = 0;
        long long nanoseconds = 0;
        bool operator==(const Stamp&) const = default;
    };

    bool looksDifferent() {
        Stamp stamp;
        struct stat status {};
        if (::stat(mPath.c_str(), &status) == 0) {
            stamp = {status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
        }
        const bool isDifferent = mStamp != stamp;
        mStamp = stamp;
        return isDifferent;
    }

    Base::FolderEvents mEvents;
    std::string mPath;
    std::optional<Stamp> mStamp; // none before the first look
};

Follower::Follower(std::function<void(const std::string&)> fileChanged, std::function<void()> woken)
    : mFileChanged(std::move(fileChanged)),
      mWoken(std::move(woken)),
      mWakeDescriptor(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

void Follower::follow(const std::string& path) {
    {
        const Base::Lock lock(mMutex);
        mPath = path;
    }
    wake();
}

std::string Follower::path() {
    const Base::Lock lock(mMutex);
    return mPath;
}

void Follower::start() {
    const Base::Lock lock(mMutex);
    if (mIsRunning || mIsStopping) {
        return;
    }
    // Signals are for the process's own threads.
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread thread([this] { run(); });
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    mThread = thread.get_id();
    mIsRunning = true;
    thread.detach();
}

void Follower::wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(mWakeDescriptor, &one, sizeof one);
}

void Follower::stop() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    const Base::Lock lock(mMutex);
    mIsStopping = true;
    wake();
    while (mIsRunning && mThread != std::this_thread::get_id() && mEndedCondition.waitUntil(mMutex, end)) {
    }
}

void Follower::run() {
    Watch watch;
    for (;;) {
        bool mayHaveChanged = watch.aim(path());
        std::array<pollfd, 2> sources{pollfd{mWakeDescriptor, POLLIN, 0},
                                      pollfd{watch.descriptor(), POLLIN, 0}};
        if (!mayHaveChanged) {
            const bool mustLook = !watch.isWatching() && !path().empty();
            ::poll(sources.data(), sources.size(), mustLook ? kLookAgainMilliseconds : -1);
            std::uint64_t wakes = 0;
            [[maybe_unused]] const ssize_t got = ::read(mWakeDescriptor, &wakes, sizeof wakes);
            mayHaveChanged = watch.read();
        }
        {
            const Base::Lock lock(mMutex);
            if (mIsStopping) {
                mIsRunning = false;
                mEndedCondition.notifyAll();
                return;
            }
        }
        if (mayHaveChanged) {
            mFileChanged(path());
        }
        mWoken();
    }
}

} // namespace TaviSDK
