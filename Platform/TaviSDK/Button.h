#pragma once

#include "TaviSDK.h"

#include <Base/Mutex.h>

#include <thread>

namespace TaviSDK {

// The button on the instrument: presses wait here until the SDK's thread reports them to the handler.
// Any thread may press and register; only the SDK's thread reports.
class Button {
public:
    // Returns when the handler before is not running any more, unless that handler is the caller.
    // Presses that were not reported yet are forgotten.
    void setHandler(Tavi_DeviceMessageHandler handler);
    // Without a handler nobody hears a press, then or later.
    void press(long times);
    // Calls the handler for the presses that wait, without a lock.
    void report();

private:
    Base::Mutex mMutex;
    Base::Condition mReported;
    Tavi_DeviceMessageHandler mHandler GUARDED_BY(mMutex) = nullptr;
    long mPresses GUARDED_BY(mMutex) = 0;
    bool mIsReporting GUARDED_BY(mMutex) = false;
    std::thread::id mReporter GUARDED_BY(mMutex);
};

} // namespace TaviSDK
