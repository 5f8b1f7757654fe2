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
    const Base::Lock lock(mLock);
    while (!mRetired) {
        if (mArmed && parentIsGone())
            return true;
        mChanged.waitUntil(mLock, std::chrono::steady_clock::now() + kCheckInterval);
    }
    return false;
}

void ParentWatch::arm() {
    const Base::Lock lock(mLock);
    mArmed = true;
    mChanged.notifyAll();
}

void ParentWatch::retire() {
    const Base::Lock lock(mLock);
    mRetired = true;
    mChanged.notifyAll();
}

} // namespace VellDevice
