// Work and timers on the device center's run loop, from any thread.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <functional>

namespace tools {

// Runs `work` once on the center's thread, after what was handed over before it. Any thread.
void runOnCenterLoop(std::function<void()> work);

// A timer of the center's run loop that ends with the object. Any thread may make and destroy it; `callback`
// runs on the center's thread, and may be on the stack there for a moment after another thread has destroyed
// the timer.
class LoopTimer {
public:
    LoopTimer() = default;
    // First fires after `delay` seconds, then every `interval` seconds when that is above 0.
    LoopTimer(double delay, double interval, std::function<void()> callback);
    LoopTimer(LoopTimer&& other) noexcept;
    LoopTimer& operator=(LoopTimer&& other) noexcept;
    ~LoopTimer();

    bool isRunning() const;
    void cancel();

private:
    CFRunLoopTimerRef mTimer = nullptr;
};

} // namespace tools
