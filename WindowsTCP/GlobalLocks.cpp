#include "GlobalLocks.h"

#include "SharedLockOpen.h"

#include <Base/Mutex.h>
#include <VellDevice/VellDevice.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <map>
#include <system_error>
#include <thread>

namespace {

// The lock files that this process holds exclusively, so that its exit can tell its own from other
// processes'. Leaked on purpose: a thread may look while the process ends.
struct HeldFiles {
    Base::Mutex lock; // a file is removed under it, and only while it is among the paths
    std::map<int, std::string> paths GUARDED_BY(lock); // by descriptor
};

HeldFiles& heldFiles() {
    static auto* const files = new HeldFiles;
    return *files;
}

// Whether `path` still names the file that `fd` has open.
bool namesOpenFile(const std::string& path, int fd) {
    struct stat opened {};
    struct stat named {};
    return fstat(fd, &opened) == 0 && lstat(path.c_str(), &named) == 0 && opened.st_dev == named.st_dev &&
           opened.st_ino == named.st_ino;
}

void removeIfOurs(const std::string& path, int fd) {
    if (namesOpenFile(path, fd))
        unlink(path.c_str());
}

bool lockExclusively(int fd, int flags = 0) {
    int result = 0;
    do {
        result = flock(fd, LOCK_EX | flags);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

// The whole of a release: the file goes while its lock is still held, so nobody can lock it and lose it.
void release(int& fd, bool& locked, const std::string& path) {
    if (locked) {
        {
            const Base::Lock guard(heldFiles().lock);
            removeIfOurs(path, fd);
            heldFiles().paths.erase(fd);
        }
        flock(fd, LOCK_UN);
    }
    if (fd > 0)
        close(fd);
    fd = 0;
    locked = false;
}

void remember(int fd, const std::string& path) {
    const Base::Lock guard(heldFiles().lock);
    heldFiles().paths.emplace(fd, path);
}

// Whether what stands at `path` can never be opened as a lock file (a link, a folder, a pipe). A regular file
// is never broken: a process may hold it.
bool isNoLockFile(const std::string& path) {
    struct stat named {};
    return lstat(path.c_str(), &named) == 0 && !S_ISREG(named.st_mode);
}

// The process that holds a flock lock on the file, as the kernel lists it; 0 when it does not tell.
int holderOf(const struct stat& file) {
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);) {
        int process = 0;
        unsigned long inode = 0;
        if (std::sscanf(line.c_str(), "%*d: FLOCK %*s %*s %d %*x:%*x:%lu", &process, &inode) == 2 &&
            inode == file.st_ino && process != getpid())
            return process;
    }
    return 0;
}

// What stands in the way at a lock file's path, for people.
std::string obstacleAt(const std::string& path) {
    struct stat named {};
    if (lstat(path.c_str(), &named) != 0)
        return "it cannot be made";
    const std::string owner = " of user " + std::to_string(named.st_uid);
    if (!S_ISREG(named.st_mode))
        return (S_ISLNK(named.st_mode)    ? "a link"
                : S_ISDIR(named.st_mode)  ? "a folder"
                : S_ISFIFO(named.st_mode) ? "a pipe"
                                          : "no regular file") +
               owner;
    if (access(path.c_str(), R_OK) != 0)
        return "a file that cannot be read," + owner;
    const int holder = holderOf(named);
    return "a file" + owner + ", held by " + (holder != 0 ? "process " + std::to_string(holder) : "somebody");
}

// Says in the log what a lock waits for: first after 10 seconds, and then after pauses that double. On a
// thread of its own, since the waits are the kernel's.
class WaitReport {
public:
    WaitReport(const char* lock, const std::string& path) : mLock(lock), mPath(path) {
        try {
            mThread = std::thread([this] { run(); });
        } catch (const std::system_error&) {
            // For want of threads the wait goes unreported.
        }
    }
    ~WaitReport() {
        {
            const Base::Lock lock(mMutex);
            mIsOver = true;
        }
        mChanged.notifyAll();
        if (mThread.joinable())
            mThread.join();
    }
    WaitReport(const WaitReport&) = delete;
    WaitReport& operator=(const WaitReport&) = delete;

private:
    void run() {
        const Base::Lock lock(mMutex);
        for (std::chrono::seconds pause{10};; pause *= 2) {
            const auto end = std::chrono::steady_clock::now() + pause;
            while (!mIsOver && mChanged.waitUntil(mMutex, end)) {
            }
            if (mIsOver)
                return;
            VellLogError("[%s] - waiting for %s: %s\n", mLock, mPath.c_str(), obstacleAt(mPath).c_str());
        }
    }

