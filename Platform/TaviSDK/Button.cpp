#include "Button.h"

#include <algorithm>

namespace TaviSDK {

namespace {

// More presses at once than a hand can do are a mistake in the settings.
constexpr long kMostPresses = 16;

} // namespace

void Button::setHandler(Tavi_DeviceMessageHandler handler) {
    const Base::Lock lock(mMutex);
    mHandler = handler;
    mPresses = 0;
    while (mIsReporting && mReporter != std::this_thread::get_id()) {
        mReported.wait(mMutex);
    }
}

void Button::press(long times) {
    const Base::Lock lock(mMutex);
    if (mHandler != nullptr) {
        mPresses = std::min(kMostPresses, mPresses + std::min(times, kMostPresses));
    }
}

void Button::report() {
    const Base::Lock lock(mMutex);
    while (mPresses > 0 && mHandler != nullptr) {
        --mPresses;
        const Tavi_DeviceMessageHandler handler = mHandler;
        mIsReporting = true;
        mReporter = std::this_thread::get_id();
        {
            const Base::Unlock unlocked(mMutex);
            handler(Tavi_MessageButtonPressed, "The button was pressed.");
        }
        mIsReporting = false;
        mReported.notifyAll();
    }
}

} // namespace TaviSDK
