#include "RestartPolicy.h"

#include <algorithm>
#include <utility>

namespace service {

namespace {

constexpr int kRestartStatus = -1020 & 0xff;
constexpr double kLongestPause = 60;
constexpr double kUsefulLife = 30;

} // namespace

std::optional<double> RestartPolicy::pauseAfter(const tools::ProcessEnd& end, double secondsLived) {
    if (!end.bySignal && end.value != kRestartStatus)
        return std::nullopt;
    if (secondsLived >= kUsefulLife)
        mNextPause = mFirstPause;
    return nextPause();
}

double RestartPolicy::nextPause() {
    return std::exchange(mNextPause, std::min(mNextPause * 2, kLongestPause));
}

} // namespace service
