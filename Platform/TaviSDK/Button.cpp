#include "Button.h"

#include <cstddef>

namespace TaviSDK {

namespace {

// More presses at once than a hand can do are a mistake in the settings.
constexpr std::size_t kMostPresses = 16;

} // namespace

void Button::setHandler(Tavi_DeviceMessageHandler handler) {
    const Base::Lock lock(mMutex);
    mHandler = handler;
    mWaiting.clear();
    while (mIsReporting && mReporter != std::this_thread::get_id()) {
        mReported.wait(mMutex);
    }
}

void Button::press(long times) {
    for (std::size_t press = 0; press < kMostPresses && times > 0; ++press, --times) {
        send(Tavi_MessageButtonPressed, "The button was pressed.");
    }
}

void Button::send(Tavi_DeviceMessage message, const std::string& text) {
    const Base::Lock lock(mMutex);
    if (mHandler != nullptr && mWaiting.size() < kMostPresses) {
        mWaiting.emplace_back(message, text);
    }
}

void Button::report() {
    const Base::Lock lock(mMutex);
    while (!mWaiting.empty() && mHandler != nullptr) {
        const auto [message, text] = std::move(mWaiting.front());
        mWaiting.pop_front();
        const Tavi_DeviceMessageHandler handler = mHandler;
        mIsReporting = true;
        mReporter = std::this_thread::get_id();
        {
            const Base::Unlock unlocked(mMutex);
            handler(message, text.c_str());
        }
        mIsReporting = false;
        mReported.notifyAll();
    }
}

} // namespace TaviSDK
