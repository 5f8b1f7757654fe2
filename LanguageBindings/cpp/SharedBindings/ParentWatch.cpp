#include "ParentWatch.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string_view>

namespace VellDevice {

namespace {

constexpr std::chrono::seconds kCheckInterval{5};

bool serviceIsProcess1() {
    const char* const service = std::getenv("VELL_SERVICE_PID");
    return service != nullptr && std::string_view(service) == "1";
}

} // namespace

ParentWatch::ParentWatch() : mParent(getppid()), mParentIsProcess1(mParent == 1 && serviceIsProcess1()) {}

bool ParentWatch::parentIsGone() const {
    const pid_t parent = getppid();
    return parent != mParent || (parent == 1 && !mParentIsProcess1);
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
