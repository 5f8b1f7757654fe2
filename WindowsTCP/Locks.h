// Locks between the threads of one process.
#pragma once

#include <pthread.h>

// Holds a mutex for the life of a block. The mutexes for it are recursive and made by InitializeMechanism, so
// a thread that holds one may take it again.
class ThreadLock {
public:
    explicit ThreadLock(pthread_mutex_t& mutex);
    ~ThreadLock();
    ThreadLock(const ThreadLock&) = delete;
    ThreadLock& operator=(const ThreadLock&) = delete;

    // Initialises `mutex` as a recursive one; its owner destroys it.
    static void InitializeMechanism(pthread_mutex_t& mutex);

private:
    pthread_mutex_t& mMutex;
};