    const char* const mLock;
    const std::string mPath;
    Base::Mutex mMutex;
    Base::Condition mChanged;
    bool mIsOver GUARDED_BY(mMutex) = false;
    std::thread mThread;
};

} // namespace

// --- GlobalLock

void GlobalLock::EncodeMutexNameForPlatform(const std::string& name, std::string& out) {
    const VellStringRef string = VellStringCreateWithCStringUsingEncoding(name.c_str(), 0);
    char path[1024] = {};
    std::snprintf(path, sizeof path, "/tmp/%d",
                  static_cast<int>(static_cast<std::int32_t>(VellHash(string))));
    VellRelease(string);
    out = path;
    VellLogInfo("[GlobalLock] - lock name for '%s' is '%s'\n", name.c_str(), out.c_str());
}

GlobalLock::GlobalLock(const std::string& name) {
    EncodeMutexNameForPlatform(name, mName);
    VellLogDebug("Trying to open mutex...\n");
    const WaitReport report("GlobalLock", mName);
    int failures = 0;
    for (;;) {
        mFd = OpenWithSharedLock(mName.c_str());
        if (mFd <= 0) {
            mFd = 0;
            sleep(1);
            if (++failures % 30 == 0) {
                VellLogInfo("[GlobalLock] - waited too long, trying to break lock\n");
                if (isNoLockFile(mName))
                    unlink(mName.c_str());
            }
            continue;
        }
        failures = 0;
        if (!lockExclusively(mFd)) {
            VellLogDebug("Could not obtain the mutex, but failed miserably!\n");
            return;
        }
        if (namesOpenFile(mName, mFd))
            break;
        close(mFd); // the one before us removed it: a newcomer may hold its successor
        mFd = 0;
    }
    mLocked = true;
    remember(mFd, mName);
    VellLogDebug("Obtained the mutex named %s\n", mName.c_str());
}

GlobalLock::~GlobalLock() {
    release(mFd, mLocked, mName);
}

void GlobalLock::RemoveFile(const std::string& path) {
    {
        const Base::Lock guard(heldFiles().lock);
        for (const auto& [held, itsPath] : heldFiles().paths) {
            if (itsPath == path) {
                removeIfOurs(path, held);
                return;
            }
        }
    }
    struct stat named {};
    if (lstat(path.c_str(), &named) != 0 || !S_ISREG(named.st_mode))
        return;
    // Without OpenWithSharedLock: that would wait for a holder, and make a file that is not there.
    const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return;
    if (lockExclusively(fd, LOCK_NB) && namesOpenFile(path, fd))
        unlink(path.c_str());
    close(fd);
}

void GlobalLock::RemoveHeldFiles() {
    const Base::Lock guard(heldFiles().lock);
    for (const auto& [held, path] : heldFiles().paths)
        removeIfOurs(path, held);
}

// --- GlobalDeviceLock

void GlobalDeviceLock::EncodeMutexNameForPlatform(const std::string& name, std::string& out) {
    std::string path = "/tmp/";
    for (const char character : name) {
        if (character == '/' || character == ':' || character == '@')
            path += '_';
        else
            path += static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    }
    out = path;
}

GlobalDeviceLock::GlobalDeviceLock(const std::string& name) {
    EncodeMutexNameForPlatform(name, mName);
    VellLogRuntime("Creating the mutex named %s\n", mName.c_str());
    const CFAbsoluteTime start = CFAbsoluteTimeGetCurrent();
    const WaitReport report("GlobalDeviceLock", mName);
    for (;;) {
        VellLogRuntime("Trying to open mutex...\n");
        mFd = OpenWithSharedLock(mName.c_str());
        if (mFd <= 0) {
            const int error = errno;
            mFd = 0;
            VellLogError("Unable to create a mutex with error: %d\n", error);
            if (CFAbsoluteTimeGetCurrent() - start > 30.0) {
                VellLogError("Timedout trying to get mutex, will not launch this device\n");
                VellLogError("Unable to create a mutex with error: %d\n", error);
                return;
            }
            sleep(1);
            continue;
        }
        VellLogRuntime("Mutex is opened, now lets get a lock to it\n");
        if (!lockExclusively(mFd)) {
            VellLogError("Unable to create a mutex, flock failed with error: %d\n", errno);
            return;
        }
        if (namesOpenFile(mName, mFd))
            break;
        close(mFd);
        mFd = 0;
    }
    mLocked = true;
    remember(mFd, mName);
    VellLogRuntime("--- [OK] => Obtained the mutex named %s\n", mName.c_str());
}

GlobalDeviceLock::~GlobalDeviceLock() {
    release(mFd, mLocked, mName);
}
