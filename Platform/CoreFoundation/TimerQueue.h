#pragma once

#include "Timer.h"

#include <cstdint>
#include <map>
#include <optional>
#include <utility>

namespace CoreFoundation {

// A counted reference to a timer.
class TimerReference {
public:
    explicit TimerReference(CFRunLoopTimerRef timer) : mTimer(timer) { CFRetain(timer); }
    TimerReference(TimerReference&& other) noexcept : mTimer(std::exchange(other.mTimer, nullptr)) {}
    TimerReference& operator=(TimerReference&&) = delete;
    ~TimerReference() { CFRelease(mTimer); }
    CFRunLoopTimerRef get() const { return mTimer; }

private:
    CFRunLoopTimerRef mTimer;
};

// The timers of one loop in the order in which they fire: by date, those of one date in the order they came.
// It keeps a reference to each. Any thread; no call of anybody else's code is made under its lock.
class TimerQueue {
public:
    using Ticket = std::uint64_t; // numbers the insertions

    struct Due {
        TimerReference timer;
        CFAbsoluteTime date;
    };

    void insert(CFRunLoopTimerRef timer, CFAbsoluteTime date);
    void remove(CFRunLoopTimerRef timer);

    // The number of the last insertion so far.
    Ticket lastTicket() const;
    // Takes out the first timer that is due at `now` among those inserted up to `last`.
    std::optional<Due> takeDue(CFAbsoluteTime now, Ticket last);
    std::optional<CFAbsoluteTime> nextDate() const;

private:
    using Key = std::pair<CFAbsoluteTime, Ticket>;

    mutable Base::Mutex mMutex;
    Ticket mLastTicket GUARDED_BY(mMutex) = 0;
    std::map<Key, TimerReference> mTimers GUARDED_BY(mMutex);
};

} // namespace CoreFoundation
