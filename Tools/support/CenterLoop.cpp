#include "CenterLoop.h"

#include <VellDevice/VellDevice.h>

#include <memory>
#include <utility>

namespace tools {

namespace {

using SharedCallback = std::shared_ptr<std::function<void()>>;

void fire(CFRunLoopTimerRef, void* info) {
    // The callback may destroy its own timer, and with it the timer's share of the function.
    const SharedCallback callback = *static_cast<SharedCallback*>(info);
    (*callback)();
}

void releaseCallback(const void* info) {
    delete static_cast<const SharedCallback*>(info);
}

CFRunLoopTimerRef addTimer(CFAbsoluteTime fireDate, double interval, std::function<void()> callback) {
    auto* info = new SharedCallback(std::make_shared<std::function<void()>>(std::move(callback)));
    CFRunLoopTimerContext context{0, info, nullptr, releaseCallback, nullptr};
    CFRunLoopTimerRef timer =
        CFRunLoopTimerCreate(kCFAllocatorDefault, fireDate, interval, 0, 0, fire, &context);
    CFRunLoopAddTimer(VellDeviceCenterGetRunLoop(VellDeviceCenterGetDistributedCenter()), timer,
                      kCFRunLoopDefaultMode);
    return timer;
}

} // namespace

void runOnCenterLoop(std::function<void()> work) {
    CFRelease(addTimer(0, 0, std::move(work)));
}

LoopTimer::LoopTimer(double delay, double interval, std::function<void()> callback)
    : mTimer(addTimer(CFAbsoluteTimeGetCurrent() + delay, interval, std::move(callback))) {}

LoopTimer::LoopTimer(LoopTimer&& other) noexcept : mTimer(std::exchange(other.mTimer, nullptr)) {}

LoopTimer& LoopTimer::operator=(LoopTimer&& other) noexcept {
    if (this != &other) {
        cancel();
        mTimer = std::exchange(other.mTimer, nullptr);
    }
    return *this;
}

LoopTimer::~LoopTimer() {
    cancel();
}

bool LoopTimer::isRunning() const {
    return mTimer && CFRunLoopTimerIsValid(mTimer);
}

void LoopTimer::cancel() {
    if (CFRunLoopTimerRef timer = std::exchange(mTimer, nullptr)) {
        CFRunLoopTimerInvalidate(timer);
        CFRelease(timer);
    }
}

} // namespace tools
