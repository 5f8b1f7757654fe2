#pragma once

#include "Locks.h"

#include <CoreFoundation/CoreFoundation.h>

#include <pthread.h>

namespace VellDevice {

// A piece of work that a thread hands to the main thread: whatever talks to the device service belongs there.
//
// A one-shot timer carries the object to the device center's run loop, where perform() runs between other
// events, so it never overlaps a command. Any thread may schedule; an object is scheduled once.
//
// Who owns it follows from `wait`. With true the scheduling code does, and the object may live on its stack:
// schedule returns as soon as perform() has finished, however long the main thread takes. With false the
// object was made with new and deletes itself on the main thread. Scheduled on the main thread itself, the
// work is done before schedule returns.
class RemoteObjectPerformer {
public:
    RemoteObjectPerformer();
    virtual ~RemoteObjectPerformer();
    RemoteObjectPerformer(const RemoteObjectPerformer&) = delete;
    RemoteObjectPerformer& operator=(const RemoteObjectPerformer&) = delete;

    virtual void perform() = 0;

    void schedule(bool wait);
    // schedule(wait) on `performer`, a RemoteObjectPerformer.
    void scheduleOnRunLoop(void* performer, bool wait);
    void internalPerform();

private:
    static void __CFRunLoopPerformCallBack(CFRunLoopTimerRef timer, void* info);
    void waitUntilPerformed();

    bool mDeleteAfterPerform = false;
    bool mPerformed GUARDED_BY(mPerformLock) = false;
    PthreadMutex mPerformLock;
    CFRunLoopTimerRef mTimer = nullptr;
    pthread_cond_t mPerformedCondition; // signalled under mPerformLock when mPerformed turns true
};

} // namespace VellDevice
