// The standard library's mutex, lock and condition, as the compiler can check them.
#pragma once

#include <Base/ThreadSafety.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace Base {

class CAPABILITY("mutex") Mutex {
public:
    void lock() ACQUIRE() { mMutex.lock(); }
    void unlock() RELEASE() { mMutex.unlock(); }

private:
    friend class Condition;
    std::mutex mMutex;
};

// Holds a mutex for the life of a block.
class SCOPED_CAPABILITY Lock {
public:
    explicit Lock(Mutex& mutex) ACQUIRE(mutex) : mMutex(mutex) { mMutex.lock(); }
    ~Lock() RELEASE() { mMutex.unlock(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

private:
    Mutex& mMutex;
};

// The reverse: gives a mutex that is held back for the life of a block, for a call of what may do anything.
class SCOPED_CAPABILITY Unlock {
public:
    explicit Unlock(Mutex& mutex) RELEASE(mutex) : mMutex(mutex) { mMutex.unlock(); }
    ~Unlock() RELEASE() { mMutex.lock(); }
    Unlock(const Unlock&) = delete;
    Unlock& operator=(const Unlock&) = delete;

private:
    Mutex& mMutex;
};

// Waits with the mutex held, which is given back meanwhile. A wait may end for no reason: look again at what
// was waited for.
class Condition {
public:
    void wait(Mutex& mutex) REQUIRES(mutex) {
        std::unique_lock lock(mutex.mMutex, std::adopt_lock);
        mCondition.wait(lock);
        lock.release();
    }
    // False when the time has come.
    template <typename Clock, typename Duration>
    bool waitUntil(Mutex& mutex, const std::chrono::time_point<Clock, Duration>& end) REQUIRES(mutex) {
        std::unique_lock lock(mutex.mMutex, std::adopt_lock);
        const bool isEarly = mCondition.wait_until(lock, end) == std::cv_status::no_timeout;
        lock.release();
        return isEarly;
    }
    void notifyAll() { mCondition.notify_all(); }

private:
    std::condition_variable mCondition;
};

} // namespace Base
