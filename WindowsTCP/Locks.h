// Locks between the threads of one process.
#pragma once

#include <Base/ThreadSafety.h>

#include <pthread.h>

// A mutex that the compiler can check; to everybody else it is the same type.
using PthreadMutex CAPABILITY("mutex") = pthread_mutex_t;

// Holds a mutex for the life of a block. The mutexes for it are recursive and made by InitializeMechanism, so
// a thread that holds one may take it again.
class SCOPED_CAPABILITY ThreadLock {
public:
    explicit ThreadLock(PthreadMutex& mutex) ACQUIRE(mutex);
    ~ThreadLock() RELEASE();
    ThreadLock(const ThreadLock&) = delete;
    ThreadLock& operator=(const ThreadLock&) = delete;

    // Initialises `mutex` as a recursive one; its owner destroys it.
    static void InitializeMechanism(pthread_mutex_t& mutex);

private:
    pthread_mutex_t& mMutex;
};
