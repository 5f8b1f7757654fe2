// Locks between processes: files in /tmp, held with flock(2).
//
// A file exists while somebody holds or waits for its lock and is removed on release. Because of that a lock
// counts only when, after it was obtained, the path still names the file that was locked; whoever finds
// another file there starts over. And a file is removed only by a process that holds its lock. Together these
// two rules keep exclusion whole, whatever is released, removed or created meanwhile. flock locks belong to
// the open file, so those of a process that dies are free at once.
//
// A wait of 10 seconds is an error line in the log, which names the path and what stands in the way, and so
// is every doubling of that.
//
// Threads: an object is used by one thread; different objects, in one process too, exclude each other like
// those of different processes.
#pragma once

#include <string>

// One instrument: held while a process attaches the device of a path. Waits as long as it takes.
class GlobalLock {
public:
    // `out` = the lock file's path: "/tmp/" and the service's hash of the name as a signed decimal.
    static void EncodeMutexNameForPlatform(const std::string& name, std::string& out);

    explicit GlobalLock(const std::string& name);
    ~GlobalLock();
    GlobalLock(const GlobalLock&) = delete;
    GlobalLock& operator=(const GlobalLock&) = delete;

    // Removes a lock file by its path, for a process that is about to end without running destructors. Only
    // when this process holds the lock or nobody does; a file that somebody else holds stays theirs. Any
    // thread.
    static void RemoveFile(const std::string& path);
    // The same for all that this process holds, locks of families included.
    static void RemoveHeldFiles();

    int mFd = 0;          // of the open lock file; 0 when none
    bool mLocked = false; // the exclusive lock is held
    std::string mName;    // path of the lock file
};

// A family of instruments: held while one of them connects. Gives up after 30 seconds in which the file could
// not be opened; `mLocked` tells the outcome.
class GlobalDeviceLock {
public:
    // `out` = the lock file's path: "/tmp/" and the name in lower case, with "_" for "/", ":" and "@".
    static void EncodeMutexNameForPlatform(const std::string& name, std::string& out);

    explicit GlobalDeviceLock(const std::string& name);
    ~GlobalDeviceLock();
    GlobalDeviceLock(const GlobalDeviceLock&) = delete;
    GlobalDeviceLock& operator=(const GlobalDeviceLock&) = delete;

    int mFd = 0;
    bool mLocked = false;
    std::string mName;
};
