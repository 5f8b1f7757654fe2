// What a compiler that understands locks (clang's -Wthread-safety) checks, and others pass over: which mutex
// guards a field, what a function needs, takes and gives back, and in which order mutexes are taken.
// Constructors and destructors are not checked: nobody shares an object that is being made.
#pragma once

#if defined(__clang__)
#define THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define THREAD_SAFETY(attribute)
#endif

// A class whose objects are held, and one whose objects hold one for the life of a block.
#define CAPABILITY(name) THREAD_SAFETY(capability(name))
#define SCOPED_CAPABILITY THREAD_SAFETY(scoped_lockable)

// A field is read and written with the mutex held only; what a pointer points to.
#define GUARDED_BY(mutex) THREAD_SAFETY(guarded_by(mutex))
#define PT_GUARDED_BY(mutex) THREAD_SAFETY(pt_guarded_by(mutex))
// The order, where two are held at once.
#define ACQUIRED_BEFORE(...) THREAD_SAFETY(acquired_before(__VA_ARGS__))

// Whoever calls the function holds the mutex; does not hold it.
#define REQUIRES(...) THREAD_SAFETY(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) THREAD_SAFETY(locks_excluded(__VA_ARGS__))
// The function takes it and returns with it held; gives it back.
#define ACQUIRE(...) THREAD_SAFETY(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) THREAD_SAFETY(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) THREAD_SAFETY(release_capability(__VA_ARGS__))
// The function answers with the mutex of this name.
#define RETURN_CAPABILITY(mutex) THREAD_SAFETY(lock_returned(mutex))
// For what the analysis cannot follow; with the reason beside it.
#define NO_THREAD_SAFETY_ANALYSIS THREAD_SAFETY(no_thread_safety_analysis)
