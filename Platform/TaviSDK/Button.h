#pragma once

#include "TaviSDK.h"

#include <Base/Mutex.h>

#include <deque>
#include <string>
#include <thread>
#include <utility>

namespace TaviSDK {

// The button on the instrument, and what else it says by itself: messages wait here until the SDK's thread
// reports them to the handler.
// Any thread may press and register; only the SDK's thread reports.
class Button {
public:
    // Returns when the handler before is not running any more, unless that handler is the caller.
    // Messages that were not reported yet are forgotten.
    void setHandler(Tavi_DeviceMessageHandler handler);
    // Without a handler nobody hears a press, then or later.
    void press(long times);
    // The same for any message.
    void send(Tavi_DeviceMessage message, const std::string& text);
    // Calls the handler for the messages that wait, without a lock.
    void report();

private:
    Base::Mutex mMutex;
    Base::Condition mReported;
    Tavi_DeviceMessageHandler mHandler GUARDED_BY(mMutex) = nullptr;
    std::deque<std::pair<Tavi_DeviceMessage, std::string>> mWaiting GUARDED_BY(mMutex);
    bool mIsReporting GUARDED_BY(mMutex) = false;
    std::thread::id mReporter GUARDED_BY(mMutex);
};

} // namespace TaviSDK
