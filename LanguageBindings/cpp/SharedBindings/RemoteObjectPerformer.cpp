#include "RemoteObjectPerformer.h"

#include "Locks.h"
#include "Trace.h"

#include <unistd.h>

namespace VellDevice {

RemoteObjectPerformer::RemoteObjectPerformer() {
    ThreadLock::InitializeMechanism(mPerformLock);
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
    if (!wait)
        return;
    while (!performed())
        sleep(1);
}

void RemoteObjectPerformer::scheduleOnRunLoop(void* performer, bool wait) {
    static_cast<RemoteObjectPerformer*>(performer)->schedule(wait);
}

bool RemoteObjectPerformer::performed() {
    const ThreadLock lock(mPerformLock);
    return mPerformed;
}

void RemoteObjectPerformer::internalPerform() {
    VellLogRuntime("[RemoteObjectPerformer] - performing {%p} on run loop {%p}\n", static_cast<void*>(this),
                   static_cast<void*>(CFRunLoopGetCurrent()));
    perform();
    // Once mPerformed is seen, a waiting thread may take the object off its stack: nothing of it is read
    // after that.
    const bool deleteAfterPerform = mDeleteAfterPerform;
    {
        const ThreadLock lock(mPerformLock);
        mPerformed = true;
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
