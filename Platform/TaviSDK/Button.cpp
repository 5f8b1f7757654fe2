#include "Button.h"

#include <algorithm>

namespace TaviSDK {

namespace {

// More presses at once than a hand can do are a mistake in the settings.
constexpr long kMostPresses = 16;

} // namespace

void Button::setHandler(Tavi_DeviceMessageHandler handler) {
    std::unique_lock lock(mMutex);
    mHandler = handler;
    mPresses = 0;
    mReported.wait(lock, [this] { return !mIsReporting || mReporter == std::this_thread::get_id(); });
}

void Button::press(long times) {
    const std::lock_guard lock(mMutex);
    if (mHandler != nullptr) {
        mPresses = std::min(kMostPresses, mPresses + std::min(times, kMostPresses));
    }
}

void Button::report() {
    std::unique_lock lock(mMutex);
    while (mPresses > 0 && mHandler != nullptr) {
        --mPresses;
        const Tavi_DeviceMessageHandler handler = mHandler;
        mIsReporting = true;
        mReporter = std::this_thread::get_id();
        lock.unlock();
        handler(Tavi_MessageButtonPressed, "The button was pressed.");
        lock.lock();
        mIsReporting = false;
        mReported.notify_all();
    }
}

} // namespace TaviSDK
