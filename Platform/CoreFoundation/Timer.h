#pragma once

#include "Object.h"

#include <Base/Mutex.h>

#include <atomic>
#include <memory>

namespace CoreFoundation {
class TimerQueue;
}

// A run-loop timer. It is made unscheduled, belongs to one loop's queue from its first add on, and ends when
// it is invalidated or, without an interval, has fired. Any thread may add and invalidate it; it fires on its
// loop's thread.
struct __CFRunLoopTimer final : CoreFoundation::Object {
    __CFRunLoopTimer(CFAbsoluteTime fireDate, CFTimeInterval interval, CFRunLoopTimerCallBack callout,
                     const CFRunLoopTimerContext* context);

    bool isValid() const { return mValid.load(std::memory_order_acquire); }
    void invalidate();

    // Takes the timer into `queue`, once; false when it is already in a queue or no longer valid.
    bool joinQueue(const std::shared_ptr<CoreFoundation::TimerQueue>& queue);
    // Calls the callback, unless the timer is no longer valid. The caller holds a reference.
    void fire();

    const CFAbsoluteTime firstFireDate;
    const CFTimeInterval interval; // 0: fires once

private:
    class Info;

    const CFRunLoopTimerCallBack mCallout;
    std::atomic<bool> mValid{true};
    Base::Mutex mMutex;
    std::shared_ptr<Info> mInfo GUARDED_BY(mMutex);
    std::shared_ptr<CoreFoundation::TimerQueue> mQueue GUARDED_BY(mMutex);
};
