#pragma once

#include <CoreFoundation/RunLoop.h>

#include <functional>
#include <utility>

namespace VellService {

// A one-shot run-loop timer as an object: it does not fire once the object is gone. The loop's thread only.
class Delay {
public:
    explicit Delay(CFRunLoopRef loop) : mLoop(loop) {}
    ~Delay() { cancel(); }
    Delay(const Delay&) = delete;
    Delay& operator=(const Delay&) = delete;

    bool isPending() const { return mTimer && CFRunLoopTimerIsValid(mTimer); }

    // Replaces what was pending.
    void start(CFTimeInterval seconds, std::function<void()> action) {
        cancel();
        mAction = std::move(action);
        CFRunLoopTimerContext context{0, this, nullptr, nullptr, nullptr};
        mTimer = CFRunLoopTimerCreate(kCFAllocatorDefault, CFAbsoluteTimeGetCurrent() + seconds, 0, 0, 0,
                                      fire, &context);
        CFRunLoopAddTimer(mLoop, mTimer, kCFRunLoopDefaultMode);
    }
    void cancel() {
        if (!mTimer)
            return;
        CFRunLoopTimerInvalidate(mTimer);
        CFRelease(std::exchange(mTimer, nullptr));
    }

private:
    static void fire(CFRunLoopTimerRef timer, void* info) {
        // Taken out first: the action may start the delay anew or destroy it.
        auto* self = static_cast<Delay*>(info);
        CFRunLoopTimerInvalidate(timer);
        const auto action = std::move(self->mAction);
        action();
    }

    const CFRunLoopRef mLoop;
    CFRunLoopTimerRef mTimer = nullptr;
    std::function<void()> mAction;
};

} // namespace VellService
