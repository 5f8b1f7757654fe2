#pragma once

#include "TaviSDK.h"

#include <condition_variable>
#include <mutex>
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
    std::mutex mMutex; // guards everything below
    std::condition_variable mReported;
    Tavi_DeviceMessageHandler mHandler = nullptr;
    long mPresses = 0;
    bool mIsReporting = false;
    std::thread::id mReporter;
};

} // namespace TaviSDK
