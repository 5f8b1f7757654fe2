#include "Locks.h"

ThreadLock::ThreadLock(PthreadMutex& mutex) : mMutex(mutex) {
    pthread_mutex_lock(&mMutex);
}

ThreadLock::~ThreadLock() {
    pthread_mutex_unlock(&mMutex);
}

void ThreadLock::InitializeMechanism(pthread_mutex_t& mutex) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}
