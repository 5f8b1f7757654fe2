#pragma once

#include "VirtualInstrument.h"

#include <Base/Mutex.h>

#include <atomic>
#include <memory>
#include <optional>

namespace TaviSDK {

// Keeps the call hook and asks it before every call. Any thread.
class CallGuard {
public:
    static CallGuard& instance();

    bool isSet() const { return mIsSet.load(std::memory_order_acquire); }
    std::optional<int> ask(const Call& call);
    // See setCallHook().
    void set(CallHook hook);

private:
    CallGuard() = default;
    ~CallGuard() = delete;

    std::atomic<bool> mIsSet{false}; // spares calls without a hook the mutex
    Base::Mutex mMutex;              // guards everything below
    Base::Condition mReturned;
    std::shared_ptr<const CallHook> mHook GUARDED_BY(mMutex);
    int mRunning GUARDED_BY(mMutex) = 0; // calls of hooks, the one that is set or one before
};

} // namespace TaviSDK
