#include "Timer.h"

#include "TimerQueue.h"

// What the timer hands to its callback, with the reference that the context's callbacks count.
class __CFRunLoopTimer::Info {
public:
    explicit Info(const CFRunLoopTimerContext* context) {
        if (!context)
            return;
        mInfo = context->info;
        mRelease = context->release;
        if (context->retain)
            mInfo = const_cast<void*>(context->retain(mInfo));
    }
    ~Info() {
        if (mRelease)
            mRelease(mInfo);
    }
    Info(const Info&) = delete;
    Info& operator=(const Info&) = delete;
    void* get() const { return mInfo; }

private:
    void* mInfo = nullptr;
    void (*mRelease)(const void*) = nullptr;
};

__CFRunLoopTimer::__CFRunLoopTimer(CFAbsoluteTime fireDate, CFTimeInterval period,
                                   CFRunLoopTimerCallBack callout, const CFRunLoopTimerContext* context)
    : firstFireDate(fireDate),
      interval(period > 0 ? period : 0),
      mCallout(callout),
      mInfo(std::make_shared<Info>(context)) {}

bool __CFRunLoopTimer::joinQueue(const std::shared_ptr<CoreFoundation::TimerQueue>& queue) {
    const Base::Lock lock(mMutex);
    if (!isValid() || mQueue)
        return false;
    mQueue = queue;
    return true;
}

void __CFRunLoopTimer::invalidate() {
    if (!mValid.exchange(false, std::memory_order_acq_rel))
        return;
    std::shared_ptr<Info> info;
    std::shared_ptr<CoreFoundation::TimerQueue> queue;
    {
        const Base::Lock lock(mMutex);
        info.swap(mInfo);
        queue.swap(mQueue);
    }
    // Without a lock held: the queue may drop the last reference to this timer, and the context's release may
    // do anything.
    if (queue)
        queue->remove(this);
}

void __CFRunLoopTimer::fire() {
    std::shared_ptr<Info> info;
    {
        const Base::Lock lock(mMutex);
        info = mInfo;
    }
    if (info && isValid() && mCallout)
        mCallout(this, info->get());
}

CFRunLoopTimerRef CFRunLoopTimerCreate(CFAllocatorRef, CFAbsoluteTime fireDate, CFTimeInterval interval,
                                       CFOptionFlags, CFIndex, CFRunLoopTimerCallBack callout,
                                       CFRunLoopTimerContext* context) {
    return new __CFRunLoopTimer(fireDate, interval, callout, context);
}

void CFRunLoopTimerInvalidate(CFRunLoopTimerRef timer) {
    if (timer)
        timer->invalidate();
}

Boolean CFRunLoopTimerIsValid(CFRunLoopTimerRef timer) {
    return timer && timer->isValid();
}
