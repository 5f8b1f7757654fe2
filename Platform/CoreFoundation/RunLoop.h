// The run loop from the inside: what the service API needs of it beyond timers.
#pragma once

#include "Object.h"
#include "Poller.h"
#include "TimerQueue.h"

#include <Base/Mutex.h>

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

// One thread's event loop. Three kinds of things run on it: timers; descriptors that are ready; and events,
// closures that any thread queues and that run one after another, in order, never inside each other.
//
// A pass that is made while something of the loop is on the stack is a nested one: it fires timers (not the
// one whose callback makes it) and nothing else, so the stack never grows with the queue of events.
//
// Unless an operation says otherwise, only the loop's own thread calls it.
struct __CFRunLoop final : CoreFoundation::Object {
    using Event = std::function<void()>;
    enum class Wait { no, forWork };

    // The calling thread's, made on first use.
    static __CFRunLoop* current();

    __CFRunLoop();
    ~__CFRunLoop() override;

    // Any thread.
    bool isOfThisThread() const { return std::this_thread::get_id() == mThread; }
    void addTimer(CFRunLoopTimerRef timer);
    void enqueue(Event event);
    void wake();

    // Something of this loop is on the stack.
    bool isBusy() const { return mDepth > 0; }

    // Fires the timers that are due now; false when there were none.
    bool fireTimers();
    // One pass: the due timers, the descriptors that are ready, then the events that are queued (a bounded
    // number, and only while `goesOn` says so). With Wait::forWork, and when no timer was due, it waits until
    // there is something to do; a wait may end without any. A nested pass only fires timers.
    void pass(Wait wait, const std::function<bool()>& goesOn);
    void pass(Wait wait);

    CoreFoundation::Poller& poller();

    // Forgets the queued events; for tests that start afresh.
    void discardEvents();

private:
    class Activity;

    int millisecondsToWait() const;
    void runEvents(const std::function<bool()>& goesOn);

    const std::thread::id mThread;
    // Made when the loop first waits or watches: most threads ask for their loop only to compare it with
    // another.
    std::unique_ptr<CoreFoundation::Poller> mPollerStorage;
    std::atomic<CoreFoundation::Poller*> mPoller{nullptr};
    const std::shared_ptr<CoreFoundation::TimerQueue> mTimers;
    mutable Base::Mutex mEventMutex;
    std::deque<Event> mEvents GUARDED_BY(mEventMutex);
    int mDepth = 0; // callbacks on the stack
};

namespace CoreFoundation {

// Watches one descriptor from the loop's thread for as long as it lives; made and destroyed on that thread.
// The descriptor must stay open meanwhile.
class FileSource {
public:
    FileSource(CFRunLoopRef loop, int fd, std::uint32_t events, Poller::Handler handler);
    ~FileSource();
    FileSource(const FileSource&) = delete;
    FileSource& operator=(const FileSource&) = delete;

    // Any thread; a loop that waits takes notice.
    void setEvents(std::uint32_t events);

private:
    const CFRunLoopRef mLoop;
    const int mFd;
    const Poller::Identifier mIdentifier;
};

} // namespace CoreFoundation
