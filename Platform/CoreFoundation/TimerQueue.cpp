#include "TimerQueue.h"

#include <algorithm>
#include <limits>

namespace CoreFoundation {

void TimerQueue::insert(CFRunLoopTimerRef timer, CFAbsoluteTime date) {
    // A date that is no number would upset the order; such a timer is never due.
    if (!(date == date))
        date = std::numeric_limits<CFAbsoluteTime>::infinity();
    // Once it is in the queue, the loop's thread may fire it, and its owner may give it back there.
    const TimerReference kept(timer);
    {
        const Base::Lock lock(mMutex);
        mTimers.emplace(Key(date, ++mLastTicket), TimerReference(timer));
    }
    // Invalidated between the decision to insert it and now.
    if (!timer->isValid())
        remove(timer);
}

void TimerQueue::remove(CFRunLoopTimerRef timer) {
    // Released after the lock: the last reference may go with it.
    std::optional<TimerReference> removed;
    const Base::Lock lock(mMutex);
    const auto found = std::find_if(mTimers.begin(), mTimers.end(),
                                    [&](const auto& entry) { return entry.second.get() == timer; });
    if (found == mTimers.end())
        return;
    removed.emplace(std::move(found->second));
    mTimers.erase(found);
}

TimerQueue::Ticket TimerQueue::lastTicket() const {
    const Base::Lock lock(mMutex);
    return mLastTicket;
}

std::optional<TimerQueue::Due> TimerQueue::takeDue(CFAbsoluteTime now, Ticket last) {
    const Base::Lock lock(mMutex);
    for (auto entry = mTimers.begin(); entry != mTimers.end() && entry->first.first <= now; ++entry) {
        if (entry->first.second > last)
            continue;
        Due due{std::move(entry->second), entry->first.first};
        mTimers.erase(entry);
        return due;
    }
    return std::nullopt;
}

std::optional<CFAbsoluteTime> TimerQueue::nextDate() const {
    const Base::Lock lock(mMutex);
    if (mTimers.empty())
        return std::nullopt;
    return mTimers.begin()->first.first;
}

} // namespace CoreFoundation
