#include "RemoteObjectPerformer.h"

#include "Locks.h"
#include "Trace.h"

#include <ctime>

namespace VellDevice {

namespace {

constexpr clockid_t kClock = CLOCK_MONOTONIC; // the waiters'; setting the date wakes nobody late

timespec oneSecondFromNow() {
    timespec time{};
    clock_gettime(kClock, &time);
    ++time.tv_sec;
    return time;
}

} // namespace

RemoteObjectPerformer::RemoteObjectPerformer() {
    ThreadLock::InitializeMechanism(mPerformLock);
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, kClock);
    pthread_cond_init(&mPerformedCondition, &attributes);
    pthread_condattr_destroy(&attributes);
    CFRunLoopTimerContext context{0, this, nullptr, nullptr, nullptr};
    mTimer = CFRunLoopTimerCreate(kCFAllocatorDefault, 0, 0, 0, 0, __CFRunLoopPerformCallBack, &context);
}

RemoteObjectPerformer::~RemoteObjectPerformer() {
    VELL_TRACE();
    if (mTimer != nullptr) {
        CFRunLoopTimerInvalidate(mTimer);
        CFRelease(mTimer);
        mTimer = nullptr;
    }
    pthread_cond_destroy(&mPerformedCondition);
    pthread_mutex_destroy(&mPerformLock);
}

void RemoteObjectPerformer::schedule(bool wait) {
    mDeleteAfterPerform = !wait;
    const CFRunLoopRef target = VellDeviceCenterGetRunLoop(VellDeviceCenterGetDistributedCenter());
    const CFRunLoopRef here = CFRunLoopGetCurrent();
    VellLogRuntime(
        "[RemoteObjectPerformer] - scheduling performer {%p} on run loop {%p} from run loop {%p}\n",
        static_cast<void*>(this), static_cast<void*>(target), static_cast<void*>(here));
    {
        const ThreadLock lock(mPerformLock);
        mPerformed = false;
    }
    if (here == target) {
        internalPerform();
        return;
    }
    CFRunLoopAddTimer(target, mTimer, kCFRunLoopDefaultMode);
    // From here on an object that deletes itself may be gone.
    if (wait)
        waitUntilPerformed();
}

void RemoteObjectPerformer::scheduleOnRunLoop(void* performer, bool wait) {
    static_cast<RemoteObjectPerformer*>(performer)->schedule(wait);
}

// Looks at once and at least once a second, and besides that when it is woken. The wait gives up one hold of
// the recursive mutex, which is why this thread has no other.
void RemoteObjectPerformer::waitUntilPerformed() {
    const ThreadLock lock(mPerformLock);
    while (!mPerformed) {
        const timespec nextLook = oneSecondFromNow();
        pthread_cond_timedwait(&mPerformedCondition, &mPerformLock, &nextLook);
    }
}

void RemoteObjectPerformer::internalPerform() {
    VellLogRuntime("[RemoteObjectPerformer] - performing {%p} on run loop {%p}\n", static_cast<void*>(this),
                   static_cast<void*>(CFRunLoopGetCurrent()));
    perform();
    // Once mPerformed is seen, a waiting thread may take the object off its stack: nothing of it is touched
    // after the lock is given back, and the waiter cannot see it before.
    const bool deleteAfterPerform = mDeleteAfterPerform;
    {
        const ThreadLock lock(mPerformLock);
        mPerformed = true;
        pthread_cond_signal(&mPerformedCondition);
    }
    VellLogRuntime("[RemoteObjectPerformer] - performed {%p} on run loop {%p}\n", static_cast<void*>(this),
                   static_cast<void*>(CFRunLoopGetCurrent()));
    if (deleteAfterPerform)
        delete this;
}

void RemoteObjectPerformer::__CFRunLoopPerformCallBack(CFRunLoopTimerRef timer, void* info) {
    CFRunLoopTimerInvalidate(timer);
    static_cast<RemoteObjectPerformer*>(info)->internalPerform();
}

} // namespace VellDevice
