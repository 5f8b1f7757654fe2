#include "ParentWatch.h"

#include <unistd.h>

#include <chrono>

namespace VellDevice {

namespace {
constexpr std::chrono::seconds kCheckInterval{5};
}

ParentWatch::ParentWatch() : mParent(getppid()) {}

bool ParentWatch::parentIsGone() const {
    const pid_t parent = getppid();
    return parent == 1 || parent != mParent;
}

bool ParentWatch::waitUntilGone() {
    std::unique_lock lock(mLock);
    while (!mRetired) {
        if (mArmed && parentIsGone())
            return true;
        mChanged.wait_for(lock, kCheckInterval);
    }
    return false;
}

void ParentWatch::arm() {
    const std::lock_guard lock(mLock);
    mArmed = true;
    mChanged.notify_all();
}

void ParentWatch::retire() {
    const std::lock_guard lock(mLock);
    mRetired = true;
    mChanged.notify_all();
}

} // namespace VellDevice
