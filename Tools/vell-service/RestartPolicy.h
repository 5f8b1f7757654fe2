#pragma once

#include <support/ChildProcess.h>

#include <optional>

namespace service {

// Decides whether a plug-in process that ended is started again, and after which pause. One per instrument.
//
// A plug-in asks for a new start with exit code -1020, of which the kernel keeps 8 bits; one that a signal
// ended did not mean to end. The pause doubles from start to start up to a minute, and begins anew once a
// process has lived long enough to have been of use. Every other end is final until the hardware is attached
// again.
class RestartPolicy {
public:
    explicit RestartPolicy(double firstPause) : mFirstPause(firstPause), mNextPause(firstPause) {}

    // Seconds until the next start; nothing when there is to be none.
    std::optional<double> pauseAfter(const tools::ProcessEnd& end, double secondsLived);
    // The same after a start that did not succeed.
    double nextPause();

private:
    double mFirstPause;
    double mNextPause;
};

} // namespace service
