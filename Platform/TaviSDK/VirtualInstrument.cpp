#include "VirtualInstrument.h"

#include "CallGuard.h"
#include "Instrument.h"

namespace TaviSDK {

namespace {

// How many hooks are on this thread's stack: a hook that replaces the hook must not wait for itself.
thread_local int hooksOnStack = 0;

} // namespace

CallGuard& CallGuard::instance() {
    static CallGuard* const guard = new CallGuard;
    return *guard;
}

std::optional<int> CallGuard::ask(const Call& call) {
    std::shared_ptr<const CallHook> hook;
    {
        const Base::Lock lock(mMutex);
        hook = mHook;
        if (!hook) {
            return std::nullopt;
        }
        ++mRunning;
    }
    struct Return {
        CallGuard& guard;
        std::shared_ptr<const CallHook>& hook;
        ~Return() {
            --hooksOnStack;
            const Base::Lock lock(guard.mMutex);
            // Dropped here, so that whoever set another hook knows this one and what it holds to be gone.
            hook.reset();
            --guard.mRunning;
            guard.mReturned.notifyAll();
        }
    };
    ++hooksOnStack;
    const Return onReturn{*this, hook};
    return (*hook)(call);
}

void CallGuard::set(CallHook hook) {
    std::shared_ptr<const CallHook> next;
    if (hook) {
        next = std::make_shared<const CallHook>(std::move(hook));
    }
    // The old hook is destroyed without the lock: it may hold anything.
    const Base::Lock lock(mMutex);
    mIsSet = next != nullptr;
    mHook.swap(next);
    while (hooksOnStack == 0 && mRunning > 0) {
        mReturned.wait(mMutex);
    }
}

std::string setSimulation(const Simulation& simulation) {
    return Instrument::instance().setSimulation(simulation);
}

Simulation simulation() {
    return Instrument::instance().simulation().state()->simulation;
}

void powerCycle() {
    Instrument::instance().powerCycle();
}

void setCallHook(CallHook hook) {
    CallGuard::instance().set(std::move(hook));
}

} // namespace TaviSDK
