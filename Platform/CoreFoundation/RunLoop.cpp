#include "RunLoop.h"

#include "Clock.h"

#include <cmath>

using CoreFoundation::Clock;
using CoreFoundation::FileSource;
using CoreFoundation::Poller;
using CoreFoundation::TimerQueue;

namespace {

// Between two looks at the timers and the descriptors.
constexpr int kEventsPerPass = 64;

// Gives the thread's loop back when the thread ends.
struct CurrentLoop {
    CFRunLoopRef loop = new __CFRunLoop;
    CurrentLoop() = default;
    CurrentLoop(const CurrentLoop&) = delete;
    CurrentLoop& operator=(const CurrentLoop&) = delete;
    ~CurrentLoop() { loop->release(); }
};

bool always() {
    return true;
}

} // namespace

// Marks that a callback of the loop is on the stack.
class __CFRunLoop::Activity {
public:
    explicit Activity(__CFRunLoop& loop) : mLoop(loop) { ++mLoop.mDepth; }
    ~Activity() { --mLoop.mDepth; }
    Activity(const Activity&) = delete;
    Activity& operator=(const Activity&) = delete;

private:
    __CFRunLoop& mLoop;
};

__CFRunLoop* __CFRunLoop::current() {
    thread_local const CurrentLoop holder;
    return holder.loop;
}

__CFRunLoop::__CFRunLoop() : mThread(std::this_thread::get_id()), mTimers(std::make_shared<TimerQueue>()) {}

__CFRunLoop::~__CFRunLoop() = default;

Poller& __CFRunLoop::poller() {
    if (!mPollerStorage) {
        mPollerStorage = std::make_unique<Poller>();
        mPoller.store(mPollerStorage.get());
    }
    return *mPollerStorage;
}

void __CFRunLoop::wake() {
    // A loop without a poller has never waited; it looks at its timers and events before it does.
    if (Poller* poller = mPoller.load())
        poller->wake();
}

void __CFRunLoop::addTimer(CFRunLoopTimerRef timer) {
    if (!timer->joinQueue(mTimers))
        return;
    mTimers->insert(timer, timer->firstFireDate);
    if (!isOfThisThread())
        wake();
}

void __CFRunLoop::enqueue(Event event) {
    {
        const Base::Lock lock(mEventMutex);
        mEvents.push_back(std::move(event));
    }
    if (!isOfThisThread())
        wake();
}

void __CFRunLoop::discardEvents() {
    std::deque<Event> discarded;
    const Base::Lock lock(mEventMutex);
    discarded.swap(mEvents);
}

bool __CFRunLoop::fireTimers() {
    bool fired = false;
    const CFAbsoluteTime now = Clock::now();
    // Timers that are added, or added again, from here on belong to the next pass.
    const TimerQueue::Ticket last = mTimers->lastTicket();
    while (const auto due = mTimers->takeDue(now, last)) {
        const CFRunLoopTimerRef timer = due->timer.get();
        fired = true;
        {
            const Activity activity(*this);
            timer->fire();
        }
        if (timer->interval == 0) {
            timer->invalidate();
            continue;
        }
        // While its callback was on the stack the timer was in no queue, so no nested pass could fire it. One
        // that is late skips what it missed.
        CFAbsoluteTime next = due->date + timer->interval;
        if (next <= now)
            next = now + timer->interval;
        const CFAbsoluteTime after = Clock::now();
        if (next <= after)
            next = after + timer->interval;
        if (timer->isValid())
            mTimers->insert(timer, next);
    }
    return fired;
}

int __CFRunLoop::millisecondsToWait() const {
    {
        const Base::Lock lock(mEventMutex);
        if (!mEvents.empty())
            return 0;
    }
    const auto next = mTimers->nextDate();
    if (!next)
        return -1;
    const double seconds = *next - Clock::now();
    if (seconds <= 0)
        return 0;
    // Rounded up, or the loop would spin through the last fraction. Virtual time comes with a wake-up.
    constexpr double longest = 3600;
    return Clock::isVirtual() ? -1 : static_cast<int>(std::ceil(std::fmin(seconds, longest) * 1000));
}

void __CFRunLoop::runEvents(const std::function<bool()>& goesOn) {
    for (int count = 0; count < kEventsPerPass && goesOn(); ++count) {
        Event event;
        {
            const Base::Lock lock(mEventMutex);
            if (mEvents.empty())
                return;
            event = std::move(mEvents.front());
            mEvents.pop_front();
        }
        const Activity activity(*this);
        event();
    }
}

void __CFRunLoop::pass(Wait wait, const std::function<bool()>& goesOn) {
    const bool nested = isBusy();
    const bool fired = fireTimers();
    if (nested || !goesOn())
        return;
    // The poller comes first: from here on other threads wake it, and what they did before is seen by the
    // look at timers and events that follows.
    Poller& descriptors = poller();
    const int milliseconds = wait == Wait::forWork && !fired ? millisecondsToWait() : 0;
    {
        const Activity activity(*this);
        descriptors.waitAndDispatch(milliseconds);
    }
    runEvents(goesOn);
}

void __CFRunLoop::pass(Wait wait) {
    pass(wait, always);
}

FileSource::FileSource(CFRunLoopRef loop, int fd, std::uint32_t events, Poller::Handler handler)
    : mLoop(loop), mFd(fd), mIdentifier(loop->poller().add(fd, events, std::move(handler))) {
    mLoop->retain();
}

FileSource::~FileSource() {
    mLoop->poller().remove(mIdentifier, mFd);
    mLoop->release();
}

void FileSource::setEvents(std::uint32_t events) {
    mLoop->poller().modify(mIdentifier, mFd, events);
}

CFRunLoopRef CFRunLoopGetCurrent() {
    return __CFRunLoop::current();
}

void CFRunLoopAddTimer(CFRunLoopRef loop, CFRunLoopTimerRef timer, CFStringRef) {
    if (loop && timer)
        loop->addTimer(timer);
}
