#pragma once

#include <Base/Mutex.h>

#include <sys/types.h>

namespace VellDevice {

// Notices that the parent process is gone; a thread waits in it and looks every 5 seconds.
//
// An orphan is handed to process 1, or to whichever process adopts orphans in its place, so a parent that
// changed counts as gone too. Process 1 itself is a living parent only when the service says that it is
// process 1 ($VELL_SERVICE_PID), as the entry program of a container is. The wait never ends before arm(),
// which the plug-in calls when it is complete.
class ParentWatch {
public:
    ParentWatch();

    // Waits until the parent is gone (true) or nobody wants to know any more (false).
    bool waitUntilGone();
    // From now on a parent that is gone ends the wait. Any thread.
    void arm();
    // Ends the wait without a report. Any thread.
    void retire();

private:
    bool parentIsGone() const;

    const pid_t mParent;
    const bool mParentIsProcess1; // from the start, and rightly so
    Base::Mutex mLock;
    Base::Condition mChanged;
    bool mArmed GUARDED_BY(mLock) = false;
    bool mRetired GUARDED_BY(mLock) = false;
};

} // namespace VellDevice
